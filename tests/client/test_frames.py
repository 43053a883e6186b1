"""Notifications as bytes: cut anywhere, between subscriptions, and those that cannot be used."""

import struct

import pytest

import wire
from plants import LINE1
from script import rounds

ALARM = (b"\xff\xff\1" + struct.pack("<IIHHHBBdd", 1600000000, 0, 0, 0, 0, 7, 1, 10.7, 10.5))


def change(name, payload):
    return wire.change(0, LINE1[name], payload)


def i4(name, value):
    return change(name, struct.pack("<i", value))


# Of every length, frames that are stepped over among them.
SEQUENCE = [
    i4("a", 10), change("str", "开关".encode() + b"\0"), change("bool", b"\0"), ALARM,
    change("i8", struct.pack("<q", -5)), b"\xff\xff\xff", change("r8", struct.pack("<d", 2.5)),
    b"\xff\xff\x10" + struct.pack("<HH", 0, 0) + b"some text\0", change("str", b"\0"),
    b"\xff\xff\x04" + bytes(40), change("i2", b"\xff\x7f"), i4("b", 11)]
TOLD = [("a", 10), ("str", "开关"), ("bool", False), ("i8", -5), ("r8", 2.5), ("str", ""),
        ("i2", 32767), ("b", 11)]


@pytest.fixture
def watching(connected):
    """A client with ``watch`` of the tags of SEQUENCE, whose present values are taken."""
    connected("watch = line.watch('a', 'b', 'str', 'bool', 'i8', 'r8', 'i2')\ntake(watch, 7)\n"
              "alarms = plant.alarms()")
    return connected


def test_frames_that_come_at_once_are_all_told(watching, sim):
    sim.push_raw(b"".join(SEQUENCE))
    assert watching("take(watch, 8), alarms.get(LIMIT).level") == (TOLD, 7)


def test_frames_that_come_byte_by_byte_are_all_told(watching, sim):
    sim.push_raw(b"".join(SEQUENCE), sends=[1], pause=0.001)
    assert watching("take(watch, 8), alarms.get(LIMIT).level") == (TOLD, 7)


def test_frames_that_are_cut_at_any_byte_are_all_told(watching, sim):
    data = b"".join(SEQUENCE)
    for at in range(1, len(data), len(data) // rounds(len(data))):
        sim.push_raw(data, sends=[at, len(data)], pause=0.001)
        assert watching("take(watch, 8), alarms.get(LIMIT).level") == (TOLD, 7), at
    assert watching("plant.stats.unusable_frames") == 0


def test_a_text_longer_than_a_receive_is_told(watching, sim):
    text = b"x" * 2043
    sim.push_raw(change("str", text + b"\0") + i4("a", 5), sends=[100], pause=0.001)
    assert watching("take(watch, 2)") == [("str", "x" * 2043), ("a", 5)]


def test_a_frame_longer_than_frames_are_is_given_up(watching, sim):
    sim.push_raw(change("str", b"x" * 3000))
    assert watching("[watch.get(LIMIT).resynced for _ in range(7)]") == [True] * 7
    sim.push_raw(i4("a", 5))
    assert watching("take(watch, 1), plant.stats.unusable_frames") == ([("a", 5)], 1)


def test_frames_are_counted(watching, sim):
    sim.push_raw(b"".join(SEQUENCE))
    watching("take(watch, 8)\nalarms.get(LIMIT)")
    assert watching("plant.stats[2:5]") == (8, 1, 0)  # changes, alarms, unusable frames
    assert watching("plant.stats.bytes_received") == len(b"".join(SEQUENCE))


@pytest.mark.parametrize("bad", [
    wire.change(0, 23, b"1234"),               # no such tag
    wire.change(2, 0, b"1234"),                # no such driver
    wire.change(8, 0, b"1234"),                # beyond the drivers
    wire.change(0, LINE1["empty"], b"1234"),   # a type without a payload
    wire.change(0, LINE1["c"], b"1234"),       # a type that is not known
    b"\xff\xff\0" + bytes(40), b"\xff\xff\x17" + bytes(40), b"\xff\xff\xfe" + bytes(40),
    b"\xff\xff\x09" + struct.pack("<HHB", 2, 0, 0), b"\xff\xff\x09" + struct.pack("<HHB", 0, 23, 0),
])
def test_bytes_behind_a_frame_that_cannot_be_used_are_made_good_by_present_values(
        watching, sim, bad):
    sim.requests(clear=True)
    sim.push_raw(i4("a", 5) + bad + i4("a", 6))
    told = watching("[(c.tag, c.value, c.resynced) for c in [watch.get(LIMIT) for _ in range(8)]]")
    assert told[0] == ("a", 5, False)
    assert sorted(told[1:]) == [
        ("a", 1, True), ("b", 2, True), ("bool", True, True), ("i2", -2, True), ("i8", 5, True),
        ("r8", 0.1, True), ("str", "valve", True)]
    sim.wait_requests(1, codes="n")
    sim.push_raw(i4("a", 7))
    assert watching("take(watch, 1), watch.waiting, plant.state.name, plant.stats.reconnects,"
                    " plant.stats.unusable_frames") == ([("a", 7)], 0, "live", 0, 1)


def test_each_loss_is_made_good(watching, sim):
    for times in (1, 2, 3):
        sim.push_raw(wire.change(0, 23, b"1234"))
        assert watching("[watch.get(LIMIT).resynced for _ in range(7)]") == [True] * 7
        assert watching("watch.waiting, plant.stats.unusable_frames") == (0, times)


def test_a_tag_that_had_no_value_when_it_was_watched_is_told_once_it_has_one(connected, sim):
    sim.fault("b", "reply", data=wire.subscribe_chunk(b"\0\0" + wire.i4(1)))
    connected("watch = line.watch('c', 'a', 'c')")
    assert connected("take(watch, 2)") == [("c", None), ("a", 1)]
    sim.push_raw(i4("c", 5) + i4("a", 6))
    assert connected("sorted(take(watch, 2))") == [("a", 1), ("c", 3)]
    sim.push_raw(i4("c", 7) + i4("a", 8))
    assert connected("take(watch, 2)") == [("c", 7), ("a", 8)]


def test_a_session_that_ends_while_a_loss_is_made_good_is_made_anew(watching, sim):
    sim.fault("H", "close", times=1)
    sim.push_raw(wire.change(0, 23, b"1234"))
    watching("until(lambda: plant.stats.reconnects == 1)")
    assert watching("[watch.get(LIMIT).resynced for _ in range(7)]") == [True] * 7


def test_changes_of_tags_that_are_only_read_are_stepped_over(watching, sim):
    watching("line['c']")
    sim.push_raw(i4("c", 5) + i4("a", 6))
    assert watching("take(watch, 1), plant.stats.unusable_frames") == ([("a", 6)], 0)


def test_alarms_that_nobody_watches_are_stepped_over(connected, sim):
    connected("watch = line.watch('a')\ntake(watch, 1)")
    sim.push_raw(ALARM + i4("a", 6))
    assert connected("take(watch, 1)") == [("a", 6)]


def test_a_type_that_a_read_tells_is_that_of_later_changes(watching, sim):
    sim.fault("H", "reply", data=wire.read_chunk(b"\x05\0" + struct.pack("<d", 1.5)))
    assert watching("line['a']") == 1.5
    sim.push_raw(change("a", struct.pack("<d", 2.5)))
    assert watching("take(watch, 1)") == [("a", 2.5)]


# ---- around a subscription ----------------------------------------------------------------------

def subscribing(client, sim, before):
    """Has the client watch c, whose reply comes late, and pushes bytes before that."""
    sim.fault("b", "delay", seconds=0.3)
    client("thread = Thread(line.watch, 'c')")
    sim.wait_requests(1, codes="b")
    sim.push_raw(before)
    client("second = thread.result()")


def test_a_change_that_comes_before_the_reply_is_told_after_the_present_value(connected, sim):
    subscribing(connected, sim, i4("c", 10) + i4("c", 11))
    assert connected("take(second, 3)") == [("c", 3), ("c", 10), ("c", 11)]


def test_half_a_frame_before_the_reply_is_put_together_with_the_rest(connected, sim):
    subscribing(connected, sim, i4("c", 10)[:5])
    sim.push_raw(i4("c", 10)[5:] + i4("c", 11))
    assert connected("take(second, 3)") == [("c", 3), ("c", 10), ("c", 11)]


def test_changes_of_other_tags_meanwhile_are_told_in_order(connected, sim):
    connected("watch = line.watch('a')\ntake(watch, 1)")
    sim.requests(clear=True)
    subscribing(connected, sim, i4("a", 10) + i4("c", 20) + i4("a", 11))
    sim.push_raw(i4("a", 12))
    assert connected("take(watch, 3), take(second, 2)") == (
        [("a", 10), ("a", 11), ("a", 12)], [("c", 3), ("c", 20)])


def test_a_flood_before_the_reply_is_kept(connected, sim):
    subscribing(connected, sim, b"".join(i4("c", value) for value in range(10, 5010)))
    assert connected("[value for _, value in take(second, 5001)]") == [3] + list(range(10, 5010))


def test_alarms_before_the_reply_are_told_after_the_active_ones(connected, sim):
    sim.raise_alarm(level=1)
    sim.fault("n", "delay", seconds=0.3)
    connected("thread = Thread(plant.alarms)")
    sim.wait_requests(1, codes="n")
    sim.push_raw(ALARM)
    connected("alarms = thread.result()")
    assert connected("[alarms.get(LIMIT).level for _ in range(2)]") == [1, 7]
