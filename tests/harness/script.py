"""A script in a child interpreter, driven line by line."""

import ast
import json
import os
import select
import shlex
import signal
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
TIME_SCALE = float(os.environ.get("VZ_TIME_SCALE", "1"))
ROUNDS_SCALE = float(os.environ.get("VZ_ROUNDS_SCALE", "1"))


class ScriptError(Exception):
    """The script raised: ``kind`` is the exception's type name, ``text`` its text."""

    def __init__(self, kind, text):
        super().__init__("%s: %s" % (kind, text))
        self.kind = kind
        self.text = text


def rounds(count):
    """How often to repeat what a rare coincidence might break: ``count`` times at full speed."""
    return max(1, round(count * ROUNDS_SCALE))


def interpreter():
    """The command of the interpreter under test, as a list."""
    return shlex.split(os.environ.get("VZ_INTERPRETER", sys.executable))


def environment():
    """The environment of a child that imports the module under test."""
    env = dict(os.environ)
    env["PYTHONPATH"] = os.environ.get("VZ_IMPORT_PATH", os.path.join(ROOT, "build", "python"))
    env["PYTHONFAULTHANDLER"] = "1"
    env["PYTHONIOENCODING"] = "utf-8"
    preload = os.environ.get("VZ_PRELOAD")
    if preload:
        env["LD_PRELOAD"] = preload
        env["PYTHONMALLOC"] = "malloc"
        # Leaks are looked for by the unit tests; here the interpreter's own would drown them.
        env["ASAN_OPTIONS"] = "detect_leaks=0"
        env["UBSAN_OPTIONS"] = "print_stacktrace=1"
    return env


def run(code, *args, timeout=60, **kwargs):
    """Run a whole script; returns the finished process with text output."""
    return subprocess.run(interpreter() + ["-c", code] + list(args), env=environment(),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=timeout * TIME_SCALE,
                          **kwargs)


class Script:
    """One child interpreter. Calling it runs code there and gives the value of an expression.

    Values come back by their literal form. Names defined stay. An exception of the script raises
    ScriptError here. ``VzDBAccess``, ``os``, ``sys``, ``time`` and ``threading`` are imported, and
    ``slots(list)`` gives (length, the objects that are there) of a list whose other slots may be
    empty, ``contents(list)`` what each slot holds, "<empty>" for an empty one. ``prefix`` is a
    command that starts the child; ``variables`` are added to its environment.
    """

    def __init__(self, timeout=60, prefix=(), **variables):
        self.timeout = timeout * TIME_SCALE
        self.expect_stderr = None
        self._emulator = []
        self.process = subprocess.Popen(
            list(prefix) + interpreter() + [os.path.join(HERE, "child.py")],
            env=dict(environment(), **variables), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE)
        self.stderr = b""

    def __call__(self, code, timeout=None):
        self.start(code)
        return self.result(timeout)

    def start(self, code):
        """Run code there without waiting for its result."""
        self.process.stdin.write(json.dumps(code).encode() + b"\n")
        self.process.stdin.flush()

    def result(self, timeout=None):
        """The result of the code started last."""
        wait = timeout * TIME_SCALE if timeout else self.timeout
        ready, _, _ = select.select([self.process.stdout], [], [], wait)
        if not ready:
            self.process.send_signal(signal.SIGABRT)
            self._collect()
            raise AssertionError("the script hangs\n" + self.stderr.decode("utf-8", "replace"))
        line = self.process.stdout.readline()
        if not line:
            self._collect()
            raise AssertionError("the script died with %s\n%s" % (
                self.process.returncode, self.stderr.decode("utf-8", "replace")))
        answer = json.loads(line.decode())
        self._emulator = answer["emulator"]
        if "error" in answer:
            raise ScriptError(*answer["error"])
        return ast.literal_eval(answer["value"])

    @property
    def emulated(self):
        """Whether an emulator runs a script that has given a result: it uses memory of its own."""
        return bool(self._emulator)

    def other_threads(self):
        """The threads but the first of a script that has given a result, and no emulator's."""
        tasks = map(int, os.listdir("/proc/%d/task" % self.pid))
        return sorted(set(tasks) - {self.pid} - set(self._emulator))

    def connect(self, plant, user="operator", password="password"):
        """``db`` connects to a simulated plant, which must succeed."""
        code = "db = VzDBAccess.DBCore(); db.Connect(%r, %r, %r)" % (
            "%s:%d" % (plant.host, plant.port), user, password)
        assert self(code.replace("; ", "\nresult = ") + "\nassert result == 0, result") is None

    @property
    def pid(self):
        return self.process.pid

    def wait_until(self, condition, timeout=30):
        """Wait until a condition holds there."""
        self("deadline = time.time() + %r\n"
             "while not (%s):\n"
             "    assert time.time() < deadline, 'not in time: ' + %r\n"
             "    time.sleep(0.002)" % (timeout * TIME_SCALE, condition, condition))

    def end(self, timeout=None):
        """Let the script end; returns its exit code. Standard error is in ``stderr``."""
        if self.process.returncode is None:
            self._collect(timeout)
        return self.process.returncode

    def _collect(self, timeout=None):
        wait = timeout * TIME_SCALE if timeout else self.timeout
        try:
            _, self.stderr = self.process.communicate(timeout=wait)
        except subprocess.TimeoutExpired:
            self.process.send_signal(signal.SIGABRT)
            _, self.stderr = self.process.communicate()
            raise AssertionError("the script does not end\n" +
                                 self.stderr.decode("utf-8", "replace"))

    def __enter__(self):
        return self

    def __exit__(self, kind, error, trace):
        if kind is not None:
            self.process.kill()
            self.process.communicate()
            return
        code = self.end()
        assert code == 0, "exit code %s\n%s" % (code, self.stderr.decode("utf-8", "replace"))
        if self.expect_stderr is None:
            assert self.stderr == b"", self.stderr.decode("utf-8", "replace")
        else:
            assert self.expect_stderr in self.stderr
