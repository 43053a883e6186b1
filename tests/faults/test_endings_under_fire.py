"""Endings of every kind while thousands of changes a second stream into a callback."""

import signal

import pytest

import tasks
from script import ScriptError, run

ROUNDS = 40

# Defines under_fire(): a new session whose callback has been called, as (db, drv).
UNDER_FIRE = """
calls = 0
def count(*arguments):
    global calls
    calls += 1

def under_fire(callback=count):
    global calls
    calls = 0
    db = VzDBAccess.DBCore()
    assert db.Connect(HOST, 'operator', 'password') == 0
    drv = db.GetDriver('line1')
    drv.SetTagNotify(callback)
    assert drv.ConnectTag('a') == 1
    wait(lambda: calls > 0)
    return db, drv

def wait(condition, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, 'not in time'
        time.sleep(0.001)

def settle(fds, tasks):
    wait(lambda: (descriptors(), threads()) == (fds, tasks))
"""


@pytest.fixture
def fire(script, plant, storm):
    """A script that has under_fire() and knows its descriptors and threads before: fds, tasks."""
    script("HOST = '%s:%d'" % (plant.host, plant.port))
    script(UNDER_FIRE)
    script("fds, tasks = descriptors(), threads()")
    return script


def test_deleting_the_core_never_waits_for_a_thread_that_waits_for_the_lock(fire):
    fire("longest = 0\n"
         "for _ in range(%d):\n"
         "    db, drv = under_fire()\n"
         "    start = time.monotonic()\n"
         "    del db\n"
         "    longest = max(longest, time.monotonic() - start)\n"
         "settle(fds, tasks)" % ROUNDS, timeout=120)
    assert fire("longest") < 8  # a wait that runs out takes 16 s


def test_deleting_the_core_while_other_threads_are_busy(fire):
    fire("stop = False\n"
         "def spin():\n"
         "    while not stop: sum(range(100))\n"
         "busy = [threading.Thread(target=spin) for _ in range(3)]\n"
         "[t.start() for t in busy]\n"
         "for _ in range(10):\n"
         "    db, drv = under_fire()\n"
         "    del db, drv\n"
         "stop = True\n"
         "[t.join() for t in busy]\n"
         "settle(fds, tasks)", timeout=120)


ENDS = {
    "with the core in a global": ("", 0),
    "by sys.exit": ("sys.exit(3)", 3),
    "by an uncaught error": ("raise SystemExit(4)", 4),
    "after dropping the core": ("del db", 0),
    "with the core in a cycle": ("class C: pass\nc = C()\nc.c = c\nc.db = db\ndel db, c", 0),
    "inside a function": ("def f(db):\n    sys.exit(5)\nf(db)", 5),
}

SCRIPT = """
import sys, time, os, threading
import VzDBAccess
HOST = sys.argv[1]
""" + UNDER_FIRE + """
db, drv = under_fire()
"""


@pytest.mark.parametrize("end", ENDS)
def test_a_script_ends_cleanly(plant, storm, end):
    code, expected = ENDS[end]
    for _ in range(ROUNDS // 2):
        done = run(SCRIPT + code, "%s:%d" % (plant.host, plant.port))
        assert (done.returncode, done.stderr) == (expected, "")


def test_a_script_is_ended_by_a_signal(plant, storm):
    code = SCRIPT + "os.kill(os.getpid(), %d)\ntime.sleep(30)" % signal.SIGTERM
    for _ in range(5):
        done = run(code, "%s:%d" % (plant.host, plant.port))
        assert (done.returncode, done.stderr) == (-signal.SIGTERM, "")


def test_the_last_reference_is_dropped_inside_a_callback(fire):
    fire("class Holder: pass\n"
         "holder = Holder()\n"
         "dropped = 0\n"
         "def drop(*arguments):\n"
         "    global calls, dropped\n"
         "    calls += 1\n"
         "    if hasattr(holder, 'db'):\n"
         "        del holder.db\n"
         "        dropped += 1\n"
         "for n in range(%d):\n"
         "    holder.db, drv = under_fire(drop)\n"
         "    calls = 0\n"
         "    wait(lambda: dropped == n + 1)\n"
         "settle(fds, tasks)" % ROUNDS, timeout=120)


def test_no_callback_starts_after_the_core_is_gone(fire):
    fire("for _ in range(%d):\n"
         "    db, drv = under_fire()\n"
         "    del db\n"
         "    calls = 0\n"
         "    time.sleep(0.01)\n"
         "    assert calls <= 1, calls  # the one under way may go on" % ROUNDS, timeout=120)


def test_connect_inside_a_callback(fire):
    fire("results = []\n"
         "def reconnect(*arguments):\n"
         "    global calls\n"
         "    calls += 1\n"
         "    if len(results) <= rounds:\n"
         "        results.append(db.Connect(HOST, 'operator', 'password'))\n"
         "for rounds in range(20):\n"
         "    db, drv = under_fire()\n"
         "    drv = db.GetDriver('line1')\n"
         "    del db, drv\n"
         "    db = VzDBAccess.DBCore()\n"
         "    assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "    drv = db.GetDriver('line1')\n"
         "    drv.SetTagNotify(reconnect)\n"
         "    drv.ConnectTag('a')\n"
         "    wait(lambda: len(results) > rounds)\n"
         "    assert results[-1] == 0\n"
         "    assert db.GetDriver('line1').GetTagValue('b') == 2\n"
         "    del db, drv\n"
         "settle(fds, tasks)", timeout=120)


def test_connect_on_a_connected_core(fire):
    fire("db, drv = under_fire()\n"
         "for _ in range(%d):\n"
         "    assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "    drv = db.GetDriver('line1')\n"
         "    drv.SetTagNotify(count)\n"
         "    assert drv.ConnectTag('a') == 1\n"
         "    calls = 0\n"
         "    wait(lambda: calls > 0)\n"
         "del db\n"
         "settle(fds, tasks)" % ROUNDS, timeout=120)


def test_the_server_closes_and_the_script_connects_again_500_times(fire, plant, storm):
    fire("import resource\n"
         "db = VzDBAccess.DBCore()\n"
         "def again():\n"
         "    global calls, drv\n"
         "    assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "    drv = db.GetDriver('line1')\n"
         "    drv.SetTagNotify(count)\n"
         "    assert drv.ConnectTag('a') == 1\n"
         "    calls = 0\n"
         "    wait(lambda: calls > 0)\n"
         "def lost():\n"
         "    try:\n"
         "        drv.GetTagValue('a')\n"
         "    except RuntimeError:\n"
         "        return True\n"
         "def memory():\n"
         "    return int(open('/proc/self/statm').read().split()[1])")
    pages = []
    for count in range(500):
        fire("again()")
        plant.drop_clients(kind="reset" if count % 2 else "close")
        fire("wait(lost)")
        if count in (100, 499):
            fire("settle(fds, tasks)")
            pages.append(fire("memory()"))
    assert pages[1] - pages[0] < 256, pages  # 1 MiB in 400 sessions


def test_drivers_of_lost_and_ended_sessions_never_reach_the_new_one(fire, plant):
    fire("db, lost = under_fire()\n"
         "direct = VzDBAccess.Driver()")
    plant.drop_clients()
    fire("def gone():\n"
         "    try:\n"
         "        lost.GetTagValue('a')\n"
         "    except RuntimeError:\n"
         "        return True\n"
         "wait(gone)\n"
         "assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "replaced = db.GetDriver('line1')\n"
         "assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "other, deleted = under_fire()\n"
         "del other\n"
         "current = db.GetDriver('line1')")
    plant.requests(clear=True)
    for name in ("lost", "direct", "replaced", "deleted"):
        for call in ("GetTagValue('b')", "SetTagValue('b', 1)", "ConnectTag('b')",
                     "SetTagNotify(count)"):
            with pytest.raises(ScriptError) as raised:
                fire("%s.%s" % (name, call))
            assert raised.value.kind == "RuntimeError", (name, call)
    assert plant.requests() == []
    assert fire("current.GetTagValue('b')") == 2


def test_a_callback_that_raises_is_reported_and_the_stream_goes_on(fire):
    fire("import sys\n"
         "reported = []\n"
         "sys.unraisablehook = lambda u: reported.append((u.exc_type, str(u.exc_value)))\n"
         "def fail(*arguments):\n"
         "    global calls\n"
         "    calls += 1\n"
         "    raise [ValueError, SystemExit, KeyboardInterrupt][calls % 3]('no')\n"
         "db, drv = under_fire(fail)\n"
         "wait(lambda: calls > 3000)\n"
         "del db\n"
         "wait(lambda: len(reported) == calls)  # the call that was under way goes on\n"
         "assert {k for k, _ in reported} == {ValueError, SystemExit, KeyboardInterrupt}\n"
         "sys.unraisablehook = sys.__unraisablehook__")


def test_results_of_callbacks_are_released(fire):
    fire("class Result: pass\n"
         "result = Result()\n"
         "def give(*arguments):\n"
         "    global calls\n"
         "    calls += 1\n"
         "    return result\n"
         "db, drv = under_fire(give)\n"
         "wait(lambda: calls > 3000)\n"
         "del db\n"
         "assert sys.getrefcount(result) <= 3, sys.getrefcount(result)")


def test_a_slow_callback_loses_nothing_and_ends_with_its_session(fire):
    fire("def slow(*arguments):\n"
         "    global calls\n"
         "    calls += 1\n"
         "    time.sleep(0.05)\n"
         "for _ in range(5):\n"
         "    db, drv = under_fire(slow)\n"
         "    wait(lambda: calls > 3)\n"
         "    del db\n"
         "settle(fds, tasks)")


def test_a_callback_reads_and_writes_tags(fire, plant):
    fire("written = 0\n"
         "def work(driver, tag, value):\n"
         "    global calls, written\n"
         "    calls += 1\n"
         "    if calls % 50 == 0 and 'drv' in globals():\n"
         "        assert drv.GetTagValue('b,c')[1] == 3\n"
         "        assert drv.SetTagValue('b', calls) == 0\n"
         "        written += 1\n"
         "errors = []\n"
         "sys.unraisablehook = lambda u: errors.append(str(u.exc_value))\n"
         "db, drv = under_fire(work)\n"
         "wait(lambda: written > 40)\n"
         "assert errors == []\n"
         "del db, drv")
    assert plant.get_value("line1", "b") % 50 == 0


def test_alarms_and_changes_at_once(fire, storm):
    storm.alarms = True
    fire("alarms = 0\n"
         "def on_alarm(*arguments):\n"
         "    global alarms\n"
         "    assert len(arguments) == 10\n"
         "    alarms += 1\n"
         "for _ in range(5):\n"
         "    db, drv = under_fire()\n"
         "    db.SetRtAlarmNotify(on_alarm, 0)\n"
         "    alarms = 0\n"
         "    wait(lambda: alarms > 5 and calls > 1000)\n"
         "    del db\n"
         "settle(fds, tasks)")


def test_a_script_that_is_interrupted_while_it_waits_goes_on(fire, plant):
    for _ in range(5):
        fire("db, drv = under_fire()")
        plant.requests(clear=True)
        plant.fault("H", "silent")
        fire.start("drv.GetTagValue('b')")
        plant.wait_requests(1, codes="H")
        tasks.wait_asleep(fire.pid, fire.pid)  # a signal between request and wait ends nothing
        fire.process.send_signal(signal.SIGINT)
        with pytest.raises(ScriptError) as raised:
            fire.result(timeout=6)
        assert raised.value.kind == "KeyboardInterrupt"
        fire("del db")
    fire("settle(fds, tasks)")


def test_a_forked_child_leaves_the_stream_alone(fire):
    fire("db, drv = under_fire()\n"
         "for _ in range(20):\n"
         "    child = os.fork()\n"
         "    if child == 0:\n"
         "        try:\n"
         "            drv.GetTagValue('a')\n"
         "        except RuntimeError:\n"
         "            del db\n"
         "            os._exit(0)\n"
         "        os._exit(1)\n"
         "    assert os.waitpid(child, 0)[1] == 0\n"
         "    calls = 0\n"
         "    wait(lambda: calls > 0)\n"
         "assert drv.GetTagValue('b') == 2\n"
         "del db\n"
         "settle(fds, tasks)")


def test_many_sessions_at_once(fire):
    fire("def one():\n"
         "    for _ in range(4):\n"
         "        db = VzDBAccess.DBCore()\n"
         "        assert db.Connect(HOST, 'operator', 'password') == 0\n"
         "        drv = db.GetDriver('line1')\n"
         "        drv.SetTagNotify(count)\n"
         "        assert drv.ConnectTag('a') == 1\n"
         "        for _ in range(20):\n"
         "            assert drv.GetTagValue('b') == 2\n"
         "        del db\n"
         "workers = [threading.Thread(target=one) for _ in range(8)]\n"
         "[t.start() for t in workers]\n"
         "[t.join() for t in workers]\n"
         "settle(fds, tasks)", timeout=120)


def test_a_callback_forks_and_its_child_connects_and_ends_cleanly(fire, plant):
    fire("results = []\n"
         "def fork(*arguments):\n"
         "    global calls\n"
         "    calls += 1\n"
         "    if len(results) >= 5:\n"
         "        return\n"
         "    child = os.fork()\n"
         "    if child == 0:\n"
         "        code = 1\n"
         "        try:\n"
         "            mine = VzDBAccess.DBCore()\n"
         "            assert mine.Connect(HOST, 'operator', 'password') == 0\n"
         "            assert mine.GetDriver('line1').GetTagValue('b') == 2\n"
         "            del mine\n"
         "            code = 0\n"
         "        finally:\n"
         "            os._exit(code)\n"
         "    results.append(os.waitpid(child, 0)[1])\n"
         "db, drv = under_fire(fork)\n"
         "wait(lambda: len(results) == 5)\n"
         "assert results == [0] * 5, results\n"
         "assert drv.GetTagValue('b') == 2\n"
         "del db\n"
         "settle(fds, tasks)")
