"""The module built for other interpreters, named by VZ_OTHER_PYTHONS (paths joined with ":")."""

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


def build(python, folder):
    """Builds the module with an interpreter's headers; gives the folder it can be imported from.

    The compiler is called directly, since the build description asks the interpreter for more than
    its headers.
    """
    compiler = shutil.which(os.environ.get("CXX", "c++"))
    if not compiler:
        pytest.skip("needs a C++ compiler")
    ask = ("import sysconfig as s; print(s.get_paths()['include']);"
           "print(s.get_config_var('EXT_SUFFIX'))")
    include, suffix = output_of([python, "-c", ask]).split()
    sources = [path for part in ("", "nonwin", "VzDBAccess")
               for path in glob.glob(os.path.join(ROOT, "src", part, "*.cpp"))]
    common = [compiler, "-std=c++17", "-O1", "-fPIC", "-fvisibility=hidden", "-Wall", "-Werror",
              "-pthread", "-DVZ_DEFAULT_CENTER=\"127.0.0.1\"", "-I" + os.path.join(ROOT, "src"),
              "-I" + include]
    objects = [os.path.join(folder, "%d.o" % i) for i in range(len(sources))]
    with ThreadPoolExecutor(os.cpu_count()) as workers:
        list(workers.map(lambda pair: output_of(common + ["-c", pair[0], "-o", pair[1]]),
                         zip(sources, objects)))
    exports = os.path.join(ROOT, "src", "VzDBAccess", "exports.map")
    output_of([compiler, "-shared", "-pthread", "-Wl,--version-script=" + exports,
               "-Wl,-z,nodelete", "-o", os.path.join(folder, "VzDBAccess" + suffix)] + objects)
    return folder


def output_of(command):
    """Runs a command that must succeed; gives its standard output."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=600)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.mark.skipif(not PYTHONS, reason="no interpreter named in VZ_OTHER_PYTHONS")
@pytest.mark.parametrize("python", PYTHONS or ["none"])
def test_the_module_works_with_another_interpreter(plant, host, tmp_path, python):
    folder = build(python, str(tmp_path))
    for _ in range(3):
        done = subprocess.run(
            [python, "-c", SMOKE, host], env=dict(os.environ, PYTHONPATH=folder),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            encoding="utf-8", timeout=300)
        assert (done.returncode, done.stderr) == (0, "")
        assert done.stdout == "all is well\n"
