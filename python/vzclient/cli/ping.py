"""The command ``ping``: how long each step of a connection takes."""

import sys
import time
from typing import Any, Dict, List, Optional, TextIO, cast

import _vzclient

from .. import login as _login
from ..errors import ConnectionLost, VzError, VzTimeoutError
from ..plant import Plant
from .main import _code
from .options import Options
from .output import open_writer, visible
from .session import Login, login, trace_of

_STEPS = ("lookup_ms", "connect_ms", "hello_ms", "notify_ms", "login_ms", "drivers_ms", "probe_ms")
COLUMNS = ("number",) + _STEPS + ("total_ms",)
_QUEUE = 10000
_STEPS_OF = {b"7": ("connect_ms", "hello_ms"), b"9": ("login_ms", "login_ms"),
             b"4": ("drivers_ms", "drivers_ms")}
"""The steps that a request and its answer end."""


def ping(options: Options) -> int:
    """Connect as often as wanted; the exit code is that of the last failure."""
    where = login(options)
    status = 0
    with trace_of(options) as trace:
        with open_writer(options.form, COLUMNS, sys.stdout, True) as out:
            for number in range(1, options.count + 1):
                if number > 1:
                    time.sleep(options.interval)
                attempt = _Attempt(where, options.timeout)
                error = attempt.run()
                if trace is not None:
                    attempt.trace(trace)
                total = None if error else sum(attempt.times.values())
                times = [attempt.times.get(step) for step in _STEPS] + [total]
                out.write([number] + [_shown(seconds) for seconds in times])
                if error is not None:
                    print("vzclient: " + visible(str(error)), file=sys.stderr)
                    status = _code(error)
    return status


def _shown(seconds: Optional[float]) -> Optional[float]:
    return None if seconds is None else round(max(seconds, 0.0) * 1000, 2)


class _Attempt:
    """One connection, made and ended. What a login wants of a plant, and nothing else of it."""

    def __init__(self, where: Login, timeout: float) -> None:
        self.host, self.user, self._password = where
        self._timeout = timeout
        self._closed = False
        self._routes = _vzclient.Routes()
        self._trace_feed = _vzclient.Feed(self._routes, _QUEUE, "oldest")
        self._news = None  # type: Optional[_vzclient.Feed]
        self._events = []  # type: List[Any]
        self._names = {}  # type: Dict[int, str]
        self.times = {}  # type: Dict[str, float]

    def run(self) -> Optional[VzError]:
        """Connect, probe, and end the connection; why not, if so. Then ``times`` has the seconds
        of each step that was done."""
        session = None  # type: Optional[_vzclient.Session]
        begun = time.time()
        try:
            session = _login.open_session(cast(Plant, self), self._timeout)
            connected = time.time()
            self._split(begun, connected)
            session.probe(self._timeout)
            self.times["probe_ms"] = time.time() - connected
        except VzError as error:
            self._split(begun, None)
            return error
        except _vzclient.Failure as failure:
            kind = VzTimeoutError if failure.args[0] == "timeout" else ConnectionLost
            return kind("probing %s: connected, but the server does not answer" % self.host)
        finally:
            if session is not None:
                self._names = {facts[0]: name for name, facts in session.drivers().items()}
                session.end("closed")
                session.join()
            self._take()
        return None

    def _opens(self, session: _vzclient.Session) -> None:
        """Told by the login, for a plant that is closed meanwhile; this one never is."""

    def _take(self) -> List[Any]:
        """The messages since the last time, which are kept for the trace."""
        news = [event for _, event in self._trace_feed.take(0, _QUEUE) or ()]
        self._events += news
        return news

    def _split(self, begun: float, connected: Optional[float]) -> None:
        """Give the time up to each message to the step that it belongs to."""
        last, asked = begun, b""
        for event in self._take():
            if isinstance(event, str):
                when, step = float(event[1:]), "lookup_ms"
            else:
                when, notify, sent, data = event
                asked = data[:1] if sent and not notify and data[:1] in _STEPS_OF else asked
                step = "notify_ms" if notify else _STEPS_OF[asked][0 if sent else 1]
            self.times[step] = self.times.get(step, 0.0) + when - last
            last = when
        if connected is not None:
            self.times["drivers_ms"] = self.times.get("drivers_ms", 0.0) + connected - last

    def trace(self, stream: TextIO) -> None:
        """Write what was sent and received."""
        from ..trace import Decoder
        from ..tracer import lines_of
        decoder = Decoder(self._names.get)
        for event in self._events:
            for line in lines_of(decoder, event):
                print(line, file=stream, flush=True)
