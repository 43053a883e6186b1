"""Rows of values as text, in the three forms of the command line: table, JSON, CSV.

    with open_writer("table", ("time", "tag", "value"), sys.stdout, live=True) as rows:
        rows.write((change.time, change.tag, change.value))

All three take the same rows. A table is for people: it shows times as local ones and escapes what
a terminal should not get. JSON (one object per line) and CSV are for programs: exact numbers, times
in ISO form with their offset from UTC, texts as they are; "nan", "inf" and "-inf" are texts.
"""

import csv
import datetime
import json
import math
import unicodedata
from abc import ABC, abstractmethod
from types import TracebackType
from typing import Any, Callable, Dict, List, Optional, Sequence, TextIO, Type

FORMATS = ("table", "json", "csv")
_GAP = "  "


def display_width(text: str) -> int:
    """Columns that ``text`` takes on a terminal: wide characters two, combining ones none."""
    return sum(_character_width(character) for character in text)


def _character_width(character: str) -> int:
    if unicodedata.category(character) in ("Mn", "Me", "Cf"):
        return 0
    return 2 if unicodedata.east_asian_width(character) in "WF" else 1


def pad(text: str, width: int) -> str:
    """``text`` with blanks up to ``width`` columns; a wider one as it is."""
    return text + " " * (width - display_width(text))


def cut(text: str, width: int) -> str:
    """As much of ``text`` as fits into ``width`` columns."""
    if display_width(text) <= width:
        return text
    end = taken = 0
    for character in text:
        taken += _character_width(character)
        if taken > width:
            break
        end += 1
    return text[:end]


def visible(text: str) -> str:
    """``text`` with escapes for line ends, control characters and all else that cannot be seen."""
    return "".join(
        character if character.isprintable() else character.encode("unicode_escape").decode("ascii")
        for character in text)


def show(value: object) -> str:
    """A value for people. Times are local, with milliseconds; None is nothing."""
    if isinstance(value, datetime.datetime):
        return _local(value).isoformat(" ", "milliseconds" if value.microsecond else "seconds")
    return visible(plain(value))


def _local(moment: datetime.datetime) -> datetime.datetime:
    """The local time, without its zone, of a moment."""
    try:
        return (moment.astimezone() if moment.tzinfo else moment).replace(tzinfo=None)
    except (ValueError, OverflowError):  # next to the first or last year there is
        return moment


def plain(value: object) -> str:
    """A value as CSV has it."""
    if value is None:
        return ""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int):
        return "%d" % value  # flags and the like as numbers
    if isinstance(value, datetime.datetime):
        return _iso(value)
    if isinstance(value, (list, tuple, dict)):
        return json.dumps(_jsonable(value), ensure_ascii=False)
    return str(value)


def _iso(moment: datetime.datetime) -> str:
    """ISO form with offset; a time that tells no zone is a local one."""
    if moment.tzinfo is None:
        try:
            moment = moment.astimezone()
        except (ValueError, OverflowError):
            pass
    return moment.isoformat()


def _jsonable(value: object) -> Any:
    """``value`` in types that JSON knows."""
    if value is None or isinstance(value, (bool, int, str)):
        return value
    if isinstance(value, float):
        return value if math.isfinite(value) else str(value)
    if isinstance(value, (list, tuple)):
        return [_jsonable(item) for item in value]
    if isinstance(value, dict):
        return {str(key): _jsonable(item) for key, item in value.items()}
    return plain(value)


def put(stream: TextIO, text: str) -> None:
    """Write ``text``; characters that the stream's encoding lacks become escapes."""
    encoding = stream.encoding or "utf-8"
    stream.write(text.encode(encoding, "backslashreplace").decode(encoding))


class Writer(ABC):
    """Writes rows to a stream. One thread at a time. A context that closes the writer.

    columns: the names of the columns, for header and keys. stream: borrowed, and not closed.
    live: rows come one by one without a known end; each is written and flushed at once.
    Errors of the stream are passed on.
    """

    def __init__(self, columns: Sequence[str], stream: TextIO, live: bool = False) -> None:
        self._columns = tuple(columns)
        self._stream = stream
        self._live = live
        self._begin()
        if live:
            stream.flush()

    def write(self, row: Sequence[object]) -> None:
        """Add a row; ValueError when it has not one value for each column."""
        if len(row) != len(self._columns):
            raise ValueError("%d values for %d columns" % (len(row), len(self._columns)))
        self._row(row)
        if self._live:
            self._stream.flush()

    def close(self) -> None:
        """Write what is held back, and flush. Closing again does nothing more."""
        self._end()
        self._stream.flush()

    def __enter__(self) -> "Writer":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 where: Optional[TracebackType]) -> None:
        self.close()

    def _begin(self) -> None:
        pass

    @abstractmethod
    def _row(self, row: Sequence[object]) -> None:
        """Write a row, or hold it back."""

    def _end(self) -> None:
        pass


class _TableWriter(Writer):
    """Columns of equal width under a header.

    A live table begins with its first row. A cell that is wider than its column widens the column
    from there on. Otherwise the whole table waits for its end.
    """

    def _begin(self) -> None:
        self._held = [list(map(visible, self._columns))]  # type: List[List[str]]
        self._widths = [0] * len(self._columns)

    def _row(self, row: Sequence[object]) -> None:
        self._held.append([show(value) for value in row])
        if self._live:
            self._end()

    def _end(self) -> None:
        for row in self._held:
            self._widths = [max(width, display_width(cell))
                            for width, cell in zip(self._widths, row)]
        for row in self._held:
            put(self._stream, _GAP.join(map(pad, row, self._widths)).rstrip() + "\n")
        self._held = []


class _JsonWriter(Writer):
    """One object per line, its keys the names of the columns."""

    def _row(self, row: Sequence[object]) -> None:
        item = dict(zip(self._columns, map(_jsonable, row)))
        line = json.dumps(item, ensure_ascii=False)
        try:
            line.encode(self._stream.encoding or "utf-8")
        except UnicodeEncodeError:
            line = json.dumps(item)
        self._stream.write(line + "\n")


class _CsvWriter(Writer):
    """A header line, then one line per row. Lines end with LF; quotes stand where CSV needs them.

    Deliberate: a text that a spreadsheet would take for a formula stays as it is.
    """

    def _begin(self) -> None:
        # What is in the line's end is quoted: so LF and CR are, although LF alone is written.
        self._csv = csv.writer(_Lines(self._stream), lineterminator="\r\n")
        self._csv.writerow(self._columns)

    def _row(self, row: Sequence[object]) -> None:
        self._csv.writerow([plain(value) for value in row])


class _Lines:
    """What csv writes to."""

    def __init__(self, stream: TextIO) -> None:
        self._stream = stream

    def write(self, line: str) -> None:
        put(self._stream, line[:-2] + "\n")


def open_writer(form: str, columns: Sequence[str], stream: TextIO, live: bool = False) -> Writer:
    """The writer of a form, one of FORMATS; ValueError for another. Arguments as for Writer."""
    writers = {
        "table": _TableWriter, "json": _JsonWriter, "csv": _CsvWriter
    }  # type: Dict[str, Callable[[Sequence[str], TextIO, bool], Writer]]
    if form not in writers:
        raise ValueError("%r is none of %s" % (form, ", ".join(FORMATS)))
    return writers[form](columns, stream, live)
