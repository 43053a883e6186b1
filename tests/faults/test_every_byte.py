"""A plant that breaks off behind each single byte of its replies.

After each the result is the one promised, nothing is left of the session, and the next connect
works. The server is in a process of its own; endings and resets take turns.
"""

import itertools
import shutil
import threading

import pytest

from cache import cache_folder
from plants import SMALL_PLANT
from script import Script
from vzsim import SimProcess

PAGES_OF_A_MIB = 256

# The calls, each on what the one before left.
CODE = """
import signal
signal.signal(signal.SIGPIPE, signal.SIG_DFL)    # a send that raises it ends the script
db = VzDBAccess.DBCore()

def connect():
    global drv
    drv = None
    result = db.Connect(HOST, 'operator', 'password')
    try:
        drv = db.GetDriver('line1')
    except SystemError:
        pass
    return result, drv is not None

def look_up():
    return drv.GetTagValue('a,b')

def alarms():
    global db
    heard = []
    def on_alarm(*arguments):
        heard.append(arguments[7])
    db.SetRtAlarmNotify(on_alarm, 1)
    db = VzDBAccess.DBCore()                     # the next one subscribes anew
    return heard

def settled():
    return (descriptors(), threads()) == (fds, tasks)

def pages():
    return int(open('/proc/self/statm').read().split()[1])

def again():
    assert connect() == (0, True)
    assert drv.GetTagValue('ui2') == 65535
"""


@pytest.fixture
def broken(script, plant):
    """Breaks the reply to ``code`` off behind ``after`` bytes and gives what ``call`` did then.

    ``before`` runs on a session that still works. What is left of the session is looked at, and a
    new one is made.
    """
    script("HOST = '%s:%d'" % (plant.host, plant.port))
    script(CODE)
    script("again()")
    plant.drop_clients()
    script("fds, tasks = 0, 0\n"
           "def wait(condition):\n"
           "    end = time.monotonic() + 30\n"
           "    while not condition():\n"
           "        assert time.monotonic() < end, (descriptors(), threads(), fds, tasks)\n"
           "        time.sleep(0.001)\n"
           "wait(lambda: threads() == 1)\n"
           "fds, tasks = descriptors(), threads()")
    endings = itertools.cycle(["close", "reset"])
    memory = []

    def run(code, after, call, before=None):
        if before is not None:
            script("again()")
            script(before)
        plant.fault(code, "cut", after=after, then=next(endings))
        outcome = script(call)
        script("again()")
        plant.drop_clients()
        script("wait(settled)")
        memory.append(script("pages()"))
        return outcome

    yield run
    if script.emulated:
        return  # the emulator's own memory grows
    assert memory[-1] - memory[min(len(memory) // 4, 50)] < PAGES_OF_A_MIB, memory


def plain_bytes(count):
    """Bytes that ``count`` bytes of a scrambled message give."""
    full, tail = divmod(count, 4)
    return 0 if tail == 1 else 3 * full + max(tail - 1, 0)


def test_of_the_hello(broken):
    assert broken("7", 0, "connect()") == (-2, False)
    assert broken("7", 1, "connect()") == (-2, False)    # the rest of the login is not answered


def test_of_the_notification_hello(broken):
    for after in range(107):    # 79 plain bytes
        result, _ = broken("8", after, "connect()")
        if plain_bytes(after) < 60:
            assert result == -2, after
        else:    # the login is complete; the session ends as soon as it is there
            assert result in (0, -2), after


def test_of_the_login(broken):
    assert broken("9", 0, "connect()") == (-2, False)
    for after in range(1, 10):    # the driver file is current: nothing more is asked
        result, _ = broken("9", after, "connect()")
        assert result == 0, after


def test_of_the_driver_file(broken, plant):
    """A header is read as far as it goes: without its size it tells of an empty file."""
    outcomes = []
    for after in itertools.count():
        shutil.rmtree(cache_folder("%s:%d" % (plant.host, plant.port)))
        outcomes.append(broken("4", after, "connect()"))
        if outcomes[-1] == (0, True):
            break
    assert outcomes[0] == (-2, False)
    empty = outcomes.count((0, False))
    assert outcomes[1:1 + empty] == [(0, False)] * empty
    assert outcomes[1 + empty:-1] == [(-2, False)] * (len(outcomes) - empty - 2)
    assert 20 < empty < len(outcomes) - 37    # bytes of the file


def test_of_a_lookup(broken):
    """Nine bytes; behind them the read of two values is not answered."""
    for after in range(10):
        assert broken("L", after, "look_up()", before="None") is None, after


def test_of_a_read(broken):
    for after in range(16):
        outcome = broken("H", after, "look_up()", before="drv.ConnectTag('c')")
        assert outcome is None, after
    assert broken("H", 16, "look_up()", before="None") == [1, 2]


def test_of_a_subscription(broken):
    for after in range(15):
        assert broken("b", after, "drv.ConnectTag('a,b')", before="None") == 0, after
    assert broken("b", 15, "drv.ConnectTag('a,b')", before="None") == 1


def test_of_a_write(broken):
    """A write has no reply: what ends behind it shows in the next call."""
    for after in range(9):
        call = "drv.SetTagValue('a,b', [3, 4])"
        assert broken("L", after, call, before="None") == -2, after
    for _ in range(4):
        outcome = broken("g", 0, "[drv.SetTagValue('a', 1), drv.GetTagValue('b'),\n"
                                 " wait(lambda: drv.SetTagValue('a', 1) == -2)]",
                         before="assert drv.GetTagValue('a,b')[1] == 2")
        assert outcome == [0, None, None]


def test_of_the_alarms(broken, plant):
    for value in (1.0, 2.0):
        plant.raise_alarm(value=value)
    for after in range(67):
        assert broken("n", after, "alarms()", before="None") == [], after
    assert broken("n", 67, "alarms()", before="None") == [1.0, 2.0]


SILENT = [("7", 0, "connect()", (-2, False)), ("8", 0, "connect()", (-2, False)),
          ("9", 0, "connect()", (-2, False)), ("9", 5, "connect()", (-2, False)),
          ("4", 0, "connect()", (-2, False)), ("4", 95, "connect()", (-2, False)),
          ("L", 8, "look_up()", None), ("H", 3, "look_up()", None), ("H", 15, "look_up()", None),
          ("b", 2, "drv.ConnectTag('a,b')", 0), ("n", 34, "alarms()", [])]


def test_before_a_silence():
    """All at a time: each costs the module's time limit of eight seconds."""
    failures = []

    def one(code, after, call, result):
        try:
            with SimProcess(SMALL_PLANT) as plant, Script() as script:
                plant.raise_alarm()
                script("HOST = '%s:%d'" % (plant.host, plant.port))
                script(CODE)
                if call != "connect()":
                    script("again()")
                plant.fault(code, "cut", after=after, then="stall")
                script("start = time.monotonic()")
                outcome = script(call)
                lasted = script("time.monotonic() - start")
                script("again()")
                if outcome != result or lasted > 60:
                    failures.append((code, after, outcome, lasted))
        except BaseException as error:
            failures.append((code, after, error))

    threads = [threading.Thread(target=one, args=case) for case in SILENT]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_may_come_apart_from_the_next(script, plant):
    """In the replies that are put together, wherever the cut."""
    script("HOST = '%s:%d'" % (plant.host, plant.port))
    script(CODE)
    plant.raise_alarm(value=7.5)
    for size in range(1, 9):
        script("again()")
        plant.fault("L", "split", sizes=[size, 9])
        assert script("look_up()") == [1, 2]
    for code, header, call, outcome in (
            ("L", [], "look_up()", [1, 2]), ("H", [4], "look_up()", [1, 2]),
            ("b", [1, 2], "drv.ConnectTag('a,b')", 1), ("n", [3], "alarms()", [7.5])):
        script("again()")
        plant.fault(code, "split", sizes=header + [1], pause=0.002)
        assert script(call) == outcome, code
