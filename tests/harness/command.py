"""The command ``vzclient`` in a child interpreter."""

import os
import select
import subprocess
import tempfile
import time
from collections import namedtuple

from script import TIME_SCALE, environment, interpreter

LIMIT = 30 * TIME_SCALE  # seconds for what must come

Done = namedtuple("Done", "code out err")


class Command:
    """Calling it runs the command to its end and gives (code, out, err).

    ``variables`` are its environment's, None for one that is not there; local time is eight hours
    ahead of UTC.
    """

    def __init__(self, **variables):
        self.variables = dict({"TZ": "CST-8", "VZCLIENT_HOST": None, "VZCLIENT_USER": None,
                               "VZCLIENT_PASSWORD": None, "PYTHONUNBUFFERED": None}, **variables)

    def environment(self, **more):
        """The environment of a child."""
        env = environment()
        for name, value in dict(self.variables, **more).items():
            env.pop(name, None)
            if value is not None:
                env[name] = value
        return env

    @staticmethod
    def line(*arguments):
        """The command as a list."""
        return interpreter() + ["-m", "vzclient"] + list(arguments)

    def __call__(self, *arguments, **more):
        done = subprocess.run(
            self.line(*arguments), env=self.environment(**more), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8", timeout=LIMIT)
        return Done(done.returncode, done.stdout, done.stderr)

    def start(self, *arguments, prefix=(), **more):
        """Start it, by a command that starts others if there is a prefix; gives a Running."""
        return Running(list(prefix) + self.line(*arguments), self.environment(**more))


class Running:
    """A command that runs. A context that kills it at the end if it still does."""

    def __init__(self, line, env):
        self._errors = tempfile.TemporaryFile()
        self._left = b""
        self.process = subprocess.Popen(line, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=self._errors, bufsize=0)

    def __enter__(self):
        return self

    def __exit__(self, *error):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self._errors.close()

    def read_line(self):
        """The next line of its output, without its end."""
        while b"\n" not in self._left:
            ready, _, _ = select.select([self.process.stdout], [], [], LIMIT)
            data = os.read(self.process.stdout.fileno(), 65536) if ready else b""
            assert data, "no more lines: %s" % self.errors()
            self._left += data
        line, _, self._left = self._left.partition(b"\n")
        return line.decode("utf-8")

    def errors(self):
        """What it has written on standard error so far."""
        size = os.fstat(self._errors.fileno()).st_size
        return os.pread(self._errors.fileno(), size, 0).decode("utf-8", "replace")

    def end(self, signal=None):
        """Wait for its end, after sending it a signal; gives (code, rest of the output, errors)."""
        if signal is not None:
            self.process.send_signal(signal)
        out, _ = self.process.communicate(timeout=LIMIT)
        return Done(self.process.returncode, (self._left + (out or b"")).decode("utf-8"),
                    self.errors())


def until(condition):
    """Wait until a condition holds; gives its value."""
    deadline = time.monotonic() + LIMIT
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, "not in time"
        time.sleep(0.005)
