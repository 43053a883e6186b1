"""Carries out the operations on a server, on the thread of its loop."""

import asyncio
import math
import time
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

from . import faults, files, frames, plantfile, values
from .plant import Tag
from .server import Connection, Server

OPERATIONS = (
    "requests", "wait_requests", "client_count", "wait_clients", "get_value", "set_value", "step",
    "set_rights", "set_file", "remove_file", "set_login", "clear_login", "push_raw",
    "push_change", "push_series", "raise_alarm", "clear_alarms", "drop_clients", "set_listening",
    "fault", "clear_faults", "begin_outage", "end_outage", "replace", "begin_silence",
    "end_silence", "play", "begin_play", "end_play", "burst", "push_cut", "begin_alarm",
    "end_alarm")


class Controller:
    """One method per operation; see ``operations.Operations`` for what they promise."""

    def __init__(self, server: Server) -> None:
        self._server = server
        self._plays = {}  # type: Dict[int, asyncio.Task[None]]
        self._play_count = 0

    async def call(self, operation: str, arguments: Any) -> Any:
        """Carry out an operation by name; its exceptions pass through."""
        if operation not in OPERATIONS:
            raise ValueError("unknown operation %r" % (operation,))
        result = getattr(self, operation)(**arguments)
        return (await result) if asyncio.iscoroutine(result) else result

    def requests(self, clear: bool, codes: Optional[str]) -> List[Any]:
        found = self._matching(codes)
        if clear:
            self._server.requests.clear()
        return found

    def _matching(self, codes: Optional[str]) -> List[Any]:
        if codes is None:
            return list(self._server.requests)
        wanted = codes.encode("latin-1")
        return [entry for entry in self._server.requests if entry[2][0] in wanted]

    async def wait_requests(self, count: int, timeout: float, codes: Optional[str]) -> List[Any]:
        come = asyncio.Event()
        self._server.waiters.append(come.set)
        try:
            deadline = time.monotonic() + timeout
            while len(self._matching(codes)) < count:
                come.clear()
                left = deadline - time.monotonic()
                try:
                    await asyncio.wait_for(come.wait(), max(left, 0.0))
                except asyncio.TimeoutError:
                    raise TimeoutError("%d of %d requests after %g s"
                                       % (len(self._matching(codes)), count, timeout))
        finally:
            self._server.waiters.remove(come.set)
        return self._matching(codes)

    def client_count(self, channel: Optional[str]) -> int:
        _check_channel(channel)
        if channel is None:
            return len(self._server.notify_channels())
        return len(self._channels(channel))

    def _channels(self, channel: Optional[str]) -> List[Connection]:
        return [c for c in self._server.connections.values()
                if channel is None or c.channel == channel]

    async def wait_clients(self, count: int, timeout: float, channel: Optional[str]) -> None:
        deadline = time.monotonic() + timeout
        while self.client_count(channel) != count:
            if time.monotonic() > deadline:
                raise TimeoutError("%d clients instead of %d after %g s"
                                   % (self.client_count(channel), count, timeout))
            await asyncio.sleep(0.002)

    def get_value(self, driver: Any, tag: Any) -> Any:
        value = self._server.plant.find(driver, tag).value
        return value.decode("utf-8", "replace") if isinstance(value, bytes) else value

    def set_value(self, driver: Any, tag: Any, value: Any, hold: bool) -> None:
        found = self._server.plant.find(driver, tag)
        changed, events = self._server.plant.write(found, value, hold)
        self._server.push([found] if changed else [], events)

    def step(self, seconds: float) -> None:
        self._server.step(seconds)

    def set_rights(self, user: str, rights: int) -> None:
        if not 0 <= rights < 2 ** 32:
            raise ValueError("rights are 32 bits wide")
        self._server.plant.set_rights(user, rights)

    def set_file(self, name: str, data: bytes, mtime: int, gz: bool, append: bool,
                 hello: Optional[bool]) -> None:
        if not 0 <= mtime < 2 ** 32:
            raise ValueError("file times are 32 bits wide")
        self._server.plant.files[name.encode("gb2312").lower()] = files.ProjectFile(
            bytes(data), mtime, gz, append, hello)

    def remove_file(self, name: str) -> None:
        del self._server.plant.files[name.encode("gb2312").lower()]

    def set_login(self, **parts: Any) -> None:
        given = {name: value for name, value in parts.items() if value is not None}
        for name in ("dif_time", "dif_size"):
            if not 0 <= given.get(name, 0) < 2 ** 32:
                raise ValueError("%s is 32 bits wide" % name)
        self._server.overrides.update(given)

    def clear_login(self) -> None:
        self._server.overrides.clear()

    # ---- pushes -------------------------------------------------------------------------------

    def push_raw(self, data: bytes, sends: Optional[Sequence[int]], pause: float) -> int:
        if sends is not None and (not sends or any(size < 1 for size in sends)):
            raise ValueError("sends are sizes of at least one byte")
        steps = [bytes(data)] if sends is None else faults.split(bytes(data), sends, pause)
        return self._to_all(steps)

    def _to_all(self, steps: Sequence[Any]) -> int:
        channels = self._server.notify_channels()
        for connection in channels:
            connection.send(*steps)
        return len(channels)

    def _pushable(self, driver: Any, tag: Any) -> Tag:
        found = self._server.plant.find(driver, tag)
        if not found.pushable:
            raise ValueError("a value of tag %s cannot be pushed" % found.name)
        return found

    def push_change(self, driver: Any, tag: Any, value: Any) -> int:
        found = self._pushable(driver, tag)
        _, events = self._server.plant.write(found, value)
        frame = frames.change_frame(found.driver, found.index, found.payload)
        count = self._to_all(frames.pack_sends([frame]))
        self._server.push([], events)
        return count

    def push_series(self, driver: Any, tag: Any, count: int, first: int, frames_per_send: int,
                    pause: float) -> int:
        found = self._pushable(driver, tag)
        series = [frames.change_frame(
            found.driver, found.index,
            values.encode_payload(found.vt, values.coerce(found.vt, first + i)))
            for i in range(count)]
        steps = []  # type: List[Any]
        for start in range(0, count, max(frames_per_send, 1)):
            for send in frames.pack_sends(series[start:start + max(frames_per_send, 1)]):
                if steps and pause > 0:
                    steps.append(float(pause))
                steps.append(send)
        return self._to_all(steps)

    def raise_alarm(self, almtm: Optional[int], frame_type: int, active: bool, everyone: bool,
                    **fields: Any) -> int:
        if frame_type not in (1, 3):
            raise ValueError("alarm frames have type 1 or 3")
        alarm = frames.Alarm(almtm=int(time.time()) if almtm is None else almtm, **fields)
        frame = frames.alarm_frame(alarm, frame_type)
        if active:
            self._server.plant.add_alarm(alarm)
        channels = [c for c in self._server.notify_channels() if everyone or c.session.alarms]
        for connection in channels:
            connection.send(frame)
        return len(channels)

    def clear_alarms(self, tid: Optional[int], type: Optional[int]) -> None:
        self._server.plant.clear_alarms(tid, type)

    # ---- misbehaviour -------------------------------------------------------------------------

    def drop_clients(self, kind: str, channel: Optional[str]) -> int:
        _check_channel(channel)
        _check_kind(kind)
        channels = self._channels(channel)
        for connection in channels:
            connection.close(kind)
        return len(channels)

    def set_listening(self, on: bool) -> None:
        change = self._server.listen if on else self._server.unlisten  # type: Callable[[], None]
        change()

    def fault(self, code: str, action: str, times: Optional[int], skip: int,
              arguments: Any) -> None:
        self._server.faults.order(code, action, times, skip, **arguments)

    def clear_faults(self) -> None:
        self._server.faults.clear()

    # ---- scenarios ----------------------------------------------------------------------------

    def begin_outage(self, kind: str) -> None:
        _check_kind(kind)
        if not self._server.listening:
            raise RuntimeError("the server is away already")
        self._server.unlisten()
        self._server.drop(kind)

    def end_outage(self) -> None:
        self._server.listen()

    def replace(self, plant: Dict[str, Any]) -> str:
        self._server.replace(plantfile.load(plant))
        return self._server.plant.layout.name

    def begin_silence(self) -> None:
        if self._server.silent:
            raise RuntimeError("the server is silent already")
        self._server.set_silent(True)

    def end_silence(self) -> None:
        self._server.set_silent(False)

    async def play(self, steps: Sequence[Any]) -> None:
        await self._play(self._checked(steps), False)

    def begin_play(self, steps: Sequence[Any], repeat: bool) -> int:
        checked = self._checked(steps)
        if repeat and not sum(seconds for _, _, seconds in checked) > 0:
            raise ValueError("what is repeated must take some time")
        self._play_count += 1
        self._plays[self._play_count] = self._server.loop.create_task(self._play(checked, repeat))
        return self._play_count

    async def end_play(self, number: int) -> None:
        task = self._plays.pop(number)
        task.cancel()
        try:
            await task
        except asyncio.CancelledError:
            pass

    def _checked(self, steps: Sequence[Any]) -> List[Tuple[Any, Any, float]]:
        """The steps, when each names a tag, a value it can hold and a time; else an error."""
        checked = []
        for place, value, seconds in steps:
            self._at(place).writable(value)
            if not 0 <= seconds < math.inf:
                raise ValueError("%r is no time in seconds" % (seconds,))
            checked.append((place, value, float(seconds)))
        return checked

    def _at(self, place: Any) -> Tag:
        """The tag of "Driver/Tag" or of (driver, tag)."""
        if isinstance(place, str):
            driver, _, tag = place.rpartition("/")
            return self._server.plant.find(driver, tag)
        driver, tag = place
        return self._server.plant.find(driver, tag)

    async def _play(self, steps: Sequence[Tuple[Any, Any, float]], repeat: bool) -> None:
        due = self._server.loop.time()
        while True:
            for place, value, seconds in steps:
                tag = self._at(place)  # anew: the plant may have been replaced
                self.set_value(tag.driver, tag.index, value, True)
                due += seconds
                await asyncio.sleep(max(due - self._server.loop.time(), 0.0))
            if not repeat:
                return

    def burst(self, driver: Any, tag: Any, values: Sequence[Any], pause: float) -> int:
        found, changes = self._changes(driver, tag, values)
        steps = []  # type: List[Any]
        for send in frames.pack_sends(changes):
            if steps and pause > 0:
                steps.append(float(pause))
            steps.append(send)
        return self._to_subscribers(found, values[-1], steps)

    def push_cut(self, driver: Any, tag: Any, values: Sequence[Any], cuts: Sequence[int],
                 pause: float) -> int:
        found, changes = self._changes(driver, tag, values)
        data = b"".join(changes)
        bounds = [0] + list(cuts) + [len(data)]
        if any(left >= right for left, right in zip(bounds, bounds[1:])):
            raise ValueError("cuts must rise and lie inside the %d bytes" % len(data))
        sizes = [right - left for left, right in zip(bounds, bounds[1:])]
        return self._to_subscribers(found, values[-1], faults.split(data, sizes, pause))

    def _changes(self, driver: Any, tag: Any, values: Sequence[Any]) -> Tuple[Tag, List[bytes]]:
        """The tag and a frame for each of its new values."""
        found = self._pushable(driver, tag)
        if not values:
            raise ValueError("no values")
        return found, [frames.change_frame(found.driver, found.index, found.suited(value)[1])
                       for value in values]

    def _to_subscribers(self, tag: Tag, last: Any, steps: Sequence[Any]) -> int:
        """Set the tag to its last value, and send the steps to those that have subscribed it."""
        _, events = self._server.plant.write(tag, last, hold=True)
        channels = [c for c in self._server.notify_channels()
                    if c.session and (tag.driver, tag.index) in c.session.tags]
        for connection in channels:
            connection.send(*steps)
        self._server.push([], events)
        return len(channels)

    def begin_alarm(self, driver: Any, tag: Any, text: Optional[str]) -> None:
        found = self._server.plant.find(driver, tag)
        changed, events = self._server.plant.exceed(found, text)
        self._server.push([found] if changed else [], events)

    def end_alarm(self, driver: Any, tag: Any) -> None:
        found = self._server.plant.find(driver, tag)
        changed, events = self._server.plant.recover(found)
        self._server.push([found] if changed else [], events)


def _check_kind(kind: str) -> None:
    if kind not in ("close", "reset"):
        raise ValueError("kind must be close or reset")


def _check_channel(channel: Optional[str]) -> None:
    if channel not in (None, "request", "notify"):
        raise ValueError("channel must be request or notify")
