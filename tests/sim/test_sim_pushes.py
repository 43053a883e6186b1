"""The notification channel: changes, alarms, raw bytes, and how they are cut into sends."""

import struct
import time

import pytest

from conftest import small_plant
from vzsim import Simulator
from vzsim.channel import Channel
from vzsim.server import SEND_PAUSE
from wire_client import Client, take

BOILER = 7


def alarm_fields(record):
    return struct.unpack("<IIHHHBBdd", record)


def test_a_change_of_a_subscribed_tag_is_pushed_without_type_code(client, sim):
    client.subscribe((0, 1))
    sim.set_value("Types", "i4", 42)
    assert client.notify.recv(100) == b"\0\0\x01\0\x2a\0\0\0"


@pytest.mark.parametrize("tag, value, payload", [
    ("i2", 5, b"\x05\0"), ("r4", 0.5, b"\0\0\0\x3f"), ("r8", 0.5, b"\0\0\0\0\0\0\xe0\x3f"),
    ("date", 1.0, b"\0\0\0\0\0\0\xf0\x3f"), ("str", "水", "水".encode() + b"\0"),
    ("bool", False, b"\0"), ("i1", 5, b"\x05"), ("ui1", 5, b"\x05"), ("ui2", 5, b"\x05\0"),
    ("ui4", 5, b"\x05\0\0\0"), ("i8", 5, b"\x05" + bytes(7)), ("int", 5, b"\x05\0\0\0"),
    ("uint", 6, b"\x06\0\0\0")])
def test_every_type_with_a_payload_is_pushed(client, sim, tag, value, payload):
    index, = client.lookup(0, tag)
    client.subscribe((0, index))
    sim.set_value("Types", tag, value)
    assert client.notify.recv(100) == struct.pack("<HH", 0, index) + payload


def test_types_without_a_payload_are_never_pushed(client, sim):
    client.subscribe((0, 18), (0, 1))
    sim.set_value("Types", "array", [3])
    sim.set_value("Types", "i4", 1)
    assert client.notify.recv(100) == b"\0\0\x01\0\x01\0\0\0"
    with pytest.raises(ValueError):
        sim.push_change("Types", "array", [4])


def test_a_value_that_stays_the_same_is_not_pushed(client, sim):
    client.subscribe((0, 1))
    sim.set_value("Types", "i4", 258)
    sim.set_value("Types", "i4", 259)
    assert client.notify.recv(100) == b"\0\0\x01\0\x03\x01\0\0"


def test_a_tag_that_is_not_subscribed_is_not_pushed(client, sim):
    client.subscribe((0, 1))
    sim.set_value("Types", "i2", 1)
    sim.set_value("Types", "i4", 1)
    assert client.notify.recv(100) == b"\0\0\x01\0\x01\0\0\0"


def test_another_clients_write_is_pushed(client, sim):
    client.subscribe((0, 1))
    with Client(sim.port) as other:
        other.log_in()
        other.write(0, 1, b"\x03\0\x09\0\0\0")
        assert client.notify.recv(100) == b"\0\0\x01\0\x09\0\0\0"


def test_signals_push_by_themselves_while_the_clock_runs():
    plant = small_plant(tick=0.01, drivers=[{"name": "D", "tags": [
        {"name": "n", "type": "i4", "signal": {"kind": "counter", "every": 0.01}}]}])
    with Simulator(plant) as sim, Client(sim.port) as client:
        client.log_in()
        client.subscribe((0, 0))
        values = [struct.unpack("<HHi", take(client.notify, 8))[2] for _ in range(5)]
    assert values == sorted(set(values)) and len(values) == 5


def test_the_clock_of_the_signals_is_the_clock_on_the_wall():
    tags = [{"name": "fast", "type": "i4", "signal": {"kind": "counter", "every": 0.01}},
            {"name": "slow", "type": "i4", "signal": {"kind": "counter", "every": 600.0}}]
    plant = small_plant(drivers=[{"name": "D", "tags": tags}])
    with Simulator(plant, tick=0.01) as sim, Client(sim.port) as client:
        client.log_in()
        client.subscribe((0, 0))
        begin = time.monotonic()
        take(client.notify, 8)
        first = sim.get_value("D", "fast")
        take(client.notify, 8 * 20)
        counted = sim.get_value("D", "fast") - first
        assert counted <= (time.monotonic() - begin) / 0.01 + 2
        assert sim.get_value("D", "slow") == 0


def test_a_channel_that_does_not_read_is_spared_further_changes_of_signals():
    tags = [{"name": "n", "type": "i4", "signal": {"kind": "counter"}}]
    with Simulator(small_plant(drivers=[{"name": "D", "tags": tags}]), tick=0) as sim, \
            Client(sim.port) as deaf, Client(sim.port) as client:
        for one in (deaf, client):
            one.log_in()
        deaf.subscribe((0, 0))
        sim.push_raw(bytes(20 << 20))  # more than the sockets take, and a megabyte besides
        take(client.notify, 20 << 20)
        client.subscribe((0, 0))
        sim.step(1.0)
        assert take(client.notify, 8) == b"\0\0\0\0\x01\0\0\0"
        take(deaf.notify, 20 << 20)
        sim.step(1.0)
        assert take(deaf.notify, 8) == b"\0\0\0\0\x02\0\0\0"


def test_one_step_pushes_all_its_changes_in_sends_of_whole_frames():
    tags = [{"name": "t%d" % i, "type": "i4", "signal": {"kind": "counter"}} for i in range(600)]
    with Simulator(small_plant(drivers=[{"name": "D", "tags": tags}]), tick=0) as sim, \
            Client(sim.port) as client:
        client.log_in()
        client.request.sendall(b"b\x58\x02" + b"".join(
            struct.pack("<HHB", 0, i, 0) for i in range(600)))
        take(client.request, 3 + 600 * 6)
        sim.step(1.0)
        data = take(client.notify, 4800)
    assert data == b"".join(struct.pack("<HHi", 0, i, 1) for i in range(600))


def test_the_sends_of_one_step_are_whole_frames_with_pauses_between(monkeypatch):
    steps = []
    send = Channel.send
    monkeypatch.setattr(Channel, "send", lambda self, *given: (
        steps.extend(given), send(self, *given)))
    tags = [{"name": "t%d" % i, "type": "str", "signal": {
        "kind": "text", "texts": ["x", "y" * 99]}} for i in range(40)]  # 104 bytes a frame
    with Simulator(small_plant(drivers=[{"name": "D", "tags": tags}]), tick=0) as sim, \
            Client(sim.port) as client:
        client.log_in()
        client.subscribe(*[(0, i) for i in range(40)])
        del steps[:]
        sim.step(1.0)
        assert [len(step) if isinstance(step, bytes) else step for step in steps] == [
            19 * 104, SEND_PAUSE, 19 * 104, SEND_PAUSE, 2 * 104]
        assert take(client.notify, 4160) == b"".join(
            struct.pack("<HH", 0, i) + b"y" * 99 + b"\0" for i in range(40))


def test_a_change_does_not_overtake_the_reply_to_its_subscription(client, sim):
    begin = time.monotonic()
    client.request.sendall(b"b\x01\0\0\0\x01\0\0" b"g\x01\0\0\0\x01\0\x03\0\x07\0\0\0")
    assert client.notify.recv(100) == b"\0\0\x01\0\x07\0\0\0"
    assert time.monotonic() - begin >= 0.01


def test_raw_bytes_reach_every_channel_as_one_send(client, sim):
    with Client(sim.port) as other:
        other.log_in()
        assert sim.push_raw(b"\xff\xff\xff") == 2
        assert client.notify.recv(100) == b"\xff\xff\xff"
        assert other.notify.recv(100) == b"\xff\xff\xff"


def test_raw_bytes_in_pieces_of_given_sizes(client, sim):
    sim.push_raw(b"abcdefg", sends=[1, 2], pause=0.1)
    assert [client.notify.recv(100) for _ in range(4)] == [b"a", b"bc", b"de", b"fg"]
    with pytest.raises(ValueError):
        sim.push_raw(b"abc", sends=[0])


def test_pushes_ordered_one_after_the_other_keep_their_order(client, sim):
    sim.push_raw(b"abc", sends=[1], pause=0.02)
    sim.push_raw(b"d")
    assert take(client.notify, 4) == b"abcd"


def test_an_ordered_change_reaches_channels_that_have_not_subscribed(client, sim):
    assert sim.push_change("Types", "i4", 7) == 1
    assert client.notify.recv(100) == b"\0\0\x01\0\x07\0\0\0"
    assert sim.get_value("Types", "i4") == 7


def test_a_series_is_complete_and_in_order(client, sim):
    assert sim.push_series("Types", "i4", 5000, first=10) == 1
    data = take(client.notify, 8 * 5000)
    assert [value for _, _, value in struct.iter_unpack("<HHi", data)] == list(range(10, 5010))


def test_a_series_is_cut_into_sends_as_ordered(monkeypatch, client, sim):
    steps = []
    send = Channel.send
    monkeypatch.setattr(Channel, "send", lambda self, *given: (
        steps.extend(given), send(self, *given)))
    sim.push_series("Types", "i4", 3, frames_per_send=1, pause=0.001)
    assert [len(s) if isinstance(s, bytes) else s for s in steps] == [8, 0.001, 8, 0.001, 8]
    del steps[:]
    sim.push_series("Types", "i4", 300, frames_per_send=1000)
    assert [len(step) for step in steps] == [2048, 352]


def test_a_client_that_does_not_read_loses_no_bytes_of_a_long_series(client, sim):
    sim.push_series("Types", "i4", 1000000)  # 8 MB, far more than the socket holds
    assert client.lookup(0, "i4") == [1]
    data = take(client.notify, 8 * 1000000)
    assert data[-4:] == struct.pack("<i", 999999) and len(data) == 8000000


# ---- alarms ----------------------------------------------------------------------------------

def test_a_crossed_limit_raises_an_alarm_and_returning_clears_it(client, sim):
    assert client.ask(b"n") == b"n\0\0"
    before = int(time.time())
    sim.set_value("锅炉", "水位", 81)
    frame = take(client.notify, 35)
    almtm, evttm, tid, kind, group, level, status, value, limit = alarm_fields(frame[3:])
    assert frame[:3] == b"\xff\xff\x01" and before <= almtm <= time.time()
    assert (evttm, tid, kind, group, level, status, value, limit) == (0, 0, 0, 1, 2, 1, 81, 80)
    sim.set_value("锅炉", "水位", 76)  # within the hysteresis: nothing yet
    sim.set_value("锅炉", "水位", 75)
    frame = take(client.notify, 35)
    fields = alarm_fields(frame[3:])
    assert frame[:3] == b"\xff\xff\x03" and fields[0] == almtm and fields[1] >= almtm
    assert fields[2:] == (0, 0, 1, 2, 0, 75, 80)
    assert client.ask(b"n") == b"n\0\0"


def test_a_value_at_its_limit_is_no_alarm(client, sim):
    sim.set_value("锅炉", "水位", 80)
    sim.set_value("锅炉", "水位", 10)
    assert client.ask(b"n") == b"n\0\0"


def test_a_low_limit_is_an_alarm_of_its_own(client, sim):
    sim.set_value("锅炉", "水位", 9)
    reply = client.exchange(b"n", 35)
    assert reply[:3] == b"n\x01\0"
    assert alarm_fields(reply[3:])[2:] == (0, 2, 1, 3, 1, 9, 10)


def test_an_alarm_lasts_in_the_list_until_it_is_cleared(client, sim):
    sim.set_value("锅炉", "水位", 100)
    assert client.exchange(b"n", 35)[:3] == b"n\x01\0"
    sim.set_value("锅炉", "水位", 40)
    take(client.notify, 35)
    assert client.exchange(b"n", 3) == b"n\0\0"


def test_alarms_go_to_subscribed_sessions_alone_unless_ordered_for_all(client, sim):
    assert sim.raise_alarm(tid=1) == 0
    assert sim.raise_alarm(tid=2, everyone=True, active=False, almtm=5, evttm=6, type=3, grp=4,
                           level=255, status=9, value=1.5, limit=2.5, frame_type=3) == 1
    frame = take(client.notify, 35)
    assert frame[:3] == b"\xff\xff\x03"
    assert alarm_fields(frame[3:]) == (5, 6, 2, 3, 4, 255, 9, 1.5, 2.5)
    assert client.exchange(b"n", 35)[:3] == b"n\x01\0"
    assert sim.raise_alarm(tid=3) == 1
    sim.clear_alarms()
    assert client.exchange(b"n", 3) == b"n\0\0"


@pytest.mark.parametrize("wrong", [{"frame_type": 2}, {"level": 256}, {"tid": -1}])
def test_an_impossible_alarm_is_refused(sim, wrong):
    with pytest.raises(ValueError):
        sim.raise_alarm(**wrong)
