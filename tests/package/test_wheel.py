"""The wheel, built and installed as a user would."""

import os
import subprocess
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

SMOKE = os.path.join(ROOT, "tests", "package", "smoke.py")


@pytest.fixture(scope="module")
def venv(tmp_path_factory):
    """The bin folder of a virtual environment with the wheel in it."""
    folder = tmp_path_factory.mktemp("venv")
    subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", str(folder)],
                   check=True)
    install = subprocess.run(
        [str(folder / "bin" / "pip"), "install", "--quiet", "--no-index", "--no-build-isolation",
         "--disable-pip-version-check", ROOT],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")
    assert install.returncode == 0, install.stdout
    return folder / "bin"


def test_the_installed_module_works_with_the_installed_simulator(venv, tmp_path):
    done = subprocess.run([str(venv / "python"), SMOKE], cwd=str(tmp_path),
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8")
    assert (done.returncode, done.stdout, done.stderr) == (0, "fine\n", "")


def test_the_simulator_has_a_command(venv, tmp_path):
    done = subprocess.run([str(venv / "vzsim"), "--help"], cwd=str(tmp_path),
                          stdout=subprocess.PIPE, encoding="utf-8")
    assert done.returncode == 0
    assert "simulated plant" in done.stdout


def test_the_command_line_reads_from_the_simulator(venv, tmp_path):
    with subprocess.Popen(
            [str(venv / "vzclient"), "sim", "boiler_house", "--port", "0", "--tick", "0"],
            cwd=str(tmp_path), stdout=subprocess.PIPE, encoding="utf-8") as simulator:
        try:
            port = simulator.stdout.readline().strip().rpartition(":")[2]
            done = subprocess.run(
                [str(venv / "vzclient"), "--host", "127.0.0.1:" + port, "--user", "operator",
                 "read", "Boiler", "Steam pressure", "--csv"], cwd=str(tmp_path),
                env=dict(os.environ, VZCLIENT_PASSWORD="password"), stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, encoding="utf-8")
        finally:
            simulator.terminate()
    assert (done.returncode, done.stdout, done.stderr) == (0, "tag,value\nSteam pressure,8.0\n", "")


def test_the_wheel_has_the_version_of_the_package(venv):
    done = subprocess.run(
        [str(venv / "python"), "-c",
         "from importlib.metadata import version; print(version('vzdbaccess'))"],
        stdout=subprocess.PIPE, encoding="utf-8")
    with open(os.path.join(ROOT, "debian", "changelog"), encoding="utf-8") as stream:
        first = stream.readline()
    assert first.startswith("vzdbaccess (%s) " % done.stdout.strip())
    told = subprocess.run([str(venv / "vzclient"), "--version"], stdout=subprocess.PIPE,
                          encoding="utf-8").stdout
    assert told == "vzclient %s\n" % done.stdout.strip()
