"""Fixtures of the contract tests: a plant on a thread, its folder in the cache, what was sent.

The module under test runs in child interpreters only, so the simulator may live in this process.
"""

import os
import random
import shutil

import pytest

import tasks
from cache import cache_folder
from plants import SMALL_PLANT
from vzsim import Simulator


@pytest.fixture
def simulate():
    """Starts plants, like SMALL_PLANT by default, whose cache folders are empty and go away."""
    running = []

    def start(plant=SMALL_PLANT, **arguments):
        simulator = Simulator(plant, **dict({"tick": 0}, **arguments))
        running.append(simulator)
        shutil.rmtree(cache_folder("%s:%d" % (simulator.host, simulator.port)), True)
        return simulator

    yield start
    for simulator in reversed(running):
        shutil.rmtree(cache_folder("%s:%d" % (simulator.host, simulator.port)), True)
        simulator.close()


@pytest.fixture
def plant(simulate):
    """The small plant, simulated; its clock stands still."""
    return simulate()


@pytest.fixture
def session(plant, script):
    """A script connected to the small plant as its operator: ``db``, and ``drv`` of line1.

    The plant hangs up before the script ends: a session that ends its own way pauses for 60 ms,
    which many tests would pay for. Scripts that end with a live session have tests of their own.
    """
    script.connect(plant)
    script("drv = db.GetDriver('line1')")
    plant.requests(clear=True)
    yield script
    plant.drop_clients()


@pytest.fixture
def host(plant):
    """The plant's host text."""
    return "%s:%d" % (plant.host, plant.port)


@pytest.fixture
def cached(plant):
    """Gives paths in the small plant's project folder of the cache."""
    def path(*parts):
        return os.path.normpath(os.path.join(
            cache_folder("%s:%d" % (plant.host, plant.port)), "Line1", *parts))
    return path


@pytest.fixture
def own_address():
    """A loopback address that no other test uses, for ports that are fixed."""
    return "127.%d.%d.%d" % tuple(random.randint(2, 250) for _ in range(3))


@pytest.fixture
def sent(plant):
    """Gives the bytes of each request so far, oldest first, and forgets them."""
    def take(codes=None):
        return [data for _, _, data in plant.requests(clear=True, codes=codes)]
    return take


@pytest.fixture
def written(plant):
    """Gives the bytes of the writes so far, after one at least has come."""
    def take():
        plant.wait_requests(1, codes="g")
        return [data for _, _, data in plant.requests(clear=True, codes="g")]
    return take


@pytest.fixture
def raised(script):
    """Runs code that must raise; gives the exception's type name and text."""
    from script import ScriptError

    def run(code):
        with pytest.raises(ScriptError) as caught:
            script(code)
        return caught.value.kind, caught.value.text
    return run


@pytest.fixture
def push(script, plant):
    """Pushes bytes in one send and waits until the script's receive thread has dealt with them."""
    def call(data):
        thread = tasks.other(script.pid)
        tasks.wait_asleep(script.pid, thread)
        before = tasks.sleeps(script.pid, thread)
        plant.push_raw(data)
        tasks.wait_asleep(script.pid, thread, before + 1)
    return call
