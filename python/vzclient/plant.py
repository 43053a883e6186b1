"""A plant: the connection to its server, its drivers, its alarms."""

import atexit
import collections
import itertools
import logging
import os
import threading
import time
import weakref
from datetime import datetime
from types import MappingProxyType
from typing import (TYPE_CHECKING, Any, Callable, Deque, Dict, Iterator, List, Mapping, Optional,
                    Tuple, Union, cast)

import _vzclient

from . import login
from .dispatcher import Dispatcher
from .driver import Driver
from .errors import (ConnectionLost, UnknownDriver, UnknownTag, ValueRejected, VzError,
                     VzTimeoutError)
from .supervisor import Supervisor
from .types import AlarmRecord, Rights, State, Stats
from .watches import AlarmWatch, Subscription

if TYPE_CHECKING:
    from .alarms import Alarm
    from .tracer import Sink
    from .watches import _Events

_log = logging.getLogger("vzclient.connection")
_TRACE_QUEUE = 10000  # pieces of the wire that may wait to be printed
_CLOSE_WAIT = 2.0  # seconds that close waits for each thread of the plant
_plants = weakref.WeakSet()  # type: weakref.WeakSet[Plant]


def connect(host: str, user: str = "", password: str = "", *, timeout: float = 5.0,
            read_only: bool = False, reconnect: bool = True,
            backoff: Tuple[float, float] = (0.5, 30.0), heartbeat: float = 10.0,
            on_state: Optional[Callable[[State], Any]] = None,
            on_error: Optional[Callable[[BaseException], Any]] = None, queue: int = 10000,
            overflow: str = "latest", trace: Optional["Sink"] = None) -> "Plant":
    """Connect to a server and log in; returns the plant, which is a context manager.

    ``host``: "host", "host:port" (else port 80), "p2p:server" or "p2p(1.2.3.4):server" through a
    center server. ``timeout``: seconds for this call, and for each later call that names no other.
    ``read_only`` refuses every write before it is sent.

    ``reconnect``: when the connection is lost, make it anew, after ``backoff[0]`` seconds at first
    and at most ``backoff[1]``, and renew all subscriptions. ``heartbeat``: after so many seconds
    of silence the server is asked for a sign of life. ``on_state(state)`` is told of every change
    of the name of ``plant.state``. A plant lasts until it is closed or the process ends.

    Functions given to ``on_state``, ``on_change`` and ``on_alarm`` are called on one thread of the
    plant; ``on_error(exception)`` is told what they raise. ``queue`` and ``overflow`` are for the
    events that wait for that thread, as those of ``Driver.watch``; when alarms fill the queue,
    "latest" drops the oldest of them until a sixteenth of it is free.

    ``trace``: a text stream or a function that gets one line for each request and frame.

    Raises LoginRefused, another ConnectError or VzTimeoutError; ValueError for bad arguments.
    """
    return Plant(host, user, password, timeout=timeout, read_only=read_only, reconnect=reconnect,
                 backoff=backoff, heartbeat=heartbeat, on_state=on_state, on_error=on_error,
                 queue=queue, overflow=overflow, trace=trace)


class Plant:
    """A server's project, connected. Made by ``connect``; all of it is thread-safe."""

    def __init__(self, host: str, user: str, password: str, *, timeout: float, read_only: bool,
                 reconnect: bool, backoff: Tuple[float, float], heartbeat: float,
                 on_state: Optional[Callable[[State], Any]],
                 on_error: Optional[Callable[[BaseException], Any]], queue: int, overflow: str,
                 trace: Optional["Sink"]) -> None:
        if timeout <= 0 or heartbeat <= 0 or not 0 < backoff[0] <= backoff[1]:
            raise ValueError("times are above 0 s, and backoff grows")
        self.host = host
        self.user = user
        self._password = password
        self.timeout = float(timeout)
        self.read_only = read_only
        self._process = os.getpid()
        self._lock = threading.RLock()
        self._routes = _vzclient.Routes()
        self._queue = _vzclient.Feed(self._routes, queue, overflow)
        self._news = cast(_vzclient.Feed, None)  # of the present session
        self._session = cast(_vzclient.Session, None)
        self._opening = None  # type: Optional[_vzclient.Session]
        self._trace_feed = None  # type: Optional[_vzclient.Feed]
        self._drivers = {}  # type: Dict[str, Driver]
        self._facts = {}  # type: Dict[str, Tuple[int, int]]
        # By id. Not a WeakSet: those that go while others look through it would break that.
        self._watches = {}  # type: Dict[int, weakref.ref[_Events[Any]]]
        self._texts = None  # type: Optional[Tuple[_vzclient.Session, Tuple[List[str], List[str]]]]
        self._counts = collections.Counter()  # type: Dict[str, int]
        self._closed = False
        self._lost_for_good = ""
        self._state = State("connecting", _now(), None, "")
        self._lost_since = None  # type: Optional[datetime]
        self._on_state = None  # type: Optional[Subscription]
        self._state_numbers = itertools.count()
        self._states = collections.deque()  # type: Deque[Tuple[str, State]]  # on their way
        self._dispatcher = Dispatcher(self, on_error)
        self._supervisor = Supervisor(self, reconnect, backoff, heartbeat)
        self._tracer = None
        if trace is not None:
            from . import tracer
            self._trace_feed = _vzclient.Feed(self._routes, _TRACE_QUEUE, "oldest")
            self._tracer = tracer.Tracer(self, trace)
        try:
            self._adopt(login.open_session(self, self.timeout))
        except BaseException:
            self.close()
            raise
        finally:
            self._opening = None
        if on_state is not None:
            tell = on_state
            self._on_state = self._dispatcher.subscribe(
                lambda number: tell(self._take_state(number)), None)
        self._set_state("live", "")
        self._supervisor.start()
        _plants.add(self)

    # ---- What the plant is ----------------------------------------------------------------------

    @property
    def project(self) -> str:
        """Name of the project that the server runs."""
        self._check_process()
        return self._session.project

    @property
    def rights(self) -> Rights:
        """What the user may do."""
        self._check_process()
        return Rights(self._session.rights)

    @property
    def drivers(self) -> Mapping[str, Driver]:
        """The drivers of the project, by name."""
        return MappingProxyType(self._drivers)

    def __getitem__(self, name: str) -> Driver:
        """The driver of that name. Raises UnknownDriver."""
        try:
            return self._drivers[name]
        except KeyError:
            raise UnknownDriver("%s has no driver %r in its project %r; it has %s"
                                % (self.host, name, self.project, _list(self._drivers)),
                                (name,)) from None

    def __contains__(self, name: object) -> bool:
        """Whether there is a driver of that name."""
        return name in self._drivers

    def __iter__(self) -> Iterator[str]:
        """The names of the drivers."""
        return iter(self._drivers)

    @property
    def state(self) -> State:
        """How the connection is now."""
        self._check_process()
        state = self._state
        if state.name in ("live", "stale"):
            state = State(state.name, state.since, self._heard(), state.reason)
        return state

    @property
    def stats(self) -> Stats:
        """Counters since ``connect``."""
        self._check_process()
        counts = dict(self._counts)
        for name, count in self._session.counts().items():
            counts[name] = counts.get(name, 0) + count
        feeds = [self._queue] + [watch._feed for watch in self._watching()]
        counts["dropped"] = counts.get("dropped", 0) + sum(feed.dropped for feed in feeds)
        return Stats(callback_errors=self._dispatcher.errors,
                     reconnects=self._supervisor.reconnects, **counts)

    def __repr__(self) -> str:
        return "<Plant %s, %s>" % (self.host, self._state.name)

    # ---- Alarms ---------------------------------------------------------------------------------

    def alarms(self, existing: bool = True, timeout: Optional[float] = None, queue: int = 10000,
               overflow: str = "oldest") -> AlarmWatch:
        """Watch alarms: an iterable of Alarm.

        ``existing``: begin with the alarms that are active now. The rest is as for
        ``Driver.watch``. When a lost connection is regained, the active alarms come again, marked
        as resynced.
        """
        watch = AlarmWatch(self, queue, overflow, timeout)
        self._watch_alarms(watch._feed, 0, existing)
        return watch

    def on_alarm(self, function: Callable[["Alarm"], Any], existing: bool = False,
                 on_error: Optional[Callable[[BaseException], Any]] = None) -> Subscription:
        """Call ``function(alarm)`` for each alarm; as ``Driver.on_change``."""
        subscription = self._subscription(function, on_error)
        try:
            self._watch_alarms(self._queue, subscription._token, existing)
        except BaseException:
            subscription.cancel()
            raise
        return subscription

    def _watch_alarms(self, feed: _vzclient.Feed, token: int, existing: bool) -> None:
        try:
            self._session.watch_alarms(feed, token, existing, self.timeout)
        except _vzclient.Failure as failure:
            raise self._error(failure, "subscribing to alarms") from None
        self._texts = None  # that has loaded them anew

    def _alarm(self, record: AlarmRecord) -> "Alarm":
        """The alarm of a record, with the texts of the present session."""
        from .alarms import Alarm
        time, event_time, tag, kind, group, level, status, value, limit, resynced = record
        texts = self._texts
        if texts is None or texts[0] is not self._session:
            texts = self._texts = (self._session, self._session.alarm_texts())
        lines, tags = texts[1]
        return Alarm(_local(time), _local(event_time) if event_time else None, _text(tags, tag),
                     _text(lines, kind), _text(lines, group), level, value, limit, status, resynced)

    # ---- The end --------------------------------------------------------------------------------

    def close(self) -> None:
        """End the connection, all watches and subscriptions; more calls end what Ctrl-C left.

        May be called from anywhere, also within a callback. Callbacks that wait for their call are
        not called any more, but for that of ``on_state``.
        """
        if self._forked():  # whoever held the lock is not there to give it back
            return
        with self._lock:
            self._supervisor.stop()
            sessions = [each for each in (self._opening, self._session) if each is not None]
            if not self._closed and self._session is not None:
                self._set_state("closed", "")
            self._closed = True
        for session in sessions:
            session.end("closed")
        self._queue.close()
        for watch in self._watching():
            watch.close()
        if self._supervisor._thread.is_alive():
            self._supervisor.join(_CLOSE_WAIT)
        if self._session is not None:
            self._session.join()
        self._dispatcher.join(_CLOSE_WAIT)
        if self._tracer is not None:
            self._tracer.close(_CLOSE_WAIT)

    def __enter__(self) -> "Plant":
        return self

    def __exit__(self, *error: Any) -> None:
        self.close()

    # ---- For the rest of the package ------------------------------------------------------------

    def _forked(self) -> bool:
        """Whether this process was forked off the one that connected."""
        return os.getpid() != self._process

    def _check_process(self) -> None:
        if self._forked():
            raise VzError("using %s: the plant was connected before a fork; connect anew in the "
                          "child" % self.host)

    def _opens(self, session: _vzclient.Session) -> None:
        """A session is about to connect; it is ended with the plant."""
        with self._lock:
            self._opening = session
            if self._closed:
                session.end("closed")

    def _adopt(self, session: _vzclient.Session) -> None:
        """Make a connected session the plant's, all subscriptions renewed. Raises Failure."""
        self._facts = session.drivers()
        bound = {name: (session.driver(facts[0]), facts[1])
                 for name, facts in self._facts.items()}
        self._renew(session, {name: native for name, (native, _) in bound.items()})
        with self._lock:
            if self._closed:
                session.end("closed")
            drivers = dict(self._drivers)
            for name, (native, tag_count) in bound.items():
                drivers.setdefault(name, Driver(self, name))._bind(native, tag_count)
            if self._session is not None:
                for name, count in self._session.counts().items():
                    self._counts[name] += count
            self._session = session
            self._drivers = {name: drivers[name] for name in bound}

    def _renew(self, session: _vzclient.Session, drivers: Mapping[str, _vzclient.Driver]) -> None:
        """Have all that is watched told by a session, beginning with what is so at present."""
        for name, tags in self._routes.watched().items():
            gone = tags
            if name in drivers:
                gone = drivers[name].watch(self._routes, name, tuple(tags), None, 0, self.timeout)
            if gone:
                _log.warning("%s has no more %s of driver %r", self.host, _list(gone), name)
        if self._routes.alarms_watched():
            session.watch_alarms(None, 0, True, self.timeout)

    def _set_state(self, name: str, reason: str) -> None:
        with self._lock:
            if self._state.name == "closed" or (self._closed and name != "closed"):
                return
            heard = self._heard() if self._session is not None else None
            since = self._state.since if self._state.name == name else _now()
            if name == "lost":  # since then, however often it was tried anew
                since = self._lost_since = self._lost_since or since
            elif name != "connecting":
                self._lost_since = None
            changed = self._state.name != name
            self._state = State(name, since, heard, reason)
            if self._on_state is not None and changed:
                number = str(next(self._state_numbers))
                self._states.append((number, self._state))
                self._queue.news(number, self._on_state._token)

    def _take_state(self, number: str) -> State:
        """The state of that number; those before it were displaced in the queue."""
        while True:
            found, state = self._states.popleft()
            if found == number:
                return state

    def _heard(self) -> Optional[datetime]:
        return _local(self._session.heard)

    def _give_up(self, reason: str) -> None:
        """The connection is lost and not tried anew: what waits for events ends."""
        self._lost_for_good = reason
        for watch in self._watching():
            watch._feed.close()

    def _check_lost(self) -> None:
        if self._lost_for_good:
            raise ConnectionLost("waiting for an event of %s: the connection is lost (%s) and not "
                                 "tried anew" % (self.host, self._lost_for_good))

    def _subscription(self, function: Callable[[Any], Any],
                      on_error: Optional[Callable[[BaseException], Any]]) -> Subscription:
        self._check_process()
        return self._dispatcher.subscribe(function, on_error)

    def _is_active(self, subscription: Subscription) -> bool:
        return self._dispatcher.is_active(subscription) and not self._closed

    def _cancel(self, subscription: Subscription) -> None:
        self._dispatcher.cancel(subscription)
        if not self._forked():
            self._routes.drop(self._queue, subscription._token)

    def _watching(self) -> "List[_Events[Any]]":
        """The watches that are not closed."""
        found = [reference() for reference in list(self._watches.values())]
        return [watch for watch in found if watch is not None]

    def _drop(self, watch: "_Events[Any]") -> None:
        self._routes.drop(watch._feed, 0)
        with self._lock:
            self._counts["dropped"] += watch._feed.dropped
        self._watches.pop(id(watch), None)

    def _error(self, failure: _vzclient.Failure, what: str,
               driver: Optional[Driver] = None) -> VzError:
        """The error that a call raises for a failure of the session."""
        kind, detail = failure.args
        where = "%s%s on %s" % (what, "" if driver is None else " of %r" % driver.name, self.host)
        if kind == "unknown":
            detail = tuple(dict.fromkeys(detail))
            return UnknownTag("%s: there is no %s; check the names" % (where, _list(detail)),
                              detail)
        if kind == "rejected":
            return ValueRejected("%s: %r cannot take the value: %s; nothing was written"
                                 % (where, detail[0], detail[1]))
        if kind == "timeout":
            self._counts["timeouts"] += 1
            return VzTimeoutError("%s: not done within the time limit; check the server's load and "
                                  "the network" % where)
        if kind == "forked":
            return VzError("%s: the plant was connected before a fork; connect anew in the child"
                           % where)
        if kind == "reentered":
            return VzError("%s: a signal handler cannot use a plant in the middle of a call to it"
                           % where)
        if kind == "short":
            return VzError("%s: the server gave fewer values than asked for" % where)
        if driver is not None and not self._closed and driver.name not in self._drivers:
            return UnknownDriver("%s: the server has this driver no more" % where, (driver.name,))
        if self._closed:
            return ConnectionLost("%s: the plant is closed" % where)
        state = "it ended just now" if self._state.name == "live" else self._state
        return ConnectionLost("%s: there is no connection (%s); check the server and the network"
                              % (where, state))


def _now() -> datetime:
    return _local(time.time())


def _local(seconds: Union[int, float]) -> datetime:
    """An aware datetime in local time, also of seconds that do not fit 32 bits on the board."""
    return _vzclient.local_time(seconds)


def _text(texts: List[str], index: int) -> str:
    return texts[index] if index < len(texts) else "???"


def _list(names: Any) -> str:
    """Some names, or the first of many."""
    shown = ", ".join(repr(name) for name in list(names)[:10])
    return (shown or "none") if len(names) <= 10 else "%s and %d more" % (shown, len(names) - 10)


@atexit.register
def _close_all() -> None:
    """End what is still connected, before the interpreter takes itself apart."""
    for plant in list(_plants):
        plant.close()
