"""The interpreter runs out of memory: its n-th allocation fails, along everything a script does.

Each step is done with the n-th allocation failing, and with all from the n-th on, until a step is
done all the same without any memory from there on: it needs fewer.
"""

import struct

import pytest

import tasks
from plants import LINE1
from script import ScriptError

# Answers True when the step was done as without the fault, or the name of what was raised.
LOOP = """
import _testcapi, gc
values = ['深' * 30, 2.5, 7, 'a text']

def attempt(step, first, last):
    # Allocations behind the first ones fail, up to the last one; 0: all.
    # Nothing but the step in between, and no way out of it but by an exception.
    _testcapi.set_nomemory(first, last)
    try:
        step()
    except BaseException as error:
        _testcapi.remove_mem_hooks()
        return type(error).__name__
    _testcapi.remove_mem_hooks()
    return True

def torture(prepare, step, check, allowed):
    runs = 0
    for n in range(400):
        for last in (n + 1, 0):
            prepare()
            outcome = attempt(step, n, last)
            runs += 1
            assert outcome is True or outcome in allowed, (n, last, outcome)
            check(outcome)
        if outcome is True:
            return runs
    raise AssertionError('no end')

def nothing(*args):
    pass

def healthy(*args):
    # A session goes on: what the interpreter lacks breaks no exchange.
    assert drv.GetTagValue('a,b') == [1, 2]
"""


@pytest.fixture
def script(script):
    """A script whose interpreter can be made to fail."""
    try:
        script("import _testcapi")
    except ScriptError:
        pytest.skip("this interpreter has no _testcapi")
    script(LOOP)
    return script


@pytest.fixture
def torture(session):
    """Runs a step again and again; prints how often."""
    def run(name, step, prepare="nothing", check="healthy", allowed=("MemoryError",)):
        session("def step():\n    global result\n    result = None\n    result = %s" % step)
        runs = session("torture(%s, step, %s, %r)" % (prepare, check, allowed), timeout=120)
        print("%s: %d runs" % (name, runs))
        assert runs >= 2
    return run


@pytest.mark.parametrize("tags", ["a", "str", "r8", "ui4", "a,r8,i4,str,none", "水位,ui4"])
def test_reads(torture, session, tags):
    session("expected = contents(drv.GetTagValue(%r)) if ',' in %r else drv.GetTagValue(%r)"
            % (tags, tags, tags))
    session("def check(outcome):\n"
            "    if outcome is True:\n"
            "        got = contents(result) if isinstance(result, list) else result\n"
            "        assert got == expected, got\n"
            "    healthy()")
    torture("GetTagValue", "drv.GetTagValue(%r)" % tags, check="check")


def test_a_text_is_encoded(torture, session, plant):
    session("def prepare():\n    global text\n    text = ''.join(['深'] * 30)")  # no UTF-8 form yet
    session("def check(outcome):\n"
            "    assert outcome != True or result == 0\n"
            "    healthy()")
    torture("SetTagValue", "drv.SetTagValue('str', text)", "prepare", "check")


def test_lists_are_written_and_no_item_is_leaked(torture, session):
    session("def prepare():\n"
            "    global counts\n"
            "    counts = [sys.getrefcount(x) for x in values]\n"
            "def check(outcome):\n"
            "    assert outcome != True or result == 0\n"
            "    assert counts == [sys.getrefcount(x) for x in values]\n"
            "    healthy()")
    torture("SetTagValue", "drv.SetTagValue('str,r8,i4,str', values)", "prepare", "check")


def test_an_int_out_of_range_is_told(torture, session):
    session("def overflow():\n"
            "    try:\n"
            "        return drv.SetTagValue('i4', 2**40)\n"
            "    except OverflowError:\n"
            "        return 'overflow'\n"
            "def check(outcome):\n"
            "    assert outcome != True or result == 'overflow'\n"
            "    healthy()")
    torture("SetTagValue", "overflow()", check="check")


def test_subscriptions(torture, session):
    torture("ConnectTag", "drv.ConnectTag('a,b,str')")
    assert session("drv.ConnectTag('a,b,str')") == 1


def test_drivers(torture, session):
    torture("GetDriver", "db.GetDriver('line1')", allowed=("MemoryError", "SystemError"))


def test_objects(torture):
    torture("DBCore", "VzDBAccess.DBCore()")


def test_connects(torture, session, plant):
    session("def connect():\n"
            "    global drv\n"
            "    assert outcome_db.Connect(%r, 'operator', 'password') == 0\n"
            "    drv = outcome_db.GetDriver('line1')\n"
            "    healthy()\n"
            "def prepare():\n"
            "    global outcome_db\n"
            "    outcome_db = VzDBAccess.DBCore()\n"
            "def check(outcome):\n"
            "    assert outcome != True or result == 0\n"
            "    connect()" % ("%s:%d" % (plant.host, plant.port)))
    torture("Connect", "outcome_db.Connect('%s:%d', 'operator', 'password')"
            % (plant.host, plant.port), "prepare", "check")


def test_alarms(torture, session, plant):
    session("seen = []\n"
            "def alarm(*args):\n    seen.append(len(args))\n"
            "sys.unraisablehook = nothing\n"
            "def prepare():\n"
            "    global outcome_db\n"
            "    outcome_db = VzDBAccess.DBCore()\n"
            "    assert outcome_db.Connect('%s:%d', 'operator', 'password') == 0\n"
            "    seen.clear()\n"
            "def subscribe():\n"
            "    # An alarm that cannot be told is reported, and no failure of the subscription.\n"
            "    assert outcome_db.SetRtAlarmNotify(alarm, 1) is None\n"
            "    if not seen:\n"
            "        raise MemoryError\n"
            "def check(outcome):\n"
            "    assert set(seen) <= {10} and (outcome != True or seen)\n"
            "    healthy()" % (plant.host, plant.port))
    plant.raise_alarm(active=True, everyone=True)
    torture("SetRtAlarmNotify", "subscribe()", "prepare", "check")


def test_changes_are_told_or_reported(session, plant):
    # The first change of a chunk has its callback arrange the fault, the last one takes it back:
    # the thread has its interpreter state by then, without which the interpreter itself ends.
    session("told, reports = [], []\n"
            "def note(driver, tag, value):\n"
            "    if value == 1000:\n"
            "        _testcapi.set_nomemory(first, first + 1)\n"
            "    elif value == 2000:\n"
            "        _testcapi.remove_mem_hooks()\n"
            "    else:\n"
            "        told.append((driver, tag, value))\n"
            "def report(what):\n"
            "    reports.append(what.exc_type.__name__)\n"
            "sys.unraisablehook = report\n"
            "drv.SetTagNotify(note)\n"
            "assert drv.ConnectTag('a,b,str,r8') == 1")
    thread = tasks.other(session)
    change = struct.Struct("<HH")
    chunk = b"".join([change.pack(0, LINE1["a"]) + struct.pack("<i", 1000),
                      change.pack(0, LINE1["str"]) + b"some text\0",
                      change.pack(0, LINE1["b"]) + struct.pack("<i", 123456),
                      change.pack(0, LINE1["r8"]) + struct.pack("<d", 0.25),
                      change.pack(0, LINE1["a"]) + struct.pack("<i", 2000)])
    expected = [("line1", "str", "some text"), ("line1", "b", 123456), ("line1", "r8", 0.25)]
    for first in range(200):
        session("first = %d\ntold.clear()\nreports.clear()" % first)
        tasks.wait_asleep(session.pid, thread)
        before = tasks.sleeps(session.pid, thread)
        plant.push_raw(chunk)
        tasks.wait_asleep(session.pid, thread, before + 1)
        told, reports = session("told, reports")
        assert set(told) <= set(expected) and set(reports) <= {"MemoryError"}
        assert len(told) + len(reports) >= 3
        assert session("drv.GetTagValue('a,b')") == [2000, 123456]
        if not reports and first > 10:
            break
    assert told == expected
