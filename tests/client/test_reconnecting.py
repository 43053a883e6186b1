"""A connection that is lost: what is told, what is tried, and what is there again afterwards."""

import os
import socket

import pytest

import wire
from cache import cache_folder
from plants import SMALL_PLANT
from prelude import host_of

STATES = "on_state=lambda state: states.append(state.name)"
CPU = "sum(__import__('resource').getrusage(0)[:2])"


def line1_with(*tags):
    """A plant like the small one, whose line1 has these tags: (name, value)."""
    return dict(SMALL_PLANT, file_time=1600000000, drivers=[{"name": "line1", "id": 5, "tags": [
        {"name": name, "type": "i4", "value": value} for name, value in tags]}])


@pytest.fixture
def restart(simulate, sim, client):
    """Ends the server, and starts another plant in its place."""
    def call(plant, **arguments):
        sim.close()
        client("until(lambda: plant.state.name in ('lost', 'connecting'))")
        return simulate(plant, port=sim.port, **arguments)
    return call


@pytest.fixture
def live(client):
    """Waits until the connection has been regained so many times."""
    def call(times=1):
        client("until(lambda: (plant.state.name, plant.stats.reconnects) == ('live', %d))" % times)
    return call


@pytest.fixture
def connect_noting(client, connect):
    """Connects the client, which notes its states in ``states``."""
    client("states = []")
    return lambda arguments="": connect("%s, %s" % (STATES, arguments))


@pytest.fixture
def black_hole():
    """A port that takes connections and never says anything."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(5)
        yield "127.0.0.1:%d" % listener.getsockname()[1]


# ---- the connection -----------------------------------------------------------------------------

@pytest.mark.parametrize("kind", ["close", "reset"])
@pytest.mark.parametrize("channel", ["notify", None])
def test_a_dropped_connection_is_made_anew(connected, sim, live, kind, channel):
    sim.drop_clients(kind, channel=channel)
    live()
    assert connected("line['a']") == 1
    sim.wait_clients(1)


def test_a_dropped_request_channel_shows_in_the_next_request(connected, sim, live):
    sim.drop_clients(channel="request")
    assert connected("kind_of(line.read, 'a')") == "ConnectionLost"
    live()
    assert connected("line['a']") == 1


def test_a_request_under_way_ends_with_the_connection(connected, sim):
    sim.fault("H", "silent")
    connected("thread = Thread(line.read, 'a')")
    sim.wait_requests(1, codes="H")
    sim.drop_clients()
    assert connected("type(thread.result()).__name__") == "ConnectionLost"


def test_a_server_that_was_away_is_found_again(connected, sim, live):
    sim.set_listening(False)
    sim.drop_clients()
    connected("until(lambda: plant.state.name == 'connecting')")
    assert connected("kind_of(line.read, 'a')") == "ConnectionLost"
    sim.set_listening(True)
    live()
    assert connected("line['a']") == 1


def test_drivers_of_before_are_good_for_the_new_connection(connected, sim, live):
    for times in range(1, 4):
        sim.drop_clients()
        live(times)
        assert connected("line['a']") == 1
    assert connected("line is plant['line1']")


def test_a_user_who_is_refused_for_a_while_is_tried_again(connected, sim, live):
    sim.fault("9", "refuse", times=3)
    sim.drop_clients()
    live()
    assert len(sim.requests(codes="9")) == 4


@pytest.mark.parametrize("after", [1, 8, 20])
def test_a_driver_file_whose_header_breaks_off_is_asked_for_again(connected, sim, live, after):
    os.utime(os.path.join(cache_folder(host_of(sim)), "Line1/RecData/drvinfo.dat"), (1, 1))
    sim.fault("4", "cut", after=after, times=2)
    sim.drop_clients()
    live()
    assert connected("sorted(plant.drivers), line['a']") == (
        ["line1", "none", "wide", "锅炉"], 1)
    assert len(sim.requests(codes="4")) == 3


def test_the_reason_of_a_refusal_is_told(connected, sim):
    sim.fault("9", "refuse", times=None)
    sim.drop_clients()
    connected("until(lambda: plant.state.reason.startswith('refused: connecting to ' + host))")


def test_rights_are_those_of_the_new_login(connected, sim, live):
    assert connected("plant.rights.name") == "WRITE"
    sim.set_rights("operator", 0)
    sim.drop_clients()
    live()
    assert connected("plant.rights.name, kind_of(line.write, {'a': 1})") == ("NONE", "WriteDenied")


def test_the_counters_go_on(connected, sim, live):
    connected("line['a']")
    before = connected("plant.stats.requests")
    sim.drop_clients()
    live()
    connected("line['a']")
    assert connected("plant.stats.requests") == before + 2  # the name is asked for anew


# ---- states -------------------------------------------------------------------------------------

def test_states_are_told_in_order(connect_noting, sim, live):
    client = connect_noting()
    sim.drop_clients()
    live()
    client("plant.close()")
    assert client("states") == ["live", "lost", "connecting", "live", "closed"]


def test_each_attempt_is_told(connect_noting, sim, live):
    client = connect_noting()
    sim.fault("9", "refuse", times=2)
    sim.drop_clients()
    live()
    client("plant.close()")
    assert client("states") == ["live"] + ["lost", "connecting"] * 3 + ["live", "closed"]


@pytest.mark.parametrize("overflow", ["latest", "oldest"])
def test_a_state_that_is_told_late_is_still_the_right_one(connect_noting, sim, live, overflow):
    client = connect_noting("overflow=%r, queue=3" % overflow)
    client("until(lambda: states == ['live'])\n"
           "gate = threading.Event()\n"
           "subscription = line.on_change(lambda change: gate.wait(LIMIT), 'a')\n"
           "until(lambda: len(plant._queue) == 0)")
    for times in range(1, 4):
        sim.drop_clients()
        live(times)
    client("gate.set()\nplant.close()")
    told = ["live", "lost", "connecting"] * 3 + ["live", "closed"]
    said = client("states")
    assert said[0] == "live" and said[1:] == told[-len(said) + 1:]


def test_a_state_tells_since_when_and_why(client, connect, sim):
    client("now = lambda: datetime.datetime.now().astimezone()\nbegun = now()")
    connected = connect()
    connected("live, now = plant.state, now()")
    assert connected("live.name, live.reason, begun <= live.since <= now,"
                     " begun <= live.last_heard <= now, str(live)") == (
        "live", "", True, True, "live")
    sim.set_listening(False)
    sim.drop_clients()
    connected("until(lambda: plant.state.name == 'lost' and plant.state.since >= now)")
    assert connected("plant.state.reason") != ""


def test_states_are_told_however_many_changes_displace_each_other(connect_noting, sim, live):
    client = connect_noting("overflow='oldest', queue=10")
    client("until(lambda: states == ['live'])\n"
           "gate = threading.Event()\n"
           "subscription = line.on_change(lambda change: gate.wait(LIMIT), 'a')\n"
           "until(lambda: len(plant._queue) == 0)")
    sim.drop_clients()
    live()
    for value in range(30):
        sim.set_value("line1", "a", 100 + value)
    client("until(lambda: plant.stats.dropped >= 20)\ngate.set()\n"
           "until(lambda: states[-1] == 'live')")
    assert client("states") == ["live", "lost", "connecting", "live"]


def test_a_lost_connection_is_lost_since_it_was_live(connect, sim, live):
    connected = connect()
    sim.set_listening(False)
    sim.drop_clients()
    connected("until(lambda: plant.state.name == 'lost')\nsince = plant.state.since\nseen = set()\n"
              "def attempts():\n"
              "    state = plant.state\n"
              "    if state.name == 'lost': assert state.since == since\n"
              "    else: seen.add(state.reason)\n"
              "    return len(seen)\n"
              "until(lambda: attempts() == 3)")
    sim.set_listening(True)
    live()
    sim.drop_clients()
    live(2)
    assert connected("plant.state.since > since")


def test_an_overdue_answer_makes_the_connection_stale_and_live_again(connect_noting, sim):
    client = connect_noting()
    sim.fault("H", "delay", seconds=1.5)
    assert client("line['a']") == 1
    client("until(lambda: plant.state.name == 'live')\nplant.close()")
    assert client("states") == ["live", "stale", "live", "closed"]


def test_a_silent_server_is_asked_for_a_sign_of_life(connect, sim):
    connect("heartbeat=0.05")
    sim.wait_requests(3, codes="L")
    assert {data for _, _, data in sim.requests(codes="L")} == {wire.lookup(0, "?")}


def test_a_server_that_gives_no_sign_of_life_is_lost(connect, sim, live):
    sim_client = connect("heartbeat=0.05, timeout=0.5")
    sim.fault("L", "silent")
    live()
    assert sim_client("line['a']") == 1


# ---- watches ------------------------------------------------------------------------------------

def test_watches_go_on_with_present_values_marked_as_resynced(connected, sim, live):
    connected("watch = line.watch('a', 'b')\ntake(watch, 2)")
    sim.drop_clients()
    live()
    assert connected("sorted((c.tag, c.value, c.resynced) for c in"
                     " [watch.get(LIMIT), watch.get(LIMIT)])") == [("a", 1, True), ("b", 2, True)]
    sim.set_value("line1", "a", 9)
    assert connected("[(c.value, c.resynced) for c in [watch.get(LIMIT)]]") == [(9, False)]


def test_what_changed_during_the_absence_is_told(connected, sim, live):
    connected("watch = line.watch('a')\ntake(watch, 1)")
    sim.set_listening(False)
    sim.drop_clients()
    sim.set_value("line1", "a", 8)
    sim.set_listening(True)
    live()
    assert connected("take(watch, 1)") == [("a", 8)]


def test_callbacks_go_on(connected, sim, live):
    connected("calls = []\nsubscription = line.on_change(note(calls), 'a')")
    sim.drop_clients()
    live()
    sim.set_value("line1", "a", 9)
    connected("until(lambda: calls == [('a', 1), ('a', 1), ('a', 9)])")


def test_each_watch_of_a_tag_is_told_once(connected, sim, live):
    connected("watches = [line.watch('a') for _ in range(3)]\n[take(w, 1) for w in watches]\nNone")
    sim.drop_clients()
    live()
    assert connected("[take(watch, 1) for watch in watches]") == [[("a", 1)]] * 3
    assert connected("[watch.waiting for watch in watches]") == [0] * 3


def test_all_tags_of_a_driver_are_subscribed_in_full_requests(connected, sim, live, sent):
    connected("watch = plant['wide'].watch(*['t%04d' % i for i in range(1200)])")
    sim.drop_clients()
    sent()
    live()
    assert [len(data) for data in sent("b")] == [3 + 519 * 5, 3 + 519 * 5, 3 + 162 * 5]


def test_a_closed_watch_is_not_renewed(connected, sim, live, sent):
    connected("line.watch('a').close()")
    sent()
    sim.drop_clients()
    live()
    assert sent("bn") == []


def test_without_an_alarm_watch_none_is_renewed(connected, sim, live, sent):
    connected("plant.alarms().close()")
    sent()
    sim.drop_clients()
    live()
    assert sent("n") == []


def test_active_alarms_come_again_marked_as_resynced(connected, sim, live):
    sim.raise_alarm(level=7)
    connected("alarms = plant.alarms()")
    assert connected("[(a.level, a.resynced) for a in [alarms.get(LIMIT)]]") == [(7, False)]
    sim.drop_clients()
    live()
    assert connected("[(a.level, a.resynced) for a in [alarms.get(LIMIT)]]") == [(7, True)]
    sim.raise_alarm(level=8)
    assert connected("[(a.level, a.resynced) for a in [alarms.get(LIMIT)]]") == [(8, False)]


def test_alarms_that_could_not_be_subscribed_do_not_keep_the_plant_away(connected, sim, live):
    connected("folder = '/tmp/vzbrowser/%s/Line1/RecData/textlist' % host.replace(':', '_')\n"
              "os.mkdir(folder)")  # where the list would be kept
    sim.set_file("RecData/textlist", b"one\r\n", 1600000000)
    assert connected("kind_of(plant.alarms)") == "ConnectionLost"
    live()
    assert connected("line['a']") == 1


# ---- another plant ------------------------------------------------------------------------------

def test_a_plant_with_other_ids_is_known_by_its_names(connected, restart, live):
    connected("watch = line.watch('b')\ntake(watch, 1)\nline['a']\nNone")
    sim = restart(line1_with(("b", 20), ("x", 0), ("a", 10)))
    live()
    assert connected("line['a'], line.tag_count, take(watch, 1)") == (10, 3, [("b", 20)])
    sim.set_value("line1", "b", 21)
    assert connected("take(watch, 1)") == [("b", 21)]
    connected("line['a'] = 11")
    assert sim.wait_requests(1, codes="g")[0][2] == wire.write((5, 2, wire.i4(11)))


def test_tags_that_are_gone_are_left_out_and_others_renewed(connected, restart, live):
    connected("watch = line.watch('a', 'b')\ntake(watch, 2)")
    restart(line1_with(("b", 20)))
    live()
    assert connected("take(watch, 1), watch.waiting") == ([("b", 20)], 0)
    assert connected("kind_of(line.read, 'a')") == "UnknownTag"


def test_a_tag_that_is_gone_is_told_again_when_it_is_back(connected, restart, simulate, live):
    connected("watch = line.watch('a')\ntake(watch, 1)")
    second = restart(line1_with(("b", 20)))
    live()
    second.close()
    connected("until(lambda: plant.state.name in ('lost', 'connecting'))")
    simulate(line1_with(("a", 30)), port=second.port)
    live(2)
    assert connected("take(watch, 1)") == [("a", 30)]


def test_names_of_one_tag_may_become_two_tags_and_one_again(connected, simulate, sim, live):
    connected("watch, other = line.watch('a'), line.watch('b')\ntake(watch, 1), take(other, 1)")
    one = line1_with(("a", 10))
    one["drivers"][0]["tags"][0]["aliases"] = ["b"]
    two = line1_with(("a", 20), ("b", 30))
    of_one = [("a", 10), ("a", 11)], [("b", 10), ("b", 11)]
    of_two = [("a", 20), ("a", 21)], [("b", 30), ("b", 31)]
    for times, plant, told in ((1, one, of_one), (2, two, of_two), (3, one, of_one)):
        sim.close()
        connected("until(lambda: plant.state.name in ('lost', 'connecting'))")
        sim = simulate(plant, port=sim.port)
        live(times)
        for name, value in (told[0][1], told[1][1]):
            sim.set_value("line1", name, value)
        assert connected("take(watch, 2), take(other, 2)") == told


def test_a_driver_that_is_gone_is_unknown(connected, restart, live, raised):
    connected("wide = plant['wide']\nwatch = wide.watch('t0001')\ntake(watch, 1)")
    restart(line1_with(("a", 1)))
    live()
    assert connected("sorted(plant.drivers)") == ["line1"]
    kind, text = raised("wide['t0001']")
    assert kind == "UnknownDriver" and text.endswith("the server has this driver no more")
    assert connected("error_of(wide.read, 't0001').names") == ("wide",)


def test_a_tag_of_another_type_is_told_with_it(connected, restart, live):
    connected("watch = line.watch('str')\ntake(watch, 1)")
    sim = restart(line1_with(("str", 5)))
    live()
    assert connected("take(watch, 1)") == [("str", 5)]
    sim.set_value("line1", "str", 6)
    assert connected("take(watch, 1)") == [("str", 6)]
    connected("line['str'] = 7")
    assert sim.wait_requests(1, codes="g")[0][2] == wire.write((5, 0, wire.i4(7)))


# ---- without reconnecting -----------------------------------------------------------------------

def test_without_reconnect_a_lost_connection_stays_lost(connect_noting, sim):
    client = connect_noting("reconnect=False")
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'lost' and threads() == 2)")  # with the dispatcher
    client("plant.close()")
    assert client("states") == ["live", "lost", "closed"]
    assert len(sim.requests(codes="7")) == 0


def test_without_reconnect_watches_end_with_the_connection(connect, sim):
    client = connect("reconnect=False")
    client("watch = line.watch('a')\nthread = Thread(list, watch)\nalarms = plant.alarms()\n"
           "until(lambda: watch.waiting == 0)")
    sim.drop_clients()
    assert client("type(thread.result()).__name__, kind_of(alarms.get, LIMIT)") == (
        "ConnectionLost", "ConnectionLost")


def test_without_reconnect_what_was_told_before_the_end_is_given(connect, sim):
    client = connect("reconnect=False")
    client("watch = line.watch('a')")
    sim.set_value("line1", "a", 9)
    client("until(lambda: watch.waiting == 2)")
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'lost')")
    assert client("take(watch, 2), kind_of(watch.get)") == ([("a", 1), ("a", 9)], "ConnectionLost")


@pytest.mark.parametrize("call", ["line['a']", "line.watch('a')", "plant.alarms()"])
def test_without_reconnect_every_use_says_that_it_is_lost(connect, sim, raised, call):
    client = connect("reconnect=False")
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'lost')")
    kind, text = raised(call)
    assert kind == "ConnectionLost" and "there is no connection (lost" in text


# ---- trying -------------------------------------------------------------------------------------

def test_waiting_for_an_absent_server_takes_hardly_any_time(connect, sim):
    client = connect("backoff=(0.5, 30)")
    sim.set_listening(False)
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'lost')\nbefore = %s\ntime.sleep(2)" % CPU)
    assert client("%s - before" % CPU) < (0.2 if not client.emulated else 2)


def test_an_idle_connection_takes_hardly_any_time(connected):
    connected("watch = line.watch('a')\nbefore = %s\ntime.sleep(2)" % CPU)
    assert connected("%s - before" % CPU) < (0.2 if not connected.emulated else 2)


def test_close_does_not_wait_for_the_next_attempt(connect, sim):
    client = connect("backoff=(1000, 1000)")
    sim.set_listening(False)
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'lost')\nplant.close()")
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_close_ends_an_attempt_that_nobody_answers(connect, sim, black_hole):
    client = connect("timeout=1000")
    client("plant.host = %r" % black_hole)
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'connecting' and sockets() > 0)\nplant.close()")
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_close_ends_the_renewal_of_a_watch_that_nobody_answers(connect, sim):
    client = connect("timeout=1000")
    client("watch = line.watch('a')")
    sim.requests(clear=True)
    sim.fault("b", "silent", times=None)
    sim.drop_clients()
    sim.wait_requests(1, codes="b")
    client("plant.close()")
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_close_ends_a_look_up_of_the_host_that_nobody_answers(connect, sim):
    client = connect("timeout=1000")
    client("gate = threading.Event()\n"
           "def look_up(*arguments):\n"
           "    gate.wait(LIMIT)\n"
           "    raise OSError\n"
           "socket.getaddrinfo = look_up\n"
           "plant.host = 'nobody'")
    sim.drop_clients()
    client("until(lambda: plant.state.name == 'connecting')\nplant.close()")
    assert client("[t.name for t in threading.enumerate()]") == ["MainThread", "vzclient-lookup"]
    client("gate.set()")


@pytest.mark.skipif("VZ_PRELOAD" in os.environ, reason="a sanitizer needs descriptors to check")
def test_want_of_descriptors_is_waited_for(connected, sim, live):
    connected("import resource\n"
              "limits = resource.getrlimit(resource.RLIMIT_NOFILE)\n"
              "resource.setrlimit(resource.RLIMIT_NOFILE, (3, limits[1]))")
    sim.drop_clients()
    connected("until(lambda: 'MemoryError' in plant.state.reason)\n"
              "resource.setrlimit(resource.RLIMIT_NOFILE, limits)")
    live()
    assert connected("line['a']") == 1
