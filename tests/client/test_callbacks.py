"""Functions that are called for changes, alarms and states: order, errors, and what they may do."""

import pytest

from script import ScriptError

ORDER = "calls = []\nsubscription = line.on_change(%s, %s)\n"


def wait_calls(client, calls):
    """Wait until ``calls`` is exactly this."""
    try:
        client("until(lambda: calls == %r)" % (calls,))
    except ScriptError:
        assert client("calls") == calls


@pytest.fixture
def noted(connected):
    """A client whose callback notes (tag, value) of a in ``calls``."""
    connected(ORDER % ("note(calls)", "'a'"))
    wait_calls(connected, [("a", 1)])
    return connected


# ---- delivery -----------------------------------------------------------------------------------

def test_a_callback_is_told_the_present_values_in_the_order_of_the_names(connected):
    connected(ORDER % ("note(calls)", "'c', 'a', 'b'"))
    wait_calls(connected, [("c", 3), ("a", 1), ("b", 2)])


def test_a_callback_is_told_changes_in_order(noted, sim):
    sim.push_series("line1", "a", 2000, first=10)
    wait_calls(noted, [("a", 1)] + [("a", 10 + i) for i in range(2000)])


def test_a_change_says_where_when_and_what(connected):
    connected("calls = []\nbefore = datetime.datetime.now().astimezone()\n"
              "subscription = line.on_change(calls.append, 'a')\nuntil(lambda: calls)\n"
              "change = calls[0]")
    assert connected("type(change) is vzclient.Change, change.driver, change.tag, change.value,"
                     " change.resynced, tuple(change)[:3]") == (
        True, "line1", "a", 1, False, ("line1", "a", 1))
    assert connected("before <= change.time <= datetime.datetime.now().astimezone(),"
                     " change.time.utcoffset() == before.utcoffset()") == (True, True)


def test_each_callback_of_a_tag_is_told(noted, sim):
    noted("others = []\nsecond = line.on_change(note(others), 'a')\nuntil(lambda: others)")
    sim.set_value("line1", "a", 9)
    wait_calls(noted, [("a", 1), ("a", 9)])
    noted("until(lambda: others == [('a', 1), ('a', 9)])")


def test_all_functions_are_called_on_one_thread_that_is_not_the_scripts(connect, sim):
    client = connect("on_state=lambda state: seen.add(threading.current_thread().name)"
                     " if 'seen' in globals() else None")
    client("seen = set()\ncalls = []\n"
           "def see(event):\n"
           "    seen.add(threading.current_thread().name)\n"
           "    calls.append(event)\n"
           "first, second = line.on_change(see, 'a'), line.on_change(see, 'b')\n"
           "third = plant.on_alarm(see)")
    sim.raise_alarm()
    client("until(lambda: len(calls) == 3)\nplant.close()")
    assert client("seen") == {"vzclient-dispatcher"}


def test_an_alarm_callback_is_told_new_alarms(connected, sim):
    sim.raise_alarm(level=1)
    connected("levels = []\n"
              "new = plant.on_alarm(lambda alarm: levels.append(alarm.level))")
    sim.raise_alarm(level=2)
    connected("until(lambda: levels == [2])")


def test_an_alarm_callback_is_told_existing_ones_when_it_wants(connected, sim):
    sim.raise_alarm(level=1)
    connected("levels = []\n"
              "every = plant.on_alarm(lambda alarm: levels.append(alarm.level), existing=True)")
    sim.raise_alarm(level=2)
    connected("until(lambda: levels == [1, 2])")


def test_what_is_no_function_is_refused(connected, raised):
    assert raised("line.on_change(1, 'a')")[0] == "TypeError"
    assert raised("plant.on_alarm(None)")[0] == "TypeError"


def test_unknown_tags_are_refused_and_nothing_is_called(connected, raised):
    connected("calls = []")
    assert raised("line.on_change(note(calls), 'a', 'nobody')")[0] == "UnknownTag"
    assert connected("plant._dispatcher._subscriptions, calls") == ({}, [])


def test_a_slow_callback_loses_no_change(connected, sim):
    connected("calls = []\ngate = threading.Event()\n"
              "def slow(change):\n"
              "    gate.wait(LIMIT)\n"
              "    calls.append(change.value)\n"
              "subscription = line.on_change(slow, 'a')\n"
              "until(lambda: len(plant._queue) == 0)")
    sim.push_series("line1", "a", 1000, first=10)
    connected("until(lambda: len(plant._queue) == 1000)\nassert calls == []\ngate.set()")
    wait_calls(connected, [1] + [10 + i for i in range(1000)])
    assert connected("plant.stats.dropped") == 0


def test_a_callback_that_is_too_slow_gets_the_newest(connect, sim):
    client = connect("queue=4")
    client("calls = []\ngate = threading.Event()\n"
           "def slow(change):\n"
           "    gate.wait(LIMIT)\n"
           "    calls.append(change.value)\n"
           "subscription = line.on_change(slow, 'a')\n"
           "until(lambda: len(plant._queue) == 0)")
    sim.push_series("line1", "a", 1000, first=10)
    client("until(lambda: plant.stats.changes == 1000)\ngate.set()\n"
           "until(lambda: calls[-1:] == [1009])")
    assert client("calls[0], calls == sorted(calls), len(calls) + plant.stats.dropped") == (
        1, True, 1001)


def test_each_callback_of_a_tag_gets_its_newest_value_when_another_tag_floods(connect, sim):
    client = connect("queue=6")
    client("calls, others = [], []\ngate = threading.Event()\n"
           "first = line.on_change(lambda change: gate.wait(LIMIT) and calls.append(change.value),"
           " 'a')\n"
           "second = line.on_change(lambda change: others.append(change.value), 'a')\n"
           "flood = line.on_change(lambda change: None, 'b')")
    sim.set_value("line1", "a", 9)
    sim.push_series("line1", "b", 100, first=10)
    client("until(lambda: plant.stats.changes == 101)\ngate.set()\n"
           "until(lambda: calls[-1:] == others[-1:] == [9])")


def test_reading_goes_on_while_a_callback_is_stuck(connected):
    connected("gate = threading.Event()\n"
              "subscription = line.on_change(lambda change: gate.wait(LIMIT), 'a')\n"
              "until(lambda: len(plant._queue) == 0)")
    assert connected("line['b']") == 2
    connected("gate.set()")


# ---- errors -------------------------------------------------------------------------------------

FAIL = ("class Records(logging.Handler):\n"
        "    def emit(self, record): records.append(record)\n"
        "records = []\n"
        "logging.getLogger('vzclient').addHandler(Records())\n"
        "logging.getLogger('vzclient').propagate = False\n"
        "calls = []\n"
        "def fail(change):\n"
        "    calls.append(change.value)\n"
        "    raise %s\n"
        "subscription = line.on_change(fail, 'a'%s)\n"
        "until(lambda: calls == [1])")


@pytest.mark.parametrize("error", ["ValueError('x')", "SystemExit(3)", "KeyboardInterrupt",
                                   "asyncio.CancelledError", "vzclient.VzError('x')"])
def test_after_an_error_delivery_goes_on(connected, sim, error):
    connected(FAIL % (error, ""))
    sim.set_value("line1", "a", 9)
    wait_calls(connected, [1, 9])


def test_an_error_is_logged_with_its_traceback(connected):
    connected(FAIL % ("ValueError('x')", ""))
    connected("until(lambda: records)")
    assert connected("[(r.name, r.levelname, r.exc_info[0].__name__, host in r.getMessage())"
                     " for r in records]") == [("vzclient.callbacks", "ERROR", "ValueError", True)]


def test_an_error_is_counted(connected, sim):
    connected(FAIL % ("ValueError('x')", ""))
    sim.set_value("line1", "a", 9)
    connected("until(lambda: plant.stats.callback_errors == 2)")


def test_an_error_is_given_to_the_subscriptions_on_error(connected):
    connected("errors = []\n" + FAIL % ("ValueError('x')", ", on_error=errors.append"))
    connected("until(lambda: errors)")
    assert connected("[repr(error) for error in errors]") == ["ValueError('x')"]


def test_an_error_is_given_to_the_plants_on_error_otherwise(connect):
    client = connect("on_error=lambda error: errors.append(error)")
    client("errors = []\nmine = []\n" + FAIL % ("ValueError('x')", ""))
    client("until(lambda: len(errors) == 1)\n"
           "second = line.on_change(fail, 'b', on_error=mine.append)\n"
           "until(lambda: len(mine) == 1)")
    assert client("len(errors)") == 1


def test_an_error_of_on_error_is_logged_too(connected, sim):
    connected(FAIL % ("ValueError('x')", ", on_error=lambda error: 1 / 0"))
    connected("until(lambda: len(records) == 2)")
    assert connected("records[1].exc_info[0].__name__") == "ZeroDivisionError"
    sim.set_value("line1", "a", 9)
    wait_calls(connected, [1, 9])


def test_an_error_of_on_state_is_an_error_of_a_callback(connect, sim):
    client = connect("on_state=lambda state: errors.append(1 / 0)")
    client("until(lambda: plant.stats.callback_errors == 1)")


def test_errors_say_nothing_without_a_log(connected):
    connected(FAIL % ("ValueError('x')", ""))
    connected("until(lambda: plant.stats.callback_errors == 1)")  # and nothing on standard error


# ---- what a callback may do ---------------------------------------------------------------------

@pytest.mark.parametrize("code,result", [
    ("line['b']", 2),
    ("line.read('b', 'c')", {"b": 2, "c": 3}),
    ("line.write({'b': 5}) or line['b']", 5),
    ("take(line.watch('b'), 1)", [("b", 2)]),
    ("take(line.watch('a'), 1)", [("a", 1)]),
    ("type(line.on_change(print, 'empty')).__name__", "Subscription"),
    ("subscription_of[0].cancel()", None),
    ("plant.close()", None),
    ("plant.alarms().close()", None),
    ("connect().close()", None),
    ("plant.state.name", "live"),
])
def test_a_callback_may(connected, code, result):
    connected("results = []\nsubscription_of = []\ngate = threading.Event()\n"
              "def call(change):\n"
              "    gate.wait(LIMIT)\n"
              "    if not results: results.append(%s)\n"
              "subscription_of.append(line.on_change(call, 'a'))\n"
              "gate.set()\nuntil(lambda: results)" % code.replace("print", "lambda change: None"))
    assert connected("results") == [result]


# ---- cancelling ---------------------------------------------------------------------------------

def test_a_cancelled_callback_is_called_no_more(noted, sim):
    noted("others = []\nsecond = line.on_change(note(others), 'a')\nuntil(lambda: others)\n"
          "subscription.cancel()")
    sim.set_value("line1", "a", 9)
    noted("until(lambda: len(others) == 2)")
    assert noted("calls") == [("a", 1)]


def test_cancelling_drops_what_waits(connected, sim):
    connected("calls = []\ngate = threading.Event()\n"
              "def slow(change):\n"
              "    calls.append(change.value)\n"
              "    gate.wait(LIMIT)\n"
              "subscription = line.on_change(slow, 'a')\nuntil(lambda: calls == [1])")
    sim.push_series("line1", "a", 1000, first=10)
    connected("until(lambda: len(plant._queue) == 1000)\nsubscription.cancel()")
    assert connected("len(plant._queue)") == 0
    connected("gate.set()\nothers = []\nsecond = line.on_change(note(others), 'b')\n"
              "until(lambda: others)")
    assert connected("calls") == [1]


def test_cancelled_within_its_call_it_is_not_called_again(connected):
    connected("calls = []\nsubscription_of = []\ngate = threading.Event()\n"
              "def once(change):\n"
              "    gate.wait(LIMIT)\n"
              "    calls.append(change.tag)\n"
              "    subscription_of[0].cancel()\n"
              "subscription_of.append(line.on_change(once, 'a', 'b', 'c'))\ngate.set()\n"
              "others = []\nsecond = line.on_change(note(others), 'b')\nuntil(lambda: others)")
    assert connected("calls") == ["a"]


def test_active_tells_whether_it_is_called(noted):
    assert noted("subscription.active") is True
    noted("subscription.cancel()")
    assert noted("subscription.active") is False
    noted("second = line.on_change(note(calls), 'a')\nplant.close()")
    assert noted("second.active") is False


def test_cancelling_twice_does_nothing(noted):
    noted("subscription.cancel()\nsubscription.cancel()")


def test_cancelling_one_leaves_the_others(noted, sim):
    noted("others = []\nsecond = line.on_change(note(others), 'a')\nuntil(lambda: others)\n"
          "second.cancel()")
    sim.set_value("line1", "a", 9)
    wait_calls(noted, [("a", 1), ("a", 9)])


def test_a_cancelled_function_is_let_go_of(connected):
    connected("import weakref\n"
              "function = lambda change: None\nheld = weakref.ref(function)\n"
              "subscription = line.on_change(function, 'a')\n"
              "until(lambda: len(plant._queue) == 0)\n"
              "subscription.cancel()\ndel subscription, function\n"
              "second = line.on_change(lambda change: None, 'b')\n"  # the thread has gone on
              "until(lambda: held() is None)")


def test_a_signal_handler_may_subscribe_while_the_script_subscribes(connected):
    connected("calls = []\n"
              "def handler(*_):\n"
              "    signal.signal(signal.SIGUSR1, signal.SIG_DFL)\n"
              "    calls.append(line.on_change(lambda change: None, 'b'))\n"
              "signal.signal(signal.SIGUSR1, handler)\n"
              "with plant._dispatcher._lock:\n"  # where the signal may find it
              "    os.kill(os.getpid(), signal.SIGUSR1)\n"
              "    until(lambda: calls)", timeout=30)
