"""Tag names: how lists are split, what is asked, in which batches, and what is remembered."""

import pytest

import wire
from plants import LINE1

UNKNOWN = 0xFFFF


@pytest.fixture
def values(session):
    """Reads a list of names; gives what each slot of the result holds."""
    return lambda names: session("contents(drv.GetTagValue(%r))" % names)


@pytest.fixture
def value(session):
    """Reads one name."""
    return lambda name: session("drv.GetTagValue(%r)" % name)


# ---- requests -----------------------------------------------------------------------------------

def test_a_name_is_asked_with_its_drivers_id(value, sent):
    assert value("a") == 1
    assert sent("L") == [b"L\0\0a\0"]


def test_the_id_is_that_of_the_driver_file(session, sent):
    session("db.GetDriver('wide').GetTagValue('t0000')")
    assert sent("L") == [b"L\x07\0t0000\0"]


def test_names_of_a_list_are_asked_in_one_request(values, sent):
    assert values("a,b,c") == [1, 2, 3]
    assert sent("L") == [b"L\0\0a\0\0\0b\0\0\0c\0"]


def test_names_cross_in_gb2312(value, sent):
    assert value("水位") == 77
    assert sent("L") == [b"L\0\0\xcb\xae\xce\xbb\0"]


def test_a_name_is_asked_once(value, sent):
    value("a")
    value("a")
    assert len(sent("L")) == 1


def test_a_name_is_asked_once_for_all_operations(session, sent):
    session("drv.GetTagValue('a')")
    session("drv.ConnectTag('a')")
    session("drv.SetTagValue('a', 3)")
    session("drv.GetTagValue('b')")
    assert sent("L") == [wire.lookup(0, "a"), wire.lookup(0, "b")]


def test_each_driver_remembers_its_own_names(session, sent):
    session("drv.GetTagValue('x')")
    assert session("db.GetDriver('锅炉').GetTagValue('x')") == 11
    assert sent("L") == [wire.lookup(0, "x"), wire.lookup(1, "x")]


def test_a_new_session_asks_anew(session, plant, sent, host):
    session("drv.GetTagValue('a')")
    session("db.Connect(%r, 'operator', 'password')" % host)
    session("drv = db.GetDriver('line1')")
    sent()
    assert session("drv.GetTagValue('a')") == 1
    assert sent("L") == [wire.lookup(0, "a")]


def test_names_have_their_case(value):
    assert value("A") is None


# ---- unknown names ------------------------------------------------------------------------------

def test_an_unknown_name_is_asked_once(value, sent):
    assert value("nobody") is None
    assert value("nobody") is None
    assert sent() == [wire.lookup(0, "nobody")]


def test_an_unknown_name_leaves_its_slot_empty(values):
    assert values("a,nobody,b") == [1, "<empty>", 2]


def test_a_list_of_unknown_names_has_empty_slots_alone(values, sent):
    assert values("x,y") == ["<empty>", "<empty>"]
    assert [data[:1] for data in sent()] == [b"L"]


def test_the_first_id_beyond_the_tags_is_unknown(value, plant, sent):
    plant.fault("L", "reply", data=wire.lookup_reply(len(LINE1)))
    assert value("a") is None
    assert value("a") is None
    assert [data[:1] for data in sent()] == [b"L"]


def test_the_last_id_is_known(value, plant):
    plant.fault("L", "reply", data=wire.lookup_reply(len(LINE1) - 1))
    assert value("a") == 3


def test_a_driver_without_tags_knows_no_name(session, sent):
    session("none = db.GetDriver('none')")
    assert session("none.GetTagValue('a')") is None
    assert session("none.GetTagValue('a')") is None
    assert sent() == [wire.lookup(3, "a")]


def test_a_driver_without_tags_knows_no_id(session, plant):
    plant.fault("L", "reply", data=wire.lookup_reply(0))
    assert session("db.GetDriver('none').GetTagValue('a')") is None


# ---- splitting ----------------------------------------------------------------------------------

def test_runs_of_commas_are_one(values, sent):
    assert values(",a, b ,,c,") == [1, 2, 3]
    assert sent("L") == [wire.lookup(0, "a", "b", "c")]


def test_spaces_around_a_name_are_dropped(value, sent):
    assert value("  a   ") == 1
    assert sent("L") == [wire.lookup(0, "a")]


def test_other_blanks_belong_to_the_name(value, sent):
    value("\ta\n")
    assert sent("L") == [wire.lookup(0, "\ta\n")]


def test_spaces_within_a_name_stay(value, sent):
    value("a  b")
    assert sent("L") == [wire.lookup(0, "a  b")]


def test_one_name_between_commas_is_a_single_value(value):
    assert value(",a,") == 1


@pytest.mark.parametrize("names", ["", ",", ",,,"])
def test_no_names_are_no_value(value, sent, names):
    assert value(names) is None
    assert sent() == []


def test_a_name_of_spaces_is_unknown_unasked(value, sent):
    assert value("   ") is None
    assert sent() == []


def test_a_name_of_spaces_has_a_slot(values, sent):
    values("a,b")
    sent()
    assert values("a, ,b") == [1, "<empty>", 2]
    assert sent("L") == []


# ---- order --------------------------------------------------------------------------------------

def test_known_names_come_before_names_that_are_asked(values, sent):
    values("a,b")
    sent()
    assert values("c,a") == [1, 3]
    assert sent("L") == [wire.lookup(0, "c")]


def test_the_list_has_its_order_once_all_are_known(values):
    values("c,a")
    assert values("c,a") == [3, 1]


def test_names_of_spaces_come_with_the_known_ones(values):
    assert values("a, ,b") == ["<empty>", 1, 2]


def test_a_name_twice_in_one_list_is_asked_twice(values, sent):
    assert values("a,a") == [1, 1]
    assert sent() == [wire.lookup(0, "a", "a"), wire.read(0, LINE1["a"], LINE1["a"])]


# ---- batches ------------------------------------------------------------------------------------

def test_a_batch_is_768_bytes_at_most(session, sent):
    names = ["%010d" % i for i in range(200)]
    assert session("slots(drv.GetTagValue(%r))" % ",".join(names)) == (200, [])
    batches = sent("L")
    assert batches == [wire.lookup(0, *names[i:i + 59]) for i in (0, 59, 118, 177)]
    assert len(batches[0]) == 768


def test_a_shorter_last_name_fills_the_batch(session, sent):
    names = ["n" * 373, "m" * 388]
    session("found = drv.GetTagValue(%r)" % ",".join(names))
    assert [len(data) for data in sent("L")] == [768]


def test_one_byte_more_starts_a_new_batch(session, sent):
    names = ["n" * 373, "m" * 389]
    session("found = drv.GetTagValue(%r)" % ",".join(names))
    assert sent("L") == [wire.lookup(0, name) for name in names]


def test_names_of_several_batches_keep_their_order(session):
    session("wide = db.GetDriver('wide')")
    assert session("wide.GetTagValue(','.join('t%04d' % i for i in range(300)))"
                   ) == list(range(300))


def test_a_name_of_764_bytes_is_asked(value, sent):
    assert value("n" * 764) is None
    assert sent("L") == [wire.lookup(0, "n" * 764)]


def test_a_longer_name_is_unknown_unasked(value, sent):
    assert value("n" * 765) is None
    assert sent() == []


def test_a_list_goes_on_behind_a_name_that_is_too_long(values, sent):
    assert values("n" * 765 + ",a") == ["<empty>", 1]
    assert sent("L") == [wire.lookup(0, "a")]


def test_the_length_of_a_name_is_that_of_its_gb2312_form(value, sent):
    value("水" * 382)
    assert sent("L") == [wire.lookup(0, "水" * 382)]
    value("水" * 383)
    assert sent("L") == []


# ---- names without a GB2312 form ----------------------------------------------------------------

def test_a_name_without_a_gb2312_form_is_no_name(session, value, sent):
    session.expect_stderr = b"FromUtf8:iconv:"
    assert value("€") is None
    assert sent() == []


def test_a_list_ends_where_it_has_no_gb2312_form(session, value, sent):
    session.expect_stderr = b"FromUtf8:iconv:"
    assert value("a,€,b") == 1
    assert sent("L") == [wire.lookup(0, "a")]


def test_a_driver_name_without_a_gb2312_form_is_unknown(session, raised):
    session.expect_stderr = b"FromUtf8:iconv:"
    assert raised("db.GetDriver('€')")[0] == "SystemError"


def test_a_driver_name_ends_where_it_has_no_gb2312_form(session):
    session.expect_stderr = b"FromUtf8:iconv:"
    assert session("db.GetDriver('line1€x').GetTagValue('a')") == 1


# ---- replies ------------------------------------------------------------------------------------

def test_a_reply_may_come_in_pieces(values, plant):
    plant.fault("L", "split", size=1)
    assert values("a,b") == [1, 2]


def test_the_bytes_behind_an_id_mean_nothing(value, plant):
    plant.fault("L", "reply", data=b"L\x14\0\xff\xff")
    assert value("a") == 1


FAILURES = {"code": ("reply", {"data": b"l\x14\0\3\0"}), "refused": ("reply", {"data": b"0" * 5}),
            "close": ("close", {}), "reset": ("close", {"how": "reset"})}
FAILURES.update(("cut%d" % n, ("cut", {"after": n})) for n in range(5))
OPERATIONS = [("GetTagValue('a')", None), ("ConnectTag('a')", 0), ("SetTagValue('a', 1)", -2)]


@pytest.mark.parametrize("failure", sorted(FAILURES))
@pytest.mark.parametrize("call, result", OPERATIONS, ids=["read", "subscribe", "write"])
def test_a_failed_lookup_fails_the_operation(session, plant, sent, call, result, failure):
    action, arguments = FAILURES[failure]
    plant.fault("L", action, **arguments)
    assert session("drv." + call) == result
    assert [data[:1] for data in sent()] == [b"L"]


def test_a_failed_lookup_remembers_nothing(value, plant, sent):
    plant.fault("L", "reply", data=b"l\x14\0\3\0")
    value("a")
    assert value("a") == 1
    assert len(sent("L")) == 2


def test_names_of_a_batch_before_the_failed_one_are_remembered(session, plant, sent):
    names = ",".join("%010d" % i for i in range(60))
    plant.fault("L", "reply", skip=1, data=b"l" + bytes(4))
    assert session("drv.GetTagValue(%r)" % names) is None
    sent()
    session("found = drv.GetTagValue(%r)" % names)
    assert sent("L") == [wire.lookup(0, "%010d" % 59)]


def test_a_refused_lookup_is_not_repeated(session, plant, sent):
    plant.fault("L", "close")
    session("drv.GetTagValue('a')")
    plant.wait_clients(0, channel="request")
    session("drv.GetTagValue('a')")
    assert len(sent("L")) == 1
