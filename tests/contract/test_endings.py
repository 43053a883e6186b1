"""Every way a session, a thread, an object or the whole process ends."""

import os
import signal
import threading

import pytest

import tasks
import wire
from plants import LINE1
from script import run

CALLS = ["GetTagValue('a')", "ConnectTag('a')", "SetTagValue('a', 1)", "SetTagNotify(print)"]
HANG = 12  # seconds: less than the wait for a receive thread that is on its way out
COUNT_CALLS = ("calls = []\n"
               "note = lambda d, t, v: calls.append(v)\n"
               "drv.SetTagNotify(note)\n"
               "drv.ConnectTag('a')")


@pytest.fixture
def clean(script, plant, host):
    """Asserts that the script has the descriptors and threads it had before it connected."""
    script("_ = VzDBAccess.DBCore().Connect(%r, 'operator', 'password')" % host)  # warm
    script.wait_until("threads() == 1")
    script("before = descriptors()")

    def check():
        script.wait_until("(descriptors(), threads()) == (before, 1)")
        plant.wait_clients(0)
    return check


@pytest.fixture
def session(clean, plant, script):
    """A script connected to the small plant, which ends with its session."""
    script.connect(plant)
    script("drv = db.GetDriver('line1')")
    plant.requests(clear=True)
    return script


@pytest.fixture
def connect(script, host):
    """Connects ``db`` again; gives the result."""
    return lambda: script("db.Connect(%r, 'operator', 'password')" % host, timeout=HANG)


@pytest.fixture
def stale(raised, sent):
    """Asserts that every method of a driver raises, and sends nothing."""
    def check(name="drv"):
        for call in CALLS:
            assert raised("%s.%s" % (name, call))[0] == "RuntimeError"
        assert sent() == []
    return check


def lose(session, plant):
    """The server closes the notification channel, and the script has noticed."""
    plant.drop_clients(channel="notify")
    session.wait_until("threads() == 1")


# ---- the script ends it -------------------------------------------------------------------------

def test_dropping_the_core_ends_the_session(session, clean):
    session("del db", timeout=HANG)
    clean()


def test_dropping_an_unconnected_core_is_harmless(script, clean):
    script("for i in range(100): VzDBAccess.DBCore()")
    clean()


def test_a_script_may_have_several_sessions(session, plant, clean, host):
    session("others = [VzDBAccess.DBCore() for i in range(5)]")
    assert session("[o.Connect(%r, 'operator', 'password') for o in others]" % host) == [0] * 5
    plant.wait_clients(6)
    session("del others", timeout=HANG)
    plant.wait_clients(1)
    assert session("drv.GetTagValue('a')") == 1
    session("del db", timeout=HANG)
    clean()


def test_a_connect_on_a_connected_core_ends_the_old_session(session, plant, connect):
    assert connect() == 0
    plant.wait_clients(1)
    session.wait_until("threads() == 2")


def test_a_connect_that_fails_has_ended_the_old_session(session, plant, connect, clean):
    plant.fault("9", "refuse")
    assert connect() == -1
    clean()


def test_20_sessions_leave_nothing(session, connect, clean):
    for _ in range(20):
        assert connect() == 0
    session("del db", timeout=HANG)
    clean()


def test_20_cores_leave_nothing(session, clean, host):
    session("for i in range(20):\n"
            "    db = VzDBAccess.DBCore()\n"
            "    assert db.Connect(%r, 'operator', 'password') == 0\n"
            "    drv = db.GetDriver('line1')\n"
            "    assert drv.ConnectTag('a') == 1\n"
            "del db" % host, timeout=60)
    clean()


# ---- the server ends it -------------------------------------------------------------------------

@pytest.mark.parametrize("kind", ["close", "reset"])
@pytest.mark.parametrize("channel", ["notify", None])
def test_a_lost_notification_channel_ends_the_session(session, plant, clean, stale, kind, channel):
    plant.drop_clients(kind, channel=channel)
    clean()
    stale()


def test_after_a_loss_get_driver_finds_nothing(session, plant, raised):
    lose(session, plant)
    assert raised("db.GetDriver('line1')")[0] == "SystemError"


def test_after_a_loss_connect_works(session, plant, connect):
    lose(session, plant)
    assert connect() == 0
    assert session("db.GetDriver('line1').GetTagValue('a')") == 1


def test_50_losses_leave_nothing(session, plant, connect, clean):
    for _ in range(50):
        lose(session, plant)
        assert connect() == 0
    lose(session, plant)
    clean()


def test_a_loss_right_behind_the_login_is_only_a_loss(session, plant, connect, clean):
    for _ in range(20):
        plant.fault("4", "delay", seconds=0)
        connect()
        plant.drop_clients(channel="notify")
    session("del db", timeout=HANG)
    clean()


def test_a_lost_request_channel_fails_each_operation(session, plant):
    session("drv.GetTagValue('a,b')")
    plant.drop_clients(channel="request")
    plant.wait_clients(0, channel="request")
    assert session("drv.GetTagValue('a')") is None
    assert session("drv.GetTagValue('a,b')") is None
    assert session("drv.ConnectTag('a')") == 0
    assert session("drv.SetTagValue('a', 1)") == -2
    assert session("drv.GetTagValue('unknown')") is None
    assert session("drv.SetTagValue('unknown', 1)") == -2


def test_a_session_without_its_request_channel_still_gets_changes(session, plant):
    session(COUNT_CALLS)
    plant.drop_clients(channel="request")
    plant.wait_clients(0, channel="request")
    plant.push_change("line1", "a", 7)
    session.wait_until("calls == [7]")
    assert session("drv.GetTagValue('a')") == 7


def test_a_session_without_its_request_channel_ends_like_any_other(session, plant, clean):
    plant.drop_clients(channel="request")
    session("del db", timeout=HANG)
    clean()


def test_a_session_without_its_request_channel_connects_again(session, plant, connect):
    plant.drop_clients(channel="request")
    assert connect() == 0
    assert session("db.GetDriver('line1').GetTagValue('a')") == 1


# ---- stale drivers ------------------------------------------------------------------------------

def test_a_driver_outlives_its_core_as_a_stale_one(session, stale):
    session("del db", timeout=HANG)
    stale()


def test_a_driver_outlives_a_loss_as_a_stale_one(session, plant, stale):
    lose(session, plant)
    stale()


def test_a_driver_never_reaches_a_later_session(session, connect, sent, stale):
    assert connect() == 0
    session("new = db.GetDriver('line1')")
    sent()
    stale()
    assert session("new.GetTagValue('a')") == 1


def test_a_driver_of_a_lost_session_never_reaches_a_later_one(
        session, plant, connect, sent, stale):
    lose(session, plant)
    assert connect() == 0
    session("new = db.GetDriver('line1')")
    sent()
    stale()


def test_a_driver_never_reaches_the_session_of_another_core(session, sent, stale, host):
    session("del db\ndb = VzDBAccess.DBCore()", timeout=HANG)
    assert session("db.Connect(%r, 'operator', 'password')" % host) == 0
    session("new = db.GetDriver('line1')")
    sent()
    stale()


def test_a_driver_of_a_connect_that_failed_is_stale(session, plant, connect, sent, stale):
    plant.fault("8", "refuse")
    assert connect() == -2
    sent()
    stale()


def test_many_stale_drivers_stay_stale_when_memory_is_reused(session, connect, sent, raised):
    session("old = []")
    for _ in range(20):
        session("old += [db.GetDriver(n) for n in ('line1', '锅炉', 'wide', 'none')]")
        assert connect() == 0
        session("new = [db.GetDriver(n) for n in ('line1', '锅炉', 'wide', 'none')]")
    sent()
    session("found = []\n"
            "for d in old:\n"
            "    try:\n"
            "        found.append(d.GetTagValue('a'))\n"
            "    except RuntimeError:\n"
            "        pass")
    assert session("found") == []
    assert sent() == []


def test_a_stale_drivers_callback_is_never_called(session, plant, connect, push):
    session(COUNT_CALLS)
    assert connect() == 0
    session.wait_until("threads() == 2")
    session("new = db.GetDriver('line1')\nnew.ConnectTag('a')")
    push(wire.change(0, LINE1["a"], bytes(4)))
    assert session("calls") == []


# ---- the receive thread waits for the interpreter lock ------------------------------------------

@pytest.fixture
def parked(session, plant):
    """The receive thread has a call to make and waits for the interpreter lock.

    The script holds the lock in a read that the plant leaves unanswered until ``go`` is called.
    What was started with ``start`` runs on from there without giving the lock up.
    """
    session("sys.setswitchinterval(1000)\n" + COUNT_CALLS + "\ndrv.GetTagValue('b')")
    plant.requests(clear=True)

    class Parked:
        @staticmethod
        def start(code):
            thread = tasks.other(session.pid)
            plant.fault("H", "silent")
            session.start("drv.GetTagValue('b')\n" + code)
            plant.wait_requests(1, codes="H")
            tasks.wait_asleep(session.pid, session.pid)
            tasks.wait_asleep(session.pid, thread)
            before = tasks.sleeps(session.pid, thread)
            plant.set_value("line1", "a", 99)
            tasks.wait_asleep(session.pid, thread, before + 1)

        @staticmethod
        def go():
            plant.drop_clients(channel="request")
            return session.result(timeout=HANG)
    return Parked


def test_dropping_the_core_does_not_wait_for_a_parked_thread(session, parked, clean):
    parked.start("del db")
    parked.go()
    session("sys.setswitchinterval(0.005)")
    clean()


def test_a_parked_thread_makes_no_call_for_an_ended_session(session, parked):
    parked.start("del db")
    parked.go()
    session("sys.setswitchinterval(0.005)")
    session.wait_until("threads() == 1")
    assert session("calls") == []


def test_a_connect_does_not_wait_for_a_parked_thread(session, parked, plant, host):
    parked.start("result = db.Connect(%r, 'operator', 'password')" % host)
    parked.go()
    assert session("result") == 0
    session("sys.setswitchinterval(0.005)")
    session.wait_until("threads() == 2")
    assert session("calls") == []
    assert session("db.GetDriver('line1').GetTagValue('a')") == 99


def test_a_connect_that_fails_does_not_wait_for_a_parked_thread(session, parked, plant, host):
    plant.fault("9", "refuse")
    parked.start("result = db.Connect(%r, 'operator', 'password')" % host)
    parked.go()
    assert session("result") == -1
    session("sys.setswitchinterval(0.005)")
    session.wait_until("threads() == 1")
    assert session("calls") == []


def test_a_parked_thread_makes_its_call_when_the_lock_is_free(session, parked):
    parked.start("sys.setswitchinterval(0.005)")
    parked.go()
    session.wait_until("calls == [99]")


def test_a_script_ends_while_the_thread_is_parked(session, parked):
    parked.start("None")
    parked.go()
    assert session.end(timeout=HANG) == 0
    assert session.stderr == b""


# ---- endings inside callbacks -------------------------------------------------------------------

def test_the_last_reference_may_go_in_a_callback(session, plant, clean):
    session("holder = [db]\n"
            "del db\n"
            "calls = []\n"
            "def note(d, t, v):\n"
            "    calls.append(v)\n"
            "    holder.clear()\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')")
    plant.push_series("line1", "a", 100, first=7)
    clean()
    assert session("calls") == [7]


def test_a_connect_may_be_made_in_a_callback(session, plant, host):
    session("results = []\n"
            "def note(d, t, v):\n"
            "    if not results:\n"
            "        results.append(db.Connect(%r, 'operator', 'password'))\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')" % host)
    plant.push_change("line1", "a", 7)
    session.wait_until("results")
    assert session("results") == [0]
    assert session("db.GetDriver('line1').GetTagValue('a')") == 7
    plant.wait_clients(1)
    session.wait_until("threads() == 2")


def test_a_read_may_be_made_in_a_callback(session, plant):
    session("found = []\n"
            "def note(d, t, v):\n"
            "    found.append((v, drv.GetTagValue('b')))\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')")
    plant.push_change("line1", "a", 7)
    session.wait_until("found")
    assert session("found") == [(7, 2)]


def test_an_exception_of_a_callback_is_reported_and_the_next_call_comes(session, plant):
    if not session("hasattr(sys, 'unraisablehook')"):
        pytest.skip("this interpreter has no hook for exceptions that cannot be raised")
    session("seen, calls = [], []\n"
            "sys.unraisablehook = lambda u: seen.append((u.exc_type.__name__, str(u.exc_value)))\n"
            "def note(d, t, v):\n"
            "    calls.append(v)\n"
            "    raise ValueError('of %d' % v)\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')")
    plant.push_series("line1", "a", 2, first=7)
    session.wait_until("len(seen) == 2")
    assert session("calls") == [7, 8]
    assert session("seen") == [("ValueError", "of 7"), ("ValueError", "of 8")]


def test_results_of_callbacks_are_released(session, plant):
    session("kept = object()\n"
            "calls = []\n"
            "def note(d, t, v):\n"
            "    calls.append(v)\n"
            "    return kept\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')\n"
            "before = sys.getrefcount(kept)")
    plant.push_series("line1", "a", 1000)
    session.wait_until("len(calls) == 1000")
    session.wait_until("sys.getrefcount(kept) == before")


def test_a_callback_runs_on_another_thread(session, plant):
    session("ids = []\n"
            "def note(d, t, v): ids.append(threading.get_ident())\n"
            "drv.SetTagNotify(note)\n"
            "drv.ConnectTag('a')")
    plant.push_change("line1", "a", 7)
    session.wait_until("ids")
    assert session("ids[0] != threading.get_ident()")


# ---- the process ends ---------------------------------------------------------------------------

BEGIN = ("import atexit, os, sys\n"
         "import VzDBAccess\n"
         "db = VzDBAccess.DBCore()\n"
         "assert db.Connect(%r, 'operator', 'password') == 0\n"
         "drv = db.GetDriver('line1')\n")
SUBSCRIBE = ("def note(*change): pass\n"
             "drv.SetTagNotify(note)\n"
             "assert drv.ConnectTag('a') == 1\n")


def ended_well(done):
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def test_a_script_that_just_ends_ends_well(plant, host):
    ended_well(run(BEGIN % host))
    plant.wait_clients(0)


def test_a_script_that_just_ends_with_a_subscription_ends_well(plant, host):
    ended_well(run(BEGIN % host + SUBSCRIBE))


def test_a_script_that_ends_with_a_subscription_does_not_wait(session):
    session(COUNT_CALLS)
    assert session.end(timeout=HANG) == 0


def test_a_script_ends_well_while_changes_pour_in(plant, host):
    stop = threading.Event()

    def pour():
        while not stop.is_set():
            plant.push_series("line1", "a", 500, frames_per_send=10)

    pouring = threading.Thread(target=pour)
    pouring.start()
    try:
        for _ in range(10):
            ended_well(run(BEGIN % host + SUBSCRIBE + "while drv.GetTagValue('a') < 50: pass\n"))
    finally:
        stop.set()
        pouring.join()


def test_a_script_that_exits_with_a_code_keeps_it(plant, host):
    done = run(BEGIN % host + SUBSCRIBE + "sys.exit(3)")
    assert (done.returncode, done.stderr) == (3, "")


def test_a_script_that_dies_of_an_exception_says_that_alone(plant, host):
    done = run(BEGIN % host + SUBSCRIBE + "raise KeyError('own')")
    assert done.returncode == 1
    assert done.stderr.endswith("KeyError: 'own'\n")
    assert "VzDBAccess" not in done.stderr


def test_a_script_may_keep_its_core_in_a_cycle(plant, host):
    ended_well(run(BEGIN % host + SUBSCRIBE +
                   "class Keeper: pass\nk = Keeper()\nk.me, k.db = k, db\ndel db, k"))


def test_after_the_exit_hook_connect_fails(plant, host):
    # Hooks run in reverse order: this one was there before the module's.
    code = ("import atexit\n"
            "def last():\n"
            "    print(db.Connect(%r, 'operator', 'password'))\n"
            "    print(VzDBAccess.DBCore().Connect(%r, 'operator', 'password'))\n"
            "atexit.register(last)\n" % (host, host))
    assert ended_well(run(code + BEGIN % host)).split() == ["-2", "-2"]
    assert len(plant.requests(codes="7")) == 1


def test_after_the_exit_hook_drivers_raise(plant, host):
    code = ("import atexit\n"
            "def last():\n"
            "    for call in (lambda: drv.GetTagValue('a'), lambda: drv.ConnectTag('a'),\n"
            "                 lambda: drv.SetTagValue('a', 1), lambda: drv.SetTagNotify(print)):\n"
            "        try: print(call())\n"
            "        except RuntimeError: print('raised')\n"
            "atexit.register(last)\n")
    assert ended_well(run(code + BEGIN % host)).split() == ["raised"] * 4


def test_hooks_that_come_later_still_have_their_session(plant, host):
    code = BEGIN % host + "atexit.register(lambda: print(drv.GetTagValue('a')))"
    assert ended_well(run(code)) == "1\n"


# ---- fork ---------------------------------------------------------------------------------------

FORK = BEGIN + ("import warnings\n"
                "warnings.simplefilter('ignore')  # newer interpreters warn of every such fork\n"
                "def forked(body):\n"
                "    pid = os.fork()\n"
                "    if pid:\n"
                "        return os.waitpid(pid, 0)[1]\n"
                "    try:\n"
                "        body()\n"
                "    except BaseException:\n"
                "        import traceback\n"
                "        traceback.print_exc()\n"
                "        os._exit(1)\n"
                "    os._exit(0)\n"
                "def raises(call):\n"
                "    try: call()\n"
                "    except RuntimeError: return\n"
                "    raise AssertionError('no error')\n")
STILL_WORKS = ("assert drv.GetTagValue('a') == 1\n"
               "assert drv.ConnectTag('b') == 1\n"
               "print('works')")


@pytest.mark.parametrize("call", CALLS)
def test_a_driver_of_a_forked_child_raises(plant, host, call):
    code = FORK % host + "assert forked(lambda: raises(lambda: drv.%s)) == 0\n" % call
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_a_forked_child_has_no_drivers(plant, host):
    code = FORK % host + ("def body():\n"
                          "    try: db.GetDriver('line1')\n"
                          "    except SystemError: return\n"
                          "    raise AssertionError('no error')\n"
                          "assert forked(body) == 0\n")
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_a_forked_child_holds_no_connection(plant, host):
    code = FORK % host + ("def sockets():\n"
                          "    found = 0\n"
                          "    for n in os.listdir('/proc/self/fd'):\n"
                          "        try: link = os.readlink('/proc/self/fd/' + n)\n"
                          "        except OSError: continue\n"
                          "        found += link.startswith('socket:')\n"
                          "    return found\n"
                          "def body(): assert sockets() == 0\n"
                          "assert sockets() == 3\n"
                          "assert forked(body) == 0\n")
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_dropping_the_core_in_a_forked_child_leaves_the_parents_session(plant, host):
    code = FORK % host + ("def body():\n"
                          "    global db\n"
                          "    del db\n"
                          "assert forked(body) == 0\n")
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_the_exit_of_a_forked_child_leaves_the_parents_session(plant, host):
    code = FORK % host + ("if os.fork() == 0: sys.exit(0)\n"
                          "assert os.wait()[1] == 0\n")
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_a_forked_child_connects_on_its_own(plant, host):
    code = FORK % host + ("def body():\n"
                          "    assert db.Connect(%r, 'operator', 'password') == 0\n"
                          "    assert db.GetDriver('line1').GetTagValue('b') == 2\n"
                          "assert forked(body) == 0\n" % host)
    assert ended_well(run(code + STILL_WORKS)) == "works\n"


def test_changes_reach_the_parent_after_a_fork(session, plant):
    session(COUNT_CALLS)
    session("if os.fork() == 0: os._exit(0)\nassert os.wait()[1] == 0")
    plant.push_change("line1", "a", 7)
    session.wait_until("calls == [7]")


# ---- signals ------------------------------------------------------------------------------------

def interrupt(session, plant, code, request):
    """Start code whose request is never answered, and press Ctrl-C once it waits."""
    plant.fault(request, "silent")
    session.start(code)
    plant.wait_requests(1, codes=request)
    tasks.wait_asleep(session.pid, session.pid)
    os.kill(session.pid, signal.SIGINT)


@pytest.mark.parametrize("call, request_code, result", [
    ("GetTagValue('a')", "H", None), ("GetTagValue('a')", "L", None),
    ("ConnectTag('a')", "b", 0), ("ConnectTag('a')", "L", 0), ("SetTagValue('a', 1)", "L", -2)])
def test_ctrl_c_ends_a_wait_with_a_failure(session, plant, call, request_code, result):
    # The interpreter raises right behind the method, so its result is kept without script code.
    name, arguments = call.split("(", 1)
    session("import functools, operator\n"
            "results = []\n"
            "todo = [functools.partial(drv.%s, %s]\n"
            "every = operator.methodcaller('__call__')" % (name, arguments))
    interrupt(session, plant, "try: results.extend(map(every, todo))\n"
                              "except KeyboardInterrupt: results.append('interrupted')\n",
              request_code)
    session.result(timeout=6)
    assert session("results") == [result, "interrupted"]


@pytest.mark.parametrize("call, request_code, result", [
    ("GetTagValue('a')", "H", None), ("ConnectTag('a')", "b", 0),
    ("SetTagValue('a', 1)", "L", -2)])
def test_a_signal_with_a_handler_ends_a_wait_with_a_failure(
        session, plant, call, request_code, result):
    session("import signal\ncaught = []\n"
            "_ = signal.signal(signal.SIGINT, lambda *a: caught.append(1))")
    interrupt(session, plant, "drv." + call, request_code)
    assert session.result(timeout=6) == result
    assert session("caught") == [1]


def test_ctrl_c_ends_a_connect(session, plant, host):
    session("import signal\n_ = signal.signal(signal.SIGINT, lambda *a: None)")
    interrupt(session, plant, "db.Connect(%r, 'operator', 'password')" % host, "9")
    assert session.result(timeout=6) == -2


def test_a_session_goes_on_after_ctrl_c(session, plant):
    interrupt(session, plant, "try: drv.GetTagValue('a')\nexcept KeyboardInterrupt: pass", "H")
    session.result(timeout=6)
    assert session("drv.GetTagValue('a')") == 1


def test_signals_never_end_a_session(session, plant):
    session("import signal\ncaught = []\n"
            "_ = signal.signal(signal.SIGUSR1, lambda *a: caught.append(1))\n" + COUNT_CALLS)
    for n in range(1, 21):
        os.kill(session.pid, signal.SIGUSR1)
        session.wait_until("len(caught) == %d" % n)
    plant.push_change("line1", "a", 7)
    session.wait_until("calls == [7]")


def test_the_receive_thread_takes_no_signals(session):
    thread = tasks.other(session.pid)
    with open("/proc/%d/task/%d/status" % (session.pid, thread)) as stream:
        blocked = next(int(line.split()[1], 16) for line in stream if line.startswith("SigBlk"))
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGALRM, signal.SIGCHLD):
        assert blocked >> (number - 1) & 1


def test_a_broken_connection_raises_no_sigpipe(session, plant):
    session("import signal\n_ = signal.signal(signal.SIGPIPE, signal.SIG_DFL)\n"
            "drv.GetTagValue('a')")
    plant.drop_clients("reset", channel="request")
    plant.wait_clients(0, channel="request")
    assert session("[drv.SetTagValue('a', 1) for i in range(3)][-1]") == -2
