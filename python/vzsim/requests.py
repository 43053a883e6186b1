"""Requests as they arrive: cuts a byte stream into requests and takes each apart.

TCP may deliver a request in pieces or several at once, and only some requests say how long they
are, so ``parse`` is asked again whenever bytes have come and answers "not yet" until it can tell.
"""

import re
import struct
from typing import Any, NamedTuple, Optional, Tuple

from . import scrambler, values
from .files import FileRequest, parse_file_request

MAX_REQUEST = 65536  # no request is longer; more unparsed bytes end the connection

Hello = NamedTuple("Hello", [("guid", bytes), ("mac", bytes), ("server", Optional[bytes])])
Hello.__doc__ = """Login hello: connection id; in the relay form also MAC and server name."""
ReceiveHello = NamedTuple("ReceiveHello", [
    ("guid", bytes), ("host", bytes), ("access_db", int), ("constant", int)])
Login = NamedTuple("Login", [("user", bytes), ("password", bytes)])
Paths = NamedTuple("Paths", [])
Acknowledgement = NamedTuple("Acknowledgement", [("received", int)])
Lookup = NamedTuple("Lookup", [("names", Tuple[Tuple[int, bytes], ...])])
Unadvise = NamedTuple("Unadvise", [("driver", int), ("tag", int)])
Unadvise.__doc__ = """Its 32-bit id is the driver id (low half) and the tag id (high half)."""
Subscribe = NamedTuple("Subscribe", [("tags", Tuple[Tuple[int, int], ...])])
Read = NamedTuple("Read", [("tags", Tuple[Tuple[int, int], ...])])
Write = NamedTuple("Write", [("items", Tuple[Tuple[int, int, int, Any], ...])])
Write.__doc__ = """Items are (driver id, tag id, type code, value)."""
AlarmRequest = NamedTuple("AlarmRequest", [])

Parsed = Optional[Tuple[Any, int]]  # the request and its length; None: not complete yet
_ACKNOWLEDGEMENT = re.compile(rb"4Hello([0-9A-Fa-f]{1,8})\0")
_GUID = 16
_SERVER_AT = 22  # offset of the server name in the relay form: GUID and MAC lie before it


class ProtocolError(Exception):
    """Bytes that no request can begin with: the stream cannot be followed any further."""


def parse(data: bytes, relay: bool = False, drained: bool = True) -> Parsed:
    """Take the first request of ``data``.

    ``relay`` tells that login hellos come in the relay form. ``drained`` tells that no more
    bytes are waiting in the socket: a name lookup has no count and ends where the bytes end.
    Returns (request, its length in bytes), or None when more bytes are needed.
    Raises ProtocolError when the bytes are no request.
    """
    if not data:
        return None
    parser = _PARSERS.get(bytes(data[:1]))
    if parser is None:
        raise ProtocolError("unknown request code 0x%02X" % data[0])
    try:
        parsed = parser(bytes(data), relay, drained)
    except RecursionError:
        raise ProtocolError("arrays within arrays without an end")
    if parsed is None and len(data) >= MAX_REQUEST:
        raise ProtocolError("request without an end")
    return parsed


def _hello(data: bytes, relay: bool, drained: bool) -> Parsed:
    if not relay:
        size = 1 + scrambler.scrambled_length(_GUID)
        if len(data) < size:
            return None
        return Hello(scrambler.unscramble(data[1:size]), b"", None), size
    plain = scrambler.unscramble_prefix(data[1:])
    end = plain.find(b"\0", _SERVER_AT)
    if end < 0:
        return None
    return (Hello(plain[:_GUID], plain[_GUID:_SERVER_AT], plain[_SERVER_AT:end]),
            1 + scrambler.scrambled_length(end + 1))


def _receive_hello(data: bytes, relay: bool, drained: bool) -> Parsed:
    plain = scrambler.unscramble_prefix(data[1:])
    end = plain.find(b"\0", _GUID)
    if end < 0 or len(plain) < end + 3:
        return None
    return (ReceiveHello(plain[:_GUID], plain[_GUID:end], plain[end + 1], plain[end + 2]),
            1 + scrambler.scrambled_length(end + 3))


def _login(data: bytes, relay: bool, drained: bool) -> Parsed:
    user_end = data.find(b"\0", 1)
    end = data.find(b"\0", user_end + 1) if user_end > 0 else -1
    if end < 0:
        return None
    return Login(data[1:user_end], data[user_end + 1:end]), end + 1


def _paths(data: bytes, relay: bool, drained: bool) -> Parsed:
    return Paths(), 1


def _file(data: bytes, relay: bool, drained: bool) -> Parsed:
    acknowledgement = _ACKNOWLEDGEMENT.match(data)
    if acknowledgement:
        return Acknowledgement(int(acknowledgement.group(1), 16)), acknowledgement.end()
    end = data.find(b"\r\n\r\n")
    if end < 0:
        return None
    return parse_file_request(data[1:end]), end + 4


def _lookup(data: bytes, relay: bool, drained: bool) -> Parsed:
    if not drained or len(data) < 4 or data[-1:] != b"\0":
        return None
    names = []
    at = 1
    while at < len(data):
        end = data.find(b"\0", at + 2)
        if end < 0:
            return None
        names.append((struct.unpack_from("<H", data, at)[0], data[at + 2:end]))
        at = end + 1
    return Lookup(tuple(names)), at


def _unadvise(data: bytes, relay: bool, drained: bool) -> Parsed:
    if len(data) < 5:
        return None
    return Unadvise(*struct.unpack_from("<HH", data, 1)), 5


def _subscribe(data: bytes, relay: bool, drained: bool) -> Parsed:
    size = _counted_size(data, 5)
    if size is None:
        return None
    return Subscribe(tuple((driver, tag) for driver, tag, _ in
                           struct.iter_unpack("<HHB", data[3:size]))), size


def _read(data: bytes, relay: bool, drained: bool) -> Parsed:
    size = _counted_size(data, 4)
    if size is None:
        return None
    return Read(tuple(struct.iter_unpack("<HH", data[3:size]))), size


def _counted_size(data: bytes, item: int) -> Optional[int]:
    """Length of a request of code, u16 count and items of ``item`` bytes; None when not here."""
    if len(data) < 3:
        return None
    size = 3 + item * struct.unpack_from("<H", data, 1)[0]
    return size if len(data) >= size else None


def _write(data: bytes, relay: bool, drained: bool) -> Parsed:
    if len(data) < 3:
        return None
    items = []
    at = 3
    try:
        for _ in range(struct.unpack_from("<H", data, 1)[0]):
            if at + 4 > len(data):
                return None
            driver, tag = struct.unpack_from("<HH", data, at)
            vt, value, at = values.decode(data, at + 4)
            items.append((driver, tag, vt, value))
    except values.Truncated:
        return None
    return Write(tuple(items)), at


def _alarms(data: bytes, relay: bool, drained: bool) -> Parsed:
    return AlarmRequest(), 1


_PARSERS = {
    b"7": _hello, b"8": _receive_hello, b"9": _login, b"3": _paths, b"4": _file, b"L": _lookup,
    b"d": _unadvise, b"b": _subscribe, b"H": _read, b"g": _write, b"n": _alarms,
}

CODES = {
    Hello: "7", ReceiveHello: "8", Login: "9", Paths: "3", FileRequest: "4",
    Acknowledgement: "4ack", Lookup: "L", Unadvise: "d", Subscribe: "b", Read: "H", Write: "g",
    AlarmRequest: "n",
}
