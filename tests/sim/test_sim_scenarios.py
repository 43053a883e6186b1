"""Scenarios: what each does on the wire, simulated on a thread and in a process of its own."""

import copy
import errno
import os
import socket
import struct
import subprocess
import sys
import time

import pytest

from conftest import PYTHON, small_plant
from vzsim import PlantError, SimProcess, Simulator, plantfile, ramp, read_plant
from vzsim.channel import Channel
from wire_client import Client, connect, take, until_end

READ = b"H\x01\0\0\0\x01\0"
REPLY = b"H\0\x06\0\x03\0\x02\x01\0\0"
LEVEL = ("锅炉", "水位")


@pytest.fixture(params=[Simulator, SimProcess])
def sim(request):
    """The small plant with its clock stopped, on a thread and in a process."""
    with request.param(small_plant(), tick=0) as simulator:
        yield simulator


def changed_plant():
    """The small plant after an engineer's work: i2 is gone, so i4 has its id."""
    plant = small_plant()
    del plant["drivers"][0]["tags"][0]
    return plant


def i4_changes(data):
    return [value for _, _, value in struct.iter_unpack("<HHi", data)]


def nothing_comes(sock):
    """Whether nothing can be received at the moment."""
    sock.setblocking(False)
    try:
        sock.recv(1)
        return False
    except BlockingIOError:
        return True
    finally:
        sock.settimeout(30.0)


# ---- the address -----------------------------------------------------------------------------

def test_the_address_is_what_a_client_connects_to(sim):
    assert sim.address == "127.0.0.1:%d" % sim.port


@pytest.mark.parametrize("host", ["", "0.0.0.0"])
def test_a_plant_that_listens_everywhere_is_reached_at_this_machine(host):
    with Simulator(small_plant(), host=host) as sim:
        assert sim.address == "127.0.0.1:%d" % sim.port
        with connect(sim.port):
            sim.wait_clients(1, channel="request")


# ---- outages ---------------------------------------------------------------------------------

@pytest.mark.parametrize("kind", ["close", "reset"])
def test_an_outage_ends_all_connections_and_refuses_new_ones(client, sim, kind):
    with sim.outage(kind):
        for sock in (client.request, client.notify):
            if kind == "close":
                assert until_end(sock) == b""
            else:
                with pytest.raises(ConnectionResetError):
                    until_end(sock)
        with pytest.raises(ConnectionRefusedError):
            connect(sim.port)
        assert sim.client_count("request") == 0


def test_after_an_outage_the_same_plant_is_back_on_the_same_port(client, sim):
    port = sim.port
    sim.set_value("Types", "i4", 5)
    with sim.outage():
        assert sim.get_value("Types", "i4") == 5
        sim.set_value("Types", "i2", 6)
    assert sim.port == port
    with Client(port) as again:
        assert again.log_in()[:1] == b"9"
        assert again.read((0, 1), (0, 0)) == [b"\x03\0\x05\0\0\0" b"\x02\0\x06\0"]


def test_subscriptions_do_not_outlive_an_outage(client, sim):
    client.subscribe((0, 1))
    with sim.outage():
        pass
    with Client(sim.port) as again:
        again.log_in()
        sim.set_value("Types", "i4", 5)
        sim.push_raw(b"end")
        assert again.notify.recv(100) == b"end"


def test_an_outage_begins_and_ends_by_hand(sim):
    sim.begin_outage()
    with pytest.raises(RuntimeError):
        sim.begin_outage()
    sim.end_outage()
    sim.end_outage()
    with connect(sim.port):
        sim.wait_clients(1, channel="request")


def test_an_outage_ends_when_its_block_fails(sim):
    with pytest.raises(ZeroDivisionError):
        with sim.outage():
            1 / 0
    with connect(sim.port):
        sim.wait_clients(1, channel="request")


def test_an_outage_of_an_unknown_kind_does_not_begin(client, sim):
    with pytest.raises(ValueError):
        sim.begin_outage("explode")
    assert client.lookup(0, "i4") == [1]


@pytest.mark.parametrize("share", [False, True])
def test_nobody_else_gets_the_port_during_an_outage(client, sim, share):
    with sim.outage(), socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, share)
        with pytest.raises(OSError) as error:
            other.bind(("127.0.0.1", sim.port))
            other.listen(1)
        assert error.value.errno == errno.EADDRINUSE


def test_a_server_that_does_not_listen_cannot_go_away(sim):
    sim.set_listening(False)
    with pytest.raises(RuntimeError):
        sim.begin_outage()
    sim.set_listening(True)
    with connect(sim.port):
        sim.wait_clients(1, channel="request")


def test_a_closed_simulator_gives_its_port_up():
    with Simulator(small_plant(), tick=0) as sim:
        sim.begin_outage()
    with socket.socket() as other:
        other.bind(("127.0.0.1", sim.port))
        other.listen(1)


# ---- another plant ---------------------------------------------------------------------------

def test_a_plant_comes_back_with_other_ids_and_a_tag_less(client, sim):
    with sim.outage():
        sim.replace(changed_plant())
    with Client(sim.port) as again:
        again.log_in()
        assert again.lookup(0, "i2", "i4") == [0xFFFF, 0]
        assert again.read((0, 0)) == [b"\x03\0\x02\x01\0\0"]
    with pytest.raises(KeyError):
        sim.get_value("Types", "i2")


def test_a_plant_comes_back_with_other_rights_and_another_name(sim):
    plant = small_plant(name="other")
    plant["users"][0]["rights"] = 0
    with sim.outage():
        sim.replace(plant)
    assert sim.name == "other"
    with Client(sim.port) as client:
        assert client.log_in() == b"9" + bytes(8)
        client.write(0, 1, b"\x03\0\x07\0\0\0")
        assert client.exchange(READ, 10) == REPLY


def test_the_driver_table_of_a_replaced_plant_is_never_taken_for_the_old_one(sim):
    def file_time():
        with Client(sim.port) as client:
            client.hello()
            return struct.unpack(">I", client.open_notify()[51:55])[0]
    assert file_time() == 1600000000
    sim.replace(changed_plant())  # gives the same time as the plant before
    assert file_time() == 1600000004
    sim.replace(small_plant(file_time=1700000000))
    assert file_time() == 1700000000


def test_replacing_a_plant_that_serves_ends_its_connections(client, sim):
    sim.replace(changed_plant())
    assert until_end(client.request) == b"" and until_end(client.notify) == b""
    with Client(sim.port) as again:
        assert again.log_in()[:1] == b"9"


def test_a_plant_that_cannot_be_used_changes_nothing(client, sim):
    unknown = small_plant()
    unknown["drivers"][1]["tags"][2]["follows"] = "nothing"
    for wrong in (unknown, {"name": "p", "tick": "x"}, "nowhere.json"):
        with pytest.raises(PlantError):
            sim.replace(wrong)
    assert client.exchange(READ, 10) == REPLY
    assert sim.name == "small"


def test_a_clock_that_was_stopped_stands_still_for_every_plant(sim):
    tags = [{"name": "n", "type": "i4", "signal": {"kind": "counter", "every": 0.001}},
            {"name": "other", "type": "i4"}]
    sim.replace(small_plant(tick=0.001, drivers=[{"name": "D", "tags": tags}]))
    sim.step(0.5)
    sim.play([("D/other", 1, 0.02)])  # many ticks
    assert sim.get_value("D", "n") == 500


@pytest.mark.parametrize("make", [Simulator, SimProcess])
def test_the_clock_of_a_replaced_plant_runs_at_its_own_tick(make):
    counter = {"name": "D", "tags": [
        {"name": "n", "type": "i4", "signal": {"kind": "counter", "every": 0.001}}]}
    with make(small_plant(tick=0)) as sim:
        sim.replace(small_plant(tick=0.001, drivers=[counter]))
        with Client(sim.port) as client:
            client.log_in()
            client.subscribe((0, 0))
            assert len(take(client.notify, 80)) == 80
            sim.replace(small_plant(tick=0))
        assert sim.get_value("Types", "i4") == 258


def test_a_described_plant_is_read_as_a_table_of_ones_own(tmp_path):
    table = read_plant("boiler_house")
    assert [driver["name"] for driver in table["drivers"]] == ["Boiler", "水泵", "Network"]
    plant = small_plant()
    copied = read_plant(plant)
    copied["drivers"][0]["tags"].clear()
    assert plant == small_plant()
    with pytest.raises(PlantError):
        read_plant({"name": 1})


def test_a_folder_of_a_plant_file_is_found_from_everywhere(tmp_path, monkeypatch):
    (tmp_path / "files").mkdir()
    (tmp_path / "p.json").write_text('{"name": "p", "files": {"folder": "files"}}')
    assert read_plant(str(tmp_path / "p.json"))["files"]["folder"] == str(tmp_path / "files")
    monkeypatch.chdir(tmp_path)
    table = {"name": "p", "files": {"folder": "files"}}
    assert read_plant(table)["files"]["folder"] == str(tmp_path / "files")
    assert plantfile.load(read_plant("p.json")).folder == str(tmp_path / "files")


# ---- silence ---------------------------------------------------------------------------------

def test_what_is_asked_in_a_silence_is_answered_at_its_end(client, sim):
    with sim.silence():
        client.request.sendall(READ)
        sim.wait_requests(1, codes="H")
        assert nothing_comes(client.request)
    assert take(client.request, 10) == REPLY


def test_an_answer_after_a_silence_tells_the_value_of_when_it_was_asked(client, sim):
    with sim.silence():
        client.request.sendall(READ)
        sim.wait_requests(1, codes="H")
        sim.set_value("Types", "i4", 7)
    assert take(client.request, 10) == REPLY
    assert client.exchange(READ, 10) == b"H\0\x06\0\x03\0\x07\0\0\0"


def test_requests_of_one_connection_are_answered_in_their_order_after_a_silence(client, sim):
    with sim.silence():
        client.request.sendall(READ + READ + b"d\0\0\x01\0")
        sim.wait_requests(1, codes="H")
    assert take(client.request, 21) == REPLY + REPLY + b"d"


def test_a_write_takes_effect_in_a_silence(client, sim):
    with sim.silence():
        client.write(0, 1, b"\x03\0\x07\0\0\0")
        sim.wait_requests(1, codes="g")
        assert sim.get_value("Types", "i4") == 7


def test_changes_and_alarms_of_a_silence_come_at_its_end_in_their_order(client, sim):
    client.subscribe((0, 1))
    client.ask(b"n")
    with sim.silence():
        sim.set_value("Types", "i4", 1)
        sim.raise_alarm(tid=5)
        sim.push_raw(b"cut", sends=[1], pause=0.0)
        sim.set_value("Types", "i4", 2)
        assert nothing_comes(client.notify)
    data = take(client.notify, 8 + 35 + 3 + 8)
    assert data[:11] == b"\0\0\x01\0\x01\0\0\0\xff\xff\x01"
    assert data[-11:] == b"cut" b"\0\0\x01\0\x02\0\0\0"


def test_a_connection_made_in_a_silence_stands_and_is_answered_afterwards(sim):
    with sim.silence():
        with connect(sim.port) as sock:
            sock.sendall(b"3")
            sim.wait_requests(1, codes="3")
            assert nothing_comes(sock)
            sim.end_silence()
            assert sock.recv(1) == b"0"  # no login yet


def test_a_client_may_go_in_a_silence(client, sim):
    with sim.silence():
        client.request.sendall(READ)
        sim.wait_requests(1, codes="H")
        client.request.close()
        sim.wait_clients(0, channel="request")
    with Client(sim.port) as again:
        assert again.log_in()[:1] == b"9"


def test_a_silence_begins_once_and_ends_when_its_block_fails(client, sim):
    with pytest.raises(ZeroDivisionError):
        with sim.silence():
            with pytest.raises(RuntimeError):
                sim.begin_silence()
            1 / 0
    sim.end_silence()
    assert client.exchange(READ, 10) == REPLY


def test_a_silence_stops_what_is_being_sent(monkeypatch):
    """8 MB that nobody reads are on their way when the silence begins; the rest comes after it."""
    with Simulator(small_plant(), tick=0) as sim, Client(sim.port) as client:
        client.log_in()
        sim.push_series("Types", "i4", 1000000)
        sim.begin_silence()
        sent = []
        send = Channel._send_now
        monkeypatch.setattr(Channel, "_send_now", lambda self, data: (
            sent.append(len(data)), send(self, data)))
        data = client.notify.recv(1 << 22)
        sim.get_value("Types", "i4")  # the loop has seen that there is room again
        assert not sent
        sim.end_silence()
        data += take(client.notify, 8000000 - len(data))
        assert sent and i4_changes(data) == list(range(1000000))


# ---- sequences -------------------------------------------------------------------------------

def test_a_ramp_is_even_and_ends_at_its_last_value():
    assert ramp("D/t", 0, 10, 2.0, steps=4) == [
        ("D/t", 0.0, 0.5), ("D/t", 2.5, 0.5), ("D/t", 5.0, 0.5), ("D/t", 7.5, 0.5),
        ("D/t", 10, 0.0)]
    assert ramp("D/t", 0.1, 0.3, 1.0, steps=1) == [("D/t", 0.1, 1.0), ("D/t", 0.3, 0.0)]
    with pytest.raises(ValueError):
        ramp("D/t", 0, 1, 1.0, steps=0)


def test_what_is_played_is_pushed_step_by_step_and_held(client, sim):
    client.subscribe((0, 1), (7, 1))
    begin = time.monotonic()
    sim.play([("Types/i4", 1, 0.02), (("锅炉", "Setpoint"), 2.5, 0.0), ((0, 1), 3, 0.03)])
    assert time.monotonic() - begin >= 0.05
    assert take(client.notify, 28) == (
        b"\0\0\x01\0\x01\0\0\0" b"\x07\0\x01\0" + struct.pack("<d", 2.5)
        + b"\0\0\x01\0\x03\0\0\0")
    assert sim.get_value("Types", "i4") == 3


def test_a_played_ramp_takes_a_tag_through_its_values_and_its_alarm(client, sim):
    client.subscribe((7, 0))
    client.ask(b"n")
    sim.play(ramp("锅炉/水位", 60, 90, 0.1, steps=3))
    data = take(client.notify, 8 * 4 + 35)
    assert [data[:8], data[8:16], data[16:24]] == [
        struct.pack("<HHi", 7, 0, value) for value in (60, 70, 80)]
    assert data[24:32] == struct.pack("<HHi", 7, 0, 90) and data[32:35] == b"\xff\xff\x01"


def test_a_play_goes_on_beside_the_test_and_ends_with_its_block(client, sim):
    client.subscribe((0, 1))
    with sim.playing([("Types/i4", 1, 0.001), ("Types/i4", 2, 0.001)], repeat=True):
        assert i4_changes(take(client.notify, 32)) == [1, 2, 1, 2]
    last = sim.get_value("Types", "i4")
    sim.set_value("Types", "i4", 9)
    assert last in (1, 2) and sim.get_value("Types", "i4") == 9
    sim.push_raw(b"end")
    data = b""
    while not data.endswith(b"end"):
        data += client.notify.recv(100)
    assert data.endswith(b"\0\0\x01\0\x09\0\0\0end")


def test_a_play_that_is_over_ends_without_a_word(client, sim):
    client.subscribe((0, 1))
    number = sim.begin_play([("Types/i4", 1, 0.0)])
    assert i4_changes(take(client.notify, 8)) == [1]
    sim.end_play(number)
    with pytest.raises(KeyError):
        sim.end_play(number)


def test_a_play_whose_tag_is_gone_tells_so_at_its_end(sim):
    with pytest.raises(KeyError):
        with sim.playing([("Types/i2", 1, 0.001), ("Types/i2", 2, 0.001)], repeat=True):
            sim.replace(changed_plant())
            sim.play([("Types/i4", 1, 0.05)])  # several steps of the other one


@pytest.mark.parametrize("step, error", [
    (("Types/nothing", 1, 0.0), KeyError), (("i4", 1, 0.0), KeyError),
    (("Types/i2", 40000, 0.0), ValueError), (("Types/cy", 1, 0.0), ValueError),
    (("Types/i4", 1, -0.1), ValueError), (("Types/i4", 1, float("inf")), ValueError),
    (("Types/i4", 1), ValueError)])
def test_a_step_that_makes_no_sense_is_refused_before_the_first_is_played(sim, step, error):
    with pytest.raises(error):
        sim.play([("Types/i4", 7, 0.0), step])
    assert sim.get_value("Types", "i4") == 258


def test_what_takes_no_time_is_not_repeated(sim):
    with pytest.raises(ValueError):
        sim.begin_play([("Types/i4", 7, 0.0)], repeat=True)
    with pytest.raises(ValueError):
        sim.begin_play([], repeat=True)


# ---- bursts and cuts -------------------------------------------------------------------------

def test_a_burst_is_complete_in_order_and_for_subscribers_alone(client, sim):
    client.subscribe((0, 1))
    with Client(sim.port) as other:
        other.log_in()
        assert sim.burst("Types", "i4", range(50000)) == 1
        assert i4_changes(take(client.notify, 400000)) == list(range(50000))
        assert sim.get_value("Types", "i4") == 49999
        sim.push_raw(b"end")
        assert other.notify.recv(100) == b"end"


def test_a_burst_of_any_type_is_sent_in_whole_frames(monkeypatch):
    steps = []
    send = Channel.send
    with Simulator(small_plant(), tick=0) as sim, Client(sim.port) as client:
        client.log_in()
        client.subscribe((0, 3), (0, 5))
        monkeypatch.setattr(Channel, "send", lambda self, *given: (
            steps.extend(given), send(self, *given)))
        sim.burst("Types", "r8", [0.5] * 171)
        assert [len(step) for step in steps] == [170 * 12, 12]
        del steps[:]
        sim.burst("Types", "str", ["", "水"] * 160, pause=0.001)  # 5 and 8 bytes a frame
        assert [len(step) if isinstance(step, bytes) else step for step in steps] == [
            157 * 13 + 5, 0.001, 8 + 2 * 13]


def test_a_burst_raises_the_alarm_of_its_last_value_behind_its_changes(client, sim):
    client.subscribe((7, 0))
    client.ask(b"n")
    sim.burst(*LEVEL, values=[100, 50, 81])
    data = take(client.notify, 24 + 35)
    assert i4_changes(data[:24]) == [100, 50, 81] and data[24:27] == b"\xff\xff\x01"
    assert struct.unpack("<d", data[-16:-8]) == (81.0,)


@pytest.mark.parametrize("tag, values", [("i4", []), ("i2", [1, 40000]), ("array", [[1]])])
def test_an_impossible_burst_sends_nothing(client, sim, tag, values):
    client.subscribe((0, 0), (0, 1), (0, 18))
    with pytest.raises(ValueError):
        sim.burst("Types", tag, values)
    sim.push_raw(b"end")
    assert client.notify.recv(100) == b"end"


def test_changes_are_cut_at_any_byte(client, sim):
    client.subscribe((0, 1))
    assert sim.push_cut("Types", "i4", [1, 2], cuts=[1, 11], pause=0.1) == 1
    frames = b"\0\0\x01\0\x01\0\0\0" b"\0\0\x01\0\x02\0\0\0"
    assert [client.notify.recv(100) for _ in range(3)] == [frames[:1], frames[1:11], frames[11:]]
    assert sim.get_value("Types", "i4") == 2


@pytest.mark.parametrize("cuts", [[0], [16], [5, 5], [6, 5], [-1]])
def test_cuts_outside_the_bytes_or_out_of_order_are_refused(client, sim, cuts):
    client.subscribe((0, 1))
    with pytest.raises(ValueError):
        sim.push_cut("Types", "i4", [1, 2], cuts=cuts)
    assert sim.get_value("Types", "i4") == 258
    sim.push_cut("Types", "i4", [3, 4], cuts=[1, 15], pause=0.0)
    assert i4_changes(take(client.notify, 16)) == [3, 4]


def test_a_change_that_follows_a_cut_one_waits_for_its_rest(client, sim):
    client.subscribe((0, 1))
    sim.push_cut("Types", "i4", [1], cuts=[4], pause=0.05)
    sim.set_value("Types", "i4", 2)
    assert i4_changes(take(client.notify, 16)) == [1, 2]


# ---- alarms ----------------------------------------------------------------------------------

def test_a_tag_is_taken_into_its_alarm_and_back(client, sim):
    client.subscribe((7, 0))
    client.ask(b"n")
    with sim.alarm(*LEVEL):
        raised = take(client.notify, 8 + 35)
        assert raised[:8] == struct.pack("<HHi", 7, 0, 81) and raised[8:11] == b"\xff\xff\x01"
        assert struct.unpack("<HHHBBdd", raised[19:]) == (0, 0, 1, 2, 1, 81.0, 80.0)
        assert client.exchange(b"n", 35)[:3] == b"n\x01\0"
    cleared = take(client.notify, 8 + 35)
    assert cleared[:8] == struct.pack("<HHi", 7, 0, 74) and cleared[8:11] == b"\xff\xff\x03"
    assert client.exchange(b"n", 3) == b"n\0\0"


def test_the_alarm_is_chosen_by_its_text(sim):
    sim.begin_alarm(*LEVEL, text="too low")
    assert sim.get_value(*LEVEL) == 9
    sim.end_alarm(*LEVEL)
    assert sim.get_value(*LEVEL) == 11
    with pytest.raises(KeyError):
        sim.begin_alarm(*LEVEL, text="too wet")
    with pytest.raises(KeyError):
        sim.begin_alarm("Types", "i4")


def test_an_alarm_is_raised_once_and_ending_none_changes_nothing(sim):
    sim.begin_alarm(*LEVEL)
    with pytest.raises(RuntimeError):
        sim.begin_alarm(*LEVEL)
    sim.end_alarm(*LEVEL)
    sim.set_value(*LEVEL, value=50)
    sim.end_alarm(*LEVEL)
    assert sim.get_value(*LEVEL) == 50


@pytest.mark.parametrize("kind, limit, beyond, inside", [
    ("r4", {"high": 10.5, "hysteresis": 0.3}, 10.605, 10.098), ("r8", {"low": -60.0}, -60.6, -59.4),
    ("r8", {"high": 0.0}, 0.01, -0.01), ("bool", {"high": 0.5}, True, False),
    ("ui1", {"high": 0.5}, 1, 0), ("i4", {"low": 10.0, "hysteresis": 1.5}, 9, 12)])
def test_every_type_goes_beyond_its_limit_and_back(kind, limit, beyond, inside):
    alarm = dict(limit, text="x", group="g")
    start = 20 if "low" in limit and limit["low"] > 0 else 0
    tag = {"name": "t", "type": kind, "value": start, "alarms": [alarm]}
    with Simulator({"name": "p", "drivers": [{"name": "D", "tags": [tag]}]}) as sim, \
            Client(sim.port) as client:
        client.log_in()
        sim.begin_alarm("D", "t")
        assert sim.get_value("D", "t") == pytest.approx(beyond)
        assert client.exchange(b"n", 35)[:3] == b"n\x01\0"
        sim.end_alarm("D", "t")
        assert sim.get_value("D", "t") == pytest.approx(inside)
        assert client.exchange(b"n", 3) == b"n\0\0"


def test_a_tag_in_several_alarms_leaves_them_all(sim):
    limits = [{"high": high, "text": text, "group": "g", "hysteresis": 1.0}
              for high, text in ((90.0, "very high"), (80.0, "high"))]
    sim.replace({"name": "p", "drivers": [{"name": "D", "tags": [
        {"name": "t", "type": "i4", "value": 50, "alarms": limits}]}]})
    with Client(sim.port) as client:
        client.log_in()
        sim.begin_alarm("D", "t", "very high")
        assert client.exchange(b"n", 67)[:3] == b"n\x02\0"
        sim.end_alarm("D", "t")
        assert client.exchange(b"n", 3) == b"n\0\0"
    assert sim.get_value("D", "t") == 78


def test_a_limit_that_the_type_cannot_pass_raises_nothing(sim):
    sim.replace({"name": "p", "drivers": [{"name": "D", "tags": [
        {"name": "t", "type": "ui1", "value": 5,
         "alarms": [{"high": 255.0, "text": "x", "group": "g"}]},
        {"name": "b", "type": "bool", "value": True,
         "alarms": [{"high": 1.0, "text": "x", "group": "g"}]}]}]})
    for tag, value in (("t", 5), ("b", True)):
        with pytest.raises(ValueError):
            sim.begin_alarm("D", tag)
        assert sim.get_value("D", tag) == value


# ---- together --------------------------------------------------------------------------------

def test_scenarios_need_no_pytest():
    code = ("import sys; sys.modules['pytest'] = None\n"
            "import vzsim\n"
            "with vzsim.SimProcess('boiler_house', tick=0) as sim:\n"
            "    with sim.outage():\n"
            "        sim.play(vzsim.ramp('Boiler/Steam pressure', 8.0, 9.5, 0.0, steps=2))\n"
            "    with sim.alarm('Boiler', 'Steam pressure'), sim.silence():\n"
            "        print(sim.get_value('Boiler', 'Steam pressure') > 10.5)")
    found = subprocess.run([sys.executable, "-c", code], env=dict(os.environ, PYTHONPATH=PYTHON),
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
    assert (found.returncode, found.stdout, found.stderr) == (0, b"True\n", b"")


def test_a_table_that_was_served_is_not_changed_by_it(sim):
    plant = changed_plant()
    before = copy.deepcopy(plant)
    sim.replace(plant)
    assert plant == before
