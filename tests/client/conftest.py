"""Fixtures of the tests of the package: a simulated plant, and a script that is its client.

The plant runs in a process of its own, the package in a child interpreter, so that what Ctrl-C,
a fork or a crash does to it is seen from outside.
"""

import os
import shutil
import sys

import pytest

from cache import cache_folder
from command import Command
from plants import SMALL_PLANT
from prelude import PRELUDE, host_of
from script import ROOT, Script, ScriptError
from vzsim import SimProcess

sys.path.append(os.path.join(ROOT, "tests", "contract"))  # wire.py

CONNECT = "plant = connect(%s)\nline = plant['line1']"


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


@pytest.fixture
def vz(sim):
    """The command, for the small plant and its operator."""
    return Command(VZCLIENT_HOST=host_of(sim), VZCLIENT_USER="operator",
                   VZCLIENT_PASSWORD="password")
