"""Scripts that end with what they have: they end well, soon and without a word."""

import socket

import pytest

from prelude import PRELUDE, host_of
from script import run

START = PRELUDE + """
host = sys.argv[1]
plant = connect(on_state=lambda state: None)
line = plant["line1"]
"""


@pytest.fixture
def ends(sim):
    """Runs a script, which must end with this code and say nothing but this."""
    def check(code, status=0, said="", timeout=15):
        done = run(START + code, host_of(sim), timeout=timeout)
        assert (done.returncode, done.stdout, done.stderr) == (status, said, "")
        sim.wait_clients(0)
    return check


@pytest.mark.parametrize("code", [
    "line['a']",
    "watch = line.watch('a', 'b')\nalarms = plant.alarms()",
    "calls = []\nsubscription = line.on_change(calls.append, 'a')",
    "second = connect()",
    "del plant, line",
    "plant.close()",
    "thread = Thread(lambda: list(line.watch('a')))",
    "Thread(lambda: [line.read('a') for _ in range(1000000)])",
    "trace = connect(trace=lambda text: None)",
    "plant.self = plant\nimport builtins\nbuiltins.plant = plant",
])
def test_a_script_may_end_with(ends, code):
    ends(code)


def test_a_stuck_callback_does_not_keep_a_script(ends):
    ends("subscription = line.on_change(lambda change: threading.Event().wait(), 'a')\n"
         "until(lambda: len(plant._queue) == 0)")


def test_a_busy_callback_does_not_keep_a_script(ends, sim):
    ends("def busy(change):\n"
         "    while True: pass\n"
         "subscription = line.on_change(busy, 'a')\n"
         "until(lambda: len(plant._queue) == 0)")


def test_a_callback_that_reads_does_not_keep_a_script(ends, sim):
    sim.fault("H", "silent")
    ends("subscription = line.on_change(lambda change: line['b'], 'a')\n"
         "until(lambda: len(plant._queue) == 0)")


@pytest.mark.parametrize("call", ["line['a']", "line.watch('a').get()", "plant.alarms().get()",
                                  "connect(timeout=1000)"])
def test_a_daemon_thread_that_waits_does_not_keep_a_script(ends, sim, call):
    sim.fault("H", "silent")
    sim.fault("7", "silent", skip=1)
    ends("Thread(lambda: %s)\ntime.sleep(0.1)" % call)


def test_a_daemon_thread_that_connects_to_a_black_hole_does_not_keep_a_script(ends):
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(5)
        ends("Thread(vzclient.connect, '127.0.0.1:%d')\ntime.sleep(0.1)"
             % listener.getsockname()[1])


def test_a_plant_that_reconnects_does_not_keep_a_script(ends, sim):
    ends("plant._session.end('lost')\nplant.host = '127.0.0.1:1'\n"
         "until(lambda: plant.state.name == 'connecting')")


def test_a_flood_does_not_keep_a_script(ends, sim):
    ends("wide = plant['wide']\nlist_ = []\n"
         "subscription = wide.on_change(list_.append, *['t%04d' % i for i in range(1200)])\n"
         "until(lambda: list_)")


@pytest.mark.parametrize("code,status", [("sys.exit(3)", 3), ("sys.exit()", 0), ("os._exit(4)", 4)])
def test_the_exit_code_is_the_scripts(ends, code, status):
    ends("watch = line.watch('a')\n%s" % code, status)


def test_an_error_of_the_script_is_all_it_says(sim):
    done = run(START + "watch = line.watch('a')\n1 / 0", host_of(sim))
    assert done.returncode == 1 and done.stderr.endswith("ZeroDivisionError: division by zero\n")
    assert done.stderr.count("Traceback") == 1 and "ignored" not in done.stderr


def test_closing_late_is_harmless(ends):
    ends("import atexit\natexit.register(plant.close)\n"
         "class Late:\n"
         "    plant, watch = plant, line.watch('a')\n"
         "    def __del__(self):\n"
         "        self.watch.close()\n"
         "        self.plant.close()\n"
         "late = Late()\nlate.itself = late")


def test_importing_alone_starts_nothing(sim):
    done = run("import vzclient, threading\nprint(threading.active_count())")
    assert (done.returncode, done.stdout, done.stderr) == (0, "1\n", "")
