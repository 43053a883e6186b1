"""Reading: the request, the objects of every type, and what broken replies do."""

import pytest

import wire
from plants import LINE1

VALUES = {
    "i2": -2, "i4": -40000, "r4": 2.5, "r8": 0.1, "str": "valve", "bool": True, "i1": 255,
    "ui1": 200, "ui2": 65535, "ui4": -1, "int": -7, "uint": 7, "水位": 77,
}
WITHOUT_OBJECT = ["i8", "date", "empty", "null", "cy", "ui8", "array"]


@pytest.fixture
def value(session):
    """Reads one name."""
    return lambda name: session("drv.GetTagValue(%r)" % name)


@pytest.fixture
def values(session):
    """Reads a list of names; gives what each slot of the result holds."""
    return lambda names: session("contents(drv.GetTagValue(%r))" % names)


@pytest.fixture
def reply(plant):
    """Orders the reply to the next read."""
    return lambda data, **arguments: plant.fault("H", "reply", data=data, **arguments)


# ---- requests -----------------------------------------------------------------------------------

def test_a_read_names_driver_and_tag(value, sent):
    value("a")
    assert sent("H") == [b"H\1\0\0\0\x14\0"]


def test_a_read_of_several_tags_is_one_request(values, sent):
    values("c,a,b")
    assert sent("H") == [b"H\3\0\0\0\x16\0\0\0\x14\0\0\0\x15\0"]


def test_a_read_has_the_drivers_id(session, sent):
    session("db.GetDriver('wide').GetTagValue('t0258')")
    assert sent("H") == [b"H\1\0\7\0\2\1"]


def test_every_read_asks(value, sent):
    value("a")
    value("a")
    assert sent("H") == [wire.read(0, LINE1["a"])] * 2


def test_unknown_names_are_left_out(values, sent):
    values("a,nobody,b")
    assert sent("H") == [wire.read(0, LINE1["a"], LINE1["b"])]


def test_a_read_gives_the_present_value(value, plant):
    value("a")
    plant.set_value("line1", "a", 5)
    assert value("a") == 5


# ---- objects ------------------------------------------------------------------------------------

@pytest.mark.parametrize("name", sorted(VALUES))
def test_a_type_has_its_object(session, name):
    session("value = drv.GetTagValue(%r)" % name)
    assert session("value") == VALUES[name]
    assert session("value.__class__.__name__") == VALUES[name].__class__.__name__


@pytest.mark.parametrize("name", WITHOUT_OBJECT)
def test_a_type_without_an_object_is_a_system_error(raised, session, name):
    kind, text = raised("drv.GetTagValue(%r)" % name)
    assert kind == "SystemError"
    assert "without setting an" in text


@pytest.mark.parametrize("name", WITHOUT_OBJECT)
def test_a_type_without_an_object_leaves_its_slot_empty(values, name):
    assert values("a,%s,b" % name) == [1, "<empty>", 2]


@pytest.mark.parametrize("body, expected", [
    (b"\x02\0\xff\x7f", 32767), (b"\x02\0\0\x80", -32768),
    (b"\x03\0\xff\xff\xff\x7f", 2147483647), (b"\x03\0\0\0\0\x80", -2147483648),
    (b"\x04\0\xcd\xcc\xcc\x3d", 0.10000000149011612), (b"\x05\0\0\0\0\0\0\0\xf8\xbf", -1.5),
    (b"\x08\0\0", ""), (b"\x08\0\xe6\xb0\xb4\0", "水"), (b"\x08\0\xff\xe6\xb0\0", "\ufffd\ufffd"),
    (b"\x0b\0\x07", True), (b"\x0b\0\0", False), (b"\x10\0\x80", 128), (b"\x11\0\xff", 255),
    (b"\x12\0\0\x80", 32768), (b"\x13\0\0\0\0\x80", -2147483648), (b"\x16\0\2\1\0\0", 258),
    (b"\x17\0\xff\xff\xff\xff", -1)])
def test_a_value_is_decoded_by_its_type_code(session, reply, body, expected):
    reply(wire.read_chunk(body))
    session("value = drv.GetTagValue('a')")
    assert session("value") == expected
    assert session("value.__class__.__name__") == expected.__class__.__name__


@pytest.mark.parametrize("code", [0, 1, 6, 7, 9, 10, 12, 13, 14, 15, 20, 21, 24, 8204, 65535])
def test_other_type_codes_have_no_object(raised, session, reply, code):
    payload = bytes(8) if code in (7, 20) else b""
    reply(wire.read_chunk(code.to_bytes(2, "little") + payload))
    assert raised("drv.GetTagValue('a')")[0] == "SystemError"


def test_a_long_text_arrives_whole(value, plant):
    plant.set_value("line1", "str", "水" * 1300)
    assert value("str") == "水" * 1300


def test_several_names_give_a_list(session):
    assert session("drv.GetTagValue('a,b').__class__.__name__") == "list"


def test_a_list_has_its_objects(values):
    assert values("i4,str,bool,r8") == [-40000, "valve", True, 0.1]


def test_an_array_is_stepped_over(values):
    assert values("array,a") == ["<empty>", 1]


# ---- chunks -------------------------------------------------------------------------------------

TWO = wire.i4(5), wire.i4(6)


def test_a_reply_may_have_several_chunks(values, reply):
    reply(wire.read_chunk(TWO[0], 1) + wire.read_chunk(TWO[1]))
    assert values("a,b") == [5, 6]


@pytest.mark.parametrize("flag", [0, 2, 255])
def test_any_flag_but_1_ends_the_reply(values, reply, flag):
    reply(wire.read_chunk(TWO[0], flag))
    assert values("a,b") == [5, "<empty>"]


def test_a_reply_that_ends_early_leaves_the_older_values(values, reply):
    values("a,b")
    reply(wire.read_chunk(TWO[0]))
    assert values("a,b") == [5, 2]


def test_a_reply_ends_with_the_last_value_whatever_the_flag(values, reply):
    reply(wire.read_chunk(TWO[0] + TWO[1], 1))
    assert values("a,b") == [5, 6]
    assert values("a,b") == [1, 2]


def test_an_empty_last_chunk_changes_nothing(value, reply):
    value("a")
    reply(wire.read_chunk(b""))
    assert value("a") == 1


def test_15_empty_chunks_are_skipped(value, reply):
    reply(wire.read_chunk(b"", 1) * 15 + wire.read_chunk(TWO[0]))
    assert value("a") == 5


def test_16_empty_chunks_are_a_failure(value, reply):
    reply(wire.read_chunk(b"", 1) * 16 + wire.read_chunk(TWO[0]))
    assert value("a") is None


def test_a_chunk_has_4096_bytes_at_most(value, reply):
    text = "x" * 4093
    reply(wire.read_chunk(wire.text(text)))
    assert value("a") == text


def test_a_longer_chunk_is_a_failure(value, reply):
    reply(wire.read_chunk(wire.text("x" * 4094)))
    assert value("a") is None


def test_a_read_asks_1023_tags_at_most(session, sent):
    session("wide = db.GetDriver('wide')\n"
            "names = ','.join('t%04d' % i for i in range(1200))")
    session("values = wide.GetTagValue(names)")
    requests = sent("H")
    assert requests == [wire.read(7, *range(1023))]
    assert len(requests[0]) == 4095
    size, found = session("slots(values)")
    assert (size, sorted(found)) == (1200, list(range(1023)))


def test_unknown_names_do_not_count_to_the_limit(session, sent):
    session("wide = db.GetDriver('wide')\n"
            "names = 'x,y,' + ','.join('t%04d' % i for i in range(1023))")
    size, found = session("slots(wide.GetTagValue(names))")
    assert (size, sorted(found)) == (1025, list(range(1023)))


# ---- broken replies -----------------------------------------------------------------------------

@pytest.mark.parametrize("after", range(10))
@pytest.mark.parametrize("how", ["close", "reset"])
def test_a_reply_cut_anywhere_is_a_failure(value, plant, after, how):
    plant.fault("H", "cut", after=after, then=how)
    assert value("a") is None


def test_a_reply_cut_anywhere_is_none_for_a_list(session, plant):
    plant.fault("H", "cut", after=12)
    assert session("drv.GetTagValue('a,b')") is None


@pytest.mark.parametrize("data", [b"h" + wire.read_chunk(TWO[0])[1:], b"0", b"0000", b"\xff" * 16])
def test_another_code_is_a_failure(value, reply, data):
    reply(data)
    assert value("a") is None


@pytest.mark.parametrize("sizes", [[1, 100], [2, 100], [3, 100]])
def test_the_header_of_a_chunk_must_come_in_one_receive(value, plant, sizes):
    plant.fault("H", "split", sizes=sizes, pause=1.0)
    assert value("a") is None


def test_the_body_of_a_chunk_may_come_in_pieces(value, plant):
    plant.fault("H", "split", sizes=[4, 1])
    assert value("a") == 1


@pytest.mark.parametrize("size", range(1, 6))
def test_a_value_cut_by_the_end_of_its_chunk_is_a_failure(value, reply, size):
    reply(wire.read_chunk(TWO[0][:size]))
    assert value("a") is None


@pytest.mark.parametrize("size", range(1, 6))
def test_a_value_that_was_cut_leaves_the_older_one(value, reply, size):
    value("a")
    reply(wire.read_chunk(TWO[0][:size]))
    value("a")
    reply(wire.read_chunk(b""))
    assert value("a") == 1


def test_a_text_without_its_end_is_a_failure(value, reply):
    reply(wire.read_chunk(b"\x08\0abc"))
    assert value("a") is None


def test_more_values_than_asked_are_a_failure(value, reply):
    reply(wire.read_chunk(TWO[0] + TWO[1]))
    assert value("a") is None


def test_values_before_a_failure_stay(value, session, reply):
    reply(wire.read_chunk(TWO[0], 1) + b"h\0\0\0")
    assert session("drv.GetTagValue('a,b')") is None
    reply(wire.read_chunk(b""))
    assert value("a") == 5


def test_nothing_is_sent_again_after_a_failure(value, reply, sent):
    value("a")
    sent()
    reply(b"0000")
    value("a")
    assert len(sent()) == 1


def test_a_session_goes_on_after_a_failure(value, reply):
    reply(b"0000")
    assert value("a") is None
    assert value("a") == 1


def test_bytes_beyond_a_reply_are_the_next_ones_beginning(value, reply, plant):
    value("a")
    reply(wire.read_chunk(TWO[0]) + wire.read_chunk(TWO[1]))
    assert value("a") == 5
    assert value("a") == 6
    assert value("a") == 1
