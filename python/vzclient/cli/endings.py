"""Ends of commands that go on until somebody ends them: SIGINT and SIGTERM."""

import os
import select
import signal
from typing import Any, Dict, Optional


class Ending:
    """Waits for SIGINT and SIGTERM, once ``take`` was called, and gives them back at its exit.

    Only for the first thread, but for ``end``.
    """

    def __enter__(self) -> "Ending":
        self._out, self._in = os.pipe()
        os.set_blocking(self._in, False)
        self._before = {}  # type: Dict[signal.Signals, Any]
        return self

    def take(self) -> None:
        """From now on these signals raise nothing and end nothing but ``wait``."""
        for number in (signal.SIGINT, signal.SIGTERM):
            self._before[number] = signal.signal(number, lambda *_: self.end())

    def __exit__(self, *error: Any) -> None:
        for number, handler in self._before.items():
            signal.signal(number, handler)
        os.close(self._out)
        os.close(self._in)

    def end(self) -> None:
        """What waits ends now."""
        try:
            os.write(self._in, b".")
        except BlockingIOError:  # it has been told often enough
            pass

    def wait(self, timeout: Optional[float]) -> bool:
        """Wait for the end, for so many seconds at most (None: however long). Whether it came."""
        ready, _, _ = select.select([self._out], [], [], timeout)
        return bool(ready)
