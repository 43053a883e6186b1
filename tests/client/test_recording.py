"""Recordings as files: rows come back as they went, and files take turns."""

import csv
import datetime
import math
import os
import sqlite3

import pytest

from vzclient.cli import recording
from vzclient.cli.options import CommandError
from vzclient.cli.recording import Recorder, Row, in_order, rows, type_of

ZONE = datetime.timezone(datetime.timedelta(hours=8))
START = datetime.datetime(2024, 5, 17, 9, 30, 0, 250000, ZONE)
ENDINGS = pytest.mark.parametrize("ending", [".csv", ".db"])


def change(value, seconds=0.0, tag="a", resynced=False):
    return Row(START + datetime.timedelta(seconds=seconds), "change", "line1", tag, type_of(value),
               value, resynced)


VALUES = [
    0, -2 ** 63, 2 ** 63 - 1, 0.1, -0.0, 1e300, 5e-324, math.inf, -math.inf, True, False, "",
    "valve", '"quoted", with comma', "two\nlines", "carriage\rreturn\r\n", "水位", "nan", "12",
    "x" * 4000, None,
    datetime.datetime(2024, 5, 17, 9, 30, tzinfo=ZONE),
    datetime.datetime(1900, 1, 1, 0, 0, 0, 1000, ZONE)]


@ENDINGS
def test_values_come_back_as_they_went(tmp_path, ending):
    path = str(tmp_path / ("r" + ending))
    given = [change(value, number) for number, value in enumerate(VALUES)]
    recorder = Recorder(path)
    for row in given:
        recorder.write(row)
    recorder.close()
    found = list(rows(path))
    assert found == given
    assert [type(row.value) for row in found] == [type(value) for value in VALUES]
    assert [row.value for row in found][4].hex() == "-0x0.0p+0"


@ENDINGS
def test_what_is_no_number_comes_back(tmp_path, ending):
    path = str(tmp_path / ("r" + ending))
    recorder = Recorder(path)
    recorder.write(change(math.nan))
    recorder.close()
    (row,) = rows(path)
    assert math.isnan(row.value)


@ENDINGS
def test_an_alarm_comes_back_whole(tmp_path, ending):
    path = str(tmp_path / ("r" + ending))
    row = Row(START, "alarm", None, "Temp", "float", 90.0, False, START, None, "too high", "锅炉",
              2, 80.0, 1)
    recorder = Recorder(path)
    recorder.write(row)
    recorder.write(row._replace(event_time=START, resynced=True, status=0, level=0))
    recorder.close()
    assert list(rows(path)) == [
        row, row._replace(event_time=START, resynced=True, status=0, level=0)]


def test_a_csv_file_is_what_it_should_be(tmp_path):
    path = tmp_path / "r.csv"
    recorder = Recorder(str(path))
    recorder.write(change(2.5))
    recorder.write(change("a\r\"b"))
    recorder.close()
    assert path.read_bytes() == (
        b"time,event,driver,tag,type,value,resynced,alarm_time,event_time,kind,group,level,limit,"
        b"status\n"
        b"2024-05-17T09:30:00.250000+08:00,change,line1,a,float,2.5,false,,,,,,,\n"
        b"2024-05-17T09:30:00.250000+08:00,change,line1,a,text,\"a\r\"\"b\",false,,,,,,,\n")


def test_a_database_can_be_asked(tmp_path):
    path = str(tmp_path / "r.sqlite3")
    recorder = Recorder(path)
    for value in (1, 2.5, "x", True):
        recorder.write(change(value))
    recorder.flush()
    base = sqlite3.connect(path)
    assert base.execute("SELECT tag, type, value FROM events ORDER BY rowid").fetchall() == [
        ("a", "int", 1), ("a", "float", 2.5), ("a", "text", "x"), ("a", "bool", 1)]
    base.close()
    recorder.close()


@ENDINGS
def test_what_was_flushed_is_there_for_others(tmp_path, ending):
    path = str(tmp_path / ("r" + ending))
    recorder = Recorder(path)
    recorder.write(change(1))
    recorder.flush()
    assert [row.value for row in rows(path)] == [1]
    recorder.write(change(2))
    assert [row.value for row in rows(path)] == [1]
    recorder.close()
    assert [row.value for row in rows(path)] == [1, 2]


# ---- Turns ---------------------------------------------------------------------------------------

def values_in(path):
    return [row.value for row in rows(str(path))]


def record(path, values, **limits):
    """A value a second."""
    recorder = Recorder(str(path), **limits)
    for number, value in enumerate(values):
        recorder.write(change(value, number))
    recorder.close()


def size_of(*values):
    """Bytes of rows of CSV."""
    return sum(len(recording._CsvFile._encode(_Encoder, change(value))) for value in values)


class _Encoder:
    """What encodes rows without a file."""

    import io
    _line = io.StringIO()
    _csv = csv.writer(_line, lineterminator="\r\n")


def test_a_csv_file_holds_as_many_bytes_as_it_may(tmp_path):
    row = size_of(1)
    record(tmp_path / "r.csv", range(7), size=3 * row)
    assert values_in(tmp_path / "r.2.csv") == [0, 1, 2]
    assert values_in(tmp_path / "r.1.csv") == [2, 3, 4, 5]  # begins with the value of then
    assert values_in(tmp_path / "r.csv") == [5, 6]
    record(tmp_path / "s.csv", range(4), size=3 * row - 1)
    assert values_in(tmp_path / "s.1.csv") == [0, 1]


def test_a_row_that_is_larger_than_a_file_has_one_of_its_own(tmp_path):
    record(tmp_path / "r.csv", ["x" * 100, "y" * 100], size=10)
    assert [len(values_in(tmp_path / name)) for name in ("r.1.csv", "r.csv")] == [1, 2]


def test_a_database_makes_room_when_it_is_large(tmp_path):
    record(tmp_path / "r.db", ["%0200d" % number for number in range(200)], size=16384)
    names = sorted(os.listdir(str(tmp_path)))
    assert len(names) > 2
    for name in names[:-1]:
        assert 16384 <= os.path.getsize(str(tmp_path / name)) <= 16384 + 4 * 4096
    found = [row.value for path in in_order([str(tmp_path / name) for name in names])
             for row in rows(path) if not row.resynced]
    assert found == ["%0200d" % number for number in range(200)]


@ENDINGS
def test_a_file_is_used_until_it_is_old(tmp_path, ending):
    record(tmp_path / ("r" + ending), range(7), age=3.0)
    assert values_in(tmp_path / ("r.2" + ending)) == [0, 1, 2]
    assert values_in(tmp_path / ("r.1" + ending)) == [2, 3, 4, 5]
    assert values_in(tmp_path / ("r" + ending)) == [5, 6]


@ENDINGS
def test_a_file_begins_with_the_values_of_all_tags(tmp_path, ending):
    path = str(tmp_path / ("r" + ending))
    recorder = Recorder(path, age=10.0)
    recorder.write(change(1, 0, "a"))
    recorder.write(change(2, 1, "b"))
    recorder.write(change(3, 2, "a"))
    recorder.write(Row(START + datetime.timedelta(seconds=20), "live"))
    recorder.close()
    assert list(rows(path)) == [
        change(3, 20, "a", True), change(2, 20, "b", True),
        Row(START + datetime.timedelta(seconds=20), "live", resynced=False)]


@ENDINGS
@pytest.mark.parametrize("keep", [0, 1, 2])
def test_so_many_old_files_are_kept(tmp_path, ending, keep):
    record(tmp_path / ("r" + ending), range(9), age=2.0, keep=keep)
    old = ["r.%d%s" % (number, ending) for number in range(1, keep + 1)]
    assert sorted(os.listdir(str(tmp_path))) == sorted(old + ["r" + ending])
    assert [values_in(tmp_path / name)[-1] for name in old] == [7, 5][:keep]


@ENDINGS
def test_a_recording_is_continued(tmp_path, ending):
    path = tmp_path / ("r" + ending)
    record(path, [1, 2])
    record(path, [3])
    assert values_in(path) == [1, 2, 3]
    record(path, [4] * 3, age=2.0)  # counts from the file's first row
    assert values_in(tmp_path / ("r.1" + ending)) == [1, 2, 3, 4, 4]


def test_a_continued_file_counts_whole(tmp_path):
    path = tmp_path / "r.csv"
    record(path, [1])
    record(path, [2], size=os.path.getsize(str(path)) + size_of(2))
    assert values_in(path) == [1, 2]
    record(path, [3], size=os.path.getsize(str(path)) + size_of(3) - 1)
    assert values_in(path) == [3]


def test_a_file_that_ends_within_a_row_is_not_continued(tmp_path):
    path = tmp_path / "r.csv"
    record(path, [1, 2])
    whole = path.read_bytes()
    for length in range(len(whole) - 2, len(whole) - size_of(2), -1):
        path.write_bytes(whole[:length])
        record(path, [3])
        assert values_in(path) == [3]
        assert values_in(tmp_path / "r.1.csv") == [1]
        assert (tmp_path / "r.1.csv").read_bytes() == whole[:length]
        os.remove(str(path))
    path.write_bytes(whole[:-1])
    record(path, [3])
    assert values_in(path) == [3]


@ENDINGS
def test_an_empty_file_is_a_recording_to_be(tmp_path, ending):
    path = tmp_path / ("r" + ending)
    path.write_bytes(b"")
    record(path, [1])
    assert values_in(path) == [1]


@ENDINGS
@pytest.mark.parametrize("content", [b"something else\n", b"\xff\xfe\0\n" * 300])
def test_what_is_no_recording_is_left_alone(tmp_path, ending, content):
    path = tmp_path / ("r" + ending)
    path.write_bytes(content)
    for use in (lambda: Recorder(str(path)).open(), lambda: list(rows(str(path)))):
        with pytest.raises(CommandError) as caught:
            use()
        assert str(caught.value) == "%s is no recording" % path
    assert path.read_bytes() == content


def test_a_database_of_something_else_is_left_alone(tmp_path):
    path = tmp_path / "r.db"
    base = sqlite3.connect(str(path))
    base.execute("CREATE TABLE events (name)")
    base.close()
    with pytest.raises(CommandError):
        Recorder(str(path)).open()
    with pytest.raises(CommandError):
        list(rows(str(path)))


def test_rows_that_are_none_are_left_out(tmp_path):
    path = tmp_path / "r.csv"
    record(path, [1, 2])
    lines = path.read_text().splitlines(True)
    lines[1:1] = ["\n", "2024-05-17,change\n", lines[1].replace("2024-", "year"),
                  lines[1].replace(",1,", ",one,")]
    path.write_text("".join(lines))
    assert values_in(path) == [1, 2]


def test_a_recording_that_is_not_there_is_not_made(tmp_path):
    for name in ("r.csv", "r.db"):
        with pytest.raises(FileNotFoundError):
            list(rows(str(tmp_path / name)))
    assert os.listdir(str(tmp_path)) == []
