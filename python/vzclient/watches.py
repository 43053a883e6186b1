"""What tells of changes and alarms: watches to iterate over, subscriptions that call functions."""

import collections
import threading
import time
import weakref
from abc import ABC, abstractmethod
from typing import TYPE_CHECKING, Any, Callable, Deque, Generic, Iterator, Optional, TypeVar

import _vzclient

from .errors import ConnectionLost, VzTimeoutError
from .types import Change

if TYPE_CHECKING:
    from .alarms import Alarm
    from .plant import Plant

_BATCH = 512  # events taken out of a queue at once
Item = TypeVar("Item")


def _lock_timeout(timeout: Optional[float]) -> float:
    """Seconds as locks want them."""
    return -1 if timeout is None else min(max(timeout, 0.0), threading.TIMEOUT_MAX)


class _Events(ABC, Generic[Item]):
    """A queue of events to iterate over; a context manager that closes it.

    One watch may be read by several threads; each event goes to one of them. A watch that nobody
    holds any more is closed.
    """

    _closed = True  # until there is something to close

    def __init__(self, plant: "Plant", queue: int, overflow: str,
                 timeout: Optional[float]) -> None:
        plant._check_process()
        self._plant = plant
        self._feed = _vzclient.Feed(plant._routes, queue, overflow)
        self._timeout = timeout
        self._batch = collections.deque()  # type: Deque[Any]
        self._lock = threading.RLock()  # of the thread that fills the batch, for all who wait
        self._closed = False
        plant._watches[id(self)] = weakref.ref(self)

    @abstractmethod
    def _item(self, event: Any) -> Item:
        """What the reader gets for an event of the queue."""

    def __iter__(self) -> Iterator[Item]:
        """Events as they come, until the watch or its plant is closed.

        Raises VzTimeoutError when nothing came for ``timeout`` seconds, and ConnectionLost when
        the connection is gone and is not tried anew.
        """
        while self._fill(self._timeout):
            try:
                while True:
                    yield self._item(self._batch.popleft())
            except IndexError:
                pass

    def get(self, timeout: Optional[float] = None) -> Item:
        """The next event. VzTimeoutError after ``timeout`` seconds; None waits for ever.

        Raises ConnectionLost when no more will come.
        """
        while self._fill(timeout):
            try:
                return self._item(self._batch.popleft())
            except IndexError:  # another thread was faster
                pass
        raise ConnectionLost("waiting for an event of %s: the watch is closed" % self._plant.host)

    def _fill(self, timeout: Optional[float]) -> bool:
        """Wait until there is something in the batch; False at the end."""
        if self._batch:
            return True
        self._plant._check_process()
        deadline = None if timeout is None else time.monotonic() + timeout
        try:
            if self._lock.acquire(True, _lock_timeout(timeout)):
                if self._batch:  # another thread has filled it meanwhile
                    return True
                if self._closed:
                    return False
                left = None if deadline is None else max(deadline - time.monotonic(), 0.0)
                events = self._feed.take(left, _BATCH)
                if events is None:
                    self._plant._check_lost()
                    return False
                if events:
                    self._batch.extend(events)
                    return True
        finally:
            # Asked for, as Ctrl-C may come when the lock has been given and nobody knows yet.
            if self._lock._is_owned():  # type: ignore[attr-defined]
                self._lock.release()
        raise VzTimeoutError("nothing came from %s within %s s" % (self._plant.host, timeout))

    @property
    def dropped(self) -> int:
        """How many events were displaced because the queue was full."""
        self._plant._check_process()
        return self._feed.dropped

    @property
    def waiting(self) -> int:
        """How many events wait to be taken."""
        self._plant._check_process()
        return len(self._feed) + len(self._batch)

    def close(self) -> None:
        """End the watch, also while another thread waits in it. The server goes on sending."""
        if not self._closed and not self._plant._forked():
            self._closed = True
            self._plant._drop(self)
            self._feed.close()
            self._batch.clear()

    def __del__(self) -> None:
        self.close()

    def __enter__(self) -> Any:
        return self

    def __exit__(self, *error: Any) -> None:
        self.close()


class Watch(_Events[Change]):
    """Changes of tags, from ``Driver.watch``: iterate over it, or ``get`` one at a time."""

    def _item(self, event: Any) -> Change:
        change = event[1]  # type: Change
        return change

    def __enter__(self) -> "Watch":
        return self


class AlarmWatch(_Events["Alarm"]):
    """Alarms, from ``Plant.alarms``: iterate over it, or ``get`` one at a time."""

    def _item(self, event: Any) -> "Alarm":
        return self._plant._alarm(event[1])

    def __enter__(self) -> "AlarmWatch":
        return self


class Subscription:
    """A function that is called for events. Made by ``on_change`` and ``on_alarm``."""

    def __init__(self, plant: "Plant", token: int, function: Callable[[Any], Any],
                 on_error: Optional[Callable[[BaseException], Any]]) -> None:
        self._plant = plant
        self._token = token
        self._function = function
        self._on_error = on_error

    @property
    def active(self) -> bool:
        """Whether the function is still called."""
        return self._plant._is_active(self)

    def cancel(self) -> None:
        """Call the function no more; it may be called once more by a thread that is about to.

        Cancelled within one of its own calls it is not called again. The server goes on sending.
        """
        self._plant._cancel(self)
