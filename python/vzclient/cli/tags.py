"""The commands that read, write and follow tags and alarms."""

import datetime
import re
import sys
import time
from typing import TYPE_CHECKING, Any, Dict, Iterator, Optional, Sequence, Union

from ..driver import Driver
from ..errors import VzTimeoutError
from ..types import Change, Value
from ..watches import AlarmWatch, Watch
from .options import CommandError, Options
from .output import Writer, open_writer
from .session import connected

if TYPE_CHECKING:
    from ..alarms import Alarm

_DRAW_SECONDS = 0.25  # from one drawing of trends to the next
_WHOLE = re.compile(r"[+-]?[0-9]+\Z")


def rows(options: Options, columns: Sequence[str], live: bool = False) -> Writer:
    """The writer of a command's result."""
    return open_writer(options.form, columns, sys.stdout, live)


def drivers(options: Options) -> int:
    """List the drivers by their ids."""
    with connected(options) as plant, rows(options, ("name", "id", "tags")) as out:
        ids = {name: facts[0] for name, facts in plant._facts.items()}
        for name, driver in sorted(plant.drivers.items(), key=lambda item: ids[item[0]]):
            out.write((name, ids[name], driver.tag_count))
    return 0


def read(options: Options) -> int:
    """Read tags, in the order of their names."""
    with connected(options) as plant:
        values = plant[options.driver].read(*options.tags)
        with rows(options, ("tag", "value")) as out:
            for tag, value in values.items():
                out.write((tag, value))
    return 0


# ---- Writing -------------------------------------------------------------------------------------

def write(options: Options) -> int:
    """Write tags, or show what would be written."""
    texts = _assignments(options.tags)
    with connected(options) as plant:
        driver = plant[options.driver]
        driver._check_rights()
        before = driver.read(*texts)
        values = {tag: parse_value(tag, text, before[tag]) for tag, text in texts.items()}
        if options.dry_run:
            driver._write(values, None, False)
            _show(options, before, values)
        else:
            _write(driver, values)
    return 0


def _assignments(arguments: Sequence[str]) -> Dict[str, str]:
    texts = {}  # type: Dict[str, str]
    for argument in arguments:
        tag, separator, text = argument.partition("=")
        if not separator or not tag:
            raise CommandError("%r is not TAG=VALUE" % argument)
        if tag in texts:
            raise CommandError("%r is given twice" % tag)
        texts[tag] = text
    return texts


def _show(options: Options, before: Dict[str, Value], values: Dict[str, Value]) -> None:
    with rows(options, ("tag", "present", "new")) as out:
        for tag, value in values.items():
            out.write((tag, before[tag], value))


def _write(driver: Driver, values: Dict[str, Value]) -> None:
    driver.write(values)
    # The server answers requests in their order: once it has answered this one, it has the writes.
    driver.read(next(iter(values)))


def parse_value(tag: str, text: str, present: Value) -> Value:
    """The value that a text means to a tag which holds ``present`` now. CommandError for none.

    A tag without a value takes what the text looks like.
    """
    if isinstance(present, bool):
        parsed = _truth(text)  # type: Value
        wanted = "true or false"
    elif isinstance(present, (int, float)):
        parsed = _number(text)
        wanted = "a number"
        if parsed is None and isinstance(present, float):  # a date that no datetime can hold
            parsed = _moment(text)
    elif isinstance(present, datetime.datetime):
        parsed = _moment(text)
        wanted = "a time in ISO form"
    elif present is None:
        return next(value for value in (_truth(text), _number(text), text) if value is not None)
    else:
        return text
    if parsed is None:
        raise CommandError("%r takes %s, not %r; nothing was written" % (tag, wanted, text))
    return parsed


def _truth(text: str) -> Optional[bool]:
    return {"true": True, "false": False}.get(text.lower())


def _number(text: str) -> Union[None, int, float]:
    try:
        if _WHOLE.match(text):
            return int(text)
        return None if "_" in text else float(text)
    except ValueError:
        return None


def _moment(text: str) -> Optional[datetime.datetime]:
    if text[-1:] in "Zz":
        text = text[:-1] + "+00:00"
    try:
        return datetime.datetime.fromisoformat(text)
    except ValueError:
        return None


# ---- Following -----------------------------------------------------------------------------------

def watch(options: Options) -> int:
    """Show changes as they come, as rows or as trends."""
    if options.plot and options.form != "table":
        raise CommandError("--plot draws, and writes neither JSON nor CSV")
    with connected(options) as plant:
        with plant[options.driver].watch(*options.tags) as changes:
            if options.plot:
                _plot(options, changes)
                return 0
            with rows(options, ("time", "tag", "value", "resynced"), True) as out:
                for change in _events(options, changes):
                    out.write((change.time, change.tag, change.value, change.resynced))
    return 0


def alarms(options: Options) -> int:
    """Show alarms as they come."""
    columns = ("time", "event_time", "tag", "kind", "group", "level", "value", "limit", "status",
               "resynced")
    with connected(options) as plant:
        with plant.alarms(existing=options.existing) as found:
            with rows(options, columns, True) as out:
                for alarm in _events(options, found):
                    out.write([getattr(alarm, column) for column in columns])
    return 0


def _events(options: Options, events: Union[Watch, AlarmWatch]) -> Iterator[Any]:
    """Events as they come, until there are enough or the time is over."""
    for event in _paced(options, events, None):
        if event is not None:
            yield event


def _paced(options: Options, events: Union[Watch, AlarmWatch],
           pause: Optional[float]) -> Iterator[Union[None, Change, "Alarm"]]:
    """As _events, and None when for ``pause`` seconds there is none."""
    end = None if options.duration is None else time.monotonic() + options.duration
    count = 0
    while options.count is None or count < options.count:
        wait = pause
        if end is not None:
            left = end - time.monotonic()
            if left <= 0:
                return
            wait = left if pause is None else min(left, pause)
        try:
            yield events.get(wait)
            count += 1
        except VzTimeoutError:
            yield None


def _plot(options: Options, changes: Watch) -> None:
    from .plot import Plot
    with Plot(list(dict.fromkeys(options.tags)), sys.stdout, options.span) as plot:
        due = 0.0
        for change in _paced(options, changes, _DRAW_SECONDS):
            if isinstance(change, Change):
                plot.add(change.tag, change.value, change.time)
            if time.monotonic() >= due:
                plot.draw()
                due = time.monotonic() + _DRAW_SECONDS
        plot.draw()
