"""Recordings: the rows of changes and alarms in files, as CSV or SQLite, and files that take turns.

Both kinds of file hold the same columns. ``event`` is "change", "alarm", "lost" and "live" (the
connection; ``value`` says why) or "dropped" (so many as ``value`` says came too fast). ``type`` is
what ``value`` is: "int", "float", "bool", "text", "time" or "none". Times are in ISO form with
their offset from UTC. ``time`` is when the row's event was received, ``alarm_time`` and
``event_time`` are the server's. SQLite holds the rows in a table "events", in order of ``rowid``.

A file that follows another begins with the values that tags had then, marked as resynced.
"""

import csv
import datetime
import io
import math
import os
import pathlib
import sqlite3
import threading
from abc import ABC, abstractmethod
from typing import Any, Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple, Type, Union

from ..types import Value
from .options import CommandError
from .output import plain

CSV, SQLITE = (".csv",), (".db", ".sqlite", ".sqlite3")


class Row(NamedTuple):
    """A row; None where a column says nothing of the event."""

    time: datetime.datetime
    event: str
    driver: Optional[str] = None
    tag: Optional[str] = None
    type: Optional[str] = None
    value: Value = None
    resynced: Optional[bool] = None
    alarm_time: Optional[datetime.datetime] = None
    event_time: Optional[datetime.datetime] = None
    kind: Optional[str] = None
    group: Optional[str] = None
    level: Optional[int] = None
    limit: Optional[float] = None
    status: Optional[int] = None


COLUMNS = Row._fields
_KINDS = ((bool, "bool"), (int, "int"), (float, "float"), (str, "text"),
          (datetime.datetime, "time"))


def type_of(value: Value) -> str:
    """The type column of a value."""
    return next((name for kind, name in _KINDS if isinstance(value, kind)), "none")


# ---- Kinds of files ------------------------------------------------------------------------------

class _File(ABC):
    """A file that is written. ``begun``: the time of its first row; ``size`` in bytes."""

    size = 0
    begun = None  # type: Optional[datetime.datetime]
    torn = False  # what is there ends within a row

    @abstractmethod
    def __init__(self, path: str) -> None:
        """Create or continue it. CommandError for one that holds something else."""

    @abstractmethod
    def prepare(self, row: Row) -> Any:
        """A row as ``put`` takes it."""

    @abstractmethod
    def growth(self, prepared: Any) -> int:
        """How many bytes a prepared row adds; 0 when that shows only afterwards."""

    @abstractmethod
    def put(self, prepared: Any) -> None:
        """Add a prepared row."""

    @abstractmethod
    def flush(self) -> None:
        """Give all rows to the system."""

    @abstractmethod
    def close(self) -> None:
        """Flush and close."""


class _CsvFile(_File):

    def __init__(self, path: str) -> None:
        self._line = io.StringIO()
        self._csv = csv.writer(self._line, lineterminator="\r\n")  # so both of them are quoted
        self._stream = open(path, "ab")
        self.size = self._stream.tell()
        if self.size == 0:
            self.put(self._encode(COLUMNS))
            return
        try:
            self.begun = next((row.time for row in _csv_rows(path)), None)
            with open(path, "rb") as stream:
                stream.seek(-1, os.SEEK_END)
                self.torn = stream.read() != b"\n"
        except BaseException:
            self._stream.close()
            raise

    def _encode(self, cells: Sequence[object]) -> bytes:
        self._csv.writerow([plain(cell) for cell in cells])
        line = self._line.getvalue()
        self._line.seek(0)
        self._line.truncate()
        return (line[:-2] + "\n").encode("utf-8", "backslashreplace")

    def prepare(self, row: Row) -> Any:
        return self._encode(row)

    def growth(self, prepared: Any) -> int:
        return len(prepared)

    def put(self, prepared: Any) -> None:
        self._stream.write(prepared)
        self.size += len(prepared)

    def flush(self) -> None:
        self._stream.flush()

    def close(self) -> None:
        self._stream.close()


_NAMES = ", ".join('"%s"' % column for column in COLUMNS)
_FULL_NAMES = ", ".join('events."%s"' % column for column in COLUMNS)  # others may be texts
_INSERT = "INSERT INTO events (%s) VALUES (%s)" % (_NAMES, ", ".join("?" * len(COLUMNS)))


class _SqliteFile(_File):

    def __init__(self, path: str) -> None:
        there = os.path.exists(path) and os.path.getsize(path) > 0
        self._base = sqlite3.connect(path, check_same_thread=False)
        try:
            if there:
                self.begun = next((row.time for row in _sqlite_rows(path)), None)
            else:  # without types, so that nothing is converted
                self._base.execute("CREATE TABLE events (%s)" % _NAMES)
            self._page = self._number("page_size")
            self._measure()
        except BaseException:
            self._base.close()
            raise

    def _number(self, pragma: str) -> int:
        return int(self._base.execute("PRAGMA " + pragma).fetchone()[0])

    def _measure(self) -> None:
        self.size = self._number("page_count") * self._page

    def prepare(self, row: Row) -> Any:
        return [_cell(value) for value in row]

    def growth(self, prepared: Any) -> int:
        return 0

    def put(self, prepared: Any) -> None:
        self._base.execute(_INSERT, prepared)
        self._measure()

    def flush(self) -> None:
        self._base.commit()

    def close(self) -> None:
        try:
            self._base.commit()
        finally:
            self._base.close()


def _cell(value: Any) -> Any:
    """A value as SQLite keeps it. It has no NaN: that is a text."""
    if isinstance(value, datetime.datetime):
        return plain(value)
    if isinstance(value, str):
        return value.encode("utf-8", "backslashreplace").decode("utf-8")
    return "nan" if isinstance(value, float) and math.isnan(value) else value


def _kind(path: str) -> Type[_File]:
    ending = os.path.splitext(path)[1].lower()
    if ending in CSV:
        return _CsvFile
    if ending in SQLITE:
        return _SqliteFile
    raise CommandError("%s: a recording ends in %s" % (path, ", ".join(CSV + SQLITE)))


# ---- Files that take turns -----------------------------------------------------------------------

class Recorder:
    """Writes rows to a file, and begins a new one when it is large or old. Thread-safe.

    path: its ending says which kind of file it is. size: bytes of a file,
    not counting the values that it begins with. age: seconds from a file's first row to its last.
    keep: how many old files remain, "name.1.csv" the youngest. Errors of the system and of SQLite
    are passed on.
    """

    def __init__(self, path: str, size: Optional[int] = None, age: Optional[float] = None,
                 keep: int = 10) -> None:
        self._path, self._limit, self._age, self._keep = path, size, age, keep
        self._make = _kind(path)
        self._lock = threading.Lock()
        self._file = None  # type: Optional[_File]
        self._rows = 0  # of this file, without the values that it begins with
        self._base = 0  # bytes before those rows
        self._held = {}  # type: Dict[Tuple[Optional[str], Optional[str]], Row]

    def open(self) -> None:
        """Create the file, or open the one that is to be continued."""
        with self._lock:
            self._file = self._file or self._continue()
            self._file.flush()

    def write(self, row: Row) -> None:
        """Add a row."""
        with self._lock:
            file = self._file_for(row)
            file.put(file.prepare(row))
            if file.begun is None:
                file.begun = row.time
            self._rows += 1
            if row.event == "change":
                self._held[row.driver, row.tag] = row

    def flush(self) -> None:
        """Give what was written to the system."""
        with self._lock:
            if self._file is not None:
                self._file.flush()

    def close(self) -> None:
        """Flush and close; a row that is written later begins anew."""
        with self._lock:
            file, self._file = self._file, None
            if file is not None:
                file.close()

    def _file_for(self, row: Row) -> _File:
        file = self._file = self._file or self._continue()
        if not self._full(file, row):
            return file
        self._file = None
        file.close()
        self._take_turns()
        file = self._file = self._make(self._path)
        for held in self._held.values():
            file.put(file.prepare(held._replace(time=row.time, resynced=True)))
        if self._held:
            file.begun = row.time
        self._rows, self._base = 0, file.size
        return file

    def _continue(self) -> _File:
        file = self._make(self._path)
        self._rows, self._base = (0, file.size) if file.begun is None else (1, 0)
        return file

    def _full(self, file: _File, row: Row) -> bool:
        if file.torn:
            return True
        if self._rows == 0:
            return False
        if self._limit is not None:
            size = file.size - self._base
            growth = file.growth(file.prepare(row))
            if size + growth > self._limit or (growth == 0 and size >= self._limit):
                return True
        return self._age is not None and file.begun is not None and (
            (row.time - file.begun).total_seconds() >= self._age)

    def _take_turns(self) -> None:
        if self._keep == 0:
            os.remove(self._path)
            return
        for number in range(self._keep - 1, 0, -1):
            if os.path.exists(self._old(number)):
                os.replace(self._old(number), self._old(number + 1))
        os.replace(self._path, self._old(1))

    def _old(self, number: int) -> str:
        root, ending = os.path.splitext(self._path)
        return "%s.%d%s" % (root, number, ending)


# ---- Reading -------------------------------------------------------------------------------------

def rows(path: str) -> Iterator[Row]:
    """The rows of a file, in their order. CommandError when it is no recording; OSError.

    A row that was cut when its writer was killed is left out.
    """
    return _csv_rows(path) if _kind(path) is _CsvFile else _sqlite_rows(path)


def _csv_rows(path: str) -> Iterator[Row]:
    with open(path, encoding="utf-8", newline="") as stream:
        cells = csv.reader(stream)
        try:
            if tuple(next(cells, ())) != COLUMNS:
                raise CommandError("%s is no recording" % path)
            for line in cells:
                row = _row(line) if len(line) == len(COLUMNS) else None
                if row is not None:
                    yield row
        except (UnicodeDecodeError, csv.Error):
            raise CommandError("%s is no recording" % path) from None


def _sqlite_rows(path: str) -> Iterator[Row]:
    with open(path, "rb"):  # whose error says more
        pass
    base = sqlite3.connect(pathlib.Path(path).absolute().as_uri() + "?mode=ro", uri=True)
    try:
        for cells in base.execute("SELECT %s FROM events ORDER BY rowid" % _FULL_NAMES):
            row = _row(cells)
            if row is not None:
                yield row
    except sqlite3.OperationalError as error:
        if "no such" not in str(error):
            raise
        raise CommandError("%s is no recording" % path) from None
    except sqlite3.DatabaseError as error:
        if isinstance(error, sqlite3.OperationalError):
            raise
        raise CommandError("%s is no recording" % path) from None
    finally:
        base.close()


def _row(cells: Sequence[Any]) -> Optional[Row]:
    """The row of the cells of a file; None when they are none."""
    named = dict(zip(COLUMNS, cells))  # type: Dict[str, Any]
    try:
        return Row(
            time=_moment(named["time"]), event=named["event"], driver=named["driver"] or None,
            tag=named["tag"] or None, type=named["type"] or None,
            value=_value(named["type"], named["value"]),
            resynced=named["resynced"] in ("true", 1),
            alarm_time=_maybe(_moment, named["alarm_time"]),
            event_time=_maybe(_moment, named["event_time"]),
            kind=named["kind"] or None, group=named["group"] or None,
            level=_maybe(int, named["level"]),
            limit=_maybe(float, named["limit"]), status=_maybe(int, named["status"]))
    except (ValueError, TypeError):
        return None


def _moment(text: str) -> datetime.datetime:
    moment = datetime.datetime.fromisoformat(text)
    return moment if moment.tzinfo else moment.astimezone()


def _maybe(convert: Any, cell: Any) -> Any:
    return None if cell in (None, "") else convert(cell)


def _value(kind: Optional[str], cell: Union[str, int, float, None]) -> Value:
    if kind == "bool":
        return cell in ("true", 1)
    converters = {"int": int, "float": float, "time": _moment, "text": str}  # type: Dict[str, Any]
    converter = converters.get(kind or "")
    if converter is None:
        return cell or None
    value = converter(cell)  # type: Value
    return value


def in_order(paths: Sequence[str]) -> List[str]:
    """The files of a recording, that with the earliest first row first; without those of no row."""
    begun = [(next((row.time for row in rows(path)), None), path) for path in paths]
    return [path for time, path in sorted(
        ((time, path) for time, path in begun if time is not None))]
