"""Both modules built for other interpreters, named by VZ_OTHER_PYTHONS (paths joined with ":")."""

import glob
import os
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from script import ROOT

PYTHONS = [path for path in os.environ.get("VZ_OTHER_PYTHONS", "").split(":") if path]

SMOKE = r"""
import os, sys, threading, time
import VzDBAccess

host = sys.argv[1]

def until(condition):
    deadline = time.time() + 30
    while not condition():
        assert time.time() < deadline, "not in time"
        time.sleep(0.002)

def raises(kind, call):
    try:
        call()
    except kind:
        return
    raise AssertionError("no %s" % kind.__name__)

def tasks():
    return len(os.listdir("/proc/self/task"))

assert VzDBAccess.__name__ == "vzdb"
raises(TypeError, lambda: VzDBAccess.DBCore().Connect(1, "", ""))
raises(SystemError, lambda: VzDBAccess.DBCore().GetDriver("line1"))
raises(RuntimeError, lambda: VzDBAccess.Driver().GetTagValue("a"))
for round in range(5):
    db = VzDBAccess.DBCore()
    assert db.Connect(host, "operator", "Password") == -1
    assert db.Connect(host, "operator", "password") == 0
    drv = db.GetDriver("line1")
    assert drv.GetTagValue("a,b,c") == [1, 2, 3]
    assert drv.GetTagValue("str") == "valve"
    assert drv.GetTagValue("r8") == 0.1
    assert drv.GetTagValue("bool") is True
    assert drv.GetTagValue("nobody") is None
    assert len(drv.GetTagValue("nobody,a")) == 2
    raises(SystemError, lambda: drv.GetTagValue("i8"))
    assert drv.SetTagValue("i4", 1000 + round) == 0
    assert drv.GetTagValue("i4") == 1000 + round
    assert drv.SetTagValue("str", "\u6c34") == 0
    assert drv.GetTagValue("str") == "\u6c34"
    assert drv.SetTagValue("str", "valve") == 0
    assert drv.SetTagValue("a", None) == -3
    raises(OverflowError, lambda: drv.SetTagValue("i4", 1 << 40))
    calls = []
    def note(*change):
        calls.append(change)
    drv.SetTagNotify(note)
    assert drv.ConnectTag("ui2") == 1
    assert drv.SetTagValue("ui2", 2000 + round) == 0
    until(lambda: ("line1", "ui2", 2000 + round) in calls)
    assert drv.GetTagValue("ui2") == 2000 + round
    alarms = []
    def alarm(*fields):
        alarms.append(fields)
    db.SetRtAlarmNotify(alarm, 0)
    assert drv.SetTagValue("ui2", 0) == 0
    until(lambda: ("line1", "ui2", 0) in calls)
    del db
    until(lambda: tasks() == 1)
    raises(RuntimeError, lambda: drv.GetTagValue("a"))
db = VzDBAccess.DBCore()
assert db.Connect(host, "operator", "password") == 0
drv = db.GetDriver("line1")
drv.SetTagNotify(note)
assert drv.ConnectTag("a,b,c") == 1
print("all is well")
"""

SMOKE_CLIENT = r"""
import asyncio, datetime, sys
import vzclient

host = sys.argv[1]
states = []
for round in range(5):
    with vzclient.connect(host, "operator", "password", timeout=30, backoff=(0.05, 0.1),
                          on_state=states.append) as plant:
        line = plant["line1"]
        assert line["a"] == 1 and line["ui4"] == 4294967295 and line["empty"] is None
        assert line.read("a", "b", "c", "str") == {"a": 1, "b": 2, "c": 3, "str": "valve"}
        assert len(plant["wide"].read(*["t%04d" % i for i in range(1200)])) == 1200
        assert isinstance(line["date"], datetime.datetime)
        try:
            line["i2"] = 40000
        except vzclient.ValueRejected:
            pass
        line["i4"] = 1000 + round
        with line.watch("i4", "str") as changes:
            first = changes.get(30)
            assert (first.driver, first.tag, first.value) == ("line1", "i4", 1000 + round), first
            assert changes.get(30).value == "valve"
            line["i4"] = 7
            assert changes.get(30).value == 7
        with plant.alarms() as alarms:
            pass
        for kind in (vzclient.UnknownTag, vzclient.UnknownDriver):
            try:
                plant["line1" if kind is vzclient.UnknownTag else "nobody"]["nobody"]
            except kind as error:
                assert error.names == ("nobody",)
assert {state.name for state in states} == {"live", "closed"}, states

async def main():
    async with vzclient.aio.connect(host, "operator", "password", timeout=30) as plant:
        assert await plant["line1"].read("a") == {"a": 1}
        async for change in plant["line1"].watch("a"):
            assert change.value == 1
            break

asyncio.run(main())
vzclient.connect(host, "operator", "password")
print("all is well")
"""


def build(python, folder, name, part):
    """Builds a module with an interpreter's headers into a folder.

    The compiler is called directly, since the build description asks the interpreter for more than
    its headers.
    """
    compiler = shutil.which(os.environ.get("CXX", "c++"))
    if not compiler:
        pytest.skip("needs a C++ compiler")
    ask = ("import sysconfig as s; print(s.get_paths()['include']);"
           "print(s.get_config_var('EXT_SUFFIX'))")
    include, suffix = output_of([python, "-c", ask]).split()
    sources = [path for sub in ("", "nonwin", part)
               for path in glob.glob(os.path.join(ROOT, "src", sub, "*.cpp"))]
    common = [compiler, "-std=c++17", "-O1", "-fPIC", "-fvisibility=hidden", "-Wall", "-Werror",
              "-pthread", "-DVZ_DEFAULT_CENTER=\"127.0.0.1\"", "-DVZ_VERSION=\"0\"",
              "-I" + os.path.join(ROOT, "src"),
              "-I" + include]
    objects = [os.path.join(folder, "%d.o" % i) for i in range(len(sources))]
    with ThreadPoolExecutor(os.cpu_count()) as workers:
        list(workers.map(lambda pair: output_of(common + ["-c", pair[0], "-o", pair[1]]),
                         zip(sources, objects)))
    exports = os.path.join(ROOT, "src", part, "exports.map")
    output_of([compiler, "-shared", "-pthread", "-Wl,--version-script=" + exports,
               "-Wl,-z,nodelete", "-o", os.path.join(folder, name + suffix)] + objects)


def output_of(command):
    """Runs a command that must succeed; gives its standard output."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=600)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.mark.skipif(not PYTHONS, reason="no interpreter named in VZ_OTHER_PYTHONS")
@pytest.mark.parametrize("python", PYTHONS or ["none"])
def test_the_module_works_with_another_interpreter(plant, host, tmp_path, python):
    build(python, str(tmp_path), "VzDBAccess", "VzDBAccess")
    for _ in range(3):
        check(python, SMOKE, host, str(tmp_path))


@pytest.mark.skipif(not PYTHONS, reason="no interpreter named in VZ_OTHER_PYTHONS")
@pytest.mark.parametrize("python", PYTHONS or ["none"])
def test_the_package_works_with_another_interpreter(plant, host, tmp_path, python):
    build(python, str(tmp_path), "_vzclient", "vzclient")
    (tmp_path / "vzclient").symlink_to(os.path.join(ROOT, "python", "vzclient"))
    for _ in range(3):
        check(python, SMOKE_CLIENT, host, str(tmp_path))


def check(python, smoke, host, folder):
    done = subprocess.run(
        [python, "-c", smoke, host], env=dict(os.environ, PYTHONPATH=folder),
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        encoding="utf-8", timeout=300)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "all is well\n"
