"""vzclient watch, alarms and ping: what comes, when they end, and how."""

import datetime
import json
import os
import re
import signal
import subprocess

import pytest

from command import LIMIT, Command, until
from prelude import host_of

ALARM_PLANT = {
    "name": "alarms", "tick": 0,
    "drivers": [{"name": "Boiler", "tags": [
        {"name": "Temp", "type": "r8", "value": 20.0, "alarms": [
            {"high": 80.0, "text": "too high", "group": "锅炉", "level": 2}]}]}],
}

TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{6})?\+08:00\Z")


def rows(text):
    """Rows of JSON without their times, which must be ISO times of the zone."""
    found = [json.loads(line) for line in text.splitlines()]
    for row in found:
        assert TIME.match(row.pop("time"))
    return found


def change(tag, value, resynced=False):
    return {"tag": tag, "value": value, "resynced": resynced}


def test_a_watch_begins_with_the_values_and_goes_on_with_changes(sim, vz):
    with vz.start("watch", "line1", "a", "r8", "--json", "--count", "4") as running:
        begin = [running.read_line(), running.read_line()]
        sim.set_value("line1", "r8", 2.5)
        begin.append(running.read_line())
        sim.set_value("line1", "a", 7)
        code, out, err = running.end()
    assert (code, err) == (0, "")
    assert rows("\n".join(begin + [out])) == [
        change("a", 1), change("r8", 0.1), change("r8", 2.5), change("a", 7)]


def test_a_watch_comes_as_csv_and_as_table(vz):
    out = vz("watch", "line1", "a", "b", "--count", "2", "--csv").out
    assert [re.sub(r"^20.*?,", "T,", line) for line in out.splitlines()] == [
        "time,tag,value,resynced", "T,a,1,false", "T,b,2,false"]
    out = vz("watch", "line1", "a", "b", "--count", "2").out
    assert [re.sub(r"^20\d\d-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}", "T" + " " * 22, line)
            for line in out.splitlines()] == [
        "time                     tag  value  resynced",
        "T                        a    1      false",
        "T                        b    2      false"]


def test_a_duration_ends_a_watch(vz):
    code, out, err = vz("watch", "line1", "a", "--json", "--duration", "0.3")
    assert (code, rows(out), err) == (0, [change("a", 1)], "")


def test_a_watch_goes_on_over_a_lost_connection_and_tells(sim, vz):
    with vz.start("watch", "line1", "a", "--json", "--count", "2") as running:
        first = running.read_line()
        sim.drop_clients()
        code, out, err = running.end()
    assert code == 0
    assert rows(first + "\n" + out) == [change("a", 1), change("a", 1, True)]
    host = host_of(sim)
    assert re.fullmatch("vzclient: connection to %s lost: .*\n"
                        "vzclient: connection to %s regained after .* s\n" % (host, host), err)


def test_without_reconnecting_a_lost_connection_is_code_2(sim, vz):
    for command in (["watch", "line1", "a"], ["alarms"]):
        with vz.start(*command, "--no-reconnect", "--csv") as running:
            running.read_line()
            sim.wait_requests(1, codes="b" if command[0] == "watch" else "n")
            sim.drop_clients()
            code, _, err = running.end()
        assert (code, err.count("\n")) == (2, 1)
        assert "lost" in err


def test_ctrl_c_ends_with_130_and_says_nothing(sim, vz):
    for command in (["watch", "line1", "a"], ["alarms"], ["ping", "--count", "100"]):
        with vz.start(*command, "--csv") as running:
            running.read_line()
            code, _, err = running.end(signal.SIGINT)
        assert (code, err) == (130, "")


def test_ctrl_c_ends_a_connection_that_is_being_made(sim, vz):
    sim.fault("7", "silent")
    with vz.start("drivers", "--timeout", "1000") as running:
        sim.wait_requests(1, codes="7")
        assert running.end(signal.SIGINT) == (130, "", "")


@pytest.mark.parametrize("command", [
    "watch line1 a", "watch line1 a --json", "watch line1 a --plot"])
def test_a_watch_ends_quietly_when_nobody_reads_on(sim, vz, command):
    with vz.start(*command.split()) as running:
        running.read_line()
        running.process.stdout.close()
        numbers = iter(range(100, 1000000))

        def ended():
            sim.set_value("line1", "a", next(numbers))
            return running.process.poll() is not None
        until(ended)
        assert (running.process.returncode, running.errors()) == (0, "")


@pytest.mark.parametrize("command", ["drivers", "read line1 a --json", "--help",
                                     "completion bash"])
def test_a_result_ends_quietly_when_nobody_reads_it(vz, command):
    reading, writing = os.pipe()
    os.close(reading)
    try:
        done = subprocess.run(vz.line(*command.split()), env=vz.environment(), stdout=writing,
                              stderr=subprocess.PIPE, timeout=LIMIT)
    finally:
        os.close(writing)
    assert (done.returncode, done.stderr) == (0, b"")


def test_a_plot_without_a_terminal_is_a_line_for_each_value(vz):
    out = vz("watch", "line1", "a", "b", "--plot", "--count", "2").out
    assert [line.split(" ", 2)[2] for line in out.splitlines()] == ["a 1", "b 2"]


def test_a_plot_on_a_terminal_is_drawn(sim, vz):
    from test_cli_failing import Terminal
    command = Command(**dict(vz.variables, TERM="xterm", LINES="10", COLUMNS="40"))
    terminal = Terminal(command, "watch", "line1", "a", "--plot", "--span", "10", "--count", "2")
    terminal.wait_for("a  min 1  max 1  last 1")
    sim.set_value("line1", "a", 9)
    code, seen = terminal.end()
    assert code == 0
    assert "a  min 1  max 9  last 9" in seen and "\x1b[" in seen


# ---- Alarms --------------------------------------------------------------------------------------

COLUMNS = ["time", "event_time", "tag", "kind", "group", "level", "value", "limit", "status",
           "resynced"]


@pytest.fixture
def alarmed(simulate):
    """A plant with an active alarm, and the command for it."""
    sim = simulate(ALARM_PLANT)
    sim.set_value("Boiler", "Temp", 90.0)
    return sim, Command(VZCLIENT_HOST=host_of(sim))


def test_alarms_begin_with_the_active_ones(alarmed):
    sim, vz = alarmed
    with vz.start("alarms", "--json", "--count", "2") as running:
        first = running.read_line()
        sim.set_value("Boiler", "Temp", 20.0)
        code, out, err = running.end()
    assert (code, err) == (0, "")
    assert list(json.loads(first)) == COLUMNS
    raised, cleared = rows(first + "\n" + out)
    assert raised == {
        "event_time": None, "tag": "Temp", "kind": "too high", "group": "锅炉", "level": 2,
        "value": 90.0, "limit": 80.0, "status": 1, "resynced": False}
    assert TIME.match(cleared["event_time"])
    assert (cleared["status"], cleared["value"]) == (0, 20.0)


def test_alarms_come_as_csv_and_as_table(alarmed):
    _, vz = alarmed
    head, line = vz("alarms", "--existing", "--count", "1", "--csv").out.splitlines()
    assert head == ",".join(COLUMNS)
    assert line.partition(",")[2] == ",Temp,too high,锅炉,2,90.0,80.0,1,false"
    head, line = vz("alarms", "--count", "1").out.splitlines()
    assert head.split() == COLUMNS
    assert line.split()[2:] == ["Temp", "too", "high", "锅炉", "2", "90.0", "80.0", "1", "false"]


def test_the_active_alarms_can_be_left_out(alarmed):
    sim, vz = alarmed
    with vz.start("alarms", "--no-existing", "--json", "--count", "1") as running:
        sim.wait_requests(1, codes="n")
        sim.set_value("Boiler", "Temp", 20.0)
        (row,) = rows(running.end().out)
    assert row["status"] == 0


# ---- Ping ----------------------------------------------------------------------------------------

STEPS = ["lookup_ms", "connect_ms", "hello_ms", "notify_ms", "login_ms", "drivers_ms", "probe_ms"]


def test_ping_shows_the_time_of_each_step(vz):
    code, out, err = vz("ping", "--json", "--count", "3", "--interval", "0.01")
    assert (code, err) == (0, "")
    found = [json.loads(line) for line in out.splitlines()]
    assert [row["number"] for row in found] == [1, 2, 3]
    for row in found:
        assert list(row) == ["number"] + STEPS + ["total_ms"]
        assert all(row[step] >= 0 for step in STEPS)
        assert row["login_ms"] > 0
        assert row["total_ms"] == pytest.approx(sum(row[step] for step in STEPS), abs=0.1)


def test_a_slow_step_has_the_time_that_it_took(sim, vz):
    for code, step in (("7", "hello_ms"), ("8", "notify_ms"), ("9", "login_ms"),
                       ("4", "drivers_ms"), ("L", "probe_ms")):
        sim.fault(code, "delay", seconds=0.5)
        sim.set_login(dif_size=1)  # the driver file is wanted each time
        row = json.loads(vz("ping", "--json").out)
        assert {step for step in STEPS if row[step] >= 500} == {step}


def test_ping_of_a_host_name_looks_it_up(sim, vz):
    code, out, _ = vz("ping", "--host", "localhost:%d" % sim.port, "--csv")
    assert code == 0
    assert float(out.splitlines()[1].split(",")[1]) > 0


def test_ping_goes_on_after_a_failure_and_tells_its_code(sim, vz):
    sim.fault("9", "refuse")
    code, out, err = vz("ping", "--json", "--count", "2", "--interval", "0.01")
    first, second = [json.loads(line) for line in out.splitlines()]
    assert (code, err.count("\n")) == (2, 1)
    assert first["login_ms"] is not None
    assert (first["drivers_ms"], first["probe_ms"], first["total_ms"]) == (None, None, None)
    assert second["total_ms"] is not None


def test_ping_of_nobody_is_code_2_and_of_a_silent_server_3(sim, vz):
    code, out, err = vz("ping", "--csv", "--host", "127.0.0.1:1")
    assert (code, out.splitlines()[1].count(",")) == (2, 8)
    sim.fault("L", "silent")
    code, out, err = vz("ping", "--csv", "--timeout", "0.3")
    assert code == 3 and out.splitlines()[1].endswith(",,")
    assert err == ("vzclient: probing %s: connected, but the server does not answer\n"
                   % host_of(sim))


def test_ping_can_be_traced(vz):
    lines = vz("ping", "--trace", "-").err.splitlines()
    assert lines[0].endswith("request + opened")
    assert any("notify < login record" in line for line in lines)
    assert any("> look up line1" in line for line in lines)


def test_times_are_of_now(vz):
    before = datetime.datetime.now().astimezone()
    (line,) = vz("watch", "line1", "a", "--json", "--count", "1").out.splitlines()
    when = datetime.datetime.fromisoformat(json.loads(line)["time"])
    assert before <= when <= datetime.datetime.now().astimezone()
