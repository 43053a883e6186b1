"""Fixtures of the tests of the package: a simulated plant, and a script that is its client.

The plant runs in a process of its own, the package in a child interpreter, so that what Ctrl-C,
a fork or a crash does to it is seen from outside.
"""

import os
import shutil
import sys

import pytest

from cache import cache_folder
from plants import SMALL_PLANT
from script import ROOT, TIME_SCALE, Script, ScriptError
from vzsim import SimProcess

sys.path.append(os.path.join(ROOT, "tests", "contract"))  # wire.py

# What a client's script has at hand. ``plant`` and ``line`` are there when it is connected.
PRELUDE = """
import asyncio, datetime, logging, signal, socket, struct
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
CONNECT = "plant = connect(%s)\nline = plant['line1']"


def host_of(sim):
    """The host text of a simulator."""
    return "%s:%d" % (sim.host, sim.port)


@pytest.fixture
def simulate():
    """Starts plants, like SMALL_PLANT by default, whose cache folders are empty and go away."""
    running = []

    def start(plant=SMALL_PLANT, **arguments):
        simulator = SimProcess(plant, **dict({"tick": 0}, **arguments))
        running.append(simulator)
        shutil.rmtree(cache_folder(host_of(simulator)), True)
        return simulator

    yield start
    for simulator in reversed(running):
        shutil.rmtree(cache_folder(host_of(simulator)), True)
        simulator.close()


@pytest.fixture
def sim(simulate):
    """The small plant, simulated; its clock stands still."""
    return simulate()


@pytest.fixture
def variables():
    """What is added to the client's environment."""
    return {}


@pytest.fixture
def client(sim, variables):
    """A script that has imported the package, and must end well and say nothing."""
    with Script(**variables) as child:
        child("host = %r\n%s" % (host_of(sim), PRELUDE))
        yield child


@pytest.fixture
def connect(client, sim):
    """Connects the client, with these arguments as text; forgets the requests of that."""
    def call(arguments=""):
        client(CONNECT % arguments)
        sim.requests(clear=True)
        return client
    return call


@pytest.fixture
def connected(connect):
    """A client that is connected as the operator."""
    return connect()


@pytest.fixture
def raised(client):
    """Runs code that must raise; gives the exception's type name and text."""
    def run(code):
        with pytest.raises(ScriptError) as caught:
            client(code)
        return caught.value.kind, caught.value.text
    return run


@pytest.fixture
def sent(sim):
    """Gives the bytes of each request so far, oldest first, and forgets them."""
    def take(codes=None):
        return [data for _, _, data in sim.requests(clear=True, codes=codes)]
    return take
