"""Signals while the package waits: Ctrl-C is prompt, and handlers may do what they like but one."""

import os
import signal
import socket

import pytest

import tasks
from script import TIME_SCALE, ScriptError


@pytest.fixture
def black_hole():
    """The host text of a port that takes connections and never says anything."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(5)
        yield "127.0.0.1:%d" % listener.getsockname()[1]


@pytest.fixture
def interrupt(client):
    """Starts code that waits for ever, interrupts it, and gives the error's type name."""
    def call(code):
        tasks.wait_asleep(client.pid, client.pid)  # it has told its last result and waits for code
        before = tasks.sleeps(client.pid, client.pid)
        client.start(code)
        tasks.wait_asleep(client.pid, client.pid, before + 1)
        os.kill(client.pid, signal.SIGINT)
        with pytest.raises(ScriptError) as caught:
            client.result(timeout=10)
        return caught.value.kind
    return call


def test_ctrl_c_ends_connecting(client, interrupt, black_hole):
    assert interrupt("vzclient.connect(%r, timeout=1000)" % black_hole) == "KeyboardInterrupt"
    client("until(lambda: (threads(), sockets()) == (1, 0))")


@pytest.mark.parametrize("code", ["7", "8", "9", "4"])
def test_ctrl_c_ends_a_login_that_nobody_answers(client, sim, interrupt, code):
    sim.fault(code, "silent")
    client("attempt = lambda: connect(timeout=1000)")
    assert interrupt("attempt()") == "KeyboardInterrupt"
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_ctrl_c_ends_a_look_up_of_the_host(client, interrupt):
    client("gate = threading.Event()\n"
           "def look_up(*arguments):\n"
           "    gate.wait(LIMIT)\n"
           "    raise OSError\n"
           "socket.getaddrinfo = look_up")
    assert interrupt("vzclient.connect('nobody', timeout=1000)") == "KeyboardInterrupt"
    client("gate.set()")


@pytest.mark.parametrize("code,call", [
    ("L", "line['a']"), ("H", "line['a']"), ("H", "line.write({'a': 1}, timeout=1000)"),
    ("b", "line.watch('a')"), ("n", "plant.alarms()")])
def test_ctrl_c_ends_a_request(connect, sim, interrupt, code, call):
    client = connect("timeout=1000")
    sim.fault(code, "silent")
    assert interrupt(call) == "KeyboardInterrupt"
    client("until(lambda: plant.stats.reconnects == 1)")
    assert client("line['a']") == 1


@pytest.mark.parametrize("call", ["watch.get()", "watch.get(1000)", "next(iter(watch))",
                                  "alarms.get()"])
def test_ctrl_c_ends_waiting_for_an_event_and_harms_nothing(connected, sim, interrupt, call):
    connected("watch = line.watch('a')\nalarms = plant.alarms()\ntake(watch, 1)")
    assert interrupt(call) == "KeyboardInterrupt"
    sim.set_value("line1", "a", 9)
    assert connected("take(watch, 1), plant.stats.reconnects") == ([("a", 9)], 0)


def test_ctrl_c_ends_waiting_for_another_threads_request(connect, sim, interrupt):
    client = connect("timeout=1000")
    sim.fault("H", "silent")
    client("thread = Thread(line.read, 'a')")
    sim.wait_requests(2)
    assert interrupt("line['b']") == "KeyboardInterrupt"
    assert client("thread.is_alive()") is True
    client("plant.close()")
    assert client("type(thread.result()).__name__") == "ConnectionLost"


def test_ctrl_c_ends_waiting_for_a_batch_that_another_thread_waits_for(connected, interrupt, sim):
    connected("watch = line.watch('a')\ntake(watch, 1)\nthread = Thread(watch.get, LIMIT)")
    assert interrupt("watch.get()") == "KeyboardInterrupt"
    sim.set_value("line1", "a", 9)
    assert connected("thread.result().value") == 9


def test_ctrl_c_ends_closing_with_a_stuck_callback(connected, interrupt):
    connected("gate = threading.Event()\n"
              "subscription = line.on_change(lambda change: gate.wait(LIMIT), 'a')\n"
              "until(lambda: len(plant._queue) == 0)")
    assert interrupt("plant.close()") == "KeyboardInterrupt"
    connected("gate.set()\nplant.close()\nuntil(lambda: sockets() == 0)")


# ---- handlers -----------------------------------------------------------------------------------

HANDLE = """
seen = []
def handler(*_):
    try:
        seen.append(%s)
    except Exception as error:
        seen.append((type(error).__name__, str(error).rpartition(": ")[2]))
signal.signal(signal.SIGUSR1, handler)
timer = threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGUSR1))
"""


def test_a_handler_that_does_not_raise_lets_the_call_go_on(connected, sim):
    connected(HANDLE % "5")
    sim.fault("H", "delay", seconds=0.6)
    connected("timer.start()")
    assert connected("line['a'], seen, plant.stats.reconnects") == (1, [5], 0)


@pytest.mark.parametrize("call", [
    "line['b']", "line.read('b')", "line.write({'b': 5})", "line.watch('b')", "plant.alarms()",
    "line.on_change(print, 'b')"])
def test_a_handler_that_uses_the_plant_gets_an_error_and_the_call_goes_on(connected, sim, call):
    connected("line['b']\n" + HANDLE % call)
    sim.fault("H", "delay", seconds=0.6)
    connected("timer.start()")
    assert connected("line['a'], seen, plant.stats.reconnects") == (
        1, [("VzError", "a signal handler cannot use a plant in the middle of a call to it")], 0)
    assert connected("line['b']") == 2


def test_a_handler_may_use_another_plant(connected, sim):
    connected("other = connect()\n" + HANDLE % "other['line1']['b']")
    sim.fault("H", "delay", seconds=0.6)
    connected("timer.start()")
    assert connected("line['a'], seen") == (1, [2])


def test_a_handler_may_ask_for_states_and_counts(connected, sim):
    connected(HANDLE % "(plant.state.name, plant.stats.timeouts, plant.rights.name)")
    sim.fault("H", "delay", seconds=0.6)
    connected("timer.start()")
    assert connected("line['a'], seen") == (1, [("live", 0, "WRITE")])


def test_a_handler_may_close_the_plant_in_the_middle_of_a_call(connected, sim):
    connected(HANDLE % "plant.close()")
    sim.fault("H", "silent")
    connected("timer.start()")
    assert connected("kind_of(line.read, 'a'), seen") == ("ConnectionLost", [None])
    connected("del plant, line\ngc.collect()\nuntil(lambda: sockets() == 0)")


def test_a_handler_may_use_the_plant_while_the_script_waits_for_an_event(connected, sim):
    connected("watch = line.watch('a')\ntake(watch, 1)\n" + HANDLE % "line.write({'a': 9})")
    connected("timer.start()")
    assert connected("take(watch, 1), seen") == ([("a", 9)], [None])


def test_a_handler_may_take_from_the_watch_that_the_script_waits_in(connected, sim):
    connected("watch = line.watch('a')\ntake(watch, 1)\n"
              + HANDLE % "(line.write({'a': 8}), take(watch, 1), line.write({'a': 9}))[1]")
    connected("timer.start()")
    assert connected("take(watch, 1), seen") == ([("a", 9)], [[("a", 8)]])


def test_a_handler_that_raises_ends_the_request_with_its_error(connected, sim):
    connected(HANDLE % "1" + "def handler(*_): raise LookupError('mine')\n"
              "signal.signal(signal.SIGUSR1, handler)\ntimer.start()")
    sim.fault("H", "silent")
    assert connected("repr(error_of(line.read, 'a', timeout=%r))" % (20 * TIME_SCALE)) == (
        "LookupError('mine')")
    connected("until(lambda: plant.stats.reconnects == 1)")
    assert connected("line['a']") == 1
