"""The same for asyncio: nothing blocks the loop.

::

    async with vzclient.aio.connect("plant.local:8000", "operator", "secret") as plant:
        boiler = plant["Boiler"]
        print(await boiler.read("Temp", "Level"))
        async for change in boiler.watch("Temp"):
            print(change.tag, change.value)

Requests are made one after the other on one thread of the plant. A request that is cancelled, or
whose time limit passes, ends for its caller at once; what the server answers to it is dropped.
"""

import asyncio
import collections
import os
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from typing import (Any, AsyncIterator, Awaitable, Callable, Deque, Dict, Generator, Generic, List,
                    Mapping, Optional, TypeVar, Union)

from . import driver as _driver
from . import plant as _plant
from . import watches as _watches
from .alarms import Alarm
from .errors import ConnectionLost, VzError, VzTimeoutError
from .types import Change, Rights, State, Stats, Value

__all__ = ["AsyncAlarmWatch", "AsyncDriver", "AsyncPlant", "AsyncSubscription", "AsyncWatch",
           "connect"]

Result = TypeVar("Result")
Item = TypeVar("Item")
_BATCH = 512


async def _done(future: "asyncio.Future[Any]", timeout: Optional[float]) -> bool:
    """Wait for a future, which is cancelled when this is; whether it was done in time.

    Not ``asyncio.wait_for``: before Python 3.12 that may swallow a cancellation.
    """
    try:
        done, _ = await asyncio.wait({future}, timeout=timeout)
    except asyncio.CancelledError:
        future.cancel()
        raise
    if not done:
        future.cancel()
    return bool(done)


class _Requests:
    """The thread on which a plant's requests are made."""

    def __init__(self, host: str) -> None:
        self._host = host
        self._executor = ThreadPoolExecutor(1, "vzclient-aio")
        self._process = os.getpid()
        self._closed = False

    async def run(self, call: Callable[[float], Result], timeout: float) -> Result:
        """``call(seconds)`` on the thread, with the seconds that are left when its turn comes.

        VzTimeoutError when it is not done within ``timeout`` seconds.
        """
        deadline = time.monotonic() + timeout
        if os.getpid() != self._process:
            raise VzError("a request to %s: the plant was connected before a fork; connect anew in "
                          "the child" % self._host)
        if self._closed:
            raise ConnectionLost("a request to %s: the plant is closed" % self._host)
        future = asyncio.wrap_future(self._executor.submit(
            lambda: call(max(deadline - time.monotonic(), 0.0))))
        if await _done(future, timeout):
            return future.result()
        raise VzTimeoutError("a request to %s was not answered within %g s"
                             % (self._host, timeout))

    def later(self, call: Callable[[], Any]) -> None:
        """``call()`` on the thread, for which nobody waits."""
        self._executor.submit(call)

    def close(self) -> None:
        self._closed = True
        self._executor.shutdown(wait=False)


class connect:
    """Connect to a server; the arguments are those of ``vzclient.connect``.

    Awaiting it gives the plant; it is an asynchronous context manager too, which closes the plant.
    ``on_state`` is called on a thread of the plant, not in the loop, and ``on_error`` of what that
    raises; of what other functions raise ``on_error`` is called in the loop.
    """

    def __init__(self, host: str, user: str = "", password: str = "", **arguments: Any) -> None:
        self._arguments = (host, user, password)
        self._options = arguments
        self._plant = None  # type: Optional[AsyncPlant]

    async def _connect(self) -> "AsyncPlant":
        requests = _Requests(self._arguments[0])
        abandoned = threading.Event()
        made = []  # type: List[_plant.Plant]

        def make(_: float) -> _plant.Plant:
            plant = _plant.connect(*self._arguments, **self._options)
            made.append(plant)
            if abandoned.is_set():  # nobody waits for it any more
                plant.close()
            return plant

        try:
            # The call has a limit of its own; this one is for what the call cannot bound.
            plant = await requests.run(make, self._options.get("timeout", 5.0) + 1.0)
        except BaseException:
            abandoned.set()
            for plant in made:  # at the same moment
                requests.later(plant.close)
            requests.close()
            raise
        return AsyncPlant(plant, requests)

    def __await__(self) -> Generator[Any, None, "AsyncPlant"]:
        return self._connect().__await__()

    async def __aenter__(self) -> "AsyncPlant":
        self._plant = await self._connect()
        return self._plant

    async def __aexit__(self, *error: Any) -> None:
        assert self._plant is not None
        await self._plant.close()


class AsyncPlant:
    """A server's project, connected. Made by ``connect``."""

    def __init__(self, plant: _plant.Plant, requests: _Requests) -> None:
        self._plant = plant
        self._requests = requests

    @property
    def host(self) -> str:
        """The host text that it is connected to."""
        return self._plant.host

    @property
    def project(self) -> str:
        """Name of the project that the server runs."""
        return self._plant.project

    @property
    def rights(self) -> Rights:
        """What the user may do."""
        return self._plant.rights

    @property
    def state(self) -> State:
        """How the connection is now."""
        return self._plant.state

    @property
    def stats(self) -> Stats:
        """Counters since ``connect``."""
        return self._plant.stats

    @property
    def drivers(self) -> Mapping[str, "AsyncDriver"]:
        """The drivers of the project, by name."""
        return {name: self[name] for name in self._plant.drivers}

    def __getitem__(self, name: str) -> "AsyncDriver":
        """The driver of that name. Raises UnknownDriver."""
        return AsyncDriver(self, self._plant[name])

    def alarms(self, existing: bool = True, timeout: Optional[float] = None, queue: int = 10000,
               overflow: str = "oldest") -> "AsyncAlarmWatch":
        """Watch alarms, as ``vzclient.Plant.alarms``."""
        return AsyncAlarmWatch(
            self, lambda: self._plant.alarms(existing, None, queue, overflow), timeout)

    async def on_alarm(self, function: Callable[[Alarm], Any], existing: bool = False,
                       on_error: Optional[Callable[[BaseException], Any]] = None,
                       ) -> "AsyncSubscription":
        """Call ``function(alarm)`` in the loop for each alarm; see ``AsyncDriver.on_change``."""
        return await AsyncSubscription._start(self.alarms(existing), function, on_error)

    async def close(self) -> None:
        """End the connection and all watches; more calls do nothing."""
        try:
            await asyncio.get_running_loop().run_in_executor(None, self._plant.close)
        finally:
            self._requests.close()


class AsyncDriver:
    """The tags of one driver, by name; the arguments are those of ``vzclient.Driver``."""

    def __init__(self, plant: AsyncPlant, driver: _driver.Driver) -> None:
        self._plant = plant
        self._driver = driver

    @property
    def name(self) -> str:
        """The driver's name."""
        return self._driver.name

    @property
    def tag_count(self) -> int:
        """How many tags the driver has."""
        return self._driver.tag_count

    def _limit(self, timeout: Optional[float]) -> float:
        return self._plant._plant.timeout if timeout is None else timeout

    async def read(self, *names: str, missing: str = "raise",
                   timeout: Optional[float] = None) -> Dict[str, Value]:
        """Read tags; a dict of name to value."""
        return await self._plant._requests.run(
            lambda left: self._driver.read(*names, missing=missing, timeout=left),
            self._limit(timeout))

    async def write(self, values: Mapping[str, Value], timeout: Optional[float] = None) -> None:
        """Write tags."""
        given = dict(values)
        await self._plant._requests.run(
            lambda left: self._driver.write(given, timeout=left), self._limit(timeout))

    def watch(self, *names: str, timeout: Optional[float] = None, queue: int = 10000,
              overflow: str = "latest") -> "AsyncWatch":
        """Watch tags: an asynchronous iterable of Change, beginning with their present values."""
        return AsyncWatch(
            self._plant,
            lambda: self._driver.watch(*names, timeout=None, queue=queue, overflow=overflow),
            timeout)

    async def on_change(self, function: Callable[[Change], Any], *names: str,
                        on_error: Optional[Callable[[BaseException], Any]] = None,
                        ) -> "AsyncSubscription":
        """Call ``function(change)`` in the loop for each change of these tags.

        What it returns is awaited if it can be. What it raises is logged, counted and given to
        ``on_error``, or else to that of ``connect``, here in the loop; and delivery goes on.
        """
        return await AsyncSubscription._start(self.watch(*names), function, on_error)


class _AsyncEvents(Generic[Item]):
    """Events of a watch that is made when it is first used; an asynchronous context manager."""

    def __init__(self, plant: AsyncPlant, make: "Callable[[], _watches._Events[Item]]",
                 timeout: Optional[float]) -> None:
        self._plant = plant
        self._make = make
        self._timeout = timeout
        self._watch = None  # type: Optional[_watches._Events[Item]]
        self._batch = collections.deque()  # type: Deque[Any]
        self._starting = asyncio.Lock()
        self._closed = False
        self._waiting = []  # type: List[asyncio.Future[None]]

    async def _start(self) -> "_watches._Events[Item]":
        async with self._starting:
            if self._watch is None:
                if self._closed:
                    raise ConnectionLost("watching %s: the watch is closed" % self._plant.host)
                watch = await self._plant._requests.run(
                    lambda _: self._make(), self._plant._plant.timeout)
                self._watch = watch
                if self._closed:  # meanwhile
                    watch.close()
                return watch
        return self._watch

    def __aiter__(self) -> AsyncIterator[Item]:
        return self

    async def __anext__(self) -> Item:
        watch = await self._start()
        if await self._fill(watch, self._timeout):
            return watch._item(self._batch.popleft())
        raise StopAsyncIteration

    async def get(self, timeout: Optional[float] = None) -> Item:
        """The next event. VzTimeoutError after ``timeout`` seconds; None waits for ever."""
        watch = await self._start()
        if await self._fill(watch, timeout):
            return watch._item(self._batch.popleft())
        raise ConnectionLost("waiting for an event of %s: the watch is closed" % self._plant.host)

    async def _fill(self, watch: "_watches._Events[Item]", timeout: Optional[float]) -> bool:
        watch._plant._check_process()
        deadline = None if timeout is None else time.monotonic() + timeout
        if not self._batch:  # other tasks have their turn, however many events are there
            await asyncio.sleep(0)
        while not self._batch and not watch._closed:
            events = watch._feed.take(0, _BATCH)
            if events is None:
                watch._plant._check_lost()
                return False
            if events:
                self._batch.extend(events)
                self._tell()  # those who wait for what is no longer in the queue
                break
            left = None if deadline is None else max(deadline - time.monotonic(), 0.0)
            if not await self._readable(watch._feed.fileno(), left):
                raise VzTimeoutError("nothing came from %s within %s s"
                                     % (self._plant.host, timeout))
        return bool(self._batch)

    async def _readable(self, descriptor: int, timeout: Optional[float]) -> bool:
        """Wait until there may be something; False when there was not in time."""
        loop = asyncio.get_running_loop()
        ready = loop.create_future()
        self._waiting.append(ready)
        loop.add_reader(descriptor, self._tell)
        try:
            return await _done(ready, timeout)
        finally:
            self._waiting.remove(ready)
            if not self._waiting:
                loop.remove_reader(descriptor)

    def _tell(self) -> None:
        for ready in self._waiting:
            if not ready.done():
                ready.set_result(None)

    @property
    def dropped(self) -> int:
        """How many events were displaced because the queue was full."""
        return self._watch.dropped if self._watch is not None else 0

    async def close(self) -> None:
        """End the watch."""
        self._closed = True
        if self._watch is not None:
            self._watch.close()
            self._batch.clear()

    async def __aenter__(self) -> Any:
        await self._start()
        return self

    async def __aexit__(self, *error: Any) -> None:
        await self.close()


class AsyncWatch(_AsyncEvents[Change]):
    """Changes of tags, from ``AsyncDriver.watch``."""

    async def __aenter__(self) -> "AsyncWatch":
        await self._start()
        return self


class AsyncAlarmWatch(_AsyncEvents[Alarm]):
    """Alarms, from ``AsyncPlant.alarms``."""

    async def __aenter__(self) -> "AsyncAlarmWatch":
        await self._start()
        return self


class AsyncSubscription:
    """A function that is called in the loop for events."""

    def __init__(self, events: Union[AsyncWatch, AsyncAlarmWatch], function: Callable[[Any], Any],
                 on_error: Optional[Callable[[BaseException], Any]]) -> None:
        if not callable(function):
            raise TypeError("a subscription calls a function, %r is none" % (function,))
        self._events = events
        self._function = function
        self._on_error = on_error
        self._task = None  # type: Optional[asyncio.Task[None]]

    @classmethod
    async def _start(cls, events: Union[AsyncWatch, AsyncAlarmWatch],
                     function: Callable[[Any], Any],
                     on_error: Optional[Callable[[BaseException], Any]]) -> "AsyncSubscription":
        subscription = cls(events, function, on_error)
        await events._start()
        subscription._task = asyncio.get_running_loop().create_task(subscription._run())
        return subscription

    async def _run(self) -> None:
        report = self._events._plant._plant._dispatcher.report
        try:
            async for event in self._events:
                try:
                    result = self._function(event)
                    if isinstance(result, Awaitable):
                        await result
                except asyncio.CancelledError:  # an Exception before Python 3.8
                    raise
                except Exception as error:
                    report(self._function, self._on_error, error)
        except ConnectionLost as error:  # and not tried anew
            report(self._function, self._on_error, error)

    @property
    def active(self) -> bool:
        """Whether the function is still called."""
        return self._task is not None and not self._task.done()

    async def cancel(self) -> None:
        """Call the function no more."""
        await self._events.close()
        if self._task is not None and self._task is not asyncio.current_task():
            self._task.cancel()
