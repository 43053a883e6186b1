"""The pytest plugin: small suites of users, run by a pytest of their own."""

import os
import re
import signal
import subprocess
import sys
import textwrap

import pytest

from conftest import PYTHON
from test_sim_process import gone, wait_gone

PLANT = """{"name": "line", "tick": 0.001, "drivers": [{"name": "D", "tags": [
    {"name": "t", "type": "i4", "value": 5},
    {"name": "n", "type": "i4", "signal": {"kind": "counter", "every": 0.001}}]}]}"""

HEAD = """
import os
import socket

import pytest


def asks(sim, request, size):
    host, _, port = sim.address.rpartition(":")
    with socket.create_connection((host, int(port)), 30) as sock:
        sock.sendall(request)
        return sock.recv(size)


def noted(sim):
    with open("pids", "a") as stream:
        stream.write("%d\\n" % sim.pid)
    return sim
"""


class Suite:
    """A suite in a folder of its own; ``run`` gives pytest's exit code and what it printed."""

    def __init__(self, folder):
        self.folder = folder
        (folder / "line.json").write_text(PLANT)

    def write(self, text, name="test_scripts.py"):
        (self.folder / name).write_text(HEAD + textwrap.dedent(text), encoding="utf-8")

    def start(self, *arguments):
        environment = dict(os.environ, PYTHONPATH=PYTHON, PYTHONIOENCODING="utf-8")
        environment.pop("PYTEST_ADDOPTS", None)
        return subprocess.Popen(
            [sys.executable, "-m", "pytest", "-p", "no:cacheprovider", "-W", "error",
             "--strict-markers", "-rA", "--rootdir", "."] + list(arguments),
            cwd=str(self.folder), env=environment, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def run(self, *arguments):
        process = self.start(*arguments)
        out, _ = process.communicate(timeout=120)
        return process.returncode, out.decode()

    def pids(self):
        return [int(line) for line in (self.folder / "pids").read_text().split()]


@pytest.fixture
def suite(tmp_path):
    return Suite(tmp_path)


def outcomes(text):
    """The outcome of each test, by its name."""
    return {name: word for word, name in re.findall(
        r"^(PASSED|FAILED|ERROR) test_\w+\.py::(\w+)", text, re.MULTILINE)}


PLUGIN = ("-p", "vzsim.pytest_plugin")


def test_a_users_suite_gets_the_plants_it_asks_for(suite):
    suite.write("""
        import gc
        import weakref

        KEPT, FORGOTTEN = [], []
        TABLE = {"name": "table", "drivers": [{"name": "T", "tags": [
            {"name": "t", "type": "i4", "value": 7}]}]}

        def test_default(simulated_plant):
            assert noted(simulated_plant).name == "boiler_house"
            assert asks(simulated_plant, b"3", 8) == b"0"

        @pytest.mark.plant("boiler_house")
        def test_packaged(simulated_plant):
            assert noted(simulated_plant).get_value("Boiler", "Steam pressure") == 8.0

        @pytest.mark.plant(TABLE)
        def test_table(simulated_plant):
            assert noted(simulated_plant).get_value("T", "t") == 7

        @pytest.mark.plant("line.json")
        def test_path(simulated_plant):
            sim = noted(simulated_plant)
            sim.play([("D/t", 6, 0.02)])
            assert sim.get_value("D", "n") == 0
            sim.step(0.25)
            assert sim.get_value("D", "n") == 250

        @pytest.mark.plant("line.json", tick=None, verbose=False)
        def test_clock(simulated_plant):
            sim = noted(simulated_plant)
            sim.play([("D/t", 6, 0.02)])
            assert sim.get_value("D", "n") > 0
            asks(sim, b"3", 8)
            assert sim.log() == ""

        @pytest.mark.plant(tick=None)
        class TestAll:
            def test_inherited(self, simulated_plant):
                assert noted(simulated_plant).name == "boiler_house"

        def test_factory(plant_simulator):
            sims = [noted(plant_simulator()), noted(plant_simulator(TABLE, tick=0))]
            assert [sim.name for sim in sims] == ["boiler_house", "table"]
            assert sims[0].port != sims[1].port
            KEPT.append(sims[0])
            FORGOTTEN.append(weakref.ref(sims[1]))

        def test_both(plant_simulator, simulated_plant):
            assert noted(plant_simulator("line.json")).name == "line"
            assert noted(simulated_plant).name == "boiler_house"

        def test_all_before_are_gone():
            with open("pids") as stream:
                for pid in stream.read().split():
                    assert not os.path.exists("/proc/" + pid)
            gc.collect()
            assert FORGOTTEN[0]() is None
    """)
    code, text = suite.run(*PLUGIN)
    assert (code, "9 passed" in text) == (0, True), text
    assert "Plant " not in text
    assert len(suite.pids()) == 10 and all(gone(pid) for pid in suite.pids())


def test_a_path_is_looked_for_beside_the_test(suite):
    (suite.folder / "deep").mkdir()
    (suite.folder / "line.json").rename(suite.folder / "deep" / "line.json")
    suite.write("""
        @pytest.mark.plant("line.json")
        def test_path(simulated_plant):
            assert simulated_plant.name == "line"
    """, "deep/test_deep.py")
    code, text = suite.run(*PLUGIN)
    assert code == 0, text


def test_a_failed_test_shows_the_logs_of_its_plants_and_others_show_none(suite):
    suite.write("""
        def test_fine(simulated_plant):
            asks(noted(simulated_plant), b"3", 8)

        @pytest.mark.plant("line.json")
        def test_wrong(simulated_plant, plant_simulator):
            sim = noted(plant_simulator())
            asks(simulated_plant, b"3", 8)
            sim.raise_alarm(level=256)

        def test_after(simulated_plant):
            asks(noted(simulated_plant), b"3", 8)
    """)
    code, text = suite.run(*PLUGIN)
    assert code == 1, text
    assert outcomes(text) == {"test_fine": "PASSED", "test_wrong": "FAILED",
                              "test_after": "PASSED"}
    titles = re.findall(r"^-+ Plant (.*) at 127\.0\.0\.1:\d+ -+$", text, re.MULTILINE)
    assert titles == ["line", "boiler_house"]
    assert len(re.findall(r"^\d\d:\d\d:\d\d\.\d{3} #1 127\.0\.0\.1:\d+ 3 project paths$",
                          text, re.MULTILINE)) == 1
    assert all(gone(pid) for pid in suite.pids())


def test_a_test_that_fails_before_or_after_its_body_shows_the_log_too(suite):
    suite.write("""
        @pytest.fixture
        def set_up(simulated_plant):
            assert not asks(noted(simulated_plant), b"3", 8)

        @pytest.fixture
        def torn_down(simulated_plant):
            yield
            assert not asks(noted(simulated_plant), b"3", 8)

        def test_before(set_up):
            pass

        def test_behind(torn_down):
            pass
    """)
    code, text = suite.run(*PLUGIN)
    assert code == 1 and outcomes(text)["test_before"] == "ERROR", text
    assert text.count(" 3 project paths\n") == 2
    assert len(suite.pids()) == 2 and all(gone(pid) for pid in suite.pids())


def test_of_a_long_log_the_end_is_shown(suite):
    suite.write("""
        def test_wrong(simulated_plant):
            host, _, port = simulated_plant.address.rpartition(":")
            with socket.create_connection((host, int(port)), 30) as sock:
                for _ in range(500):
                    sock.sendall(b"3")
                    sock.recv(1)
                sock.sendall(b"n")
                sock.recv(1)
            assert False
    """)
    code, text = suite.run(*PLUGIN)
    assert code == 1
    assert "\n(1 lines before)\n" in text or "\n(2 lines before)\n" in text  # its end is one, too
    assert text.count(" 3 project paths\n") in (498, 499) and " n subscribe alarms\n" in text


def test_a_conftest_may_name_the_plugin(suite):
    (suite.folder / "conftest.py").write_text('pytest_plugins = ["vzsim.pytest_plugin"]\n')
    suite.write("""
        @pytest.mark.plant("line.json")
        def test_path(simulated_plant):
            with simulated_plant.outage():
                with pytest.raises(ConnectionRefusedError):
                    asks(simulated_plant, b"3", 8)
            assert asks(simulated_plant, b"3", 8) == b"0"
    """)
    code, text = suite.run()
    assert code == 0 and "1 passed" in text, text


def test_the_marker_is_explained(suite):
    code, text = suite.run("--markers", *PLUGIN)
    assert code == 0 and "@pytest.mark.plant(plant=" in text


def test_a_plant_that_cannot_start_is_an_error_that_says_why(suite):
    suite.write("""
        @pytest.mark.plant("nowhere.json")
        def test_path(simulated_plant):
            pass
    """)
    code, text = suite.run(*PLUGIN)
    assert code == 1 and outcomes(text) == {"test_path": "ERROR"}
    assert "vzsim: nowhere.json: No such file or directory" in text


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGKILL])
def test_a_suite_that_is_interrupted_or_killed_leaves_no_plant_behind(suite, number):
    suite.write("""
        def test_long(simulated_plant, capfd):
            noted(simulated_plant)
            with capfd.disabled():
                print("running", flush=True)
            for _ in range(600):  # one long wait might begin just behind the signal
                with pytest.raises(TimeoutError):
                    simulated_plant.wait_clients(1, timeout=0.1)
    """)
    process = suite.start(*PLUGIN)
    for line in process.stdout:
        if line.endswith(b"running\n"):
            break
    else:
        pytest.fail("the suite did not run")
    process.send_signal(number)
    process.stdout.read()
    process.wait(timeout=60)
    pid, = suite.pids()
    wait_gone(pid)
