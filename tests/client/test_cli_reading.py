"""vzclient drivers, read and write: exact results in all three forms."""

import pytest

from plants import LINE1


def test_drivers_come_by_their_ids_in_a_table(vz):
    assert vz("drivers") == (0, ("name   id  tags\n"
                                 "line1  0   23\n"
                                 "锅炉   1   1\n"
                                 "none   3   0\n"
                                 "wide   7   1200\n"), "")


def test_drivers_come_as_json(vz):
    assert vz("drivers", "--json").out.splitlines() == [
        '{"name": "line1", "id": 0, "tags": 23}', '{"name": "锅炉", "id": 1, "tags": 1}',
        '{"name": "none", "id": 3, "tags": 0}', '{"name": "wide", "id": 7, "tags": 1200}']


def test_drivers_come_as_csv(vz):
    assert vz("drivers", "--csv").out == (
        "name,id,tags\nline1,0,23\n锅炉,1,1\nnone,3,0\nwide,7,1200\n")


TYPES = ["i2", "r4", "r8", "str", "bool", "ui4", "date", "empty", "水位"]


def test_values_of_all_kinds_come_in_a_table(vz):
    assert vz("read", "line1", *TYPES).out == (
        "tag    value\n"
        "i2     -2\n"
        "r4     2.5\n"
        "r8     0.1\n"
        "str    valve\n"
        "bool   true\n"
        "ui4    4294967295\n"
        "date   2023-03-15 12:00:00\n"
        "empty\n"
        "水位   77\n")


def test_values_of_all_kinds_come_as_json(vz):
    assert vz("--json", "read", "line1", *TYPES).out == (
        '{"tag": "i2", "value": -2}\n'
        '{"tag": "r4", "value": 2.5}\n'
        '{"tag": "r8", "value": 0.1}\n'
        '{"tag": "str", "value": "valve"}\n'
        '{"tag": "bool", "value": true}\n'
        '{"tag": "ui4", "value": 4294967295}\n'
        '{"tag": "date", "value": "2023-03-15T12:00:00+08:00"}\n'
        '{"tag": "empty", "value": null}\n'
        '{"tag": "水位", "value": 77}\n')


def test_values_of_all_kinds_come_as_csv(vz):
    assert vz("read", "--csv", "line1", *TYPES).out == (
        "tag,value\ni2,-2\nr4,2.5\nr8,0.1\nstr,valve\nbool,true\nui4,4294967295\n"
        "date,2023-03-15T12:00:00+08:00\nempty,\n水位,77\n")


def test_tags_may_stand_on_both_sides_of_options(vz):
    assert vz("read", "line1", "a", "--csv", "b", "c").out == "tag,value\na,1\nb,2\nc,3\n"


def test_a_tag_that_is_named_twice_is_shown_once(vz):
    assert vz("read", "line1", "a", "a", "--csv").out == "tag,value\na,1\n"


# ---- Writing -------------------------------------------------------------------------------------

@pytest.mark.parametrize("tag, text, value", [
    ("i2", "-32768", -32768), ("ui4", "4294967295", 4294967295), ("i4", "80.0", 80),
    ("i8", "+12", 12), ("r4", "0.5", 0.5), ("r8", "1e300", 1e300), ("r8", "-inf", float("-inf")),
    ("r8", "3", 3.0), ("bool", "false", False), ("bool", "FALSE", False), ("str", "12", "12"),
    ("str", "", ""), ("str", "a=b", "a=b"), ("str", "阀门 2", "阀门 2"),
    ("date", "2024-05-17", 45429.0), ("date", "2024-05-17 06:00", 45429.25),
    ("date", "2024-05-16T22:00:00Z", 45429.25), ("date", "2024-05-17T00:00:00+02:00", 45429.25)])
def test_a_text_is_written_as_the_tag_has_it(sim, vz, tag, text, value):
    sim.set_value("line1", "bool", True)
    assert vz("write", "line1", "%s=%s" % (tag, text)) == (0, "", "")
    assert sim.get_value("line1", tag) == value


@pytest.mark.parametrize("text, payload", [
    ("true", b"\x0b\0\x01"), ("12", b"\x03\0\x0c\0\0\0"), ("valve", b"\x08\0valve\0"),
    ("2.5", b"\x05\0\0\0\0\0\0\0\x04\x40")])
def test_a_tag_without_value_takes_what_the_text_looks_like(sim, vz, text, payload):
    assert vz("write", "line1", "empty=" + text).code == 0
    (_, _, request), = sim.requests(codes="g")
    assert request == b"g\x01\0\0\0" + LINE1["empty"].to_bytes(2, "little") + payload


def test_many_tags_are_written_at_once(sim, vz):
    assert vz("write", "line1", "a=7", "b=8", "--timeout", "20", "水位=9") == (0, "", "")
    assert [sim.get_value("line1", tag) for tag in ("a", "b", "水位")] == [7, 8, 9]
    assert len(sim.requests(codes="g")) == 1


@pytest.mark.parametrize("more", [(), ("--dry-run",)])
def test_what_cannot_be_written_is_told_by_a_dry_run_too(sim, vz, more):
    code, out, err = vz("write", "line1", "a=99999999999", *more)
    assert (code, out) == (1, "") and "range" in err
    code, out, err = vz("write", "line1", "a=" + "9" * 5000, *more)
    assert code == 1 and "takes a number" in err and len(err.splitlines()) == 1
    assert sim.requests(codes="g") == []


def test_a_dry_run_shows_and_does_not_write(sim, vz):
    done = vz("write", "line1", "--dry-run", "a=7", "bool=false", "date=2024-05-17T06:00:00Z")
    assert done == (0, ("tag   present              new\n"
                        "a     1                    7\n"
                        "bool  true                 false\n"
                        "date  2023-03-15 12:00:00  2024-05-17 14:00:00\n"), "")
    assert sim.requests(codes="g") == []


@pytest.mark.parametrize("argument, reason", [
    ("bool=1", "'bool' takes true or false, not '1'; nothing was written"),
    ("a=x", "'a' takes a number, not 'x'; nothing was written"),
    ("a=1_000", "'a' takes a number, not '1_000'; nothing was written"),
    ("r8=", "'r8' takes a number, not ''; nothing was written"),
    ("date=tomorrow", "'date' takes a time in ISO form, not 'tomorrow'; nothing was written"),
    ("a", "'a' is not TAG=VALUE"), ("=1", "'=1' is not TAG=VALUE")])
def test_what_is_no_value_of_the_tag_is_not_written(sim, vz, argument, reason):
    assert vz("write", "line1", "b=5", argument) == (1, "", "vzclient: %s\n" % reason)
    assert sim.requests(codes="g") == []


@pytest.mark.parametrize("argument", ["i2=32768", "a=1.5", "ui1=-1", "cy=1", "str=" + "x" * 2100])
def test_a_value_that_the_tag_cannot_hold_is_wrong_use(sim, vz, argument):
    done = vz("write", "line1", "b=5", argument)
    assert (done.code, done.out, done.err.count("\n")) == (1, "", 1)
    assert "cannot take the value" in done.err
    assert sim.requests(codes="g") == []


def test_a_tag_is_given_one_value(vz):
    assert vz("write", "line1", "a=1", "a=2") == (1, "", "vzclient: 'a' is given twice\n")
