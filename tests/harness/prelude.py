"""What scripts that test the package vzclient start with."""

from script import TIME_SCALE

# ``host`` is defined by the test.
PRELUDE = """
import asyncio, datetime, gc, logging, os, signal, socket, struct, sys, threading, time
import vzclient
LIMIT = %r  # seconds for what must come

def connect(user="operator", password="password", **options):
    options = dict({"timeout": LIMIT, "backoff": (0.01, 0.05)}, **options)
    return vzclient.connect(host, user, password, **options)

def until(condition):
    deadline = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < deadline, "not in time"
        time.sleep(0.002)

def take(watch, count):
    "(tag, value) of the next changes"
    changes = [watch.get(LIMIT) for _ in range(count)]
    return [(change.tag, change.value) for change in changes]

def note(calls):
    "A callback that notes (tag, value) of changes"
    return lambda change: calls.append((change.tag, change.value))

def error_of(call, *arguments, **options):
    "The error that a call raises"
    try:
        result = call(*arguments, **options)
    except BaseException as error:
        return error
    raise AssertionError("no error but %%r" %% (result,))

def kind_of(call, *arguments, **options):
    "The name of the error's type"
    return type(error_of(call, *arguments, **options)).__name__

def sockets():
    "How many sockets are open"
    found = 0
    for name in os.listdir("/proc/self/fd"):
        try:
            found += os.readlink("/proc/self/fd/" + name).startswith("socket:")
        except OSError:
            pass
    return found

class Thread(threading.Thread):
    "A thread that has started, and gives its function's result or error"
    def __init__(self, function, *arguments):
        super().__init__(daemon=True)
        self.work = function, arguments
        self.start()
    def run(self):
        try:
            self.outcome = self.work[0](*self.work[1])
        except BaseException as error:
            self.outcome = error
    def result(self):
        self.join(LIMIT)
        assert not self.is_alive(), "the thread hangs"
        return self.outcome
""" % (20 * TIME_SCALE)


def host_of(sim):
    """The host text of a simulator."""
    return "%s:%d" % (sim.host, sim.port)
