"""Rows as table, JSON and CSV: exact for programs, aligned and harmless for people."""

import csv
import datetime
import enum
import io
import json
import time

import pytest

from vzclient.cli.output import FORMATS, cut, display_width, open_writer, pad, show, visible

EAST = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
MOMENT = datetime.datetime(2024, 5, 17, 9, 30, 0, 250000, EAST)  # 04:00:00.25 UTC


class Rights(enum.IntFlag):
    WRITE = 8

    def __str__(self):
        return "Rights.WRITE"


@pytest.fixture(autouse=True)
def east_of_greenwich(monkeypatch):
    """Local time is eight hours ahead."""
    monkeypatch.setenv("TZ", "CST-8")
    time.tzset()
    yield
    monkeypatch.undo()
    time.tzset()


class Stream(io.StringIO):
    """A text stream of some encoding that remembers how much of it was flushed."""

    encoding = "utf-8"
    flushed = ""

    def flush(self):
        self.flushed = self.getvalue()


def written(form, columns, *rows):
    stream = Stream()
    with open_writer(form, columns, stream) as writer:
        for row in rows:
            writer.write(row)
    return stream.flushed


# ---- Widths --------------------------------------------------------------------------------------

@pytest.mark.parametrize("text, width", [
    ("", 0), ("Temp", 4), ("锅炉", 4), ("Ａ", 2), ("ｱ", 1), ("é", 1), ("e\u0301", 1), ("α", 1),
    ("\u200b", 0), ("\U00020000", 2)])
def test_wide_characters_count_two_columns(text, width):
    assert display_width(text) == width
    assert pad(text, 5) == text + " " * (5 - width)
    assert pad(text, width) == text


def test_a_cut_text_never_has_half_a_wide_character():
    assert [cut("a锅b炉", width) for width in range(7)] == ["", "a", "a", "a锅", "a锅b", "a锅b",
                                                          "a锅b炉"]
    assert cut("e\u0301x", 1) == "e\u0301"


def test_what_cannot_be_seen_is_escaped():
    assert visible("a\tb\n\x1b[31m\u202e锅") == "a\\tb\\n\\x1b[31m\\u202e锅"
    assert visible("\udc80") == "\\udc80"


@pytest.mark.parametrize("value, text", [
    (None, ""), (True, "true"), (False, "false"), (3, "3"), (Rights.WRITE, "8"), (81.5, "81.5"),
    (0.1, "0.1"), (1e300, "1e+300"), (float("nan"), "nan"), (float("-inf"), "-inf"),
    ("温度", "温度"), ("a\nb", "a\\nb"), ([1, None, "x"], '[1, null, "x"]'),
    (MOMENT, "2024-05-17 12:00:00.250"),
    (MOMENT.replace(microsecond=0), "2024-05-17 12:00:00"),
    (datetime.datetime(2024, 5, 17, 9, 30), "2024-05-17 09:30:00"),
    (datetime.datetime(9999, 12, 31, 23, tzinfo=datetime.timezone.utc),
     "9999-12-31 23:00:00+00:00")])
def test_values_for_people(value, text):
    assert show(value) == text


# ---- Table ---------------------------------------------------------------------------------------

def test_a_table_aligns_its_columns():
    assert written("table", ("tag", "value", "unit"), ("Temp", 81.5, "°C"), ("锅炉水位", 3, ""),
                   ("x", "long text", None)) == (
        "tag       value      unit\n"
        "Temp      81.5       °C\n"
        "锅炉水位  3\n"
        "x         long text\n")


def test_a_table_without_rows_is_its_header():
    assert written("table", ("tag", "value")) == "tag  value\n"


def test_a_table_waits_for_its_end_and_is_written_once():
    stream = Stream()
    writer = open_writer("table", ("a",), stream)
    writer.write((1,))
    assert stream.getvalue() == ""
    writer.close()
    writer.close()
    assert stream.flushed == "a\n1\n"


def test_a_table_is_written_also_when_its_context_fails():
    stream = Stream()
    with pytest.raises(KeyboardInterrupt):
        with open_writer("table", ("a",), stream) as writer:
            writer.write((1,))
            raise KeyboardInterrupt()
    assert stream.flushed == "a\n1\n"


def test_a_live_table_begins_with_its_first_row_and_widens():
    stream = Stream()
    writer = open_writer("table", ("tag", "value"), stream, live=True)
    assert stream.flushed == ""
    states = []
    for row in (("Temp", 1), ("锅炉水位", 2), ("x", 3), ("y", 4)):
        writer.write(row)
        states.append(stream.flushed)
    assert states[0] == "tag   value\nTemp  1\n"
    assert states[-1] == ("tag   value\n"
                          "Temp  1\n"
                          "锅炉水位  2\n"
                          "x         3\n"
                          "y         4\n")
    writer.close()
    assert stream.flushed == states[-1]


def test_a_live_table_without_rows_is_its_header():
    stream = Stream()
    open_writer("table", ("tag", "value"), stream, live=True).close()
    assert stream.flushed == "tag  value\n"


def test_a_table_cannot_move_the_cursor():
    assert written("table", ("a\x1b[H",), ("\x1b[2J\r\n",)) == "a\\x1b[H\n\\x1b[2J\\r\\n\n"


# ---- JSON ----------------------------------------------------------------------------------------

def test_json_is_one_object_per_line():
    rows = (MOMENT, "温度", 81.5), (None, "b\n\"", True)
    assert written("json", ("time", "tag", "value"), *rows) == (
        '{"time": "2024-05-17T09:30:00.250000+05:30", "tag": "温度", "value": 81.5}\n'
        '{"time": null, "tag": "b\\n\\"", "value": true}\n')


def test_json_without_rows_is_nothing():
    assert written("json", ("a",)) == ""


@pytest.mark.parametrize("value, text", [
    (float("nan"), '"nan"'), (float("inf"), '"inf"'), (float("-inf"), '"-inf"'), (0.1, "0.1"),
    (2 ** 63, "9223372036854775808"), (Rights.WRITE, "8"), ((1, float("nan")), '[1, "nan"]'),
    ({"a": [MOMENT]}, '{"a": ["2024-05-17T09:30:00.250000+05:30"]}'),
    (datetime.datetime(2024, 5, 17, 9, 30), '"2024-05-17T09:30:00+08:00"'),
    (datetime.datetime(1, 1, 1), '"0001-01-01T00:00:00"'), ("\udc80", '"\\udc80"'),
    ("=1+1", '"=1+1"')])
def test_json_values(value, text):
    assert written("json", ("v",), (value,)) == '{"v": %s}\n' % text
    json.loads(text, parse_constant=pytest.fail)


def test_json_to_a_narrow_stream_is_ascii():
    stream = Stream()
    stream.encoding = "ascii"
    open_writer("json", ("v",), stream).write(("温\u2028",))
    assert stream.getvalue() == '{"v": "\\u6e29\\u2028"}\n'


# ---- CSV -----------------------------------------------------------------------------------------

def test_csv_has_a_header_and_exact_values():
    text = written("csv", ("time", "tag", "value"), (MOMENT, "温度", 0.1), (None, 'a,"b"\n', True),
                   (datetime.datetime(2024, 5, 17), "=1+1", float("nan")), ("", " x ", -5))
    assert text == ("time,tag,value\n"
                    "2024-05-17T09:30:00.250000+05:30,温度,0.1\n"
                    ',"a,""b""\n",true\n'
                    "2024-05-17T00:00:00+08:00,=1+1,nan\n"
                    ", x ,-5\n")
    assert list(csv.reader(io.StringIO(text, newline="")))[2] == ["", 'a,"b"\n', "true"]


def test_csv_without_rows_is_its_header():
    assert written("csv", ("a", "b,c")) == 'a,"b,c"\n'


# ---- All -----------------------------------------------------------------------------------------

@pytest.mark.parametrize("form", FORMATS)
def test_a_live_writer_flushes_each_row(form):
    stream = Stream()
    writer = open_writer(form, ("a",), stream, live=True)
    for value in ("first", "second"):
        writer.write((value,))
        assert value in stream.flushed
    stream = Stream()
    open_writer(form, ("a",), stream).write(("first",))
    assert stream.flushed == ""


@pytest.mark.parametrize("form", FORMATS)
def test_rows_of_another_length_are_refused(form):
    writer = open_writer(form, ("a", "b"), Stream())
    for row in ((1,), (1, 2, 3)):
        with pytest.raises(ValueError, match="%d values for 2 columns" % len(row)):
            writer.write(row)


@pytest.mark.parametrize("form", ["table", "csv"])
def test_characters_that_the_stream_lacks_are_escaped(form):
    stream = Stream()
    stream.encoding = "gb2312"
    with open_writer(form, ("锅",), stream) as writer:
        writer.write(("ñ温",))
    assert stream.getvalue() == "锅\n\\xf1温\n"


def test_an_unknown_form_is_refused():
    with pytest.raises(ValueError, match="'xml' is none of table, json, csv"):
        open_writer("xml", ("a",), Stream())


@pytest.mark.parametrize("text", ["\r", "a\rb", "a\r\nb", "\n", '\r"'])
def test_csv_quotes_every_kind_of_line_end(text):
    out = written("csv", ("text", "next"), (text, 1))
    assert out == 'text,next\n"%s",1\n' % text.replace('"', '""')
    assert list(csv.reader(io.StringIO(out, newline=""))) == [["text", "next"], [text, "1"]]
