"""The command ``record``: changes and alarms into files."""

import datetime
import sqlite3
import time
from typing import Dict, Optional, Tuple

from ..alarms import Alarm
from ..errors import VzError
from ..plant import Plant
from ..types import Change, State
from .endings import Ending
from .options import CommandError, Options
from .recording import Recorder, Row, type_of
from .session import connected

_FLUSH_SECONDS = 0.5
_QUEUE = 100000  # events that may wait to be written
_PATIENCE = 60.0  # seconds for what waits to be written when the recording ends


def record(options: Options) -> int:
    """Record until SIGINT, SIGTERM or the end of the duration."""
    wanted = _wanted(options)
    recorder = Recorder(options.file, options.rotate_size, options.rotate_age, options.keep)
    try:
        with Ending() as ending:
            try:
                _record(options, wanted, recorder, ending)
            finally:
                recorder.close()
    except sqlite3.Error as error:
        raise CommandError("%s: %s" % (options.file, error)) from None
    except OSError as error:
        if isinstance(error, VzError) or error.filename:
            raise
        raise CommandError("%s: %s" % (options.file, error.strerror)) from None
    return 0


def _record(options: Options, wanted: Dict[str, Tuple[str, ...]], recorder: Recorder,
            ending: Ending) -> None:
    tape = _Tape(recorder, ending)
    with connected(options, on_state=tape.state, queue=_QUEUE, overflow="oldest") as plant:
        ending.take()
        plant._dispatcher.finishes = True
        try:
            for driver, tags in wanted.items():
                plant[driver].on_change(tape.change, *tags)
            if options.alarms:
                plant.on_alarm(tape.alarm, existing=True)
            recorder.open()
            _run(options, plant, tape, ending)
        finally:
            plant.close()
            plant._dispatcher.join(_PATIENCE)  # which writes what has come
    tape.check()


def _wanted(options: Options) -> Dict[str, Tuple[str, ...]]:
    """Driver name to the tags that are wanted of it."""
    wanted = {}  # type: Dict[str, Tuple[str, ...]]
    for names in [options.tags] + options.also:
        if len(names) == 1:
            raise CommandError("no tag of driver %r is named" % names[0])
        if names:
            wanted[names[0]] = wanted.get(names[0], ()) + tuple(names[1:])
    if not wanted and not options.alarms:
        raise CommandError("there is nothing to record: name tags, or allow alarms")
    return wanted


def _run(options: Options, plant: Plant, tape: "_Tape", ending: Ending) -> None:
    end = None if options.duration is None else time.monotonic() + options.duration
    over = False
    while not over:
        wait = _FLUSH_SECONDS
        if end is not None:
            wait = min(wait, max(end - time.monotonic(), 0.0))
        over = ending.wait(wait) or (end is not None and time.monotonic() >= end)
        tape.dropped(plant.stats.dropped)
        tape.check()
        tape.recorder.flush()
        plant._check_lost()


class _Tape:
    """Makes rows of what a plant tells, on the plant's thread. The first error ends the recording.
    """

    def __init__(self, recorder: Recorder, ending: Ending) -> None:
        self.recorder = recorder
        self._ending = ending
        self._error = None  # type: Optional[Exception]
        self._lost = False
        self._dropped = 0

    def check(self) -> None:
        """Raise the error that writing met with."""
        if self._error is not None:
            raise self._error

    def change(self, change: Change) -> None:
        self._write(Row(change.time, "change", change.driver, change.tag, type_of(change.value),
                        change.value, change.resynced))

    def alarm(self, alarm: Alarm) -> None:
        self._write(Row(
            _now(), "alarm", None, alarm.tag, "float", alarm.value, alarm.resynced, alarm.time,
            alarm.event_time, alarm.kind, alarm.group, alarm.level, alarm.limit, alarm.status))

    def state(self, state: State) -> None:
        """Note when the connection is lost, and when it is there again."""
        if state.name == "lost" and not self._lost:
            self._lost = True
            self._write(Row(state.since, "lost", None, None, "text", state.reason))
        elif state.name == "live" and self._lost:
            self._lost = False
            self._write(Row(state.since, "live"))

    def dropped(self, count: int) -> None:
        """Note that more events than before came too fast; count: all so far."""
        if count > self._dropped:
            self._write(Row(_now(), "dropped", None, None, "int", count - self._dropped))
            self._dropped = count

    def _write(self, row: Row) -> None:
        if self._error is not None:
            return
        try:
            self.recorder.write(row)
        except Exception as error:
            self._error = error
            self._ending.end()


def _now() -> datetime.datetime:
    return datetime.datetime.now().astimezone()
