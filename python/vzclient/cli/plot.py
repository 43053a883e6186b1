"""Trends of tags that are drawn anew in place on a terminal, one panel above the other.

    with Plot(["Boiler/Temp", "Boiler/Level"], sys.stdout, seconds=60) as plot:
        plot.add("Boiler/Temp", 81.5, change.time)
        plot.draw()     # whenever it suits, some times a second

A panel is a line with name, least, greatest and last value, and a graph in braille dots of what
the tag was in the last seconds, the present at the right. A value holds until the next; a rise or
fall within one column of dots is a vertical line. NaN, infinite and text values leave gaps. Where
dots cannot be drawn, each value is a line of its own instead.
"""

import codecs
import datetime
import math
import os
import shutil
from collections import deque
from types import TracebackType
from typing import Callable, Deque, Dict, List, Optional, Sequence, TextIO, Tuple, Type

from .output import cut, put, show, visible

MAX_POINTS = 10000      # of a tag; the oldest go first
_MAX_GRAPH_LINES = 8    # of a panel
_DOTS = ((0x01, 0x02, 0x04, 0x40), (0x08, 0x10, 0x20, 0x80))  # left and right, from the top

_Span = Optional[Tuple[float, float]]


def can_draw(stream: TextIO) -> bool:
    """Whether ``stream`` is a terminal that moves its cursor and shows braille."""
    try:
        utf8 = codecs.lookup(stream.encoding or "").name == "utf-8"
    except LookupError:
        return False
    return utf8 and stream.isatty() and os.environ.get("TERM", "dumb") != "dumb"


class Plot:
    """The trends of some tags. One thread at a time. A context that closes the plot.

    tags: names, in the order of the panels. stream: borrowed. seconds: of the time axis.
    size: gives columns and lines of the terminal, asked for every drawing.
    """

    def __init__(self, tags: Sequence[str], stream: TextIO, seconds: float = 60.0,
                 size: Callable[[], os.terminal_size] = shutil.get_terminal_size) -> None:
        self._trends = {tag: _Trend() for tag in tags}  # type: Dict[str, _Trend]
        self._stream = stream
        self._seconds = seconds
        self._size = size
        self._drawn = 0  # lines above the cursor that are ours
        self._drawn_size = os.terminal_size((0, 0))
        self.draws = can_draw(stream)

    def add(self, tag: str, value: object, when: datetime.datetime) -> None:
        """Note a value of one of the tags (KeyError for another), or write it when ``draws`` is
        false."""
        trend = self._trends[tag]
        if self.draws:
            trend.add(value, when.timestamp())
            return
        put(self._stream, "%s %s %s\n" % (show(when), visible(tag), show(value)))
        self._stream.flush()

    def draw(self, now: Optional[datetime.datetime] = None) -> None:
        """Draw all panels over those of the last time. now: the right end, else the present."""
        if not self.draws:
            return
        end = (now or datetime.datetime.now(datetime.timezone.utc)).timestamp()
        size = self._size()
        lines = self._panels(max(size.columns - 1, 1), max(size.lines - 1, 1), end)
        back = ""
        if self._drawn and size != self._drawn_size:
            back = "\x1b[2J\x1b[H"  # lines may have been wrapped or pushed out
        elif self._drawn:
            back = "\x1b[%dA" % self._drawn
        self._stream.write(back + "".join(line + "\x1b[K\n" for line in lines) + "\x1b[J")
        self._stream.flush()
        self._drawn, self._drawn_size = len(lines), size

    def close(self) -> None:
        """Leave the last drawing where it is, the cursor below it."""
        self._drawn = 0

    def __enter__(self) -> "Plot":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 where: Optional[TracebackType]) -> None:
        self.close()

    def _panels(self, width: int, height: int, end: float) -> List[str]:
        """At most ``height`` lines: as many panels as have two, and how many more there are."""
        tags = list(self._trends)
        fit = len(tags) if 2 * len(tags) <= height else (height - 1) // 2
        each = height // fit if fit == len(tags) and fit else 2
        lines = []
        for tag in tags[:fit]:
            lines += self._trends[tag].panel(
                tag, width, min(each - 1, _MAX_GRAPH_LINES), end - self._seconds, end)
        if fit < len(tags):
            lines.append(cut("... and %d more" % (len(tags) - fit), width))
        return lines


class _Trend:
    """The values of one tag."""

    def __init__(self) -> None:
        self._points = deque(maxlen=MAX_POINTS)  # type: Deque[Tuple[float, Optional[float]]]
        self._last = None  # type: Optional[object]

    def add(self, value: object, when: float) -> None:
        self._points.append((when, _number(value)))
        self._last = value

    def panel(self, tag: str, width: int, height: int, start: float, end: float) -> List[str]:
        """The panel's line of words and its ``height`` lines of graph."""
        spans = self._spans(2 * width, start, end)
        low = min((span[0] for span in spans if span), default=None)
        high = max((span[1] for span in spans if span), default=None)
        words = visible(tag) + ("  no value yet" if not self._points else "")
        if low is not None and high is not None:
            words += "  min %s  max %s" % (_short(low), _short(high))
        if self._points:
            words += "  last %s" % (
                _short(self._last) if isinstance(self._last, float) else show(self._last))
        return [cut(words, width)] + _graph(spans, low or 0.0, high or 0.0, height)

    def _spans(self, count: int, start: float, end: float) -> List[_Span]:
        """Least and greatest value in each of ``count`` columns of dots; None where there is none.

        The value that holds at the column's beginning counts too.
        """
        spans = []  # type: List[_Span]
        points = iter(self._points)
        following = next(points, None)
        held = None  # type: Optional[float]
        while following and following[0] <= start:
            held = following[1]
            following = next(points, None)
        for number in range(1, count + 1):
            until = start + (end - start) * number / count if number < count else math.inf
            found = [held]
            while following and following[0] < until:
                held = following[1]
                found.append(held)
                following = next(points, None)
            heights = [height for height in found if height is not None]
            spans.append((min(heights), max(heights)) if heights else None)
        return spans


def _number(value: object) -> Optional[float]:
    """The height of a value in a graph; None when it has none."""
    if not isinstance(value, (bool, int, float)):
        return None
    try:
        number = float(value)
    except OverflowError:
        return None
    return number if math.isfinite(number) else None


def _short(value: object) -> str:
    return "%.6g" % value if isinstance(value, float) else show(value)


def _graph(spans: Sequence[_Span], low: float, high: float, height: int) -> List[str]:
    """Lines of braille: two columns of dots in each character, four rows."""
    cells = [[0] * (len(spans) // 2) for _ in range(height)]
    bottom = 4 * height - 1
    for column, span in enumerate(spans):
        if span is None:
            continue
        for row in range(_row(span[1], low, high, bottom), _row(span[0], low, high, bottom) + 1):
            cells[row // 4][column // 2] |= _DOTS[column % 2][row % 4]
    return ["".join(chr(0x2800 + cell) if cell else " " for cell in line).rstrip()
            for line in cells]


def _row(value: float, low: float, high: float, bottom: int) -> int:
    """The row of dots of a value, 0 the top one; in the middle when all are equal."""
    if low == high:
        return (bottom + 1) // 2
    if math.isinf(high - low):  # more than a float can hold
        high, value, low = high / 2, value / 2, low / 2
    return int(round((high - value) / (high - low) * bottom))
