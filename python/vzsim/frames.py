"""The records and frames a server sends: login replies, lookup, value chunks, pushes, alarms.

Integers are little-endian and packed without padding unless a function says otherwise.
"""

import struct
from typing import Iterable, List, NamedTuple, Sequence, Tuple

MAX_CHUNK = 4096   # body bytes of one chunk of a read or subscription reply
MAX_SEND = 2048    # bytes of one send on a notification channel
UNKNOWN_TAG = 0xFFFF
SYSTEM_FRAME = 0xFFFF
LOGIN_RECORD_HEAD = 42  # bytes of the login record that no client interprets

Alarm = NamedTuple("Alarm", [
    ("almtm", int), ("evttm", int), ("tid", int), ("type", int), ("grp", int), ("level", int),
    ("status", int), ("value", float), ("limit", float)])
Alarm.__doc__ = """One alarm: times in seconds since 1970 (evttm 0: none), list indexes, figures."""
_ALARM = struct.Struct("<IIHHHBBdd")


def encode_alarm(alarm: Alarm) -> bytes:
    """The 32 bytes of an alarm record; ValueError when a field does not fit."""
    try:
        return _ALARM.pack(*alarm)
    except (struct.error, TypeError) as error:
        raise ValueError("bad alarm %r: %s" % (alarm, error))


def decode_alarm(data: bytes) -> Alarm:
    """The alarm of exactly 32 bytes; ValueError otherwise."""
    if len(data) != _ALARM.size:
        raise ValueError("an alarm record has 32 bytes, not %d" % len(data))
    return Alarm(*_ALARM.unpack(data))


def alarm_frame(alarm: Alarm, frame_type: int = 1) -> bytes:
    """A notification frame (35 bytes) of type 1 or 3 that carries the alarm."""
    return struct.pack("<HB", SYSTEM_FRAME, frame_type) + encode_alarm(alarm)


def alarm_list(alarms: Sequence[Alarm]) -> bytes:
    """The reply to an alarm subscription: 'n', u16 count, the active alarms."""
    return struct.pack("<cH", b"n", len(alarms)) + b"".join(map(encode_alarm, alarms))


def change_frame(driver: int, tag: int, payload: bytes) -> bytes:
    """A tag change: u16 driver id, u16 tag id, the value without its type code."""
    return struct.pack("<HH", driver, tag) + payload


def pack_sends(frames: Iterable[bytes], limit: int = MAX_SEND) -> List[bytes]:
    """Join whole frames, in order, into as few sends of at most ``limit`` bytes as possible.

    A frame longer than the limit cannot be delivered whole and is left out.
    """
    sends = []
    current = bytearray()
    for frame in frames:
        if len(frame) > limit:
            continue
        if len(current) + len(frame) > limit:
            sends.append(bytes(current))
            current = bytearray()
        current += frame
    if current:
        sends.append(bytes(current))
    return sends


def receive_reply(project: bytes, title: bytes, dif_time: int, dif_size: int) -> bytes:
    """The plain reply to the notification hello; it goes out scrambled as a whole.

    '8', 42 bytes of server data (zero here), four big-endian u32: time and size of the file
    index (zero here) and of the driver information file; then project name and title, each
    with a NUL.
    """
    return (b"8" + bytes(LOGIN_RECORD_HEAD) + struct.pack(">IIII", 0, 0, dif_time, dif_size)
            + project + b"\0" + title + b"\0")


def redirect_reply(address: bytes, port: int) -> bytes:
    """'7', "lan", the IPv4 address in network order (4 bytes), the port big-endian."""
    return b"7lan" + address + struct.pack(">H", port)


def login_reply(rights: int) -> bytes:
    """'9', four bytes no client reads, u32 rights."""
    return b"9" + bytes(4) + struct.pack("<I", rights)


def paths_reply(paths: Sequence[bytes]) -> bytes:
    """'3' and the project, event, alarm and history paths, each with a NUL."""
    return b"3" + b"".join(path + b"\0" for path in paths)


def lookup_reply(found: Iterable[Tuple[int, int]]) -> bytes:
    """'L' and per name u16 tag id (0xFFFF: unknown) and u16 type code (0 when unknown)."""
    return b"L" + b"".join(struct.pack("<HH", tag, vt) for tag, vt in found)


def value_chunks(encoded: Iterable[Tuple[bytes, bool]], limit: int = MAX_CHUNK) -> List[bytes]:
    """Join encoded values into chunk bodies of at most ``limit`` bytes, cut between values.

    Each item is (bytes, whether it ends its chunk): a reader cannot step over an array, so
    nothing may follow one. There is always at least one chunk. ValueError for a value over
    the limit.
    """
    chunks = []
    current = bytearray()
    for value, ends_chunk in encoded:
        if len(value) > limit:
            raise ValueError("a value of %d bytes does not fit into a chunk" % len(value))
        if len(current) + len(value) > limit:
            chunks.append(bytes(current))
            current = bytearray()
        current += value
        if ends_chunk:
            chunks.append(bytes(current))
            current = bytearray()
    if current or not chunks:
        chunks.append(bytes(current))
    return chunks


def subscribe_reply(chunks: Iterable[bytes]) -> bytes:
    """Per chunk 'b', u16 length, body."""
    return b"".join(struct.pack("<cH", b"b", len(chunk)) + chunk for chunk in chunks)


def read_reply(chunks: Sequence[bytes]) -> bytes:
    """Per chunk 'H', 1 when another follows else 0, u16 length, body."""
    last = len(chunks) - 1
    return b"".join(struct.pack("<cBH", b"H", 1 if i < last else 0, len(chunk)) + chunk
                    for i, chunk in enumerate(chunks))
