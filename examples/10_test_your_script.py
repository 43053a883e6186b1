"""Test your own scripts on simulated plants, here 02_write.py and 06_poll.py on a boiler house.

    pytest 10_test_your_script.py
"""
import contextlib
import os
import subprocess
import sys
import pytest

pytest_plugins = ["vzsim.pytest_plugin"]  # the fixture simulated_plant


@pytest.fixture
def start(simulated_plant):
    """Starts a script as the plant's operator; gives what it prints."""
    def run(script, *arguments):
        path = os.path.join(os.path.dirname(os.path.abspath(__file__)), script)
        env = dict(os.environ, VZCLIENT_HOST=simulated_plant.address,
                   VZCLIENT_USER="operator", VZCLIENT_PASSWORD="password")
        process = running.enter_context(subprocess.Popen(
            (sys.executable, path) + arguments, env=env, encoding="utf-8",
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT))
        running.callback(process.kill)
        return process.stdout
    with contextlib.ExitStack() as running:
        yield run


def test_a_setpoint_is_written(simulated_plant, start):
    assert start("02_write.py", "Boiler", "Pressure setpoint", "7.5").read().endswith("is 7.5\n")
    assert simulated_plant.get_value("Boiler", "Pressure setpoint") == 7.5


def test_polling_goes_on_behind_an_outage(simulated_plant, start):
    printed = start("06_poll.py", "0.1", "Boiler", "Steam pressure")
    assert printed.readline().endswith(",8.0\n")
    with simulated_plant.outage():
        assert any(line.startswith("no values: ") for line in printed)
    assert any(line.endswith(",8.0\n") for line in printed)
