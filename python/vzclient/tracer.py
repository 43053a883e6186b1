"""Prints the wire: what the sessions of a plant send and receive, decoded to text."""

import logging
import threading
from typing import TYPE_CHECKING, Any, Callable, Iterator, Optional, TextIO, Union

from .trace import Decoder

if TYPE_CHECKING:
    from .plant import Plant

_log = logging.getLogger("vzclient.trace")
_BATCH = 256

Sink = Union[TextIO, Callable[[str], Any]]
"""Where the lines of a trace go: a text stream, or a function that gets each without its end."""


def lines_of(decoder: Decoder, event: Any) -> Iterator[str]:
    """The lines of an event of a trace queue: "+" and a time where a session begins, else time,
    whether it is the notification channel, whether it was sent, and bytes."""
    if isinstance(event, str):
        for channel in ("request", "notify"):
            yield from decoder.feed(float(event[1:]), channel, event[:1], b"")
    else:
        when, notify, sent, data = event
        yield from decoder.feed(when, "notify" if notify else "request", ">" if sent else "<", data)


def _printer(stream: TextIO) -> Callable[[str], Any]:
    return lambda line: print(line, file=stream, flush=True)


class Tracer:
    """Takes the bytes of the wire out of the plant's trace queue and prints them.

    A sink that raises gets nothing more.
    """

    def __init__(self, plant: "Plant", sink: Sink) -> None:
        feed = plant._trace_feed
        assert feed is not None
        self._feed = feed
        self._write = sink if callable(sink) else _printer(sink)
        self._decoder = Decoder(self._driver_name)
        self._plant = plant
        self._thread = threading.Thread(target=self._run, name="vzclient-trace", daemon=True)
        self._thread.start()

    def close(self, timeout: float) -> None:
        """Print what is left and end."""
        self._feed.close()
        if self._thread is not threading.current_thread():
            self._thread.join(timeout)

    def _driver_name(self, number: int) -> Optional[str]:
        for name, facts in (self._plant._facts or {}).items():
            if facts[0] == number:
                return name
        return None

    def _lines(self, event: Any) -> Iterator[str]:
        return lines_of(self._decoder, event)

    def _run(self) -> None:
        while True:
            events = self._feed.take(None, _BATCH)
            if events is None:
                return
            for _, event in events:
                for line in self._lines(event):
                    try:
                        self._write(line)
                    except Exception:
                        _log.exception("the trace of %s ends", self._plant.host)
                        self._feed.close()
                        return
