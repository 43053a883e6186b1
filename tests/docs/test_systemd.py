"""The service of docs/howto/systemd.md: the unit is sound, the script does what it expects."""

import os
import shutil
import signal
import socket
import subprocess
import time

import pytest

from pages import blocks_of, parse_ini
from script import ROOT, TIME_SCALE, environment, interpreter
from vzsim import SimProcess

with open(os.path.join(ROOT, "docs", "howto", "systemd.md"), encoding="utf-8") as _stream:
    BLOCKS = blocks_of(_stream.read())
UNIT = next(block.text for block in BLOCKS if block.tag == "ini")
# The script is what stands above the call, and the call, which alone is not run with the page.
CALL = next(i for i, block in enumerate(BLOCKS) if block.reason)
SCRIPT = "\n".join(block.text for block in BLOCKS[:CALL + 1])


@pytest.fixture
def unit(tmp_path):
    """The page's unit as a file."""
    path = tmp_path / "plant-keeper.service"
    path.write_text(UNIT, encoding="utf-8")
    return str(path)


def analyze(*arguments):
    if not shutil.which("systemd-analyze"):
        pytest.skip("systemd-analyze is not there")
    return subprocess.run(("systemd-analyze", "--no-pager") + arguments, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, encoding="utf-8")


def test_the_unit_has_no_mistakes(unit):
    found = analyze("verify", "--man=no", unit)
    assert (found.returncode, found.stdout) == (0, "")


def test_the_unit_is_as_closed_as_the_page_says(unit):
    found = analyze("security", "--offline=true", "--threshold=13", unit)
    assert found.returncode == 0, found.stdout
    assert "plant-keeper.service: 1.3 OK" in found.stdout


def test_the_unit_starts_the_script_with_the_arguments_it_takes():
    command = parse_ini(UNIT)["Service"]["ExecStart"].split()
    assert command == ["/usr/bin/python3", "/opt/plant/keeper.py", "plant.local:8000", "operator"]


@pytest.fixture
def manager(tmp_path):
    """The service manager's end of the notifications."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as channel:
        channel.bind(str(tmp_path / "notify"))
        channel.settimeout(0.1)
        yield channel


def told(manager, keeper):
    """The next notification of the script, which must be running."""
    deadline = time.monotonic() + 30 * TIME_SCALE
    while True:
        try:
            return manager.recv(4096)
        except socket.timeout:
            assert keeper.poll() is None, keeper.stderr.read()
            assert time.monotonic() < deadline, "the script tells nothing"


def test_the_script_says_that_it_is_ready_and_alive_and_ends_on_sigterm(tmp_path, manager):
    (tmp_path / "password").write_text("secret\n")
    (tmp_path / "keeper.py").write_text(SCRIPT, encoding="utf-8")
    env = dict(environment(), NOTIFY_SOCKET=manager.getsockname(),
               CREDENTIALS_DIRECTORY=str(tmp_path))
    with SimProcess(os.path.join(ROOT, "docs", "plant.json")) as simulator:
        keeper = subprocess.Popen(
            interpreter() + [str(tmp_path / "keeper.py"), simulator.address, "operator"],
            env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8")
        try:
            assert told(manager, keeper) == b"READY=1"
            assert told(manager, keeper).startswith(b"WATCHDOG=1\nSTATUS=connection live, level ")
            simulator.set_value("Boiler", "Mode", 2)
            line = keeper.stdout.readline()
            assert line == "mode set to automatic\n", keeper.stderr.read()
            keeper.send_signal(signal.SIGTERM)
            printed, errors = keeper.communicate(timeout=30 * TIME_SCALE)
            assert (keeper.returncode, errors) == (0, "")
        finally:
            keeper.kill()
            keeper.communicate()
