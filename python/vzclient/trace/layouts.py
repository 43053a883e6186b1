"""The layouts of values and alarm records: bytes on the wire made words."""

import datetime
import struct
from typing import Dict, Tuple

from . import words

_ARRAY_DEPTH = 8


class Misfit(Exception):
    """Bytes that fit no layout. Its text says why; ``secret`` ones are counted, not shown."""

    def __init__(self, reason: str, secret: bool = False) -> None:
        super().__init__(reason)
        self.secret = secret


class Cut(Exception):
    """The bytes at hand end before the value does."""


def u16(data: bytes, at: int) -> int:
    return int.from_bytes(data[at:at + 2], "little")


def unscramble(wire: bytes) -> bytes:
    """The plain bytes of ``wire``, also of one that has not come to its end.

    Groups of four: k, a + k, b - k, c XOR k, modulo 256; the last one may be shorter.
    """
    plain = bytearray()
    for at, byte in enumerate(wire):
        place = at % 4
        if place == 0:
            key = byte
        else:
            plain.append((byte - key) & 0xFF if place == 1 else
                         (byte + key) & 0xFF if place == 2 else byte ^ key)
    return bytes(plain)


def scrambled(plain: int) -> int:
    """Bytes on the wire of so many plain ones."""
    groups, rest = divmod(plain, 3)
    return 4 * groups + (rest + 1 if rest else 0)


TEXT, ARRAY = 8, 8192
NUMBERS = {
    2: ("i16", "<h"), 3: ("i32", "<i"), 4: ("f32", "<f"), 5: ("f64", "<d"), 7: ("date", "<d"),
    11: ("bool", "<?"), 16: ("u8", "<B"), 17: ("u8", "<B"), 18: ("u16", "<H"), 19: ("u32", "<I"),
    20: ("i64", "<q"), 22: ("i32", "<i"), 23: ("u32", "<I"),
}  # type: Dict[int, Tuple[str, str]]
_BARE = {0: "empty", 1: "null"}


def _single(value: float) -> str:
    """The shortest decimal number of a 32-bit float."""
    for digits in range(6, 9):
        text = "%.*g" % (digits, value)
        try:
            if struct.pack("<f", float(text)) == struct.pack("<f", value):
                return text
        except OverflowError:  # rounded up beyond the largest
            continue
    return "%.9g" % value


def _date(days: float) -> str:
    """Days since 1899-12-30 of local time."""
    try:
        moment = datetime.datetime(1899, 12, 30) + datetime.timedelta(
            milliseconds=round(days * 86400000))
    except (ValueError, OverflowError):
        return "%r days" % days
    return moment.isoformat(" ", "milliseconds" if moment.microsecond else "seconds")


def value(data: bytes, at: int, code: int, depth: int = 0) -> Tuple[str, int]:
    """The value of type ``code`` at offset ``at`` in words, and the offset behind it.

    Raises Cut when the bytes end before it does, Misfit for arrays within arrays too deep.
    """
    if code == TEXT:
        end = data.find(b"\0", at)
        if end < 0:
            raise Cut()
        return "text " + words.quote(data[at:end], "utf-8"), end + 1
    if code == ARRAY:
        return _array(data, at, depth)
    if code not in NUMBERS:
        return _BARE.get(code, "type %d" % code), at
    name, layout = NUMBERS[code]
    end = at + struct.calcsize(layout)
    if end > len(data):
        raise Cut()
    number = struct.unpack(layout, data[at:end])[0]
    if name == "bool":
        return "bool true" if number else "bool false", end
    if name == "f32":
        return "f32 " + _single(number), end
    return "%s %s" % (name, _date(number) if name == "date" else repr(number)), end


def coded(data: bytes, at: int, depth: int = 0) -> Tuple[str, int, int]:
    """As value, for a value behind its type code, which comes last in the result."""
    if at + 2 > len(data):
        raise Cut()
    code = u16(data, at)
    return value(data, at + 2, code, depth) + (code,)


def _array(data: bytes, at: int, depth: int) -> Tuple[str, int]:
    if depth == _ARRAY_DEPTH:
        raise Misfit("arrays within arrays")
    if at + 2 > len(data):
        raise Cut()
    count = u16(data, at)
    at += 2
    items = []
    for _ in range(count):
        text, at, _code = coded(data, at, depth + 1)
        items.append(text)
    return "array [%s]" % words.listed(items, count), at


ALARM = struct.Struct("<IIHHHBBdd")


def alarm(record: bytes) -> str:
    raised, event, tag, kind, group, level, status, value, limit = ALARM.unpack(record)
    text = "kind %d tag %d group %d level %d status %d value %r limit %r at %s" % (
        kind, tag, group, level, status, value, limit, words.moment(raised))
    return text + (" event " + words.moment(event) if event else "")
