"""Subscribing: the request, what is served from memory afterwards, and broken replies."""

import struct

import pytest

import wire
from plants import LINE1

TWO = wire.i4(5), wire.i4(6)


@pytest.fixture
def subscribe(session):
    """Subscribes a list of names; gives the result."""
    return lambda names: session("drv.ConnectTag(%r)" % names)


@pytest.fixture
def value(session):
    """Reads one name."""
    return lambda name: session("drv.GetTagValue(%r)" % name)


@pytest.fixture
def reply(plant):
    """Orders the reply to the next subscription."""
    return lambda data: plant.fault("b", "reply", data=data)


def wide_names(first, end):
    return ",".join("t%04d" % i for i in range(first, end))


# ---- requests -----------------------------------------------------------------------------------

def test_a_subscription_names_driver_and_tag(subscribe, sent):
    assert subscribe("a") == 1
    assert sent() == [b"L\0\0a\0", b"b\1\0\0\0\x14\0\0"]


def test_several_tags_are_one_request(subscribe, sent):
    assert subscribe("c,a") == 1
    assert sent("b") == [b"b\2\0\0\0\x16\0\0\0\0\x14\0\0"]


def test_the_result_is_an_int(session):
    assert session("type(drv.ConnectTag('a')).__name__") == "int"
    assert session("type(drv.ConnectTag('nobody')).__name__") == "int"


def test_a_tag_is_subscribed_once(subscribe, sent):
    subscribe("a")
    sent()
    assert subscribe("a") == 1
    assert sent() == []


def test_only_new_tags_are_sent(subscribe, sent):
    subscribe("a")
    sent()
    assert subscribe("a,b") == 1
    assert sent("b") == [wire.subscribe(0, LINE1["b"])]


def test_a_name_twice_in_one_list_is_sent_twice(subscribe, sent):
    assert subscribe("a,a") == 1
    assert sent("b") == [wire.subscribe(0, LINE1["a"], LINE1["a"])]


def test_unknown_names_are_left_out(subscribe, sent):
    assert subscribe("a,nobody,b") == 1
    assert sent("b") == [wire.subscribe(0, LINE1["a"], LINE1["b"])]


def test_unknown_names_alone_succeed_without_a_request(subscribe, sent):
    assert subscribe("x,y") == 1
    assert [data[:1] for data in sent()] == [b"L"]


@pytest.mark.parametrize("names", ["", ",", " "])
def test_no_names_succeed_without_a_request(subscribe, sent, names):
    assert subscribe(names) == 1
    assert sent() == []


def test_519_tags_are_subscribed_at_most(session, sent):
    session("wide = db.GetDriver('wide')")
    assert session("wide.ConnectTag(%r)" % wide_names(0, 600)) == 1
    requests = sent("b")
    assert requests == [wire.subscribe(7, *range(519))]
    assert len(requests[0]) == 2598


def test_tags_beyond_the_limit_stay_unsubscribed(session, sent):
    session("wide = db.GetDriver('wide')\nwide.ConnectTag(%r)" % wide_names(0, 600))
    sent()
    assert session("wide.GetTagValue('t0518,t0519')") == [518, 519]
    assert sent() == [wire.read(7, 519)]


def test_a_second_subscription_takes_the_tags_beyond_the_limit(session, sent):
    session("wide = db.GetDriver('wide')\nwide.ConnectTag(%r)" % wide_names(0, 600))
    sent()
    session("wide.ConnectTag(%r)" % wide_names(0, 600))
    assert sent() == [wire.subscribe(7, *range(519, 600))]


def test_subscribed_tags_do_not_count_to_the_limit(session, sent):
    session("wide = db.GetDriver('wide')\nwide.ConnectTag('t0000')")
    session("wide.ConnectTag(%r)" % wide_names(0, 520))
    assert sent("b")[1] == wire.subscribe(7, *range(1, 520))


def test_a_guest_may_subscribe(script, plant):
    script.connect(plant, "guest", "")
    assert script("db.GetDriver('line1').ConnectTag('a')") == 1


# ---- served from memory -------------------------------------------------------------------------

def test_a_subscribed_tag_is_read_without_a_request(subscribe, value, sent):
    subscribe("a")
    sent()
    assert value("a") == 1
    assert sent() == []


def test_a_read_asks_for_the_other_tags_alone(session, subscribe, sent):
    subscribe("b")
    sent()
    session("values = drv.GetTagValue('a,b,c')")
    assert sent("H") == [wire.read(0, LINE1["a"], LINE1["c"])]


def test_a_list_of_subscribed_tags_is_read_without_a_request(session, subscribe, sent):
    subscribe("a,b")
    sent()
    assert session("drv.GetTagValue('b,a')") == [2, 1]
    assert sent() == []


@pytest.mark.parametrize("name, new", [
    ("i2", 7), ("i4", -7), ("r4", 0.5), ("r8", 1e300), ("str", "水 stands"), ("bool", False),
    ("i1", 5), ("ui1", 6), ("ui2", 7), ("ui4", 8), ("int", 9), ("uint", 10), ("水位", 11)])
def test_a_change_reaches_memory_without_a_callback(
        session, subscribe, plant, sent, name, new):
    subscribe(name)
    plant.set_value("line1", name, new)
    session.wait_until("drv.GetTagValue(%r) == %r" % (name, new))
    assert sent("H") == []


def test_a_change_is_told_to_the_callback(session, subscribe, plant):
    session("calls = []\nnote = lambda *change: calls.append(change)\ndrv.SetTagNotify(note)")
    subscribe("水位")
    plant.set_value("line1", "水位", 42)
    session.wait_until("calls")
    assert session("calls") == [("line1", "水位", 42)]


def test_the_driver_name_of_a_callback_is_utf8(session, plant):
    session("boiler = db.GetDriver('锅炉')\n"
            "calls = []\nnote = lambda *change: calls.append(change)\n"
            "boiler.SetTagNotify(note)\nboiler.ConnectTag('x')")
    plant.set_value("锅炉", "x", 12)
    session.wait_until("calls")
    assert session("calls") == [("锅炉", "x", 12)]


def test_changes_come_in_order(session, subscribe, plant):
    session("calls = []\nnote = lambda d, t, v: calls.append(v)\ndrv.SetTagNotify(note)")
    subscribe("a")
    plant.push_series("line1", "a", 1000)
    session.wait_until("len(calls) == 1000")
    assert session("calls == list(range(1000))")


def test_the_plant_forgets_subscriptions_with_the_session(session, subscribe, plant, sent, host):
    subscribe("a")
    session("db.Connect(%r, 'operator', 'password')\ndrv = db.GetDriver('line1')" % host)
    sent()
    assert subscribe("a") == 1
    assert sent("b") == [wire.subscribe(0, LINE1["a"])]


# ---- chunks -------------------------------------------------------------------------------------

def test_a_reply_may_have_several_chunks(session, subscribe, reply):
    reply(wire.subscribe_chunk(TWO[0]) + wire.subscribe_chunk(TWO[1]))
    assert subscribe("a,b") == 1
    assert session("drv.GetTagValue('a,b')") == [5, 6]


def test_a_reply_goes_on_until_every_tag_has_its_value(subscribe, plant):
    plant.fault("b", "cut", after=9)
    assert subscribe("a,array,b") == 0


def test_15_empty_chunks_are_skipped(subscribe, value, reply):
    reply(wire.subscribe_chunk(b"") * 15 + wire.subscribe_chunk(TWO[0]))
    assert subscribe("a") == 1
    assert value("a") == 5


def test_16_empty_chunks_are_a_failure(subscribe, reply):
    reply(wire.subscribe_chunk(b"") * 16 + wire.subscribe_chunk(TWO[0]))
    assert subscribe("a") == 0


def test_a_chunk_has_4096_bytes_at_most(subscribe, value, reply):
    text = "x" * 4093
    reply(wire.subscribe_chunk(wire.text(text)))
    assert subscribe("a") == 1
    assert value("a") == text


def test_a_longer_chunk_is_a_failure(subscribe, reply):
    reply(wire.subscribe_chunk(wire.text("x" * 4094)))
    assert subscribe("a") == 0


def test_an_array_ends_its_chunk(session, subscribe, sent):
    assert subscribe("array,a") == 1
    sent()
    assert session("contents(drv.GetTagValue('array,a'))") == ["<empty>", 1]
    assert sent() == []


# ---- broken replies -----------------------------------------------------------------------------

@pytest.mark.parametrize("after", range(9))
@pytest.mark.parametrize("how", ["close", "reset"])
def test_a_reply_cut_anywhere_is_a_failure(subscribe, plant, after, how):
    plant.fault("b", "cut", after=after, then=how)
    assert subscribe("a") == 0


@pytest.mark.parametrize("data", [b"H" + wire.subscribe_chunk(TWO[0])[1:], b"0", b"\xff" * 16])
def test_another_code_is_a_failure(subscribe, reply, data):
    reply(data)
    assert subscribe("a") == 0


def test_the_length_of_a_chunk_must_come_in_one_receive(subscribe, plant):
    plant.fault("b", "split", sizes=[2, 100], pause=1.0)
    assert subscribe("a") == 0


def test_code_length_and_body_may_come_apart(subscribe, value, plant):
    plant.fault("b", "split", sizes=[1, 2, 1], pause=0.02)
    assert subscribe("a") == 1
    assert value("a") == 1


@pytest.mark.parametrize("size", range(1, 6))
def test_a_value_cut_by_the_end_of_its_chunk_is_a_failure(subscribe, reply, size):
    reply(wire.subscribe_chunk(TWO[0][:size]))
    assert subscribe("a") == 0


def test_more_values_than_asked_are_a_failure(subscribe, reply):
    reply(wire.subscribe_chunk(TWO[0] + TWO[1]))
    assert subscribe("a") == 0


def test_tags_before_a_failure_are_subscribed(session, subscribe, reply, sent):
    reply(wire.subscribe_chunk(TWO[0]) + b"0")
    assert subscribe("a,b") == 0
    sent()
    assert session("drv.GetTagValue('a,b')") == [5, 2]
    assert sent() == [wire.read(0, LINE1["b"])]


def test_a_failed_subscription_can_be_tried_again(subscribe, reply, sent):
    reply(b"0")
    assert subscribe("a") == 0
    sent()
    assert subscribe("a") == 1
    assert sent() == [wire.subscribe(0, LINE1["a"])]


# ---- frames that cannot be used -----------------------------------------------------------------

def set_a(n):
    return wire.change(0, LINE1["a"], struct.pack("<i", n))


@pytest.mark.parametrize("frame", [
    wire.change(500, 0, bytes(4)), wire.change(1, 0, bytes(4)), wire.change(0, 23, bytes(4)),
    wire.change(0, LINE1["c"], bytes(4)), b"\xff\xff\0", b"\xff\xff\x64", b"\xff\xff\x17"],
    ids=["driver beyond the table", "driver not asked for", "tag beyond the driver",
         "tag without a type", "type 0", "type 100", "type 23"])
def test_a_frame_that_cannot_be_used_drops_the_rest_of_its_chunk(
        subscribe, value, push, frame):
    subscribe("a")
    push(frame + set_a(99))
    assert value("a") == 1


def test_the_chunk_behind_an_unusable_one_is_used(subscribe, value, push):
    subscribe("a")
    push(b"\xff\xff\0" + set_a(98))
    push(set_a(99))
    assert value("a") == 99


@pytest.mark.parametrize("size", range(1, 8))
def test_a_frame_that_is_cut_is_dropped(subscribe, value, push, size):
    subscribe("a")
    push(set_a(99)[:size])
    assert value("a") == 1
    push(set_a(98))
    assert value("a") == 98


def test_frames_before_an_unusable_one_are_used(subscribe, value, push):
    subscribe("a")
    push(set_a(99) + b"\xff\xff\0")
    assert value("a") == 99


@pytest.mark.parametrize("frame", [
    b"\xff\xff\xff", b"\xff\xff\x01" + bytes(32), b"\xff\xff\x03" + bytes(32),
    b"\xff\xff\x02" + bytes(4), b"\xff\xff\x04" + bytes(40), b"\xff\xff\x05" + bytes(4),
    b"\xff\xff\x06" + bytes(17), b"\xff\xff\x07" + bytes(4), b"\xff\xff\x08" + bytes(2),
    b"\xff\xff\x09\0\0\0\0\1", b"\xff\xff\x0a\0\0\0\0" + bytes(8),
    b"\xff\xff\x0d\0\0\0\0" + bytes(8), b"\xff\xff\x0e\0\0\0\0\1", b"\xff\xff\x11\0\0\0\0abc\0",
    b"\xff\xff\x15\0\0\0\0\0", b"\xff\xff\x16\0\0\0\0\1"])
def test_other_frames_are_stepped_over(subscribe, value, push, frame):
    subscribe("a")
    push(frame + set_a(99))
    assert value("a") == 99
