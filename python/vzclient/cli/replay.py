"""The command ``replay``: a simulated plant whose values are those of a recording."""

import datetime
import sqlite3
import sys
import time
from typing import Any, Dict, Iterator, List, Optional, Set, Tuple

from ..types import Value
from .endings import Ending
from .options import CommandError, Options
from .recording import Row, in_order, rows

_TYPES = {"bool": "bool", "int": "i8", "float": "r8", "text": "str", "time": "date"}
_LONGEST_TEXT = 4093  # bytes of a text that fits into a reply
_POLL_SECONDS = 0.2
_DATE_EPOCH = datetime.datetime(1899, 12, 30)
_NAMES = ("RecData/textlist", "RecData/taglist")

TagKey = Tuple[str, str]


def replay(options: Options) -> int:
    """Serve the files of a recording until SIGINT or SIGTERM, or their end."""
    try:
        files = in_order(options.files)
        plant = _Recorded(files)
        with Ending() as ending:
            ending.take()
            return _serve(options, files, plant, ending)
    except sqlite3.Error as error:
        raise CommandError(str(error)) from None


def _serve(options: Options, files: List[str], plant: "_Recorded", ending: Ending) -> int:
    from vzsim import PlantError, Simulator
    try:
        simulator = Simulator(plant.table(), options.address, options.port, tick=0,
                              log=_log if options.verbose else None)
    except PlantError as error:
        raise CommandError("this recording makes no plant: %s" % error) from None
    except (OSError, OverflowError) as error:
        raise CommandError("cannot listen on %s:%d: %s"
                           % (options.address, options.port, error)) from None
    with simulator:
        for name, data in zip(_NAMES, plant.lists()):
            simulator.set_file(name, data, int(time.time()))
        print("vzclient: replay listening on %s:%d" % (simulator.host, simulator.port), flush=True)
        over = options.wait and _wait_for_client(simulator, ending)
        if not over:
            over = _play(options, files, plant, simulator, ending)
        if not over and not options.end:
            ending.wait(None)
    return 0


def _log(line: str) -> None:
    print(line, file=sys.stderr, flush=True)


def _wait_for_client(simulator: Any, ending: Ending) -> bool:
    """Wait until a client is there. Whether the end came before."""
    while simulator.client_count() == 0:
        if ending.wait(_POLL_SECONDS):
            return True
    return False


def _play(options: Options, files: List[str], plant: "_Recorded", simulator: Any,
          ending: Ending) -> bool:
    """Play all rows at their pace. Whether the end came before."""
    count = 0
    begun = time.monotonic()
    first = None  # type: Optional[datetime.datetime]
    for row in _rows(files):
        first = first or row.time
        due = begun + (row.time - first).total_seconds() / options.speed
        if ending.wait(max(due - time.monotonic(), 0.0)):
            return True
        count += plant.play(row, simulator)
    print("vzclient: replay of %d changes and alarms done" % count, flush=True)
    return False


def _rows(files: List[str]) -> Iterator[Row]:
    for path in files:
        yield from rows(path)


class _Recorded:
    """What a recording says of its plant: drivers, tags with type and first value, alarm texts."""

    def __init__(self, files: List[str]) -> None:
        self._kinds = {}  # type: Dict[TagKey, Set[str]]
        self._first = {}  # type: Dict[TagKey, Value]
        self._texts = {}  # type: Dict[str, int]
        self._tags = {}  # type: Dict[str, int]
        for row in _rows(files):
            if row.event == "change":
                self._learn(row)
            elif row.event == "alarm":
                for text in (row.kind or "", row.group or ""):
                    self._texts.setdefault(text, len(self._texts))
                self._tags.setdefault(row.tag or "", len(self._tags))
        if not self._kinds and not self._tags:
            raise CommandError("there is nothing to replay in this recording")

    def _learn(self, row: Row) -> None:
        key = (row.driver or "", row.tag or "")
        kinds = self._kinds.setdefault(key, set())
        if row.type in _TYPES:
            kinds.add(row.type)
            self._first.setdefault(key, row.value)

    def _type(self, key: TagKey) -> str:
        """The type of a tag that holds all its values."""
        kinds = self._kinds[key]
        if len(kinds) == 1:
            return _TYPES[next(iter(kinds))]
        if kinds == {"float", "time"}:  # some dates are beyond what a datetime holds
            return "date"
        return "str" if kinds else "empty"

    def table(self) -> Dict[str, Any]:
        """The plant as a plant file holds it."""
        drivers = {}  # type: Dict[str, List[Dict[str, Any]]]
        for key in self._kinds:
            driver, tag = key
            entry = {"name": tag, "type": self._type(key)}  # type: Dict[str, Any]
            if key in self._first:
                entry["value"] = self._held(key, self._first[key])
            drivers.setdefault(driver, []).append(entry)
        return {"name": "replay", "tick": 0,
                "drivers": [{"name": name, "tags": tags} for name, tags in drivers.items()]}

    def _held(self, key: TagKey, value: Value) -> Any:
        """A value as the tag holds it."""
        kind = self._type(key)
        if kind == "date" and isinstance(value, datetime.datetime):
            return (value.replace(tzinfo=None) - _DATE_EPOCH).total_seconds() / 86400
        if kind == "str":
            return str(value).encode("utf-8")[:_LONGEST_TEXT].decode("utf-8", "ignore")
        return value

    def lists(self) -> Tuple[bytes, bytes]:
        """The files of alarm texts and of alarm tags."""
        return _list_file(self._texts), _list_file(self._tags)

    def play(self, row: Row, simulator: Any) -> int:
        """Let happen what a row says. 1 when something did."""
        key = (row.driver or "", row.tag or "")
        if row.event == "change" and row.type in _TYPES:
            simulator.set_value(key[0], key[1], self._held(key, row.value))
            return 1
        if row.event == "alarm":
            self._raise(row, simulator)
            return 1
        return 0

    def _raise(self, row: Row, simulator: Any) -> None:
        tag, kind = self._tags[row.tag or ""], self._texts[row.kind or ""]
        simulator.clear_alarms(tag, kind)
        simulator.raise_alarm(
            tid=tag, type=kind, grp=self._texts[row.group or ""], level=row.level or 0,
            status=row.status or 0, value=row.value, limit=row.limit or 0.0,
            almtm=_seconds(row.alarm_time or row.time),
            evttm=_seconds(row.event_time) if row.event_time else 0,
            frame_type=1 if row.status else 3, active=bool(row.status))


def _seconds(moment: datetime.datetime) -> int:
    """The time of an alarm as the wire has it, which has none before 1970 or after 2106."""
    return min(max(int(moment.timestamp()), 0), 0xFFFFFFFF)


def _list_file(texts: Dict[str, int]) -> bytes:
    return b"".join(text.encode("gb2312", "replace") + b"\r\n" for text in texts)
