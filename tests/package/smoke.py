"""What is installed, tried as its user would: connect, read, write, be told of a change, an alarm.

    python3 smoke.py [INTERPRETER]

INTERPRETER runs the installed simulator; this one does when none is given. Prints "fine".
"""

import os
import shutil
import sys
import time

import VzDBAccess
import _vzclient
import vzclient
import vzsim

PATIENCE_SECONDS = 120  # also for an emulator on a busy machine


def wait_for(condition):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        assert time.monotonic() < deadline, "not in time"
        time.sleep(0.01)


def check_place():
    """Modules, stubs, package and simulator lie in one folder, which is this interpreter's."""
    folder = os.path.dirname(VzDBAccess.__file__)
    assert folder.startswith(sys.prefix), (folder, sys.prefix)
    assert os.path.dirname(_vzclient.__file__) == folder, _vzclient.__file__
    for package in (vzclient, vzsim):
        assert os.path.dirname(os.path.dirname(package.__file__)) == folder, package.__file__
    for name in ("VzDBAccess.pyi", "_vzclient.pyi", "vzclient/py.typed"):
        assert os.path.exists(os.path.join(folder, name)), (folder, name)


def check_session(plant):
    db = VzDBAccess.DBCore()
    assert db.Connect("%s:%d" % (plant.host, plant.port), "operator", "password") == 0
    boiler = db.GetDriver("Boiler")
    assert boiler.GetTagValue("Steam pressure,锅炉水位") == [8.0, 0.0]
    assert boiler.SetTagValue("Operator note", "hello") == 0
    assert boiler.GetTagValue("Operator note") == "hello"

    changes, alarms = [], []

    def on_change(*change):
        changes.append(change)

    def on_alarm(*alarm):
        alarms.append(alarm)

    boiler.SetTagNotify(on_change)
    boiler.ConnectTag("Steam pressure")
    db.SetRtAlarmNotify(on_alarm, 0)
    plant.set_value("Boiler", "Steam pressure", 11.0)
    wait_for(lambda: changes and alarms)
    assert changes == [("Boiler", "Steam pressure", 11.0)], changes
    assert alarms[0][2] == "Steam pressure" and alarms[0][4:9] == (
        "High", "Boiler", 3, 11.0, 10.5), alarms
    assert boiler.GetTagValue("Steam pressure") == 11.0


def check_package(plant):
    with vzclient.connect(plant.address, "operator", "password",
                          timeout=PATIENCE_SECONDS) as connected:
        boiler = connected["Boiler"]
        boiler["Operator note"] = "bye"
        assert boiler.read("Operator note", "Steam pressure") == {
            "Operator note": "bye", "Steam pressure": 11.0}
        with boiler.watch("Steam pressure") as changes, connected.alarms() as alarms:
            assert changes.get(PATIENCE_SECONDS).value == 11.0
            assert alarms.get(PATIENCE_SECONDS).tag == "Steam pressure"
            plant.set_value("Boiler", "Steam pressure", 8.0)
            assert changes.get(PATIENCE_SECONDS).value == 8.0


def main(interpreter=None):
    check_place()
    with vzsim.SimProcess("boiler_house", tick=0, interpreter=interpreter,
                          timeout=PATIENCE_SECONDS) as plant:
        check_session(plant)
        check_package(plant)
        shutil.rmtree("/tmp/vzbrowser/%s_%d" % (plant.host, plant.port))
    print("fine")


main(*sys.argv[1:])
