"""Connecting and reading: what a plant tells of itself, and values as the server holds them."""

import struct

import pytest

import wire
from plants import LINE1, SMALL_PLANT

DATE_ZONE = {"TZ": "CET-1CEST,M3.5.0,M10.5.0/3"}  # one hour ahead of UTC, two in summer


@pytest.fixture
def answer(sim, connected):
    """Reads a tag whose value the server gives as these bytes; gives type and value."""
    def read(value, name="a"):
        sim.fault("H", "reply", data=wire.read_chunk(value))
        connected("value = line[%r]" % name)
        return connected("type(value).__name__, value")
    return read


@pytest.fixture
def answer_date(sim, connected):
    """Reads a date of so many days; gives what it is as text."""
    def read(days):
        sim.fault("H", "reply", data=wire.read_chunk(b"\x07\0" + struct.pack("<d", days)))
        return connected("str(line['date'])")
    return read


# ---- the plant ----------------------------------------------------------------------------------

def test_a_plant_tells_its_host_and_project(connected):
    assert connected("plant.host == host, plant.project") == (True, "Line1")


def test_a_project_is_told_as_text(simulate, client):
    second = simulate(dict(SMALL_PLANT, project="一号线"))
    client("host = '127.0.0.1:%d'\nplant = connect()" % second.port)
    assert client("plant.project") == "一号线"


@pytest.mark.parametrize("user,rights", [("operator", "WRITE"), ("guest", "NONE")])
def test_a_plant_tells_the_users_rights(client, user, rights):
    client("plant = connect(%r, %r)" % (user, "password" if user == "operator" else ""))
    assert client("plant.rights.name") == rights


def test_rights_that_have_no_name_are_kept(connected, sim):
    sim.set_rights("operator", 0xFFFFFFFF)
    connected("plant = connect()")
    assert connected("int(plant.rights), bool(plant.rights & vzclient.Rights.WRITE)") == (
        0xFFFFFFFF, True)


def test_user_and_password_go_as_utf8(client, sim, sent):
    client("plant = connect('张三', '密码')")
    assert sent("9") == ["9张三\0密码\0".encode()]


def test_a_plant_tells_its_drivers(connected):
    assert connected("{name: (d.name, d.tag_count) for name, d in plant.drivers.items()}") == {
        "line1": ("line1", 23), "锅炉": ("锅炉", 1), "wide": ("wide", 1200), "none": ("none", 0)}


def test_drivers_cannot_be_changed(connected, raised):
    assert raised("plant.drivers['x'] = 1")[0] == "TypeError"


def test_an_unknown_driver_is_a_key_error_that_names_it(connected, raised):
    kind, text = raised("plant['nobody']")
    assert kind == "UnknownDriver" and "'nobody'" in text and "'line1'" in text
    assert connected("error_of(lambda: plant['nobody']).names") == ("nobody",)


def test_a_driver_without_tags_reads_nothing(connected):
    assert connected("plant['none'].read('x', missing='skip')") == {}


def test_plant_and_driver_show_what_they_are(connected):
    assert connected("repr(plant) == '<Plant %s, live>' % host,"
                     " repr(line) == '<Driver %r of %s>' % ('line1', host)") == (True, True)


def test_connecting_logs_in_and_brings_the_drivers(client, sim):
    client("plant = connect()")
    assert [data[:1] for _, _, data in sim.requests()] == [b"7", b"8", b"9", b"4"]
    client("plant.close()\nplant = connect()")  # the second time they are in the cache
    assert [data[:1] for _, _, data in sim.requests()][4:] == [b"7", b"8", b"9"]


@pytest.mark.parametrize("arguments", [
    "timeout=0", "timeout=-1", "heartbeat=0", "backoff=(0, 1)", "backoff=(2, 1)"])
def test_times_that_cannot_be_are_refused(client, sim, raised, arguments):
    assert raised("connect(%s)" % arguments)[0] == "ValueError"
    assert sim.requests() == []


# ---- values -------------------------------------------------------------------------------------

@pytest.mark.parametrize("name,kind,value", [
    ("i2", "int", -2), ("i4", "int", -40000), ("r4", "float", 2.5), ("r8", "float", 0.1),
    ("str", "str", "valve"), ("bool", "bool", True), ("i1", "int", -1), ("ui1", "int", 200),
    ("ui2", "int", 65535), ("ui4", "int", 4294967295), ("i8", "int", 5), ("int", "int", -7),
    ("uint", "int", 7), ("empty", "NoneType", None), ("null", "NoneType", None),
    ("cy", "NoneType", None), ("ui8", "NoneType", None), ("array", "NoneType", None),
    ("水位", "int", 77)])
def test_a_value_has_the_type_of_its_tag(connected, name, kind, value):
    assert connected("type(line[%r]).__name__, line[%r]" % (name, name)) == (kind, value)


@pytest.mark.parametrize("data,kind,value", [
    (b"\2\0\0\x80", "int", -32768), (b"\2\0\xff\x7f", "int", 32767),
    (b"\3\0\0\0\0\x80", "int", -2147483648), (b"\3\0\xff\xff\xff\x7f", "int", 2147483647),
    (b"\x16\0\0\0\0\x80", "int", -2147483648), (b"\x17\0\xff\xff\xff\xff", "int", 4294967295),
    (b"\x13\0\0\0\0\x80", "int", 2147483648), (b"\x13\0\xff\xff\xff\xff", "int", 4294967295),
    (b"\x14\0" + b"\0" * 7 + b"\x80", "int", -9223372036854775808),
    (b"\x14\0" + b"\xff" * 7 + b"\x7f", "int", 9223372036854775807),
    (b"\x10\0\x80", "int", -128), (b"\x10\0\x7f", "int", 127),
    (b"\x11\0\x80", "int", 128), (b"\x11\0\xff", "int", 255), (b"\x12\0\xff\xff", "int", 65535),
    (b"\x0b\0\0", "bool", False), (b"\x0b\0\1", "bool", True), (b"\x0b\0\xff", "bool", True),
    (b"\4\0\0\0\x08\x41", "float", 8.5), (b"\5\0\0\0\0\0\0\0\4\x40", "float", 2.5),
    (b"\0\0", "NoneType", None), (b"\1\0", "NoneType", None), (b"\6\0", "NoneType", None),
    (b"\x15\0", "NoneType", None), (b"\xff\xff", "NoneType", None),
    (b"\0\x20\1\0\3\0\1\0\0\0", "NoneType", None),
])
def test_bytes_of_every_type(answer, data, kind, value):
    assert answer(data) == (kind, value)


@pytest.mark.parametrize("bits,shown", [
    (0x7FF8000000000000, "nan"), (0x7FF0000000000000, "inf"), (0xFFF0000000000000, "-inf"),
    (0x8000000000000000, "-0.0"), (0x0000000000000001, "5e-324")])
def test_odd_reals_are_passed_on(connected, sim, bits, shown):
    sim.fault("H", "reply", data=wire.read_chunk(b"\5\0" + struct.pack("<Q", bits)))
    assert connected("repr(line['r8'])") == shown


@pytest.mark.parametrize("data,text", [
    (b"", ""), (b"abc", "abc"), ("开关".encode(), "开关"), ("开关".encode("gb2312"), "开关"),
    (b"\xff\xfe", "\ufffd\ufffd"), ("开".encode()[:1], "\ufffd"),
    ("a开".encode("gb2312")[:2], "a\ufffd"),
    ("😀".encode(), "😀"), (b"x" * 4000, "x" * 4000)])
def test_text_is_utf8_or_gb2312_or_shown_as_far_as_it_can_be(answer, data, text):
    assert answer(wire.text(data)) == ("str", text)


@pytest.mark.parametrize("variables", [DATE_ZONE])
@pytest.mark.parametrize("days,shown", [
    (25569.0, "1970-01-01 00:00:00+01:00"), (45000.5, "2023-03-15 12:00:00+01:00"),
    (45100.25, "2023-06-23 06:00:00+02:00"), (0.0, "1899-12-30 00:00:00+01:00"),
    (-1.75, "1899-12-28 06:00:00+01:00"), (45000 + 1 / 86400e3, "2023-03-15 00:00:00.001000+01:00"),
    (2958465.99999, "9999-12-31 23:59:59.136000+01:00")])
def test_a_date_is_local_time_with_its_zone(answer_date, days, shown):
    assert answer_date(days) == shown


@pytest.mark.parametrize("variables", [DATE_ZONE])
@pytest.mark.parametrize("days", [
    2958466.0, 1e300, -657435.0, float("inf"), float("-inf"), float("nan")])
def test_a_date_that_no_datetime_can_hold_is_its_days(answer_date, days):
    assert answer_date(days) == str(days)


def test_a_date_is_aware(connected):
    assert connected("value = line['date']") is None
    assert connected("value.utcoffset() is not None,"
                     " value.replace(tzinfo=None) == datetime.datetime(2023, 3, 15, 12)") == (
        True, True)


# ---- names --------------------------------------------------------------------------------------

def test_one_tag_is_looked_up_and_read(connected, sent):
    assert connected("line['a']") == 1
    assert sent() == [b"L\0\0a\0", b"H\1\0\0\0\x14\0"]


def test_a_name_is_looked_up_once(connected, sent):
    connected("line['a']\nline.read('a')\nline['a']")
    assert sent("L") == [wire.lookup(0, "a")]


def test_several_tags_are_read_by_one_request_in_order(connected, sent):
    assert connected("list(line.read('c', '水位', 'a').items())") == [
        ("c", 3), ("水位", 77), ("a", 1)]
    assert sent() == [wire.lookup(0, "c", "水位", "a"),
                      wire.read(0, LINE1["c"], LINE1["水位"], LINE1["a"])]


def test_a_tag_of_another_driver_is_asked_there(connected, sent):
    assert connected("plant['锅炉']['x']") == 11
    assert sent() == [b"L\1\0x\0", b"H\1\0\1\0\0\0"]


def test_a_name_given_twice_is_read_twice_and_told_once(connected, sent):
    assert connected("line.read('a', 'a')") == {"a": 1}
    assert sent("H") == [wire.read(0, LINE1["a"], LINE1["a"])]


def test_no_name_reads_nothing(connected, sent):
    assert connected("line.read()") == {}
    assert sent() == []


def test_a_list_that_is_read_again_is_as_the_first_time(connected, sim):
    connected("names = ['a', 'b', 'c', 'i4', 'i2']\nfirst = line.read(*names)")
    sim.set_value("line1", "b", 9)
    assert connected("line.read(*names) == dict(first, b=9), list(line.read(*names)) == names,"
                     " line.read(*names) is not line.read(*names), first['b']") == (
        True, True, True, 2)


def test_many_lists_are_read_in_turn(connected):
    connected("wide = plant['wide']\n"
              "lists = [['t%04d' % (i + j) for j in range(5)] for i in range(0, 100, 5)]")
    assert connected("all(wide.read(*names) == {name: int(name[1:]) for name in names}"
                     " for _ in range(3) for names in lists)") is True


@pytest.mark.parametrize("count,parts", [
    (1023, [(0, 1023)]), (1024, [(0, 1023), (1023, 1024)]), (1200, [(0, 1023), (1023, 1200)])])
def test_a_read_holds_1023_tags(connected, sent, count, parts):
    connected("names = ['t%%04d' %% i for i in range(%d)]" % count)
    assert connected("list(plant['wide'].read(*names).items()) == "
                     "[(name, i) for i, name in enumerate(names)]") is True
    assert sent("H") == [wire.read(7, *range(*part)) for part in parts]


def test_a_lookup_holds_768_bytes(connected, sent):
    # 1 + 95 * 8 is 761 bytes: a name of 4 more bytes fits, of 5 does not.
    names = ["t%04d" % i for i in range(95)]
    connected("plant['wide'].read(*%r, missing='skip')" % (names + ["xxxx"],))
    assert sent("L") == [wire.lookup(7, *names + ["xxxx"])]
    assert len(wire.lookup(7, *names + ["xxxx"])) == 768
    connected("del plant\nplant = connect()")
    sent()
    connected("plant['wide'].read(*%r, missing='skip')" % (names + ["xxxxx"],))
    assert sent("L") == [wire.lookup(7, *names), wire.lookup(7, "xxxxx")]


def test_the_longest_name_of_a_lookup_has_764_bytes(connected, sent):
    connected("line.read('x' * 764, 'y' * 765, missing='skip')")
    assert sent("L") == [wire.lookup(0, "x" * 764)]


def test_names_that_no_tag_can_have_are_unknown_without_a_request(connected, sent):
    assert connected("error_of(line.read, '', 'a\\0b', '😀', '\\udc80').names") == (
        "", "a\0b", "😀", "\udc80")
    assert sent() == []


@pytest.mark.parametrize("name", ["1", "b'a'", "None", "['a']"])
def test_a_name_is_text(connected, raised, name):
    assert raised("line.read(%s)" % name)[0] == "TypeError"
    assert raised("line[%s]" % name)[0] == "TypeError"
    assert raised("line.watch(%s)" % name)[0] == "TypeError"


def test_all_unknown_names_are_told_at_once(connected, raised, sent):
    kind, text = raised("line.read('x', 'a', 'y')")
    assert kind == "UnknownTag" and "'x', 'y'" in text and "'a'" in text.split(":")[0]
    assert connected("error_of(line.read, 'x', 'a', 'y').names") == ("x", "y")
    assert sent("H") == []


def test_many_unknown_names_are_told_in_few_words(connected, raised):
    kind, text = raised("line.read(*['x%d' % i for i in range(1200)])")
    assert kind == "UnknownTag" and len(text) < 400 and text.endswith(
        "and 1190 more; check the names")
    assert connected("len(error_of(line.read, *['x%d' % i for i in range(1200)]).names)") == 1200


def test_an_unknown_name_is_told_once_however_often_it_was_asked_for(connected):
    assert connected("error_of(line.read, 'x', 'a', 'x', 'y', 'x').names") == ("x", "y")


def test_a_driver_cannot_be_gone_through_and_a_plant_gives_its_drivers(connected, raised):
    assert connected("'line1' in plant, 'nothing' in plant") == (True, False)
    assert connected("list(plant) == list(plant.drivers)") is True
    assert raised("'a' in line")[0] == "TypeError"
    assert raised("list(line)")[0] == "TypeError"


def test_one_unknown_tag_is_a_key_error(connected):
    assert connected("isinstance(error_of(lambda: line['x']), KeyError),"
                     " error_of(lambda: line['x']).names") == (True, ("x",))


def test_an_unknown_name_is_asked_again(connected, sent):
    connected("kind_of(line.read, 'x'), kind_of(line.read, 'x')")
    assert sent("L") == [wire.lookup(0, "x")] * 2


def test_skipping_leaves_unknown_names_out(connected, sent):
    assert connected("list(line.read('x', 'b', 'y', 'a', missing='skip').items())") == [
        ("b", 2), ("a", 1)]
    assert sent("H") == [wire.read(0, LINE1["b"], LINE1["a"])]


def test_skipping_all_reads_nothing(connected, sent):
    assert connected("line.read('x', 'y', 'z', 'u', 'v', missing='skip')") == {}
    assert sent("H") == []


def test_missing_is_one_of_two_words(connected, raised, sent):
    assert raised("line.read('a', missing='none')")[0] == "ValueError"
    assert sent() == []


def test_an_id_beyond_the_drivers_tags_is_an_unknown_tag(connected, sim):
    sim.fault("L", "reply", data=wire.lookup_reply(22, 23, 0xFFFF))
    assert connected("error_of(line.read, 'p', 'q', 'r').names") == ("q", "r")


# ---- answers ------------------------------------------------------------------------------------

def test_values_may_come_in_several_chunks(connected, sim):
    sim.fault("H", "reply", data=wire.read_chunk(wire.i4(5), 1) + wire.read_chunk(b"", 1)
              + wire.read_chunk(wire.i4(6)))
    assert connected("line.read('a', 'b')") == {"a": 5, "b": 6}


def test_fewer_values_than_tags_are_an_error_and_the_connection_goes_on(connected, sim, raised):
    sim.fault("H", "reply", data=wire.read_chunk(wire.i4(5)))
    kind, text = raised("line.read('a', 'b')")
    assert kind == "VzError" and text.endswith("the server gave fewer values than asked for")
    assert connected("line['a'], plant.stats.reconnects") == (1, 0)


@pytest.mark.parametrize("data", [
    wire.read_chunk(wire.i4(5) + wire.i4(6)), wire.read_chunk(wire.i4(5)[:5]), b"X" + bytes(8),
    wire.read_chunk(b"", size=4097), wire.read_chunk(b"\x08\0abc"), wire.read_chunk(b"", 1) * 16,
    wire.read_chunk(b"\3")])
def test_an_answer_that_cannot_be_used_ends_the_connection(connected, sim, data):
    sim.fault("H", "reply", data=data)
    assert connected("kind_of(line.read, 'a')") == "ConnectionLost"
    connected("until(lambda: plant.stats.reconnects == 1)")
    assert connected("line['a']") == 1
