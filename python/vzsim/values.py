"""Tag values: their type codes, their bytes on the wire, and conversion between types.

On the wire a value is an optional 16-bit little-endian type code and a payload of a width that
is fixed per type; a text is its bytes and one NUL. There is no length field and no padding.
"""

import datetime
import math
import struct
from typing import Any, Dict, List, Optional, Tuple

EMPTY, NULL, I2, I4, R4, R8, CY, DATE, STR = range(9)
BOOL = 11
I1, UI1, UI2, UI4, I8, UI8, INT, UINT = range(16, 24)
ARRAY = 8192

TYPE_CODES = {
    "empty": EMPTY, "null": NULL, "i2": I2, "i4": I4, "r4": R4, "r8": R8, "cy": CY, "date": DATE,
    "str": STR, "bool": BOOL, "i1": I1, "ui1": UI1, "ui2": UI2, "ui4": UI4, "i8": I8, "ui8": UI8,
    "int": INT, "uint": UINT, "array": ARRAY,
}  # type: Dict[str, int]
TYPE_NAMES = {code: name for name, code in TYPE_CODES.items()}  # type: Dict[int, str]

_FORMATS = {
    I2: "<h", I4: "<i", R4: "<f", R8: "<d", DATE: "<d", BOOL: "<B", I1: "<b", UI1: "<B",
    UI2: "<H", UI4: "<I", I8: "<q", INT: "<i", UINT: "<I",
}
_PACKERS = {vt: struct.Struct(form) for vt, form in _FORMATS.items()}

INT_RANGES = {
    I2: (-2 ** 15, 2 ** 15 - 1), I4: (-2 ** 31, 2 ** 31 - 1), I1: (-128, 127), UI1: (0, 255),
    UI2: (0, 2 ** 16 - 1), UI4: (0, 2 ** 32 - 1), I8: (-2 ** 63, 2 ** 63 - 1),
    INT: (-2 ** 31, 2 ** 31 - 1), UINT: (0, 2 ** 32 - 1),
}  # type: Dict[int, Tuple[int, int]]

MAX_ENCODED = 4096  # the largest encoded value that still fits into one reply chunk
_DATE_EPOCH = datetime.datetime(1899, 12, 30)


class Truncated(Exception):
    """The bytes at hand end before the value does."""


def has_payload(vt: int) -> bool:
    """Whether values of this type carry bytes besides their type code and can be pushed."""
    return vt in _PACKERS or vt == STR


def encode_payload(vt: int, value: Any) -> bytes:
    """Return the payload bytes of ``value`` as type ``vt``, without the type code.

    ``value`` must already suit the type (see ``coerce``). A type without payload gives b"".
    Raises ValueError for a value that does not fit.
    """
    if vt == STR:
        text = value if isinstance(value, bytes) else str(value).encode("utf-8")
        if b"\0" in text:
            raise ValueError("a text value cannot hold a NUL")
        return text + b"\0"
    if vt == ARRAY:
        return struct.pack("<H", len(value)) + b"".join(
            encode(*_element(item)) for item in value)
    packer = _PACKERS.get(vt)
    if packer is None:
        return b""
    try:
        return packer.pack(1 if vt == BOOL and value else value)
    except (struct.error, OverflowError, TypeError) as error:
        raise ValueError("%r is no %s value: %s" % (value, TYPE_NAMES[vt], error))


def encode(vt: int, value: Any) -> bytes:
    """Return the type code and the payload of ``value`` as type ``vt``."""
    return struct.pack("<H", vt) + encode_payload(vt, value)


def _element(item: Any) -> Tuple[int, Any]:
    """The type an element of an array takes on the wire, from its Python type."""
    if isinstance(item, bool):
        return BOOL, item
    if isinstance(item, int):
        return I4, item
    if isinstance(item, float):
        return R8, item
    if isinstance(item, (str, bytes)):
        return STR, item
    raise ValueError("%r cannot be an array element" % (item,))


def decode(data: bytes, offset: int = 0, vt: Optional[int] = None) -> Tuple[int, Any, int]:
    """Decode one value of ``data`` at ``offset``.

    With ``vt`` None the type code is read first. Returns (type code, value, offset behind it);
    texts are returned as bytes, types without payload as None, arrays as a list of
    (type code, value). Raises Truncated when the bytes end too early.
    """
    if vt is None:
        if offset + 2 > len(data):
            raise Truncated()
        vt = struct.unpack_from("<H", data, offset)[0]
        offset += 2
    if vt == STR:
        end = data.find(b"\0", offset)
        if end < 0:
            raise Truncated()
        return vt, bytes(data[offset:end]), end + 1
    if vt == ARRAY:
        return _decode_array(data, offset)
    packer = _PACKERS.get(vt)
    if packer is None:
        return vt, None, offset
    if offset + packer.size > len(data):
        raise Truncated()
    value = packer.unpack_from(data, offset)[0]
    return vt, (value != 0 if vt == BOOL else value), offset + packer.size


def _decode_array(data: bytes, offset: int) -> Tuple[int, Any, int]:
    if offset + 2 > len(data):
        raise Truncated()
    count = struct.unpack_from("<H", data, offset)[0]
    offset += 2
    if count * 2 > len(data) - offset:  # every element has at least its type code
        raise Truncated()
    items = []  # type: List[Tuple[int, Any]]
    for _ in range(count):
        element_type, value, offset = decode(data, offset)
        items.append((element_type, value))
    return ARRAY, items, offset


def date_of_text(text: str) -> float:
    """Days since 1899-12-30 of "YYYY-MM-DD" or "YYYY-MM-DD HH:MM:SS"; ValueError otherwise."""
    for form in ("%Y-%m-%d %H:%M:%S", "%Y-%m-%d"):
        try:
            since = datetime.datetime.strptime(text, form) - _DATE_EPOCH
        except ValueError:
            continue
        return since.days + since.seconds / 86400.0
    raise ValueError("%r is no date (YYYY-MM-DD HH:MM:SS)" % text)


def coerce(vt: int, value: Any, clamp: bool = False) -> Any:
    """Return ``value`` as a tag of type ``vt`` holds it.

    Numbers are rounded to whole ones for the integer types, texts are parsed for numeric types,
    numbers become text for a text tag. With ``clamp`` a number out of range is brought to the
    nearest limit, otherwise it is a ValueError, as is everything that has no sensible meaning.
    """
    if vt == STR:
        return value if isinstance(value, (str, bytes)) else str(value)
    if vt == ARRAY:
        if not isinstance(value, (list, tuple)):
            raise ValueError("%r is no list" % (value,))
        return list(value)
    if vt not in _PACKERS:
        return None
    if vt == DATE and isinstance(value, str):
        return date_of_text(value)
    number = _number(value)
    if vt == BOOL:
        return bool(number)
    if vt in (R8, DATE):
        return float(number)
    if vt == R4:
        return _single(float(number), clamp)
    return _whole(vt, number, clamp)


def _number(value: Any) -> Any:
    if isinstance(value, (bool, int, float)):
        return value
    text = value.decode("utf-8", "replace") if isinstance(value, bytes) else value
    if not isinstance(text, str):
        raise ValueError("%r is no number" % (value,))
    try:
        return int(text)
    except ValueError:
        return float(text)


def _single(number: float, clamp: bool) -> float:
    """``number`` as a 32-bit float holds it."""
    try:
        return struct.unpack("<f", struct.pack("<f", number))[0]
    except OverflowError:
        if not clamp:
            raise ValueError("%r is too large for r4" % number)
        return math.copysign(3.4028234663852886e38, number)


def _whole(vt: int, number: Any, clamp: bool) -> int:
    """``number`` rounded to a whole one within the range of integer type ``vt``."""
    if isinstance(number, float) and not math.isfinite(number):
        raise ValueError("%r is no whole number" % number)
    whole = int(round(number))
    low, high = INT_RANGES[vt]
    if low <= whole <= high:
        return whole
    if not clamp:
        raise ValueError("%d is out of range for %s" % (whole, TYPE_NAMES[vt]))
    return low if whole < low else high
