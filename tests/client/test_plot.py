"""Trends drawn in a terminal: what stands where, and what comes when nothing can be drawn."""

import datetime
import io
import os
import time

import pytest

from vzclient.cli.plot import Plot, can_draw

START = datetime.datetime(2024, 5, 17, 4, 0, tzinfo=datetime.timezone.utc)


@pytest.fixture(autouse=True)
def surroundings(monkeypatch):
    """A good terminal, and a local time eight hours ahead."""
    monkeypatch.setenv("TERM", "xterm")
    monkeypatch.setenv("TZ", "CST-8")
    time.tzset()
    yield
    monkeypatch.undo()
    time.tzset()


class Terminal(io.StringIO):
    encoding = "UTF-8"
    terminal = True

    def isatty(self):
        return self.terminal


def at(seconds):
    return START + datetime.timedelta(seconds=seconds)


def drawn(tags, values, size=(11, 4), seconds=10.0, now=10.0):
    """The lines of one drawing of (tag, value, second) on a terminal of so many columns, lines.

    A graph has one column less than the terminal, and two columns of dots in each.
    """
    stream = Terminal()
    plot = Plot(tags, stream, seconds, lambda: os.terminal_size(size))
    for tag, value, second in values:
        plot.add(tag, value, at(second))
    plot.draw(at(now))
    text = stream.getvalue()
    assert text.endswith("\x1b[K\n\x1b[J") and text.count("\x1b") == text.count("\n") + 1
    return text[:-3].replace("\x1b[K", "").split("\n")[:-1]


def ramp(tag="a"):
    return [(tag, float(second), second) for second in range(11)]


# ---- Graphs --------------------------------------------------------------------------------------

def test_a_ramp_rises_from_the_lower_left():
    assert drawn(["a"], ramp(), (41, 4))[0] == "a  min 0  max 10  last 10"
    assert drawn(["a"], ramp())[1:] == ["      ⣀⡤⠖⠚", "⣀⡤⠤⠖⠋⠉⠁"]


def test_a_value_holds_until_the_next_and_a_step_is_a_vertical_line():
    assert drawn(["a"], [("a", 1, 0), ("a", 3, 4)], (9, 3), 8.0, 8.0)[1] == "⣀⣀⣀⣀⡏⠉⠉⠉"


def test_a_peak_within_one_column_is_seen():
    values = [("a", 0, 0), ("a", 5, 5.1), ("a", 0, 5.2)]
    assert drawn(["a"], values, (11, 3))[1] == "⣀⣀⣀⣀⣀⣇⣀⣀⣀⣀"


def test_a_constant_value_is_a_line_in_the_middle():
    assert drawn(["a"], [("a", 7, 0)], (41, 3)) == ["a  min 7  max 7  last 7", "⠤" * 40]


def test_nothing_is_drawn_before_the_first_value():
    assert drawn(["a"], [("a", 7, 5)], (11, 3))[1] == "     ⠤⠤⠤⠤⠤"
    assert drawn(["abc"], [], (41, 4)) == ["abc  no value yet", "", ""]


def test_values_older_than_the_axis_are_forgotten_but_for_the_one_that_holds():
    values = [("a", 100, 0), ("a", 1, 5), ("a", 2, 25)]
    assert drawn(["a"], values, (41, 3), 10.0, 30.0) == [
        "a  min 1  max 2  last 2", "⣀" * 20 + "⡏" + "⠉" * 19]


def test_the_right_end_is_the_time_of_drawing_and_later_values_stand_there():
    assert drawn(["a"], [("a", 1, 0), ("a", 2, 12)], (6, 3))[1] == "⣀⣀⣀⣀⣸"
    stream = Terminal()
    plot = Plot(["a"], stream, 1e9, lambda: os.terminal_size((11, 3)))
    plot.add("a", 1, START)
    plot.draw()
    assert stream.getvalue().split("\n")[1].startswith(" ")


def test_times_that_go_back_are_taken_as_the_latest():
    assert drawn(["a"], [("a", 1, 5), ("a", 2, 3)], (11, 3))[1] == "     ⡏⠉⠉⠉⠉"


@pytest.mark.parametrize("gap", [float("nan"), float("inf"), "off", None, START, 10 ** 400])
def test_what_has_no_height_leaves_a_gap(gap):
    lines = drawn(["a"], [("a", 1, 0), ("a", gap, 4), ("a", 1.5, 8)], (41, 3), 10.0)
    assert lines == ["a  min 1  max 1.5  last 1.5", "⣀" * 16 + "⡀" + " " * 15 + "⠉" * 8]


@pytest.mark.parametrize("value, text", [
    (float("nan"), "nan"), (float("-inf"), "-inf"), ("auto", "auto"), ("a\x1b\n", "a\\x1b\\n"),
    ("锅炉", "锅炉")])
def test_a_tag_that_has_only_such_values_has_an_empty_graph(value, text):
    assert drawn(["a"], [("a", value, 1)], (41, 3)) == ["a  last " + text, ""]


def test_truth_is_drawn_as_one_and_zero():
    assert drawn(["a"], [("a", False, 0), ("a", True, 5)], (11, 3))[1] == "⣀⣀⣀⣀⣀⡏⠉⠉⠉⠉"
    assert drawn(["a"], [("a", False, 0), ("a", True, 5)], (41, 3))[0] == (
        "a  min 0  max 1  last true")


@pytest.mark.parametrize("low, high", [(-1.7e308, 1.7e308), (0.0, 5e-324), (-10 ** 19, 2 ** 63)])
def test_ranges_beyond_measure_are_drawn(low, high):
    assert drawn(["a"], [("a", low, 0), ("a", high, 5)], (11, 3))[1] == "⣀⣀⣀⣀⣀⡏⠉⠉⠉⠉"


def test_figures_are_short():
    assert drawn(["a"], [("a", 0.1 + 0.2, 0), ("a", 2.0 / 3, 5)], (51, 3))[0] == (
        "a  min 0.3  max 0.666667  last 0.666667")


def test_points_of_a_tag_are_bounded(monkeypatch):
    monkeypatch.setattr("vzclient.cli.plot.MAX_POINTS", 3)
    assert drawn(["a"], ramp(), (41, 3))[0] == "a  min 8  max 10  last 10"


# ---- Panels --------------------------------------------------------------------------------------

def test_panels_share_the_height():
    lines = drawn(["a", "b"], ramp("a") + ramp("b"), (11, 8))
    assert lines == ["a  min 0  ", "      ⣀⡤⠖⠚", "⣀⡤⠤⠖⠋⠉⠁", "b  min 0  ", "      ⣀⡤⠖⠚", "⣀⡤⠤⠖⠋⠉⠁"]


def test_a_panel_has_at_most_eight_lines_of_graph():
    assert len(drawn(["a"], ramp(), (11, 9))) == 8
    assert len(drawn(["a"], ramp(), (11, 10))) == 9
    assert len(drawn(["a"], ramp(), (11, 99))) == 9


def test_panels_that_do_not_fit_are_counted():
    tags = ["a", "b", "c"]
    assert len(drawn(tags, [], (41, 7))) == 6
    assert drawn(tags, [], (41, 6)) == ["a  no value yet", "", "b  no value yet", "",
                                        "... and 1 more"]
    assert drawn(tags, [], (41, 5)) == ["a  no value yet", "", "... and 2 more"]
    assert drawn(tags, [], (41, 3)) == ["... and 3 more"]
    assert drawn(tags, [], (41, 0)) == ["... and 3 more"]


def test_a_line_is_cut_at_the_width_of_the_terminal():
    assert drawn(["锅炉/水位"], [("锅炉/水位", 1, 0)], (9, 3)) == ["锅炉/水", "⠤" * 8]
    assert drawn(["a\x1b"], [], (4, 3)) == ["a\\x", ""]
    assert drawn(["abc"], [("abc", 1, 0)], (0, 3)) == ["a", "⠤"]


# ---- Drawing -------------------------------------------------------------------------------------

def test_each_drawing_goes_over_the_last():
    stream = Terminal()
    sizes = [(41, 4), (41, 4), (30, 4), (30, 4)]
    plot = Plot(["a"], stream, 10.0, lambda: os.terminal_size(sizes.pop(0)))
    beginnings = []
    for _ in range(3):
        stream.seek(0)
        stream.truncate()
        plot.draw(START)
        beginnings.append(stream.getvalue().split("a  no")[0])
    assert beginnings == ["", "\x1b[3A", "\x1b[2J\x1b[H"]
    plot.close()
    stream.seek(0)
    stream.truncate()
    plot.draw(START)
    assert stream.getvalue() == "a  no value yet\x1b[K\n\x1b[K\n\x1b[K\n\x1b[J"


def test_values_of_other_tags_are_refused():
    with Plot(["a"], Terminal()) as plot:
        with pytest.raises(KeyError):
            plot.add("b", 1, START)


# ---- Without drawing -----------------------------------------------------------------------------

def test_only_a_utf8_terminal_that_moves_its_cursor_is_drawn_on(monkeypatch):
    assert can_draw(Terminal())
    for attribute, value in (("terminal", False), ("encoding", "gb18030"), ("encoding", "ascii"),
                             ("encoding", None), ("encoding", "no such")):
        stream = Terminal()
        setattr(stream, attribute, value)
        assert not can_draw(stream)
    for term in ("dumb", None):
        if term:
            monkeypatch.setenv("TERM", term)
        else:
            monkeypatch.delenv("TERM")
        assert not can_draw(Terminal())


def test_without_drawing_each_value_is_a_line():
    stream = Terminal()
    stream.terminal = False
    with Plot(["锅炉/a"], stream) as plot:
        assert not plot.draws
        for second, value in enumerate((81.5, float("nan"), "a\nb", True)):
            plot.add("锅炉/a", value, at(second + 0.25))
            plot.draw()
        with pytest.raises(KeyError):
            plot.add("b", 1, START)
    assert stream.getvalue() == ("2024-05-17 12:00:00.250 锅炉/a 81.5\n"
                                 "2024-05-17 12:00:01.250 锅炉/a nan\n"
                                 "2024-05-17 12:00:02.250 锅炉/a a\\nb\n"
                                 "2024-05-17 12:00:03.250 锅炉/a true\n")


def test_lines_go_to_a_narrow_stream_too():
    stream = Terminal()
    stream.encoding = "ascii"
    Plot(["锅"], stream).add("锅", "é", START)
    assert stream.getvalue() == "2024-05-17 12:00:00 \\u9505 \\xe9\n"
