"""Makes the simulator importable and gives every test a plant of its own on a free port."""

import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON = os.path.join(os.path.dirname(os.path.dirname(HERE)), "python")
for path in (PYTHON, HERE):
    if path not in sys.path:
        sys.path.insert(0, path)

from vzsim import Simulator  # noqa: E402
from wire_client import Client  # noqa: E402


def small_plant(**changes):
    """A plant with every type of tag, without moving signals unless ``changes`` bring some."""
    plant = {
        "name": "small", "project": "小厂", "title": "Small plant", "file_time": 1600000000,
        "users": [{"name": "operator", "password": "secret", "rights": 8},
                  {"name": "guest", "password": "", "rights": 0}],
        "drivers": [
            {"name": "Types", "tags": [
                {"name": "i2", "type": "i2", "value": -2},
                {"name": "i4", "type": "i4", "value": 258},
                {"name": "r4", "type": "r4", "value": 1.5},
                {"name": "r8", "type": "r8", "value": -2.5},
                {"name": "date", "type": "date", "value": "1970-01-01"},
                {"name": "str", "type": "str", "value": "AB"},
                {"name": "bool", "type": "bool", "value": True},
                {"name": "i1", "type": "i1", "value": -1},
                {"name": "ui1", "type": "ui1", "value": 255},
                {"name": "ui2", "type": "ui2", "value": 65535},
                {"name": "ui4", "type": "ui4", "value": 4294967295},
                {"name": "i8", "type": "i8", "value": -3},
                {"name": "int", "type": "int", "value": -4},
                {"name": "uint", "type": "uint", "value": 5},
                {"name": "empty", "type": "empty"},
                {"name": "null", "type": "null"},
                {"name": "cy", "type": "cy"},
                {"name": "ui8", "type": "ui8"},
                {"name": "array", "type": "array", "value": [1, 2]}]},
            {"name": "锅炉", "id": 7, "tags": [
                {"name": "水位", "type": "i4", "value": 40, "alarms": [
                    {"high": 80.0, "text": "too high", "group": "锅炉", "level": 2,
                     "hysteresis": 5.0},
                    {"low": 10.0, "text": "too low", "group": "锅炉", "level": 3}]},
                {"name": "Setpoint", "type": "r8", "value": 10.0},
                {"name": "Process", "type": "r8", "follows": "Setpoint", "tau": 2.0}]}]}
    plant.update(changes)
    return plant


@pytest.fixture
def sim():
    """The small plant with its clock stopped."""
    with Simulator(small_plant(), tick=0) as simulator:
        yield simulator


@pytest.fixture
def client(sim):
    """A client logged in to it as operator."""
    with Client(sim.port) as connected:
        connected.log_in()
        yield connected
