"""The thread on which functions of the user are called."""

import itertools
import logging
import threading
from typing import TYPE_CHECKING, Any, Callable, Dict, Optional, cast

from .types import AlarmRecord
from .watches import Subscription

if TYPE_CHECKING:
    from .plant import Plant

_log = logging.getLogger("vzclient.callbacks")
_BATCH = 512


class Dispatcher:
    """Takes events out of the plant's queue and calls those who subscribed to them.

    Its thread starts with the first subscription and ends with the plant.
    """

    def __init__(self, plant: "Plant", on_error: Optional[Callable[[BaseException], Any]]) -> None:
        self._plant = plant
        self._on_error = on_error
        self._lock = threading.RLock()  # a signal's handler may come while its thread holds it
        self._subscriptions = {}  # type: Dict[int, Subscription]
        self._tokens = itertools.count(1)
        self._thread = None  # type: Optional[threading.Thread]
        self.errors = 0
        self.finishes = False  # calls that wait when the plant is closed are made

    def subscribe(self, function: Callable[[Any], Any],
                  on_error: Optional[Callable[[BaseException], Any]]) -> Subscription:
        """A new subscription, for which nothing arrives yet."""
        if not callable(function):
            raise TypeError("a subscription calls a function, %r is none" % (function,))
        with self._lock:
            token = next(self._tokens)
            subscription = Subscription(self._plant, token, function, on_error)
            self._subscriptions[token] = subscription
            if self._thread is None:
                self._thread = threading.Thread(target=self._run, name="vzclient-dispatcher",
                                                daemon=True)
                self._thread.start()
        return subscription

    def cancel(self, subscription: Subscription) -> None:
        """Forget a subscription."""
        self._subscriptions.pop(subscription._token, None)

    def is_active(self, subscription: Subscription) -> bool:
        """Whether it is not forgotten."""
        return subscription._token in self._subscriptions

    def join(self, timeout: float) -> None:
        """Wait for the thread, once the queue is closed; not from the thread itself."""
        thread = self._thread
        if thread is not None and thread is not threading.current_thread():
            thread.join(timeout)

    def _run(self) -> None:
        queue, subscriptions = self._plant._queue, self._subscriptions
        while True:
            events = queue.take(None, _BATCH)
            if events is None:
                return
            for token, event in events:
                subscription = subscriptions.get(token)
                if subscription is None:  # cancelled meanwhile
                    continue
                over = self._plant._closed and not self.finishes
                if over and subscription is not self._plant._on_state:
                    continue
                try:
                    subscription._function(self._plant._alarm(cast(AlarmRecord, event))
                                           if type(event) is tuple else event)
                except BaseException as error:  # also SystemExit: others wait for their calls
                    self.report(subscription._function, subscription._on_error, error)

    def report(self, function: Callable[[Any], Any],
               on_error: Optional[Callable[[BaseException], Any]], error: BaseException) -> None:
        """Log, count and pass on what a callback raised; called while that is handled."""
        self.errors += 1
        _log.exception("the callback %r of %s raised", function, self._plant.host)
        on_error = on_error or self._on_error
        if on_error is None:
            return
        try:
            on_error(error)
        except BaseException:
            _log.exception("on_error %r of %s raised in turn", on_error, self._plant.host)
