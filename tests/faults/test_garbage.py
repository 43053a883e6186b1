"""Collections of garbage that run script code in the middle of a method or a call.

Making an object may start one (in interpreters up to 3.11), on any thread, and what it frees may be
the session at work.
"""

import pytest

from script import TIME_SCALE

# A core in a cycle, which only a collection frees, and whose end lets other threads run.
CYCLE = """
class Cycle: pass
class Waits:
    def __del__(self):
        time.sleep(0.05)

def garbage():
    db = VzDBAccess.DBCore()
    assert db.Connect(HOST, 'operator', 'password') == 0
    drv = db.GetDriver('line1')
    cycle = Cycle()
    cycle.db, cycle.me, cycle.waits = db, cycle, Waits()
    return drv

def at_allocation(n, call):
    drv = garbage()
    call = getattr(drv, call[0]), call[1:]
    gc.set_threshold(gc.get_count()[0] + n)
    try:
        call[0](*call[1])
    except (RuntimeError, OverflowError):
        pass
    finally:
        gc.set_threshold(100000)
    gc.collect()
"""

CALLS = {
    "a read of several": "('GetTagValue', 'a,b,c')",
    "a read of one": "('GetTagValue', 'str')",
    "a subscription": "('ConnectTag', 'a,b')",
    "a write": "('SetTagValue', 'a', 1)",
    "a write that overflows": "('SetTagValue', 'a', 1 << 40)",
    "a write without a UTF-8 form": "('SetTagValue', 'a', chr(0xD800))",
    "a write of a list": "('SetTagValue', 'a,b', [1 << 40, chr(0xD800)])",
}


@pytest.mark.parametrize("call", CALLS)
def test_a_collection_frees_the_core_in_the_middle_of(script, plant, call):
    script("HOST = '%s:%d'" % (plant.host, plant.port))
    script("gc.set_threshold(100000)\ngc.collect()")
    script("fds, tasks = descriptors(), threads()")
    script(CYCLE)
    for n in range(10):
        script("at_allocation(%d, %s)" % (n, CALLS[call]))
    script.wait_until("(descriptors(), threads()) == (fds, tasks)")


APP = """
class App:
    def __init__(self):
        self.n = 0
        self.db = VzDBAccess.DBCore()
        assert self.db.Connect(HOST, 'operator', 'password') == 0
        self.drv = self.db.GetDriver('line1')
        self.callback = self.called      # the app and its bound method are a cycle
        if ALARMS:
            self.db.SetRtAlarmNotify(self.callback, 0)
        else:
            self.drv.SetTagNotify(self.callback)
            assert self.drv.ConnectTag('a') == 1

    def called(self, *arguments):
        self.n += 1

def drop_an_app():
    gc.disable()
    app = App()
    end = time.monotonic() + LIMIT
    while app.n < 20:
        assert time.monotonic() < end
        time.sleep(0.002)
    # Tuples of the sizes of a call are kept for later: with none left, the next one is allocated.
    hoard = [tuple([i] * k) for k in (3, 10) for i in range(2100)]
    del app
    gc.set_threshold(1)
    gc.enable()
    time.sleep(0.1)
    gc.set_threshold(700)
    gc.collect()
    return len(hoard)
"""


@pytest.mark.parametrize("alarms", [False, True], ids=["changes", "alarms"])
def test_a_collection_on_the_receive_thread_frees_core_and_callback(script, plant, storm, alarms):
    storm.alarms = alarms
    script("HOST = '%s:%d'\nALARMS = %r\nLIMIT = %r"
           % (plant.host, plant.port, alarms, 20 * TIME_SCALE))
    script("fds, tasks = descriptors(), threads()")
    script(APP)
    for _ in range(10):
        script("drop_an_app()")
    script.wait_until("(descriptors(), threads()) == (fds, tasks)")
