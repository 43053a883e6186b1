"""Watches: what they begin with, what they are told and in which order, and what they wait for."""

import pytest

import wire
from plants import LINE1, SMALL_PLANT


@pytest.fixture
def watched(connected, sent):
    """A client with ``watch`` of a and b, whose present values are taken."""
    connected("watch = line.watch('a', 'b')\ntake(watch, 2)")
    sent()
    return connected


# ---- what a watch begins with -------------------------------------------------------------------

def test_a_watch_begins_with_the_present_values_in_the_order_of_the_names(connected):
    assert connected("take(line.watch('c', 'a', 'b'), 3)") == [("c", 3), ("a", 1), ("b", 2)]


def test_present_values_are_not_marked_as_resynced(connected):
    assert connected("line.watch('a').get(LIMIT).resynced") is False


def test_a_watch_looks_names_up_and_subscribes_them(connected, sent):
    connected("watch = line.watch('c', 'a')")
    assert sent() == [b"L\0\0c\0\0\0a\0", b"b\2\0\0\0\x16\0\0\0\0\x14\0\0"]


def test_a_name_given_twice_is_watched_once(connected, sent):
    connected("watch = line.watch('a', 'a')")
    assert sent("b") == [wire.subscribe(0, LINE1["a"])]
    assert connected("take(watch, 1), watch.waiting") == ([("a", 1)], 0)


def test_519_tags_are_one_subscription(connected, sent):
    connected("watch = plant['wide'].watch(*['t%04d' % i for i in range(519)])")
    assert sent("b") == [wire.subscribe(7, *range(519))]


def test_520_tags_are_two_subscriptions(connected, sent):
    connected("watch = plant['wide'].watch(*['t%04d' % i for i in range(520)])")
    assert sent("b") == [wire.subscribe(7, *range(519)), wire.subscribe(7, 519)]


def test_1200_tags_are_told_in_the_order_of_the_names(connected):
    connected("names = ['t%04d' % i for i in range(1200)][::-1]\n"
              "watch = plant['wide'].watch(*names)")
    assert connected("take(watch, 1200) == [(n, int(n[1:])) for n in names]")


@pytest.mark.parametrize("name,value", [
    ("i2", -2), ("r8", 0.1), ("str", "valve"), ("bool", True), ("i1", -1), ("ui4", 4294967295),
    ("i8", 5), ("empty", None), ("null", None), ("cy", None), ("ui8", None), ("array", None),
    ("水位", 77)])
def test_a_tag_of_any_type_can_be_watched(connected, name, value):
    assert connected("take(line.watch(%r), 1)" % name) == [(name, value)]


def test_no_name_is_no_watch(connected, raised):
    assert raised("line.watch()") == ("ValueError", "no tag to watch")


def test_unknown_names_are_told_all_and_nothing_is_subscribed(connected, sent):
    assert connected("error_of(line.watch, 'x', 'a', 'y').names") == ("x", "y")
    assert sent("b") == []
    assert connected("plant._routes.watched()") == {}


# ---- several watches ----------------------------------------------------------------------------

def test_a_second_watch_of_a_tag_begins_with_its_last_value_without_a_request(watched, sim, sent):
    sim.set_value("line1", "a", 9)
    assert watched("take(watch, 1)") == [("a", 9)]
    assert watched("take(line.watch('a'), 1)") == [("a", 9)]
    assert sent() == []


def test_a_watch_of_old_and_new_tags_subscribes_the_new_ones(watched, sent):
    assert watched("take(line.watch('a', 'c', 'b'), 3)") == [("a", 1), ("c", 3), ("b", 2)]
    assert sent("b") == [wire.subscribe(0, LINE1["c"])]


def test_each_watch_of_a_tag_is_told_its_changes(watched, sim):
    watched("other = line.watch('a')\ntake(other, 1)")
    sim.set_value("line1", "a", 9)
    assert watched("take(watch, 1), take(other, 1)") == ([("a", 9)], [("a", 9)])


def test_a_watch_is_told_nothing_of_other_tags(watched, sim):
    watched("other = line.watch('c')\ntake(other, 1)")
    sim.set_value("line1", "c", 9)
    assert watched("take(other, 1), watch.waiting") == ([("c", 9)], 0)


def test_tags_of_one_name_in_two_drivers_are_two_tags(simulate, client, sim):
    drivers = [{"name": name, "id": number, "tags": [{"name": "x", "type": "i4", "value": number}]}
               for name, number in (("one", 1), ("two", 2))]
    second = simulate(dict(SMALL_PLANT, drivers=drivers))
    client("host = '127.0.0.1:%d'\nplant = connect()\n"
           "one, two = plant['one'].watch('x'), plant['two'].watch('x')" % second.port)
    assert client("take(one, 1), take(two, 1)") == ([("x", 1)], [("x", 2)])
    second.set_value("two", "x", 9)
    assert client("take(two, 1), one.waiting") == ([("x", 9)], 0)


# ---- several names of a tag ---------------------------------------------------------------------

@pytest.fixture
def two_names(simulate, client):
    """A plant whose tag Temp is called TEMP too, with a client that is connected to it."""
    plant = simulate(dict(SMALL_PLANT, drivers=[{"name": "line1", "tags": [
        {"name": "Temp", "type": "i4", "value": 1, "aliases": ["TEMP"]}]}]))
    client("host = '127.0.0.1:%d'\nplant = connect()\nline = plant['line1']" % plant.port)
    plant.requests(clear=True)
    return plant


def test_each_name_of_a_tag_is_told_its_changes(two_names, client):
    client("one = line.watch('Temp')\nother = line.watch('TEMP')")
    two_names.set_value("line1", "Temp", 9)
    assert client("take(one, 2), take(other, 2)") == (
        [("Temp", 1), ("Temp", 9)], [("TEMP", 1), ("TEMP", 9)])
    assert two_names.requests(codes="b")[0][2] == wire.subscribe(0, 0)
    assert len(two_names.requests(codes="b")) == 1


def test_a_watch_of_two_names_of_a_tag_is_told_both(two_names, client):
    client("watch = line.watch('TEMP', 'Temp')")
    two_names.set_value("line1", "Temp", 9)
    assert client("take(watch, 2), sorted(take(watch, 2))") == (
        [("TEMP", 1), ("Temp", 1)], [("TEMP", 9), ("Temp", 9)])


def test_each_name_of_a_tag_has_its_callback(two_names, client):
    client("calls = []\n"
           "for name in ('Temp', 'TEMP'): line.on_change(note(calls), name)")
    two_names.set_value("line1", "Temp", 9)
    client("until(lambda: len(calls) == 4)")
    assert client("sorted(calls)") == [("TEMP", 1), ("TEMP", 9), ("Temp", 1), ("Temp", 9)]


def test_each_name_of_a_tag_is_told_after_a_reconnect(two_names, client):
    client("one = line.watch('Temp')\nother = line.watch('TEMP')\ntake(one, 1), take(other, 1)")
    two_names.drop_clients()
    client("until(lambda: (plant.state.name, plant.stats.reconnects) == ('live', 1))")
    two_names.set_value("line1", "Temp", 9)
    assert client("take(one, 2), take(other, 2)") == (
        [("Temp", 1), ("Temp", 9)], [("TEMP", 1), ("TEMP", 9)])


def test_a_name_whose_watch_is_closed_leaves_the_others_alone(two_names, client):
    client("one = line.watch('Temp')\nother = line.watch('TEMP')\n"
           "take(one, 1), take(other, 1)\nother.close()")
    two_names.set_value("line1", "Temp", 9)
    assert client("take(one, 1)") == [("Temp", 9)]


# ---- several threads ----------------------------------------------------------------------------

def test_several_threads_may_share_a_watch(watched, sim):
    watched("threads_ = [Thread(lambda: [watch.get(LIMIT).value for _ in range(250)])"
            " for _ in range(4)]")
    sim.push_series("line1", "a", 1000, first=10)
    assert watched("sorted(value for thread in threads_ for value in thread.result())") == list(
        range(10, 1010))


# ---- changes ------------------------------------------------------------------------------------

def test_changes_are_told_in_order(watched, sim):
    sim.push_series("line1", "a", 5000, first=10)
    assert watched("[value for _, value in take(watch, 5000)]") == list(range(10, 5010))


def test_changes_of_several_tags_are_told_in_order(watched, sim):
    for value in range(10, 20):
        sim.set_value("line1", "a", value)
        sim.set_value("line1", "b", -value)
    assert watched("take(watch, 20)") == [
        pair for value in range(10, 20) for pair in (("a", value), ("b", -value))]


@pytest.mark.parametrize("name,value", [
    ("i2", 32767), ("i4", -2147483648), ("r4", 0.5), ("r8", 1e300), ("str", "开"), ("bool", False),
    ("i1", -128), ("ui1", 255), ("ui2", 0), ("ui4", 4294967294), ("i8", -9223372036854775808),
    ("int", 7), ("uint", 4294967295), ("水位", -1)])
def test_changes_of_every_type_are_told(connected, sim, name, value):
    connected("watch = line.watch(%r)\ntake(watch, 1)" % name)
    sim.set_value("line1", name, value)
    assert connected("[(type(v).__name__, v) for _, v in take(watch, 1)]") == [
        (type(value).__name__, value)]


def test_own_writes_are_told(watched):
    watched("line['a'] = 9")
    assert watched("take(watch, 1)") == [("a", 9)]


def test_reading_a_watched_tag_asks_the_server(watched, sent):
    assert watched("line['a']") == 1
    assert sent("H") == [wire.read(0, LINE1["a"])]


def test_iterating_gives_changes_as_they_come(watched, sim):
    watched("thread = Thread(lambda: [next(changes) for changes in [iter(watch)]"
            " for _ in range(2)])")
    sim.set_value("line1", "a", 9)
    sim.set_value("line1", "b", 8)
    assert watched("[(c.tag, c.value) for c in thread.result()]") == [("a", 9), ("b", 8)]


# ---- waiting ------------------------------------------------------------------------------------

def test_get_raises_when_nothing_comes_in_time(watched, raised):
    kind, text = raised("watch.get(0.05)")
    assert kind == "VzTimeoutError" and text.startswith("nothing came from ")


def test_get_with_zero_seconds_takes_what_is_there(connected):
    connected("watch = line.watch('a')\nuntil(lambda: watch.waiting == 1)")
    assert connected("watch.get(0).value, kind_of(watch.get, 0)") == (1, "VzTimeoutError")


def test_iterating_raises_when_nothing_comes_in_time(connected):
    connected("watch = line.watch('a', timeout=0.05)\nchanges = iter(watch)")
    assert connected("next(changes).value, kind_of(next, changes)") == (1, "VzTimeoutError")


def test_after_a_timeout_a_watch_goes_on(connected, sim):
    connected("watch = line.watch('a', timeout=0.05)\ntake(watch, 1)\n"
              "assert kind_of(next, iter(watch)) == 'VzTimeoutError'")
    sim.set_value("line1", "a", 9)
    assert connected("take(watch, 1)") == [("a", 9)]


def test_waiting_says_how_many_events_wait(connected, sim):
    connected("watch = line.watch('a', 'b')\nuntil(lambda: watch.waiting == 2)\ntake(watch, 1)")
    assert connected("watch.waiting") == 1


def test_other_threads_run_while_one_waits(watched, sim):
    watched("count = 0\n"
            "thread = Thread(watch.get, LIMIT)\n"
            "for _ in range(100000): count += 1")
    sim.set_value("line1", "a", 9)
    assert watched("thread.result().value, count") == (9, 100000)


# ---- full queues --------------------------------------------------------------------------------

@pytest.fixture
def flooded(connected, sim):
    """A client whose ``watch``, made with these arguments, has been told a from 10 to 109."""
    def call(arguments, *names):
        connected("watch = line.watch(%s, %s)\nuntil(lambda: watch.waiting + watch.dropped == %d)\n"
                  "before = plant.stats.changes"
                  % (", ".join(map(repr, names)), arguments, len(names)))
        sim.push_series("line1", "a", 100, first=10)
        connected("until(lambda: plant.stats.changes - before == 100)\n"
                  "told = take(watch, watch.waiting)")
        return connected
    return call


def test_oldest_drops_the_oldest(flooded):
    client = flooded("queue=5, overflow='oldest'", "a")
    assert client("told, watch.dropped") == ([("a", value) for value in range(105, 110)], 96)


def test_latest_keeps_the_newest_value_of_each_tag(flooded):
    client = flooded("queue=5, overflow='latest'", "b", "c", "a")
    assert client("[change for change in told if change[0] != 'a']") == [("b", 2), ("c", 3)]
    assert client("told[-1], len(told) <= 6, told == sorted(told, key=lambda c: c[0] == 'a')") == (
        ("a", 109), True, True)


@pytest.mark.parametrize("overflow", ["latest", "oldest"])
@pytest.mark.parametrize("queue", [1, 2, 3, 7, 101, 102])
def test_what_is_dropped_is_counted(flooded, queue, overflow):
    client = flooded("queue=%d, overflow=%r" % (queue, overflow), "a", "b")
    assert client("len(told) + watch.dropped, told[-1], watch.dropped == 0") == (
        102, ("a", 109), queue == 102)
    assert client("plant.stats.dropped == watch.dropped")


def test_drops_of_closed_watches_still_count(flooded):
    client = flooded("queue=5, overflow='oldest'", "a")
    client("watch.close()")
    assert client("plant.stats.dropped, watch.dropped") == (96, 96)


def test_a_queue_that_was_full_takes_all_again_once_it_is_empty(flooded, sim):
    client = flooded("queue=5, overflow='latest'", "a")
    client("dropped = watch.dropped")
    sim.push_series("line1", "a", 5, first=200)
    assert client("take(watch, 5), watch.dropped - dropped") == (
        [("a", value) for value in range(200, 205)], 0)


def test_latest_has_room_for_each_tag_of_a_small_queue(connected):
    connected("watch = plant['wide'].watch(*['t%04d' % i for i in range(1200)], queue=10)")
    assert connected("take(watch, 1200) == [('t%04d' % i, i) for i in range(1200)], "
                     "watch.dropped") == (True, 0)


def test_alarms_are_not_displaced_by_changes_but_by_alarms(connected, sim):
    connected("alarms = plant.alarms(queue=3)\nbefore = plant.stats.alarms")
    for level in range(5):
        sim.raise_alarm(level=level)
    connected("until(lambda: plant.stats.alarms - before == 5)")
    assert connected("[alarms.get(LIMIT).level for _ in range(3)], alarms.dropped") == (
        [2, 3, 4], 2)


@pytest.mark.parametrize("arguments", ["queue=0", "queue=-1", "overflow='newest'"])
def test_a_queue_that_cannot_be_is_refused(connected, raised, sent, arguments):
    assert raised("line.watch('a', %s)" % arguments)[0] == "ValueError"
    assert raised("connect(%s)" % arguments)[0] == "ValueError"
    assert sent() == []
