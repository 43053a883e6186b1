"""Writing: exact bytes of every value, results, limits and values that cannot be sent."""

import pytest

import wire
from plants import LINE1

A, B, C = LINE1["a"], LINE1["b"], LINE1["c"]
DEFINITIONS = ("class Text(str): pass\n"
               "class Whole(int): pass\n"
               "class Real(float): pass\n"
               "class Many(list): pass\n"
               "class Able:\n"
               "    def __index__(self): return 5\n"
               "    def __int__(self): return 5\n"
               "    def __float__(self): return 5.0\n")


@pytest.fixture
def write(session):
    """Writes the value of an expression; gives the result."""
    session(DEFINITIONS)
    return lambda names, value: session("drv.SetTagValue(%r, %s)" % (names, value))


@pytest.fixture
def nothing_written(session, sent):
    """Asserts that no write has been sent, by a read that the plant answers after it."""
    def check():
        session("db.GetDriver('锅炉').GetTagValue('x')")
        assert sent("g") == []
    return check


# ---- bytes --------------------------------------------------------------------------------------

@pytest.mark.parametrize("value, encoded", [
    ("5", b"\x03\0\x05\0\0\0"),
    ("0", b"\x03\0\0\0\0\0"),
    ("-2", b"\x03\0\xfe\xff\xff\xff"),
    ("2147483647", b"\x03\0\xff\xff\xff\x7f"),
    ("-2147483648", b"\x03\0\0\0\0\x80"),
    ("Whole(258)", b"\x03\0\x02\x01\0\0"),
    ("True", b"\x0b\0\x01"),
    ("False", b"\x0b\0\0"),
    ("1.5", b"\x05\0\0\0\0\0\0\0\xf8\x3f"),
    ("Real(-1.5)", b"\x05\0\0\0\0\0\0\0\xf8\xbf"),
    ("float('inf')", b"\x05\0\0\0\0\0\0\0\xf0\x7f"),
    ("'x'", b"\x08\0x\0"),
    ("''", b"\x08\0\0"),
    ("'12'", b"\x08\x0012\0"),
    ("'水位 €'", b"\x08\0\xe6\xb0\xb4\xe4\xbd\x8d \xe2\x82\xac\0"),
    ("Text('x')", b"\x08\0x\0"),
])
def test_a_value_has_its_bytes(write, written, value, encoded):
    assert write("a", value) == 0
    assert written() == [b"g\1\0\0\0\x14\0" + encoded]


def test_the_write_of_an_int_has_13_bytes(write, written):
    write("a", "5")
    assert written() == [b"g\1\0\0\0\x14\0\x03\0\x05\0\0\0"]


def test_the_result_is_an_int(session):
    assert session("type(drv.SetTagValue('a', 1)).__name__") == "int"


def test_a_write_has_the_drivers_id(session, written):
    assert session("db.GetDriver('wide').SetTagValue('t0258', 'x')") == 0
    assert written() == [b"g\1\0\7\0\2\1\x08\0x\0"]


def test_several_values_are_one_request(write, written):
    assert write("a,b,c", "[1, True, 'x']") == 0
    assert written() == [b"g\3\0" b"\0\0\x14\0\x03\0\1\0\0\0" b"\0\0\x15\0\x0b\0\1"
                         b"\0\0\x16\0\x08\0x\0"]


def test_a_list_may_be_of_a_subclass(write, written):
    assert write("a,b", "Many([1, 2])") == 0
    assert written() == [wire.write((0, A, wire.i4(1)), (0, B, wire.i4(2)))]


def test_a_written_value_reaches_the_plant(write, session, plant):
    write("a", "42")
    assert session("drv.GetTagValue('a')") == 42
    assert plant.get_value("line1", "a") == 42


def test_a_text_that_was_written_is_read_back(write, session):
    write("str", "'水位 €'")
    assert session("drv.GetTagValue('str')") == "水位 €"


def test_a_subscribed_tag_is_written_all_the_same(write, session, written):
    session("drv.ConnectTag('a')")
    assert write("a", "42") == 0
    assert written() == [wire.write((0, A, wire.i4(42)))]
    session.wait_until("drv.GetTagValue('a') == 42")


def test_no_reply_is_awaited(session, plant):
    plant.fault("g", "silent", times=None)
    assert session("[drv.SetTagValue('a', i) for i in range(100)]") == [0] * 100


# ---- lists --------------------------------------------------------------------------------------

def test_values_go_by_the_order_of_the_resolved_list(write, session, written):
    session("drv.GetTagValue('a')")
    write("c,a", "[1, 2]")
    assert written() == [wire.write((0, A, wire.i4(1)), (0, C, wire.i4(2)))]


def test_an_unknown_name_uses_its_value_up(write, written):
    assert write("a,nobody,c", "[1, 2, 3]") == 0
    assert written() == [wire.write((0, A, wire.i4(1)), (0, C, wire.i4(3)))]


def test_the_value_of_an_unknown_name_may_be_anything(write, written):
    assert write("a,nobody", "[1, None]") == 0
    assert written() == [wire.write((0, A, wire.i4(1)))]


def test_unknown_names_alone_send_a_count_of_0(write, written):
    assert write("x,y", "[1, 2]") == 0
    assert written() == [b"g\0\0"]


def test_surplus_values_are_ignored(write, written):
    assert write("a,b", "[1, 2, 3, None]") == 0
    assert written() == [wire.write((0, A, wire.i4(1)), (0, B, wire.i4(2)))]


@pytest.mark.parametrize("names", ["", ",", ",,"])
@pytest.mark.parametrize("value", ["1", "[]", "None"])
def test_no_names_succeed_without_a_request(write, sent, nothing_written, names, value):
    assert write(names, value) == 0
    nothing_written()


# ---- values that cannot be encoded --------------------------------------------------------------

@pytest.mark.parametrize("value", [
    "None", "b'x'", "(1,)", "[1]", "[]", "{}", "object()", "1j", "Able()", "bytearray(b'x')",
    "'a\\0b'", "'\\0'", "'\\ud800'", "'x\\udfff'"])
def test_a_value_that_cannot_be_encoded_is_refused(write, nothing_written, value):
    assert write("a", value) == -3
    nothing_written()


@pytest.mark.parametrize("values", [
    "(1, 2)", "1", "'xy'", "None", "{1: 2}", "[1]", "[]", "[1, None]", "[None, 1]", "[1, [2]]",
    "[1, 'a\\0']", "[1, '\\ud800']"])
def test_values_that_cannot_be_encoded_are_refused(write, nothing_written, values):
    assert write("a,b", values) == -3
    nothing_written()


def test_a_list_with_an_empty_slot_is_refused(write, session, nothing_written):
    session("values = drv.GetTagValue('a,nobody')")
    assert write("a,b", "values") == -3
    nothing_written()


def test_a_single_unknown_name_is_refused(write, nothing_written):
    assert write("nobody", "1") == -3
    nothing_written()


def test_a_name_of_spaces_is_refused(write, nothing_written):
    assert write(" ", "1") == -3
    nothing_written()


def test_a_refused_value_leaves_no_error_behind(write):
    assert write("a", "'\\ud800'") == -3
    assert write("a", "1") == 0


def test_names_are_resolved_before_values_are_refused(write, sent):
    write("a", "None")
    assert sent() == [wire.lookup(0, "a")]


# ---- limits -------------------------------------------------------------------------------------

def test_a_write_has_2048_bytes_at_most(write, written):
    assert write("a", "'x' * 2038") == 0
    assert [len(data) for data in written()] == [2048]


def test_a_longer_write_is_refused(write, nothing_written):
    assert write("a", "'x' * 2039") == -3
    nothing_written()


def test_the_limit_counts_bytes_and_not_characters(write, nothing_written):
    assert write("a", "'水' * 680") == -3
    nothing_written()


def test_a_list_of_2048_bytes_is_written(write, written):
    assert write("a,b", "['x' * 1000, 'y' * 1031]") == 0
    assert [len(data) for data in written()] == [2048]


def test_a_longer_list_is_refused(write, nothing_written):
    assert write("a,b", "['x' * 1000, 'y' * 1032]") == -3
    nothing_written()


def test_204_ints_are_written(session, written):
    session("wide = db.GetDriver('wide')")
    assert session("wide.SetTagValue(','.join('t%04d' % i for i in range(204)),"
                   " list(range(204)))") == 0
    assert written() == [wire.write(*((7, i, wire.i4(i)) for i in range(204)))]


def test_205_ints_are_refused(session, nothing_written):
    session("wide = db.GetDriver('wide')")
    assert session("wide.SetTagValue(','.join('t%04d' % i for i in range(205)),"
                   " list(range(205)))") == -3
    nothing_written()


# ---- ints outside 32 bits -----------------------------------------------------------------------

@pytest.mark.parametrize("value", [
    "2147483648", "-2147483649", "1 << 62", "1 << 63", "-1 << 100", "Whole(1 << 40)"])
def test_an_int_outside_32_bits_is_written_as_minus_1_and_raised(write, raised, written, value):
    kind, _ = raised("drv.SetTagValue('a', %s)" % value)
    assert kind == "OverflowError"
    assert written() == [wire.write((0, A, wire.i4(-1)))]


def test_the_rest_of_a_list_is_written_with_an_overflow(session, raised, written):
    assert raised("drv.SetTagValue('a,b,c', [1, 1 << 40, 3])")[0] == "OverflowError"
    assert written() == [wire.write((0, A, wire.i4(1)), (0, B, wire.i4(-1)), (0, C, wire.i4(3)))]


def test_an_overflow_leaves_no_error_behind(write, raised):
    raised("drv.SetTagValue('a', 1 << 40)")
    assert write("a", "1") == 0


# ---- rights -------------------------------------------------------------------------------------

@pytest.fixture
def guest(script, plant):
    """A session of a user without the right to write."""
    script.connect(plant, "guest", "")
    script("drv = db.GetDriver('line1')")
    plant.requests(clear=True)
    return script


@pytest.mark.parametrize("names, value", [
    ("a", "1"), ("a,b", "[1, 2]"), ("nobody", "1"), ("a", "None"), ("a", "1 << 40"), ("", "1"),
    ("a,b", "1")])
def test_without_the_right_nothing_is_sent(guest, sent, names, value):
    assert guest("drv.SetTagValue(%r, %s)" % (names, value)) == -1
    assert sent() == []


def test_a_guest_may_read(guest):
    assert guest("drv.GetTagValue('a')") == 1


# ---- transport ----------------------------------------------------------------------------------

def test_a_write_over_a_broken_connection_fails(session, plant):
    session("drv.GetTagValue('a')")
    plant.drop_clients("reset", channel="request")
    plant.wait_clients(0, channel="request")
    assert session("drv.SetTagValue('a', 1)") == -2
