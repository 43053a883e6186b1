"""Texts, times and lists made readable, each cut to a bearable length."""

import time
from typing import Iterable, List

LIST_ITEMS = 20       # items of a list that are shown,
_LIST_BYTES = 3500    # and their bytes at most
_TEXT_CHARACTERS = 80
HEX_BYTES = 64


def clock(when: float) -> str:
    """Local time of day of seconds since 1970, with milliseconds."""
    try:
        seconds, milliseconds = divmod(int(round(when * 1000)), 1000)
        return time.strftime("%H:%M:%S", time.localtime(seconds)) + ".%03d" % milliseconds
    except (ValueError, OverflowError, OSError, TypeError):
        return "--:--:--.---"


def moment(seconds: int) -> str:
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds))


def visible(text: str) -> str:
    """``text`` cut to a bearable length, with escapes for what no terminal should get."""
    shown = []
    for character in text[:_TEXT_CHARACTERS]:
        if 0xDC80 <= ord(character) <= 0xDCFF:
            shown.append("\\x%02x" % (ord(character) - 0xDC00))  # a byte that is no text
        elif character.isprintable():
            shown.append(character)
        else:
            shown.append(character.encode("unicode_escape").decode("ascii"))
    return "".join(shown) + ("..." if len(text) > _TEXT_CHARACTERS else "")


def text(data: bytes, encoding: str = "gb2312") -> str:
    head = data[:4 * _TEXT_CHARACTERS + 4]  # no character has more than four bytes
    return head.decode(encoding, "surrogateescape")


def quoted(text: str) -> str:
    return '"%s"' % visible(text).replace('"', '\\"')


def quote(data: bytes, encoding: str = "gb2312") -> str:
    return quoted(text(data, encoding))


def hex(data: bytes, total: int) -> str:
    """The first of ``total`` bytes, of which ``data`` are at hand."""
    shown = " ".join("%02X" % byte for byte in data[:HEX_BYTES])
    more = total - min(len(data), HEX_BYTES)
    return shown + (" ... and %d more" % more if more else "")


def count(number: int, what: str) -> str:
    return "%d %s%s" % (number, what, "" if number == 1 else "s")


def listed(items: Iterable[str], total: int, separator: str = ", ") -> str:
    """The first of ``total`` items, and how many more there are."""
    shown = []  # type: List[str]
    size = 0
    for item in items:
        size += len(item.encode("utf-8", "replace")) + len(separator)
        if len(shown) == LIST_ITEMS or size > _LIST_BYTES:
            break
        shown.append(item)
    more = ["... and %d more" % (total - len(shown))] if total > len(shown) else []
    return separator.join(shown) + (" " if shown and more else "") + "".join(more)
