"""vzclient record and replay: everything is written however it ends, and comes again as it was."""

import csv
import datetime
import json
import os
import re
import select
import signal
import sqlite3
import subprocess

import pytest

from command import LIMIT, Command, until
from plants import SMALL_PLANT
from prelude import host_of
from test_cli_following import ALARM_PLANT
from vzclient.cli import replay as replaying
from vzclient.cli.options import CommandError
from vzclient.cli.recording import Recorder, Row, rows

ENDINGS = pytest.mark.parametrize("ending", [".csv", ".sqlite"])


@pytest.fixture
def path(tmp_path, ending):
    return str(tmp_path / ("tape" + ending))


def tape(path):
    """Rows that are in the file already, without what differs from time to time."""
    try:
        return [(row.event, row.driver, row.tag, row.value, row.resynced) for row in rows(path)]
    except (OSError, sqlite3.OperationalError, CommandError):  # it is being made
        return []


def change(tag, value, resynced=False, driver="line1"):
    return ("change", driver, tag, value, resynced)


@ENDINGS
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_all_that_came_is_written_at_a_signal(sim, vz, path, number):
    with vz.start("record", path, "line1", "a", "r8", "--also", "wide", "t0001") as running:
        until(lambda: len(tape(path)) == 3)
        sim.push_series("line1", "a", 3000)
        sim.set_value("line1", "r8", 2.5)
        vz("read", "line1", "a")
        until(lambda: change("r8", 2.5) in tape(path))
        sim.set_value("line1", "a", -1)
        sim.set_value("wide", "t0001", 5)
        vz("read", "line1", "a")  # so it has been sent
        assert running.end(number) == (0, "", "")
    found = tape(path)
    assert found[:3] == [change("a", 1), change("r8", 0.1), change("t0001", 1, driver="wide")]
    assert found[3:3003] == [change("a", value) for value in range(3000)]
    assert found[3003:] == [change("r8", 2.5), change("a", -1), change("t0001", 5, driver="wide")]


@ENDINGS
def test_what_came_is_written_soon(sim, vz, path):
    with vz.start("record", "--no-alarms", path, "line1", "a") as running:
        until(lambda: tape(path) == [change("a", 1)])
        sim.set_value("line1", "a", 2)
        until(lambda: tape(path) == [change("a", 1), change("a", 2)])
        assert running.process.poll() is None
    assert sim.requests(codes="n") == []


@ENDINGS
def test_a_killed_recording_has_what_was_flushed(sim, vz, path):
    with vz.start("record", path, "line1", "a") as running:
        until(lambda: tape(path) == [change("a", 1)])
        running.end(signal.SIGKILL)
    assert tape(path) == [change("a", 1)]
    assert vz("record", path, "line1", "a", "--duration", "0.1").code == 0
    assert tape(path) == [change("a", 1), change("a", 1)]


@ENDINGS
def test_a_duration_ends_a_recording(vz, path):
    assert vz("record", path, "--duration", "0.1", "line1", "a") == (0, "", "")
    assert tape(path) == [change("a", 1)]


@ENDINGS
def test_a_lost_connection_is_a_row_that_says_so(sim, vz, path):
    with vz.start("record", path, "line1", "a") as running:
        until(lambda: tape(path) == [change("a", 1)])
        sim.set_listening(False)
        sim.drop_clients()
        until(lambda: len(tape(path)) == 2)
        sim.set_value("line1", "a", 2)
        sim.set_listening(True)
        until(lambda: change("a", 2, True) in tape(path))
        running.end(signal.SIGTERM)
    first, lost, *again = tape(path)
    assert first == change("a", 1)
    assert lost[0] == "lost" and lost[3] == "the server closed the connection"
    assert sorted(row[0] for row in again) == ["change", "live"]
    assert change("a", 2, True) in again


def test_without_reconnecting_the_end_is_code_2_and_written(sim, vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    with vz.start("record", path, "line1", "a", "--no-reconnect") as running:
        until(lambda: tape(path) == [change("a", 1)])
        sim.drop_clients()
        code, _, err = running.end()
    assert (code, err.count("\n")) == (2, 1)
    assert [row[0] for row in tape(path)] == ["change", "lost"]


@ENDINGS
def test_alarms_are_recorded(simulate, path):
    sim = simulate(ALARM_PLANT)
    sim.set_value("Boiler", "Temp", 90.0)
    with Command(VZCLIENT_HOST=host_of(sim)).start("record", path) as running:
        until(lambda: len(tape(path)) == 1)
        sim.set_value("Boiler", "Temp", 20.0)
        until(lambda: len(tape(path)) == 2)
        assert running.end(signal.SIGTERM).code == 0
    raised, cleared = rows(path)
    assert raised[1:7] == ("alarm", None, "Temp", "float", 90.0, False)
    assert raised[8:] == (None, "too high", "锅炉", 2, 80.0, 1)
    assert (cleared.value, cleared.status) == (20.0, 0)
    assert cleared.event_time >= raised.alarm_time == cleared.alarm_time


@ENDINGS
def test_files_take_turns_by_age(sim, vz, path, ending):
    old = path.replace(ending, ".%d" + ending)
    values = iter(range(2, 1000000))
    limits = ["--rotate-age", "0.2", "--keep", "2"]
    with vz.start("record", path, "line1", "a", "b", *limits) as running:
        def turned():
            sim.set_value("line1", "a", next(values))
            return os.path.exists(old % 2)
        until(turned)
        until(lambda: not os.path.exists(old % 3) and len(tape(path)) > 1)
        running.end(signal.SIGTERM)
    assert sorted(os.listdir(os.path.dirname(path))) == sorted(
        os.path.basename(name) for name in (path, old % 1, old % 2))
    assert [row[2] for row in tape(old % 1)[:2]] == ["a", "b"]  # each begins with both
    assert all(row[4] for row in tape(old % 1)[:2])


@ENDINGS
def test_files_take_turns_by_size(sim, vz, path, ending):
    limit = 16384
    old = path.replace(ending, ".%d" + ending)
    with vz.start("record", path, "line1", "a", "--rotate-size", "16K", "--keep", "3") as running:
        until(lambda: tape(path))
        sim.push_series("line1", "a", 2000)
        until(lambda: change("a", 1999) in tape(path))
        running.end(signal.SIGTERM)
    assert sorted(os.listdir(os.path.dirname(path))) == sorted(
        os.path.basename(name) for name in (path, old % 1, old % 2, old % 3))
    assert all(os.path.getsize(old % number) < limit + 16384 for number in (1, 2, 3))
    found = [row[3] for name in (old % 3, old % 2, old % 1, path)
             for row in tape(name) if not row[4]]
    assert found == list(range(found[0], 2000))


def test_a_recording_that_cannot_begin_leaves_no_file(sim, vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    assert vz("record", path, "line1", "a", VZCLIENT_PASSWORD="wrong").code == 2
    assert not os.path.exists(path)
    assert vz("record", "/nowhere/tape.csv", "line1", "a") == (
        1, "", "vzclient: /nowhere/tape.csv: No such file or directory\n")
    code, _, err = vz("record", "/nowhere/tape.db", "line1", "a")
    assert (code, err) == (1, "vzclient: /nowhere/tape.db: unable to open database file\n")
    assert vz("record", path, "line1", "nothing").code == 4
    assert not os.path.exists(path)


def test_a_file_of_something_else_is_left_alone(vz, tmp_path):
    path = tmp_path / "tape.csv"
    path.write_text("mine\n")
    assert vz("record", str(path), "line1", "a") == (1, "", "vzclient: %s is no recording\n" % path)
    assert path.read_text() == "mine\n"


@ENDINGS
def test_a_file_that_cannot_grow_ends_the_recording(sim, vz, path):
    limited = ["bash", "-c", 'ulimit -f 64; exec "$@"', "bash"]  # KiB
    with vz.start("record", path, "line1", "a", prefix=limited) as running:
        until(lambda: tape(path))
        sim.push_series("line1", "a", 5000)
        code, _, err = running.end()
    assert code == 1 and err.count("\n") == 1
    assert err.startswith("vzclient: %s: " % path)


# ---- Replays -------------------------------------------------------------------------------------

def listening(running):
    """The host text of a replay that has begun."""
    return re.fullmatch(r"vzclient: replay listening on (127\.0\.0\.1:\d+)",
                        running.read_line()).group(1)


KINDS = [tag["name"] for tag in SMALL_PLANT["drivers"][0]["tags"]]


@ENDINGS
def test_a_replay_is_read_as_the_plant_was(sim, vz, path):
    with vz.start("record", path, "line1", *(KINDS + ["--also", "锅炉", "x"])) as running:
        until(lambda: len(tape(path)) == len(KINDS) + 1)
        for tag, value in (("i2", 12), ("r4", 0.1), ("r8", float("inf")), ("str", "阀门, \"2\"\n"),
                           ("bool", False), ("date", 45429.25), ("i8", -2 ** 63), ("水位", -5)):
            sim.set_value("line1", tag, value)
        until(lambda: change("水位", -5) in tape(path))
        running.end(signal.SIGTERM)
    with vz.start("replay", path, "--port", "0", "--speed", "100000") as running:
        host = listening(running)
        assert running.read_line() == "vzclient: replay of 27 changes and alarms done"
        for command in (["line1"] + KINDS, ["锅炉", "x"]):
            was = vz("read", "--json", *command)
            assert was.code == 0
            assert vz("read", "--json", *(command + ["--host", host])) == was
        assert running.end(signal.SIGTERM) == (0, "", "")


def test_a_replay_changes_as_the_plant_did(sim, vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    with vz.start("record", path, "line1", "a", "r8") as running:
        until(lambda: len(tape(path)) == 2)
        for value in (5, 6, 5, 7):
            sim.set_value("line1", "a", value)
            sim.set_value("line1", "r8", value / 10)
        until(lambda: change("r8", 0.7) in tape(path))
        running.end(signal.SIGINT)
    with vz.start("replay", path, "--port", "0", "--wait", "--speed", "10", "--end") as running:
        host = listening(running)
        again = str(tmp_path / "again.csv")
        with vz.start("record", again, "line1", "a", "r8", "--host", host) as recording:
            until(lambda: change("r8", 0.7) in tape(again))
            recording.end(signal.SIGTERM)
        assert running.end() == (0, "vzclient: replay of 10 changes and alarms done\n", "")

    def values(path, tag):
        return [row[3] for row in tape(path) if row[2] == tag and not row[4]]
    # What changes while a client subscribes is told once, as its first value.
    assert values(path, "a") == [1, 5, 6, 5, 7]
    for tag in ("a", "r8"):
        found = values(again, tag)
        assert found == values(path, tag)[-len(found):]


def test_a_replay_raises_alarms_and_clears_them(simulate, tmp_path):
    sim = simulate(ALARM_PLANT)
    path = str(tmp_path / "tape.csv")
    vz = Command(VZCLIENT_HOST=host_of(sim))
    with vz.start("record", path) as running:
        sim.wait_requests(1, codes="n")
        for count, value in enumerate((90.0, 20.0, 95.0), 1):
            sim.set_value("Boiler", "Temp", value)
            until(lambda: len(tape(path)) == count)
        running.end(signal.SIGTERM)
    assert [row.status for row in rows(path)] == [1, 0, 1]
    with vz.start("replay", path, "--port", "0", "--speed", "100000") as running:
        host = listening(running)
        running.read_line()
        out = vz("alarms", "--host", host, "--json", "--count", "1").out
        assert out == vz("alarms", "--json", "--count", "1").out
        assert json.loads(out)["kind"] == "too high"
        assert len(vz("alarms", "--host", host, "--csv", "--duration", "0.2").out.splitlines()) == 2


@pytest.mark.parametrize("year,shown", [(1969, "1970-01-01T00:00:00+00:00"),
                                        (2107, "2106-02-07T06:28:15+00:00")])
def test_an_alarm_of_a_time_that_the_wire_has_not_is_played_as_of_the_nearest(
        tmp_path, year, shown):
    path = str(tmp_path / "tape.csv")
    recorder = Recorder(path)
    begun = datetime.datetime(2024, 5, 17, 9, 30, tzinfo=datetime.timezone.utc)
    alarm = datetime.datetime(year, 12, 31, tzinfo=datetime.timezone.utc)
    recorder.write(Row(begun, "alarm", None, "t", "float", 1.0, False, alarm, None, "high", "g", 1,
                       2.0, 1))
    recorder.close()
    vz = Command(VZCLIENT_USER="operator", VZCLIENT_PASSWORD="password", TZ="UTC")
    with vz.start("replay", path, "--port", "0", "--speed", "1e9") as running:
        host = listening(running)
        running.read_line()
        out = vz("alarms", "--host", host, "--json", "--count", "1").out
    assert json.loads(out)["time"] == shown


def test_files_of_a_recording_are_played_in_their_order(sim, vz, tmp_path):
    path = str(tmp_path / "tape.db")
    recorder = Recorder(path, age=2.0)
    start = datetime.datetime(2024, 5, 17, 9, 30, tzinfo=datetime.timezone.utc)
    for number in range(6):
        recorder.write(Row(start + datetime.timedelta(hours=number), "change", "D", "t", "int",
                           number, False))
    recorder.close()
    names = [str(tmp_path / name) for name in os.listdir(str(tmp_path))]
    assert len(names) == 6
    names.sort(reverse=True)
    with vz.start("replay", *names, "--port", "0", "--speed", "1e9") as running:
        host = listening(running)
        running.read_line()
        assert vz("read", "D", "t", "--csv", "--host", host).out == "tag,value\nt,5\n"


class FakeEnding:
    """Notes how long it is waited for."""

    def __init__(self):
        self.waits = []

    def wait(self, timeout):
        self.waits.append(timeout)
        return False


class FakeSimulator:
    def __init__(self):
        self.calls = []

    def set_value(self, *call):
        self.calls.append(call)


@pytest.mark.parametrize("speed", [1.0, 4.0])
def test_a_replay_keeps_the_pace_of_the_recording(tmp_path, monkeypatch, speed):
    path = str(tmp_path / "tape.csv")
    recorder = Recorder(path)
    start = datetime.datetime(2024, 5, 17, 9, 30, tzinfo=datetime.timezone.utc)
    for seconds in (0, 2, 2, 10, 9):  # a clock was set back
        recorder.write(Row(start + datetime.timedelta(seconds=seconds), "change", "D", "t", "int",
                           seconds, False))
    recorder.close()
    monkeypatch.setattr(replaying.time, "monotonic", lambda: 100.0)
    ending, simulator = FakeEnding(), FakeSimulator()
    options = type("Options", (), {"speed": speed})
    plant = replaying._Recorded([path])
    assert replaying._play(options, [path], plant, simulator, ending) is False
    assert ending.waits == [seconds / speed for seconds in (0, 2, 2, 10, 9)]
    assert simulator.calls == [("D", "t", seconds) for seconds in (0, 2, 2, 10, 9)]


def test_a_replay_ends_at_a_signal_also_when_nobody_has_come(vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    recorder = Recorder(path)
    start = datetime.datetime(2024, 5, 17, tzinfo=datetime.timezone.utc)
    for day in (1, 2):
        recorder.write(Row(start.replace(day=day), "change", "D", "t", "int", day, False))
    recorder.close()
    for more in ([], ["--wait"]):
        with vz.start("replay", path, "--port", "0", *more) as running:
            listening(running)
            assert running.end(signal.SIGINT) == (0, "", "")


def test_what_cannot_be_replayed_is_told(sim, vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    assert vz("replay", path) == (1, "", "vzclient: %s: No such file or directory\n" % path)
    recorder = Recorder(path)
    recorder.open()
    recorder.close()
    assert vz("replay", path) == (1, "", "vzclient: there is nothing to replay in this recording\n")
    recorder.write(Row(datetime.datetime.now().astimezone(), "change", "D", "t", "int", 1, False))
    recorder.close()
    code, out, err = vz("replay", path, "--port", str(sim.port))
    assert (code, out) == (1, "")
    assert err.startswith("vzclient: cannot listen on 127.0.0.1:%d: " % sim.port)


# ---- The simulator -------------------------------------------------------------------------------

def test_sim_is_the_simulator(vz):
    with vz.start("sim", "boiler_house", "--port", "0", "--tick", "0") as running:
        line = running.read_line()
        port = re.fullmatch(r"vzsim: boiler_house listening on 127\.0\.0\.1:(\d+)", line).group(1)
        done = vz("read", "Boiler", "Steam pressure", "--csv", "--host", "127.0.0.1:" + port)
        assert done == (0, "tag,value\nSteam pressure,8.0\n", "")
        assert running.end(signal.SIGTERM).code == 0


def test_sim_tells_its_own_options_and_fails_with_code_1(vz):
    assert "--redirect" in vz("sim", "--help").out
    assert vz("sim", "--help").code == 0
    assert vz("sim", "--bogus").code == 1
    assert vz("sim", "/nowhere.json").code == 1
    assert vz("-v", "sim", "/nowhere.json").code == 1


def test_sim_takes_orders_as_the_simulator_does(vz):
    with subprocess.Popen(vz.line("sim", "boiler_house", "--port", "0", "--control"),
                          env=vz.environment(), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as process:
        assert select.select([process.stdout], [], [], LIMIT)[0]
        assert b"listening" in process.stdout.readline()
        process.stdin.close()
        assert process.wait(timeout=LIMIT) == 0


def test_a_csv_recording_is_read_by_others(sim, vz, tmp_path):
    path = str(tmp_path / "tape.csv")
    assert vz("record", path, "line1", "str", "--duration", "0.1").code == 0
    with open(path, encoding="utf-8", newline="") as stream:
        (row,) = csv.DictReader(stream)
    assert (row["event"], row["driver"], row["tag"], row["type"], row["value"]) == (
        "change", "line1", "str", "text", "valve")
    assert datetime.datetime.fromisoformat(row["time"]).utcoffset() == datetime.timedelta(hours=8)
