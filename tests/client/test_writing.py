"""Writing: the bytes that go out, what a tag cannot take, and who may not."""

import struct

import pytest

import wire
from plants import LINE1

TRUE, FALSE = b"\x0b\0\1", b"\x0b\0\0"
I8_MAX = 9223372036854775807
LONGEST = 2048 - 3 - 4 - 2 - 1  # a request's head, a value's, its type, its end


@pytest.fixture
def written(sim):
    """Gives the bytes of the writes so far, after so many have come."""
    def take(count=1):
        sim.wait_requests(count, codes="g")
        return [data for _, _, data in sim.requests(clear=True, codes="g")]
    return take


@pytest.fixture
def refused(connected, raised, sim):
    """Writes a value that must be refused; gives the reason. No write was sent."""
    def write(name, value):
        kind, text = raised("line.write({%r: %s})" % (name, value))
        assert connected("line['c']") is not None  # would be behind the write
        assert sim.requests(codes="g") == []
        assert kind == "ValueRejected" and text.startswith("writing %r of 'line1' on " % name)
        assert text.endswith("; nothing was written")
        return text.split(": ", 1)[-1][:-len("; nothing was written")]
    return write


# ---- bytes --------------------------------------------------------------------------------------

@pytest.mark.parametrize("name,value,data", [
    # whole numbers, at both ends of what their type holds
    ("i2", "-32768", wire.i4(-32768)), ("i2", "32767", wire.i4(32767)),
    ("i4", "-2147483648", wire.i4(-2147483648)), ("i4", "2147483647", wire.i4(2147483647)),
    ("int", "-2147483648", wire.i4(-2147483648)), ("int", "2147483647", wire.i4(2147483647)),
    ("i1", "-128", wire.i4(-128)), ("i1", "127", wire.i4(127)),
    ("ui1", "0", wire.i4(0)), ("ui1", "255", wire.i4(255)),
    ("ui2", "0", wire.i4(0)), ("ui2", "65535", wire.i4(65535)),
    ("ui4", "2147483647", wire.i4(2147483647)), ("ui4", "2147483648", wire.r8(2147483648.0)),
    ("ui4", "4294967295", wire.r8(4294967295.0)), ("uint", "4294967295", wire.r8(4294967295.0)),
    ("i8", "2147483647", wire.i4(2147483647)), ("i8", "2147483648", wire.r8(2147483648.0)),
    ("i8", "-2147483649", wire.r8(-2147483649.0)),
    ("i8", "2 ** 53", wire.r8(2.0 ** 53)), ("i8", "-2 ** 63", wire.r8(-2.0 ** 63)),
    ("i8", "2 ** 63 - 1024", wire.r8(2.0 ** 63 - 1024)),
    ("i4", "5.0", wire.i4(5)), ("i4", "True", wire.i4(1)), ("ui1", "-0.0", wire.i4(0)),
    # reals
    ("r8", "0.1", wire.r8(0.1)), ("r8", "7", wire.r8(7.0)), ("r8", "True", wire.r8(1.0)),
    ("r8", "1.7976931348623157e308", wire.r8(1.7976931348623157e308)),
    ("r8", "5e-324", wire.r8(5e-324)), ("r8", "2 ** 53", wire.r8(2.0 ** 53)),
    ("r8", "2 ** 70", wire.r8(2.0 ** 70)), ("r8", "-2 ** 1023", wire.r8(-2.0 ** 1023)),
    ("r4", "2 ** 24", wire.r8(2.0 ** 24)), ("r4", "-2 ** 127", wire.r8(-2.0 ** 127)),
    ("r8", "float('inf')", wire.r8(float("inf"))), ("r4", "float('-inf')", wire.r8(-float("inf"))),
    ("r8", "float('nan')", wire.r8(float("nan"))), ("r4", "float('nan')", wire.r8(float("nan"))),
    ("r4", "0.1", wire.r8(0.1)), ("r4", "3.4028234663852886e38", wire.r8(3.4028234663852886e38)),
    ("r4", "-3.4028234663852886e38", wire.r8(-3.4028234663852886e38)),
    # bools
    ("bool", "True", TRUE), ("bool", "False", FALSE), ("bool", "1", TRUE), ("bool", "0", FALSE),
    ("bool", "1.0", TRUE),
    # text
    ("str", "''", b"\x08\0\0"), ("str", "'AB'", b"\x08\0AB\0"),
    ("str", "'开关'", b"\x08\0" + "开关".encode() + b"\0"),
    ("str", "'x' * %d" % LONGEST, wire.text("x" * LONGEST)),
    # tags that tell nothing of their type
    ("empty", "5", wire.i4(5)), ("empty", "2 ** 31", wire.r8(2.0 ** 31)),
    ("empty", "True", TRUE), ("empty", "2.5", wire.r8(2.5)), ("null", "'x'", wire.text("x")),
    ("null", "datetime.datetime(1970, 1, 1)", wire.r8(25569.0)),
])
def test_a_value_goes_out_as_one_of_four_types(connected, written, name, value, data):
    connected("line[%r] = %s" % (name, value))
    assert written() == [b"g\1\0" + struct.pack("<HH", 0, LINE1[name]) + data]


@pytest.mark.parametrize("variables", [{"TZ": "CET-1CEST,M3.5.0,M10.5.0/3"}])
@pytest.mark.parametrize("value,days", [
    ("datetime.datetime(2023, 3, 15, 12)", 45000.5),
    ("datetime.datetime(2023, 3, 15, 11, tzinfo=datetime.timezone.utc)", 45000.5),
    ("datetime.datetime(2023, 6, 23, 6, tzinfo=datetime.timezone.utc)", 45100 + 8 / 24),
    ("datetime.datetime(2100, 1, 1, tzinfo=datetime.timezone.utc)", 73051 + 1 / 24),
    ("datetime.datetime(1899, 12, 30)", 0.0), ("datetime.datetime(1899, 12, 29)", -1.0),
    ("datetime.datetime(1, 1, 1)", -693593.0),
    ("datetime.datetime(2023, 3, 15, 0, 0, 0, 1000)", 45000 + 1 / 86400e3)])
def test_a_datetime_goes_out_as_days_of_local_time(connected, written, value, days):
    connected("line['date'] = %s" % value)
    assert written() == [b"g\1\0" + struct.pack("<HH", 0, LINE1["date"]) + wire.r8(days)]


@pytest.mark.parametrize("variables", [{"TZ": "EST5"}])
def test_a_datetime_without_a_local_time_is_rejected(raised, connected, sim):
    kind, text = raised(
        "line['date'] = datetime.datetime.min.replace(tzinfo=datetime.timezone.utc)")
    assert kind == "ValueRejected" and "no local time" in text
    assert sim.requests(codes="g") == []


@pytest.mark.parametrize("variables", [{"TZ": "CET-1CEST,M3.5.0,M10.5.0/3"}])
@pytest.mark.parametrize("value", [
    "datetime.datetime(2024, 2, 29, 23, 59, 59, 999000)", "datetime.datetime(1900, 2, 28)",
    "datetime.datetime(1899, 12, 29, 18)", "datetime.datetime(9999, 12, 31, 12)"])
def test_a_datetime_comes_back_as_it_was_written(connected, written, value):
    connected("line['date'] = %s" % value)
    written()
    assert connected("line['date'].replace(tzinfo=None) == %s" % value) is True


def test_a_type_that_is_not_known_is_read_first(connected, sim):
    connected("line['a'] = 5")
    sim.wait_requests(3)
    assert [data for _, _, data in sim.requests()] == [
        b"L\0\0a\0", b"H\1\0\0\0\x14\0", b"g\1\0\0\0\x14\0\3\0\5\0\0\0"]


def test_a_type_that_was_read_or_watched_is_not_asked_again(connected, sim):
    connected("line['a']\nwatch = line.watch('b')")
    sim.requests(clear=True)
    connected("line.write({'a': 5, 'b': 6})")
    sim.wait_requests(1)
    assert [data for _, _, data in sim.requests()] == [
        wire.write((0, LINE1["a"], wire.i4(5)), (0, LINE1["b"], wire.i4(6)))]


def test_the_server_holds_what_was_written(connected, sim):
    connected("line.write({'i2': -5, 'str': '开', 'bool': False, 'r8': 2.5})")
    assert connected("line.read('i2', 'str', 'bool', 'r8')") == {
        "i2": -5, "str": "开", "bool": False, "r8": 2.5}
    assert sim.get_value("line1", "str") == "开"


def test_numbers_of_other_classes_are_taken(connected, written):
    connected("class Number:\n    def __index__(self): return 7\nline['a'] = Number()")
    assert written() == [wire.write((0, LINE1["a"], wire.i4(7)))]


def test_no_value_sends_nothing(connected, sent):
    connected("line.write({})")
    assert sent() == []


def test_a_request_holds_2048_bytes(connected, written):
    connected("line['a']\nline['str']")
    # 3 bytes of head, 10 of a, 7 of an empty text
    rest = 2048 - 3 - 10 - 7
    connected("line.write({'a': 5, 'str': 'x' * %d})" % rest)
    assert written() == [wire.write((0, LINE1["a"], wire.i4(5)),
                                    (0, LINE1["str"], wire.text("x" * rest)))]
    connected("line.write({'a': 5, 'str': 'x' * %d})" % (rest + 1))
    assert written(2) == [wire.write((0, LINE1["a"], wire.i4(5))),
                          wire.write((0, LINE1["str"], wire.text("x" * (rest + 1))))]


def test_many_values_are_split_in_order(connected, written):
    connected("plant['wide'].write({'t%04d' % i: i for i in range(1200)})")
    full = (2048 - 3) // 10
    assert written(6) == [
        wire.write(*[(7, i, wire.i4(i)) for i in range(start, min(start + full, 1200))])
        for start in range(0, 1200, full)]


# ---- what a tag cannot take ---------------------------------------------------------------------

RANGE, WHOLE, EXACT, HELD = "out of the tag's range", "the tag holds whole numbers", (
    "too large to be sent exactly"), "too large for the tag to hold exactly"


@pytest.mark.parametrize("name,value,why", [
    ("i2", "-32769", RANGE), ("i2", "32768", RANGE),
    ("i4", "-2147483649", RANGE), ("i4", "2147483648", RANGE), ("int", "2147483648", RANGE),
    ("i1", "-129", RANGE), ("i1", "128", RANGE), ("ui1", "-1", RANGE), ("ui1", "256", RANGE),
    ("ui2", "-1", RANGE), ("ui2", "65536", RANGE),
    ("ui4", "-1", RANGE), ("ui4", "4294967296", RANGE), ("uint", "4294967296", RANGE),
    ("i8", "2 ** 63", RANGE), ("i8", "-2 ** 63 - 1", RANGE), ("i8", "10 ** 100", RANGE),
    ("i8", "2 ** 53 + 1", EXACT), ("i8", "%d" % I8_MAX, EXACT), ("r8", "2 ** 53 + 1", EXACT),
    ("r8", "2 ** 70 + 1", EXACT), ("r8", "2 ** 1024", RANGE), ("r8", "-2 ** 1024", RANGE),
    ("r4", "2 ** 24 + 1", HELD), ("r4", "-2 ** 24 - 1", HELD), ("r4", "2 ** 128", RANGE),
    ("bool", "2", RANGE), ("bool", "-1", RANGE), ("i4", "0.5", WHOLE), ("bool", "0.5", WHOLE),
    ("i4", "1e300", RANGE), ("i4", "float('nan')", RANGE), ("i8", "float('inf')", RANGE),
    ("i4", "'5'", WHOLE), ("i4", "None", WHOLE), ("i4", "b'5'", WHOLE), ("i4", "[5]", WHOLE),
    ("i4", "5 + 0j", WHOLE), ("r8", "'5'", "the tag holds numbers"),
    ("r8", "None", "the tag holds numbers"),
    ("r4", "3.402823466385289e38", RANGE), ("r4", "-3.402823466385289e38", RANGE),
    ("str", "5", "the tag holds text"), ("str", "b'x'", "the tag holds text"),
    ("str", "None", "the tag holds text"), ("str", "'a\\0b'", "a text ends at its first zero"),
    ("str", "'\\0'", "a text ends at its first zero"),
    ("str", "'\\udc80'", "the text has no UTF-8 form"),
    ("str", "'x' * %d" % (LONGEST + 1), "the text is longer than a request"),
    ("str", "'开' * 680", "the text is longer than a request"),
    ("date", "5", "the tag holds a datetime"), ("date", "'today'", "the tag holds a datetime"),
    ("date", "datetime.date(2023, 3, 15)", "the tag holds a datetime"),
    ("cy", "5", "tags of this type cannot be written"),
    ("ui8", "5", "tags of this type cannot be written"),
    ("array", "5", "tags of this type cannot be written"),
    ("empty", "None", "values are numbers, texts, bools and datetimes"),
    ("empty", "b'x'", "values are numbers, texts, bools and datetimes"),
    ("empty", "2 ** 63", RANGE),
])
def test_a_value_that_a_tag_cannot_take_is_refused(refused, name, value, why):
    assert refused(name, value) == "%r cannot take the value: %s" % (name, why)


def test_one_bad_value_keeps_all_of_them_back(connected, raised, sim):
    kind, text = raised("line.write({'a': 5, 'i2': 40000, 'b': 6})")
    assert kind == "ValueRejected" and "'i2' cannot take the value" in text
    assert connected("line.read('a', 'b')") == {"a": 1, "b": 2}
    assert sim.requests(codes="g") == []


def test_one_bad_value_of_many_requests_keeps_all_of_them_back(connected, sim):
    assert connected("kind_of(plant['wide'].write, dict({'t%04d' % i: i for i in range(1199)},"
                     " t1199='x'))") == "ValueRejected"
    assert connected("plant['wide']['t0001']") == 1
    assert sim.requests(codes="g") == []


def test_a_refused_value_is_a_value_error_and_harms_nothing(connected):
    assert connected("isinstance(error_of(line.write, {'i2': 40000}), ValueError),"
                     " line['a'], plant.stats.reconnects") == (True, 1, 0)


def test_an_error_of_a_number_is_its_own(connected, sim):
    connected("class Number:\n    def __index__(self): raise OSError('mine')")
    assert connected("str(error_of(line.write, {'a': Number()}))") == "mine"
    assert connected("line['a']") == 1
    assert sim.requests(codes="g") == []


def test_unknown_names_are_told_all_and_nothing_is_written(connected, sim):
    assert connected("error_of(line.write, {'x': 1, 'a': 5, 'y': 2}).names") == ("x", "y")
    assert connected("line['a']") == 1
    assert sim.requests(codes="g") == []


# ---- who may not --------------------------------------------------------------------------------

def test_a_user_without_the_right_is_told_so_and_nothing_is_sent(client, sim, raised):
    client("plant = connect('guest', '')\nline = plant['line1']")
    sim.requests(clear=True)
    kind, text = raised("line.write({'a': 5})")
    assert kind == "WriteDenied" and "user 'guest' has no right to write" in text
    assert client("isinstance(error_of(line.write, {'a': 5}), PermissionError)") is True
    assert sim.requests() == []


def test_a_read_only_plant_writes_nothing(connect, sim, raised):
    connect("read_only=True")
    kind, text = raised("line.write({'a': 5})")
    assert kind == "WriteDenied" and text.endswith("connected with read_only=True")
    assert raised("line['a'] = 5")[0] == "WriteDenied"
    assert sim.requests() == []
