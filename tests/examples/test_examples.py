"""Every example does what it says, as a script against a simulated plant."""

import ast
import contextlib
import csv
import datetime
import glob
import json
import mailbox
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys

import pytest

from cache import cache_folder
from mail_server import MailServer
from running import EXAMPLES, LIMIT, Running, all_received, until, variables
from script import ROOT, environment, interpreter
from vzsim import SimProcess

PLANT = os.path.join(ROOT, "docs", "plant.json")
SCRIPTS = sorted(os.path.basename(path) for path in glob.glob(os.path.join(EXAMPLES, "[0-9]*.py")))
ARGUMENTS = {"01_read.py": 2, "02_write.py": 3, "03_watch.py": 2, "05_callbacks.py": 2,
             "06_poll.py": 3, "07_logger_service.py": 3, "08_alarm_mailer.py": 4,
             "09_asyncio_feed.py": 3}  # the fewest that they need


def source(name):
    with open(os.path.join(EXAMPLES, name), encoding="utf-8") as stream:
        return stream.read()


@pytest.fixture
def simulator():
    """The boiler of the tutorial; its clock stands still."""
    with SimProcess(PLANT, tick=0) as running:
        shutil.rmtree(cache_folder(running.address), True)
        yield running
        shutil.rmtree(cache_folder(running.address), True)


@pytest.fixture
def start(simulator):
    """Starts an example as the plant's operator, or another user; it is ended with the test."""
    with contextlib.ExitStack() as running:
        def run(name, *arguments, **login):
            return running.enter_context(Running(
                name, *arguments, env=variables(simulator.address, **login)))
        yield run


# ---- all of them ----------------------------------------------------------------------------


def test_there_are_ten():
    assert [name[:3] for name in SCRIPTS] == ["%02d_" % number for number in range(1, 11)]


@pytest.mark.parametrize("name", SCRIPTS)
def test_an_example_is_short_and_fit_for_the_oldest_interpreter(name):
    assert len(source(name).splitlines()) <= 40
    ast.parse(source(name), feature_version=(3, 7))


@pytest.mark.parametrize("name", sorted(ARGUMENTS))
def test_an_example_with_too_few_arguments_says_how_to_run_it(name):
    for count in range(ARGUMENTS[name]):
        with Running(name, *["1"] * count, env=variables("127.0.0.1:1")) as example:
            assert example.end() == 1
            assert "export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=" in example.text
            assert "\n    python3 %s " % name in example.text


@pytest.mark.parametrize("name", ["01_read.py", "03_watch.py", "04_alarms.py", "05_callbacks.py",
                                  "06_poll.py"])
def test_an_example_that_cannot_connect_says_so_in_a_line(name):
    arguments = ["1"] * ARGUMENTS.get(name, 0)
    with Running(name, *arguments, env=variables("127.0.0.1:1")) as example:
        assert example.end() == 1
        assert re.search(r"\Aconnecting to 127.0.0.1:1 as 'operator': .*\n\Z", example.text)


def test_the_readme_has_a_line_for_each():
    told = re.findall(r"^\| \[(\S+)\]\(\1\) \| \w.*\w.* \|$", source("README.md"), re.M)
    files = {name for name in os.listdir(EXAMPLES) if name.endswith(".py")}
    assert sorted(told) == sorted(files)
    assert all(os.path.exists(os.path.join(EXAMPLES, name))
               for name in re.findall(r"\]\(([^)]+)\)", source("README.md")))


# ---- 01 and 02 ------------------------------------------------------------------------------


def test_values_are_read_and_shown(start, simulator):
    simulator.set_value("Boiler", "Temp", 71.5)
    example = start("01_read.py", "Boiler", "Temp", "Name", "Valve", user="guest", password="")
    assert example.end() == 0
    assert [line.split(None, 1) for line in example.text.splitlines()] == [
        ["Temp", "71.5"], ["Name", "Boiler 1"], ["Valve", "True"]]


def test_a_tag_that_is_not_there_is_named(start):
    example = start("01_read.py", "Boiler", "Temp", "Presure")
    assert example.end() == 1
    assert "there is no 'Presure'" in example.text


@pytest.mark.parametrize("tag, number, value", [
    ("Setpoint", "82.5", 82.5), ("Setpoint", "20", 20.0), ("Setpoint", "95", 95.0),
    ("Mode", "2", 2), ("Level", "-3", -3)])
def test_a_number_is_written(start, simulator, tag, number, value):
    example = start("02_write.py", "Boiler", tag, number)
    assert example.end() == 0
    assert example.text == "%s is %s\n" % (tag, value)
    assert simulator.get_value("Boiler", tag) == value


@pytest.mark.parametrize("tag, number, why", [
    ("Setpoint", "19.9", "not written: 19.9 is outside 20 to 95"),
    ("Setpoint", "95.1", "not written: 95.1 is outside 20 to 95"),
    ("Setpoint", "nan", "not written: nan is outside 20 to 95"),
    ("Setpoint", "warm", "not written: could not convert string to float: 'warm'"),
    ("Level", "2.5", "not written: .*: the tag holds whole numbers"),
    ("Name", "2", "not written: .*: the tag holds text"),
    ("Presure", "2", "not written: .*: there is no 'Presure'")])
def test_a_number_that_may_not_be_written_is_not(start, simulator, tag, number, why):
    example = start("02_write.py", "Boiler", tag, number)
    assert example.end() == 1
    assert re.match(why, example.text)
    assert simulator.requests(codes="g") == []


def test_a_user_without_the_right_writes_nothing(start, simulator):
    example = start("02_write.py", "Boiler", "Setpoint", "80", user="guest", password="")
    assert example.end() == 1
    assert re.match("not written: .*has no right to write", example.text)
    assert simulator.get_value("Boiler", "Setpoint") == 70.0


def test_a_write_that_the_plant_does_not_take_is_found_out(start, simulator):
    simulator.fault("g", "silent")
    example = start("02_write.py", "Boiler", "Setpoint", "80")
    assert example.end() == 1
    assert example.text == "written, but Setpoint is still 70.0\n"


def test_a_write_whose_fate_is_not_known_is_told_as_such(start, simulator):
    simulator.fault("H", "close", skip=1)  # the first read learns the type
    example = start("02_write.py", "Boiler", "Setpoint", "80")
    assert example.end() == 1
    assert re.match("perhaps written: reading 'Setpoint'", example.text)
    assert simulator.get_value("Boiler", "Setpoint") == 80.0


# ---- 03, 04 and 05 --------------------------------------------------------------------------


def test_changes_are_shown_through_a_lost_connection_until_ctrl_c(start, simulator):
    example = start("03_watch.py", "Boiler", "Mode", "Valve")
    assert re.match(r"\d\d:\d\d:\d\d\.\d{3}  Mode = 1\n\Z", example.line("Mode"))
    example.line(r"  Valve = True\n\Z")
    simulator.set_value("Boiler", "Mode", 2)
    example.line(r"  Mode = 2\n\Z")
    simulator.drop_clients()
    example.line(r"  Mode = 2  \(read anew, the connection was lost\)\n\Z")
    assert example.end(signal.SIGINT) == 0


def test_active_and_new_alarms_are_shown_until_ctrl_c(start, simulator):
    with simulator.alarm("Boiler", "Temp"):
        example = start("04_alarms.py")
        example.line(r"\A\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  level 3  "
                     r"Temp: High raised, value 9\d\S*, limit 90\n\Z")
    example.line("level 3  Temp: High cleared, value 8")
    assert example.end(signal.SIGINT) == 0


def test_alarms_below_the_level_are_left_out(start, simulator):
    example = start("04_alarms.py", "4")
    simulator.wait_requests(1, codes="n")
    for level in (3, 4, 2, 5):
        simulator.raise_alarm(level=level)
    example.line("level 5")
    assert re.findall("level ([0-9])", example.text) == ["4", "5"]
    assert example.end(signal.SIGINT) == 0


def test_functions_hear_of_changes_errors_and_states(start, simulator):
    example = start("05_callbacks.py", "Boiler", "Setpoint", "Name")
    example.line(r"\Astate: live\n")
    example.line(r"\ASetpoint 70.0 °C\n")
    example.line(r"\Aon_change failed: KeyError\('Name'\)\n")
    simulator.set_value("Boiler", "Setpoint", 75.5)
    example.line(r"\ASetpoint 75.5 °C\n")
    simulator.drop_clients()
    example.line(r"\Astate: lost \(the server closed the connection\)\n")
    example.line(r"\Astate: live\n")
    assert example.end(signal.SIGINT) == 0
    lines = example.text.splitlines()
    assert lines.count("Setpoint 75.5 °C") == lines.count("on_change failed: KeyError('Name')") == 2
    assert lines[-1] == "state: closed"


# ---- 06 -------------------------------------------------------------------------------------


def test_rows_go_on_behind_an_outage(start, simulator):
    example = start("06_poll.py", "0.05", "Boiler", "Temp", "Name")
    simulator.set_value("Boiler", "Name", 'Boiler "1", old')
    moment, *values = next(csv.reader([example.line("old")]))
    assert values[1:] == ['Boiler "1", old']
    assert datetime.datetime.fromisoformat(moment).tzinfo is not None
    with simulator.outage():
        example.line("no values: reading 'Temp', 'Name' of 'Boiler' .* there is no connection")
        simulator.set_value("Boiler", "Temp", 33.25)
    example.line(",33.25,")
    assert example.end(signal.SIGINT) == 0


# Time goes by when it sleeps and with each read alone.
CLOCK = """
import runpy, sys, time
import vzclient
now, slept, read = 0.0, [], vzclient.Driver.read

def sleep(seconds):
    global now
    slept.append(seconds)
    now += seconds
    if len(slept) == 3:
        print("slept", slept)
        raise KeyboardInterrupt

def slow_read(*arguments):
    global now
    now += took.pop(0)
    return read(*arguments)

took = [float(seconds) for seconds in sys.argv.pop(1).split(",")]
time.monotonic, time.sleep, vzclient.Driver.read = lambda: now, sleep, slow_read
sys.argv.pop(0)
runpy.run_path(sys.argv[0], run_name="__main__")
"""


@pytest.mark.parametrize("took, slept", [
    ("0.25,0.25,0.25", "[0.75, 0.75, 0.75]"), ("1,1,0.5", "[0.0, 0.0, 0.5]"),
    ("2.5,0.25,0.25", "[0.0, 0.75, 0.75]")])
def test_reads_neither_drift_nor_catch_up(simulator, took, slept):
    done = subprocess.run(
        interpreter() + ["-c", CLOCK, took, os.path.join(EXAMPLES, "06_poll.py"), "1", "Boiler",
                         "Temp"],
        env=variables(simulator.address), stdout=subprocess.PIPE, encoding="utf-8", timeout=LIMIT)
    assert done.stdout.splitlines()[-1] == "slept " + slept
    assert done.returncode == 0


# ---- 07 -------------------------------------------------------------------------------------


def rows(path):
    """The tags and values that are logged, in order."""
    if not os.path.exists(path):
        return []
    with contextlib.closing(sqlite3.connect(path, timeout=LIMIT)) as database:
        if not database.execute("SELECT * FROM sqlite_master").fetchall():
            return []
        return database.execute("SELECT tag, value, resynced FROM changes").fetchall()


def test_changes_are_logged_through_a_lost_connection_and_a_restart(start, simulator, tmp_path):
    path = str(tmp_path / "changes.db")
    example = start("07_logger_service.py", path, "Boiler", "Setpoint", "Started")
    first = [("Setpoint", 70.0, 0), ("Started", "2024-05-17 09:30:00", 0)]
    until(lambda: len(rows(path)) == 2)
    assert [(tag, str(value)[:19] if tag == "Started" else value, resynced)
            for tag, value, resynced in rows(path)] == first
    simulator.set_value("Boiler", "Setpoint", 71.0)
    until(lambda: rows(path)[2:] == [("Setpoint", 71.0, 0)])
    simulator.drop_clients()
    until(lambda: ("Setpoint", 71.0, 1) in rows(path)[3:])
    assert example.end(signal.SIGTERM) == 0
    assert example.text == ""
    before = rows(path)
    example = start("07_logger_service.py", path, "Boiler", "Setpoint")
    until(lambda: rows(path)[len(before):] == [("Setpoint", 71.0, 0)])
    assert example.end(signal.SIGINT) == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_what_had_come_before_the_signal_is_logged(start, simulator, tmp_path, number):
    path = str(tmp_path / "changes.db")
    example = start("07_logger_service.py", path, "Boiler", "Setpoint")
    until(lambda: len(rows(path)) == 1)
    with contextlib.closing(sqlite3.connect(path)) as reader:
        reader.execute("BEGIN EXCLUSIVE")  # it cannot write meanwhile
        simulator.burst("Boiler", "Setpoint", range(3000))
        until(lambda: all_received(simulator.port))
        example.process.send_signal(number)
        reader.rollback()
    assert example.end() == 0
    assert [value for _, value, _ in rows(path)] == [70.0] + list(range(3000))


def test_the_time_that_is_logged_is_understood_by_sqlite(start, tmp_path):
    path = str(tmp_path / "changes.db")
    example = start("07_logger_service.py", path, "Boiler", "Mode")
    until(lambda: rows(path))
    with contextlib.closing(sqlite3.connect(path)) as database:
        assert database.execute("SELECT driver, abs(julianday('now') - julianday(time)) < 0.1 "
                                "FROM changes").fetchall() == [("Boiler", 1)]
    assert example.end(signal.SIGTERM) == 0


def test_the_unit_of_the_logger_has_no_mistakes():
    if not shutil.which("systemd-analyze"):
        pytest.skip("systemd-analyze is not there")
    found = subprocess.run(
        ["systemd-analyze", "--no-pager", "verify", "--man=no",
         os.path.join(EXAMPLES, "07_logger_service.service")],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")
    assert (found.returncode, found.stdout) == (0, "")


# ---- 08 -------------------------------------------------------------------------------------


@pytest.fixture
def mail_server():
    """A mail server that is away at first."""
    with MailServer() as server:
        yield server


@pytest.fixture
def mailer(start, mail_server, tmp_path):
    """Starts the mailer; its folder is kept."""
    return lambda: start("08_alarm_mailer.py", mail_server.address, "plant@example.org",
                         "shift@example.org", str(tmp_path / "outbox"))


def waiting(tmp_path):
    """How many mails are in the folder."""
    return len(mailbox.Maildir(str(tmp_path / "outbox")).keys())


def subjects(mail_server, count):
    return sorted(mail_server.mails.get(timeout=LIMIT)["Subject"] for _ in range(count))


def test_alarms_are_mailed_when_the_mail_server_comes(mailer, mail_server, simulator, tmp_path):
    with simulator.alarm("Boiler", "Temp"):
        example = mailer()
        example.line(r"\Amails wait: .*refused")
    mail_server.refusals = 1
    mail_server.come()
    example.line(r"\Amails wait: .*not now")
    mail = mail_server.mails.get(timeout=LIMIT)
    assert (mail["From"], mail["To"]) == ("plant@example.org", "shift@example.org")
    text = mail.get_content()
    assert re.search("^value: 9", text, re.M) and re.search("^limit: 90.0$", text, re.M)
    assert {mail["Subject"]} | set(subjects(mail_server, 1)) == {"Temp High on", "Temp High off"}
    until(lambda: not waiting(tmp_path))
    assert example.end(signal.SIGTERM) == 0
    assert mail_server.mails.empty()


@pytest.mark.parametrize("number, code", [
    (signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -signal.SIGKILL)])
def test_mails_wait_over_a_restart(mailer, mail_server, simulator, tmp_path, number, code):
    with simulator.alarm("Boiler", "Temp"):
        example = mailer()
        until(lambda: waiting(tmp_path) == 1)
    until(lambda: waiting(tmp_path) == 2)
    assert example.end(number) == code
    mail_server.come()
    example = mailer()
    assert subjects(mail_server, 2) == ["Temp High off", "Temp High on"]
    until(lambda: not waiting(tmp_path))
    assert example.end(signal.SIGTERM) == 0
    assert mail_server.mails.empty()


def test_alarms_that_had_come_before_the_signal_are_kept(mailer, simulator, tmp_path):
    with simulator.alarm("Boiler", "Temp"):
        example = mailer()
        until(lambda: waiting(tmp_path) == 1)
        for number in range(30):
            simulator.raise_alarm(level=number, active=False)
        until(lambda: all_received(simulator.port))
        assert example.end(signal.SIGTERM) == 0
    assert waiting(tmp_path) == 31


def test_an_alarm_that_cannot_be_kept_is_told(mailer, simulator, tmp_path):
    example = mailer()
    simulator.wait_requests(1, codes="n")
    shutil.rmtree(str(tmp_path / "outbox"))
    with simulator.alarm("Boiler", "Temp"):
        example.line(r"\A\[Errno 2\] No such file or directory: '.*/outbox/tmp/")
    assert example.end(signal.SIGTERM) == 0


def test_names_beyond_ascii_are_mailed(mail_server, tmp_path):
    mail_server.come()
    with SimProcess("boiler_house", tick=0) as simulator:
        with simulator.alarm("Boiler", "锅炉水位", "Low"):
            with Running("08_alarm_mailer.py", mail_server.address, "a@example.org",
                         "b@example.org", str(tmp_path / "outbox"),
                         env=variables(simulator.address, password="password")) as example:
                mail = mail_server.mails.get(timeout=LIMIT)
                assert mail["Subject"] == "锅炉水位 Low on"
                assert "tag: 锅炉水位\n" in mail.get_content()
                assert example.end(signal.SIGTERM) == 0
        shutil.rmtree(cache_folder(simulator.address), True)


# ---- 09 -------------------------------------------------------------------------------------

HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n"


class Reader:
    """A client of the feed; a context manager."""

    def __init__(self, feed, receive_buffer=None):
        port = int(re.search(r"serving on port (\d+)", feed.text).group(1))
        self._socket = socket.socket()
        self._socket.settimeout(LIMIT)
        if receive_buffer:
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self._socket.connect(("127.0.0.1", port))
        self._socket.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        self.data = b""

    def until(self, found):
        """Read on until the bytes have this in them."""
        while found not in self.data:
            data = self._socket.recv(1 << 20)
            assert data, self.data
            self.data += data

    def to_end(self):
        """Read on to the end of the connection; returns all bytes."""
        with contextlib.suppress(ConnectionResetError):
            while True:
                data = self._socket.recv(1 << 20)
                if not data:
                    break
                self.data += data
        return self.data

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self._socket.close()


@pytest.fixture
def feed(start):
    """The feed of two tags."""
    example = start("09_asyncio_feed.py", "0", "Boiler", "Setpoint", "Mode")
    example.line("serving on port")
    return example


def events(data):
    """The changes of a stream, which begins with its head."""
    assert data.startswith(HEAD)
    parts = data[len(HEAD):].split(b"\n\n")
    assert parts.pop() == b"" and all(part.startswith(b"data: ") for part in parts)
    return [json.loads(part[len(b"data: "):].decode("ascii")) for part in parts]


def test_all_clients_get_the_present_values_and_every_change(feed, simulator):
    with Reader(feed) as early:
        early.until(b'data: ["Boiler", "Setpoint", 70.0, "20')
        simulator.set_value("Boiler", "Setpoint", 71.0)
        early.until(b"71.0")
        with Reader(feed) as late, Reader(feed) as gone:
            gone.until(b"71.0")
            gone.__exit__()
            simulator.set_value("Boiler", "Mode", 2)
            simulator.set_value("Boiler", "Mode", 3)
            early.until(b'"Mode", 3')
            late.until(b'"Mode", 3')
            assert feed.end(signal.SIGTERM) == 0
            present = events(late.to_end())
            assert sorted(event[:3] for event in present[:2]) == [
                ["Boiler", "Mode", 1], ["Boiler", "Setpoint", 71.0]]
            assert [event[:3] for event in present[2:]] == [
                ["Boiler", "Mode", 2], ["Boiler", "Mode", 3]]
            assert events(early.to_end())[-3][1:3] == ["Setpoint", 71.0]
            assert [event[4] for event in present] == [False] * 4
    assert feed.text.count("\n") == 1


def test_a_client_that_does_not_read_is_dropped_and_others_are_served_on(feed, simulator):
    idle = feed.sockets()
    with Reader(feed) as fast, Reader(feed, receive_buffer=4096) as slow:
        until(lambda: feed.sockets() == idle + 2)
        number = 0
        while feed.sockets() > idle + 1:
            simulator.burst("Boiler", "Setpoint", range(number, number + 4000))
            number += 4000
            fast.data = fast.data[-200:]
            fast.until(b'"Setpoint", %d.0' % (number - 1))
            assert number < 1000000, "nobody is dropped"
        simulator.set_value("Boiler", "Mode", 7)
        fast.until(b'"Mode", 7')
        assert b'"Mode", 7' not in slow.to_end()
        assert b'"Setpoint", 0.0' in slow.data
        assert feed.end(signal.SIGINT) == 0


# ---- 10, and those for VzDBAccess -----------------------------------------------------------


def test_the_suite_of_tests_passes():
    done = subprocess.run(
        interpreter() + ["-m", "pytest", "-q", "-p", "no:cacheprovider",
                         os.path.join(EXAMPLES, "10_test_your_script.py")],
        env=environment(), stdout=subprocess.PIPE, encoding="utf-8", timeout=2 * LIMIT)
    assert done.returncode == 0, done.stdout
    assert "2 passed" in done.stdout


def test_the_demo_shows_the_tour_and_the_watch():
    done = subprocess.run([sys.executable, os.path.join(EXAMPLES, "demo.py")], env=environment(),
                          stdout=subprocess.PIPE, encoding="utf-8", timeout=2 * LIMIT)
    assert done.returncode == 0, done.stdout
    assert "SetTagValue gave 0" in done.stdout
    assert re.search(r"^\d\d:\d\d:\d\d  Boiler.Steam pressure = ", done.stdout, re.M)
