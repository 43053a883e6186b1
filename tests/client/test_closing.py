"""What a plant, a watch and a subscription leave behind when they end: nothing."""

import os

import pytest

from script import rounds

CYCLE = """
def cycle():
    plant = connect(on_state=lambda state: None)
    line = plant["line1"]
    watch = line.watch("a", "b")
    subscription = line.on_change(lambda change: None, "c")
    alarms = plant.alarms()
    take(watch, 2)
    plant.close()

def resident():
    "Pages of this process that are in memory"
    with open("/proc/self/statm") as stream:
        return int(stream.read().split()[1])
"""


def test_close_closes_the_connections(connected):
    assert connected("sockets()") == 2
    connected("plant.close()")
    assert connected("sockets()") == 0


def test_close_ends_the_calls_that_wait_but_for_those_of_states(client):
    client("states, calls, entered, gate = [], [], threading.Event(), threading.Event()\n"
           "plant = connect(on_state=lambda state: states.append(state.name))\n"
           "def stuck(change):\n"
           "    calls.append(change.tag)\n"
           "    entered.set()\n"
           "    gate.wait(LIMIT)\n"
           "subscription = plant['line1'].on_change(stuck, 'a', 'b', 'c')\n"
           "entered.wait(LIMIT)\nclosing = Thread(plant.close)\n"
           "until(lambda: plant.state.name == 'closed')\ngate.set()\nclosing.result()")
    assert client("calls, states") == (["a"], ["live", "closed"])


def test_close_within_a_callback_ends_the_calls_that_wait(connected):
    connected("calls = []\n"
              "def once(change):\n"
              "    calls.append(change.tag)\n"
              "    plant.close()\n"
              "subscription = line.on_change(once, 'a', 'b', 'c')\n"
              "until(lambda: threads() == 1)")
    assert connected("calls") == ["a"]


def test_close_ends_all_threads(connect):
    client = connect("on_state=lambda state: None")
    client("subscription = line.on_change(lambda change: None, 'a')")
    assert client("threads()") == 4  # with receiver, supervisor and dispatcher
    client("plant.close()")
    client("until(lambda: threads() == 1)")


def test_the_server_sees_the_end(connected, sim):
    sim.wait_clients(1)
    connected("plant.close()")
    sim.wait_clients(0)
    sim.wait_clients(0, channel="request")


def test_a_with_statement_closes(client, sim):
    client("with connect() as plant: pass")
    assert client("plant.state.name") == "closed"
    sim.wait_clients(0)


def test_a_second_close_does_nothing(connected):
    connected("plant.close()\nplant.close()")
    assert connected("plant.state.name") == "closed"


def test_a_closed_plant_leaves_no_descriptor_once_it_is_forgotten(client):
    client("connect().close()\ngc.collect()\nbefore = descriptors()")
    client("plant = connect()\nplant['line1'].watch('a')\nplant.close()\ndel plant\ngc.collect()")
    assert client("descriptors() - before") == 0


def test_many_connections_leave_no_descriptor_and_no_thread(client):
    client(CYCLE)
    client("cycle()\ngc.collect()\nbefore = descriptors()")
    client("for _ in range(%d): cycle()\ngc.collect()" % rounds(20))
    client("until(lambda: (descriptors() - before, threads()) == (0, 1))")


@pytest.fixture
def measurable(client):
    """Skips where the memory of a process is more than what it asked for."""
    client("None")
    if client.emulated or "VZ_PRELOAD" in os.environ:
        pytest.skip("an emulator or a sanitizer has memory of its own")


def test_many_connections_need_no_more_memory(client, measurable):
    client(CYCLE)
    client("for _ in range(20): cycle()\ngc.collect()\nbefore = resident()")
    client("for _ in range(%d): cycle()\ngc.collect()" % rounds(100))
    if not client.emulated:  # an emulator uses memory of its own
        assert client("resident() - before") < 400  # pages; a lost connection is more than 10


def test_many_watches_need_no_more_memory(connected, measurable):
    connected(CYCLE + "\nwide = plant['wide']\n"
              "names = ['t%04d' % i for i in range(1200)]\n"
              "def use():\n"
              "    with wide.watch(*names) as watch: take(watch, 1200)\n")
    connected("for _ in range(20): use()\nbefore = resident()")
    connected("for _ in range(%d): use()" % rounds(200))
    assert connected("resident() - before") < 400


@pytest.mark.parametrize("variables", [{"PYTHONMALLOC": "malloc_debug"}])
def test_names_that_go_with_the_last_session_go_in_order(connected):
    connected("wide = plant['wide']\n"
              "for i in range(20): wide.watch('t%04d' % i)")
    connected("plant.close()\ndel plant, line, wide\ngc.collect()")


def test_a_watch_that_nobody_holds_any_more_ends(connected):
    connected("for _ in line.watch('a'): break\ngc.collect()\nbefore = descriptors()")
    connected("for _ in range(50):\n"
              "    for change in line.watch('a'): break\n"
              "gc.collect()")
    assert connected("descriptors() - before") == 0
    assert connected("plant._routes.watched()") == {}


def test_a_watch_that_could_not_be_made_says_nothing_when_it_goes(connected):
    assert connected("kind_of(line.watch, 'a', queue=0)") == "ValueError"
    assert connected("kind_of(line.watch, 'nobody')") == "UnknownTag"
    assert connected("gc.collect() >= 0")


def test_a_closed_watch_is_told_nothing(connected, sim):
    connected("watch = line.watch('a')\nother = line.watch('a')\ntake(other, 1)\nwatch.close()")
    sim.set_value("line1", "a", 9)
    assert connected("take(other, 1), watch.waiting") == ([("a", 9)], 0)


def test_a_watch_closed_within_its_iteration_ends_it(connected):
    connected("watch = line.watch('a', 'b', 'c')\nseen = []\n"
              "for change in watch:\n"
              "    seen.append(change.tag)\n"
              "    watch.close()")
    assert connected("seen") == ["a"]


def test_close_ends_a_watch_that_another_thread_waits_in(connected):
    connected("watch = line.watch('a')\n"
              "thread = Thread(lambda: [change.value for change in watch])\n"
              "until(lambda: watch.waiting == 0)\n"
              "watch.close()")
    assert connected("thread.result()") == [1]


def test_closing_the_plant_ends_a_watch_that_another_thread_waits_in(connected):
    connected("watch = line.watch('a')\n"
              "thread = Thread(lambda: [change.value for change in watch])\n"
              "until(lambda: watch.waiting == 0)\n"
              "plant.close()")
    assert connected("thread.result()") == [1]


def test_get_of_a_closed_watch_says_that_it_is_closed(connected, raised):
    connected("watch = line.watch('a')\nwatch.close()")
    kind, text = raised("watch.get(20)")
    assert kind == "ConnectionLost" and text.endswith("the watch is closed")


@pytest.mark.parametrize("call", [
    "line['a']", "line.read('a', 'b')", "line.write({'a': 1})", "line.watch('a')",
    "line.on_change(print, 'a')", "plant.alarms()", "plant.on_alarm(print)"])
def test_a_closed_plant_says_that_it_is_closed(connected, raised, call):
    connected("plant.close()")
    kind, text = raised(call)
    assert kind == "ConnectionLost" and text.endswith("the plant is closed")


def test_what_a_closed_plant_knows_can_still_be_asked(connected):
    connected("plant.close()")
    assert connected("plant.project, plant.host == host, plant.rights.name, sorted(plant.drivers),"
                     " line.name, line.tag_count, plant.stats.reconnects") == (
        "Line1", True, "WRITE", ["line1", "none", "wide", "锅炉"], "line1", 23, 0)


def test_a_request_under_way_ends_when_the_plant_is_closed(connected, sim):
    sim.fault("H", "silent")
    connected("thread = Thread(line.read, 'a')")
    sim.wait_requests(1, codes="H")
    connected("plant.close()")
    assert connected("type(thread.result()).__name__, sockets()") == ("ConnectionLost", 0)
    connected("until(lambda: threads() == 1)")


def test_watches_may_come_and_go_while_others_count_them(connected):
    connected("stop = False\n"
              "held = [line.watch('a') for _ in range(200)]\n"
              "def watch():\n"
              "    while not stop: line.watch('a').close()\n"
              "def count():\n"
              "    for _ in range(%d): plant.stats\n"
              "before = sys.getswitchinterval()\n"
              "sys.setswitchinterval(1e-6)\n"
              "watching = [Thread(watch) for _ in range(3)]\n"
              "counting = [Thread(count) for _ in range(2)]" % rounds(2000))
    assert connected("[thread.result() for thread in counting]") == [None, None]
    connected("stop = True\nsys.setswitchinterval(before)")
    assert connected("[thread.result() for thread in watching]") == [None] * 3
