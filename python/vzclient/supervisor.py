"""The thread that knows how the connection is, and makes it anew when it is lost."""

import logging
import random
import threading
import time
from typing import TYPE_CHECKING, Optional, Tuple

import _vzclient

from . import login
from .errors import LoginRefused, VzError

if TYPE_CHECKING:
    from .plant import Plant

_log = logging.getLogger("vzclient.connection")
_RENEWAL_PAUSE = 1.0  # seconds, at least, between two


class Supervisor:
    """Watches over a plant's session, from the first one until the plant is closed."""

    def __init__(self, plant: "Plant", reconnect: bool, backoff: Tuple[float, float],
                 heartbeat: float) -> None:
        self._plant = plant
        self._reconnect = reconnect
        self._backoff = backoff
        self._heartbeat = heartbeat
        self._closing = threading.Event()
        self._thread = threading.Thread(target=self._run, name="vzclient-supervisor", daemon=True)
        self.reconnects = 0

    def start(self) -> None:
        """Begin to watch over the plant's first session."""
        self._thread.start()

    def stop(self) -> None:
        """End soon; the session is ended by others."""
        self._closing.set()

    def join(self, timeout: float) -> None:
        """Wait for the thread, unless this is it."""
        if self._thread is not threading.current_thread():
            self._thread.join(timeout)

    def _run(self) -> None:
        while not self._closing.is_set():
            reason = self._guard()
            if self._closing.is_set():
                return
            plant = self._plant
            lost = time.monotonic()
            plant._set_state("lost", reason)
            _log.warning("connection to %s lost: %s", plant.host, reason)
            plant._session.join()
            if not self._reconnect:
                plant._give_up(reason)
                return
            if not self._regain():
                return
            self.reconnects += 1
            plant._set_state("live", "")
            _log.warning("connection to %s regained after %.1f s", plant.host,
                         time.monotonic() - lost)

    def _guard(self) -> str:
        """Wait until the session ends; returns why it did."""
        plant = self._plant
        loss = False  # of notifications; then all present values are asked for
        renewed = 0.0
        while True:
            heard = plant._session.heard
            wait = self._heartbeat
            if loss:
                wait = min(wait, max(renewed + _RENEWAL_PAUSE - time.monotonic(), 0.0))
            news = plant._news.take(wait, 16)
            for _, what in news or ():
                if what == "slow":
                    plant._set_state("stale", "an answer is overdue")
                elif what == "answered":
                    plant._set_state("live", "")
                elif what == "loss":
                    loss = True
                else:
                    return str(what)
            if loss:
                if time.monotonic() >= renewed + _RENEWAL_PAUSE:
                    loss = not self._renew(first=renewed == 0.0)
                    renewed = time.monotonic()
                continue
            # Told by what was heard and not by the clock, which may be set at any time.
            if not news and plant._session.heard == heard:
                try:
                    plant._session.probe(plant.timeout)
                except _vzclient.Failure:
                    pass  # it ended the session, which is news, or had no turn, which is none

    def _renew(self, first: bool) -> bool:
        """Ask for the present values and alarms of a session that lost notifications; whether that
        was done. One that ended over it has told so."""
        plant = self._plant
        _log.log(logging.WARNING if first else logging.DEBUG,
                 "%s told what cannot be understood; present values are asked for", plant.host)
        try:
            plant._renew(plant._session, {name: driver._native
                                          for name, driver in plant._drivers.items()})
            return True
        except _vzclient.Failure:
            return False
        except Exception:  # for want of memory
            _log.exception("asking %s for present values failed", plant.host)
            return False

    def _regain(self) -> bool:
        """Connect anew, however long it takes. False when the plant was closed meanwhile."""
        plant = self._plant
        first, longest = self._backoff
        attempt = 0
        while True:
            # Jittered, so that the clients of a server that comes back do not come all at once.
            delay = min(longest, first * 2 ** min(attempt, 16)) * random.uniform(0.5, 1.0)
            if self._closing.wait(delay):
                return False
            attempt += 1
            plant._set_state("connecting", "attempt %d" % attempt)
            reason = self._attempt()
            if reason is None:
                return True
            plant._set_state("lost", reason)
            _log.debug("attempt %d to connect to %s: %s", attempt, plant.host, reason)

    def _attempt(self) -> Optional[str]:
        """One attempt to connect and to renew all subscriptions; why it failed, or None."""
        plant = self._plant
        try:
            session = login.open_session(plant, plant.timeout)
            try:
                plant._adopt(session)
                return None
            except BaseException:
                session.end("subscriptions could not be renewed")
                session.join()
                raise
        except LoginRefused as error:
            return "refused: %s" % error
        except VzError as error:
            return str(error)
        except _vzclient.Failure as failure:
            return "subscriptions could not be renewed: %s" % failure.args[0]
        except Exception as error:  # for want of memory, descriptors or threads
            _log.exception("an attempt to connect to %s failed", plant.host)
            return "%s: %s" % (type(error).__name__, error)
        finally:
            plant._opening = None
