"""Project files on the wire: the request's lines, the reply's header, and the generated files."""

import gzip
import struct
from typing import Iterable, List, NamedTuple, Optional, Tuple

FIRST_SPAN = 131072  # bytes of a reply, header included, before the first acknowledgement
SPAN_STEP = 10240    # each later span is shorter by this
LAST_SPAN = 8192     # and never shorter than this
MAX_LIST_LINE = 255  # bytes of a line in a list file
_MAX_NAME_VALUE = 255  # a longer header value would end the header for the client

FileRequest = NamedTuple("FileRequest", [
    ("name", bytes), ("last_time", Optional[int]), ("last_size", Optional[int]),
    ("gz_time", Optional[int]), ("gz_size", Optional[int]), ("hello", bool)])
FileRequest.__doc__ = """What a client asks for and what it already holds (None: no such copy)."""


class ProjectFile:
    """One file a plant offers.

    ``data`` are its bytes, ``mtime`` its time in seconds since 1970. ``gz`` sends the compressed
    form, ``append`` sends only what is behind the client's copy, ``hello`` forces (True) or
    forbids (False) acknowledgements; None asks for them when the reply passes the first span.
    """

    def __init__(self, data: bytes, mtime: int, gz: bool = False, append: bool = False,
                 hello: Optional[bool] = None) -> None:
        self.data = data
        self.mtime = mtime
        self.gz = gz
        self.append = append
        self.hello = hello


def parse_file_request(text: bytes) -> FileRequest:
    """Parse the bytes between the code byte and the end of the blank line.

    The first line is the file's name, the others are name:value lines with hexadecimal times
    and sizes. Unknown lines are ignored; a number that is none counts as absent.
    """
    lines = text.split(b"\r\n")
    held = {}
    for line in lines[1:]:
        name, _, value = line.partition(b":")
        held[name.strip().lower()] = value.strip()
    return FileRequest(
        lines[0], _hex(held.get(b"lasttime")), _hex(held.get(b"size")),
        _hex(held.get(b"gztime")), _hex(held.get(b"gzsize")),
        held.get(b"hello", b"")[:3].lower() == b"yes")


def _hex(text: Optional[bytes]) -> Optional[int]:
    try:
        return None if text is None else int(text, 16)
    except ValueError:
        return None


def file_reply(request: FileRequest, found: Optional[ProjectFile]) -> Tuple[bytes, bool]:
    """Return (header and body, whether acknowledgements are wanted) for a request.

    ``found`` is the file or None when the plant has none of that name.
    """
    if found is None:
        return b"Exist:No\r\n\r\n", False
    data = gzip_bytes(found.data) if found.gz else found.data
    held = ((request.gz_time, request.gz_size) if found.gz
            else (request.last_time, request.last_size))
    if held == (found.mtime, len(data)):
        return b"UseLast:Yes\r\n\r\n", False
    start = 0
    if found.append and not found.gz and request.last_size and request.last_size < len(data):
        start = request.last_size
    body = data[start:]
    lines = [b"Exist:Yes"]
    if len(request.name) <= _MAX_NAME_VALUE:
        lines.append(b"FileName:" + request.name)
    lines.append(b"FileTime:%X" % found.mtime)
    lines.append(b"Size:%X" % len(body))
    if found.gz:
        lines.append(b"GZ:Yes")
    if start:
        lines.append(b"Append:Yes")
    hello = found.hello
    if hello is None:
        hello = sum(map(len, lines)) + 2 * len(lines) + 13 + len(body) > FIRST_SPAN
    if hello and request.hello:
        lines.append(b"Hello:Yes")
    return b"\r\n".join(lines) + b"\r\n\r\n" + body, bool(hello and request.hello)


def gzip_bytes(data: bytes) -> bytes:
    """The compressed form of ``data``; the same bytes every time."""
    out = bytearray(gzip.compress(data))
    out[4:8] = b"\0\0\0\0"  # the time inside would differ from second to second
    return bytes(out)


def acknowledged_spans(length: int) -> List[int]:
    """Cut a reply of ``length`` bytes into the parts between acknowledgements.

    An acknowledgement is due after every part but the last: 131072 bytes first, then 10240
    less each time, never less than 8192.
    """
    spans = []
    span = FIRST_SPAN
    while length > span:
        spans.append(span)
        length -= span
        span = max(span - SPAN_STEP, LAST_SPAN)
    spans.append(length)
    return spans


def driver_info(drivers: Iterable[Tuple[bytes, int, int]]) -> bytes:
    """The driver information file: per driver its name, NUL, id (u16) and tag count (u16)."""
    return b"".join(name + b"\0" + struct.pack("<HH", number, tags)
                    for name, number, tags in drivers)


def list_file(lines: Iterable[bytes]) -> bytes:
    """A list file: one entry per line, each ended by CR LF."""
    return b"".join(line + b"\r\n" for line in lines)
