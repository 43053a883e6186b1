"""An example as the reader starts it: a script in an interpreter of its own, with its output."""

import os
import re
import select
import signal
import subprocess
import time
from typing import Any, Callable, List, Optional, TypeVar

from script import ROOT, TIME_SCALE, environment, interpreter

EXAMPLES = os.path.join(ROOT, "examples")
LIMIT = 30 * TIME_SCALE  # seconds for what must come
Found = TypeVar("Found")


def until(find: Callable[[], Found]) -> Found:
    """Wait until a function finds something; returns what it found."""
    deadline = time.monotonic() + LIMIT
    while True:
        found = find()
        if found:
            return found
        assert time.monotonic() < deadline, "not in time"
        time.sleep(0.01)


def variables(address: str, user: str = "operator", password: str = "secret") -> Any:
    """The environment of an example whose server is there."""
    return dict(environment(), VZCLIENT_HOST=address, VZCLIENT_USER=user,
                VZCLIENT_PASSWORD=password)


class Running:
    """A started example; a context manager that ends it. What it writes is one stream."""

    def __init__(self, name: str, *arguments: str, env: Any, prefix: Optional[List[str]] = None
                 ) -> None:
        command = interpreter() + (prefix or []) + [os.path.join(EXAMPLES, name)]
        self.process = subprocess.Popen(
            command + list(arguments), env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, preexec_fn=_hear_ctrl_c)
        self.printed = b""
        self._seen = 0

    def line(self, pattern: str) -> str:
        """Wait for a line that has the pattern in it; it stands below those found before."""
        deadline = time.monotonic() + LIMIT
        while True:
            end = self.printed.find(b"\n", self._seen) + 1
            if end:
                line = self.printed[self._seen:end].decode("utf-8")
                self._seen = end
                if re.search(pattern, line):
                    return line
            elif not self._receive(deadline):
                raise AssertionError("no line with %r:\n%s" % (pattern, self.text))

    def end(self, number: Optional[int] = None) -> int:
        """Wait for the end, after a signal if one is given; returns the exit code."""
        if number is not None:
            self.process.send_signal(number)
        deadline = time.monotonic() + LIMIT
        while self._receive(deadline):
            pass
        code = self.process.wait(max(deadline - time.monotonic(), 0.1))
        assert "Traceback" not in self.text, self.text
        return code

    @property
    def text(self) -> str:
        """All that was written so far."""
        return self.printed.decode("utf-8")

    def sockets(self) -> int:
        """How many sockets it has open."""
        folder = "/proc/%d/fd" % self.process.pid
        return sum(_link(os.path.join(folder, name)).startswith("socket:")
                   for name in os.listdir(folder))

    def _receive(self, deadline: float) -> bool:
        """Take what it writes; False at the end of its output."""
        stream = self.process.stdout
        assert stream is not None
        if not select.select([stream], [], [], max(deadline - time.monotonic(), 0.0))[0]:
            raise AssertionError("it neither writes nor ends:\n%s" % self.text)
        data = os.read(stream.fileno(), 65536)
        self.printed += data
        return bool(data)

    def __enter__(self) -> "Running":
        return self

    def __exit__(self, *error: Any) -> None:
        self.process.kill()
        self.process.communicate()


def _hear_ctrl_c() -> None:
    """What starts the tests in the background may have it ignored, and the child inherits that."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


def _link(path: str) -> str:
    try:
        return os.readlink(path)
    except OSError:  # closed meanwhile
        return ""


def all_received(port: int) -> bool:
    """Whether no byte is on its way to or from a port of this machine, nor waits to be read."""
    with open("/proc/net/tcp") as stream:
        rows = [line.split() for line in stream][1:]
    end = ":%04X" % port
    return all(row[4] == "00000000:00000000" for row in rows
               if row[3] == "01" and end in (row[1][-5:], row[2][-5:]))
