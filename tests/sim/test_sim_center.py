"""The center server: relays to a plant, redirects to it, speaks for itself, refuses others.

Clients use the relay form on port 3968 alone, so each center listens there on a loopback
address of its own.
"""

import itertools
import os
import socket
import struct

import pytest

from conftest import small_plant
from vzsim import PlantError, Simulator
from wire_client import Client, connect, scramble, take, unscramble, until_end

PORT = 3968
_hosts = itertools.count(os.getpid() * 7)


def center(plant, centers):
    """A center server on port 3968 of a free loopback address."""
    for _ in range(200):
        number = next(_hosts)
        host = "127.%d.%d.2" % (1 + number // 250 % 250, 1 + number % 250)
        try:
            return Simulator(plant, host, PORT, centers=centers, tick=0)
        except OSError:
            continue
    raise RuntimeError("no loopback address is free")


@pytest.fixture
def relay(sim):
    """A center that relays for the small plant as "Far" and redirects to it as "Near"."""
    own = small_plant(name="center", project="Center")
    address = "127.0.0.1:%d" % sim.port
    entries = {"Far": address, "远": address, "Near": {"address": address, "mode": "redirect"},
               "Gone": "127.0.0.1:%d" % unused_port()}
    with center(own, entries) as simulator:
        yield simulator


def unused_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def far_client(relay, name=b"Far"):
    return Client(PORT, relay.host, name)


def test_a_whole_session_goes_through_the_relay(relay, sim):
    with far_client(relay) as client:
        assert client.log_in() == b"9\0\0\0\0\x08\0\0\0"
        assert client.lookup(0, "i4") == [1]
        assert client.subscribe((0, 1)) == b"\x03\0\x02\x01\0\0"
        client.write(0, 1, b"\x03\0\x09\0\0\0")
        assert take(client.notify, 8) == b"\0\0\x01\0\x09\0\0\0"
    sim.wait_clients(0)
    relay.wait_clients(0)


def test_the_relay_tells_the_plants_own_project(relay):
    with far_client(relay) as client:
        assert client.hello() == b"7"
        assert "小厂".encode("gb2312") + b"\0" in client.open_notify()


def test_the_plant_sees_a_direct_hello_of_the_same_session(relay, sim):
    with far_client(relay) as client:
        client.log_in()
        hello = sim.requests(codes="7")[0][2]
        assert unscramble(hello[1:]) == client.guid
        notify = sim.requests(codes="8")[0][2]
        assert unscramble(notify[1:]) == client.guid + b"board\0\x01\x01"


def test_the_center_records_the_relay_form(relay):
    with far_client(relay) as client:
        client.hello()
        raw = relay.requests(codes="7")[0][2]
    assert unscramble(raw[1:]) == client.guid + bytes(6) + b"Far\0"


@pytest.mark.parametrize("name", ["远".encode("utf-8"), "远".encode("gb2312")])
def test_plants_are_named_in_either_code_page(relay, name):
    with far_client(relay, name) as client:
        assert client.hello() == b"7"


def test_bytes_sent_along_with_the_hello_reach_the_plant(relay):
    with connect(PORT, relay.host) as sock:
        sock.sendall(b"7" + scramble(bytes(22) + b"Far\0") + b"9operator\0secret\0")
        assert take(sock, 10) == b"79\0\0\0\0\x08\0\0\0"


def test_a_redirect_tells_the_plants_address_and_port(relay, sim):
    with far_client(relay, b"Near") as client:
        assert client.hello() == b"7lan\x7f\0\0\x01" + struct.pack(">H", sim.port)


def test_the_center_serves_its_own_plant(relay):
    for name in (b"center", b"Center", relay.host.encode()):
        with far_client(relay, name) as client:
            assert client.hello() == b"7"
            assert b"Center\0" in client.open_notify()


def test_an_unknown_plant_is_refused(relay):
    with far_client(relay, b"Nowhere") as client:
        assert client.hello() == b"0"


def test_a_plant_that_cannot_be_reached_is_refused(relay):
    with far_client(relay, b"Gone") as client:
        assert client.hello() == b"0"


def test_without_entries_every_name_means_the_plant_itself():
    with center(small_plant(), {}) as sim, far_client(sim, b"anything") as client:
        assert client.log_in()[:1] == b"9"


def test_when_the_plant_drops_its_clients_the_relay_drops_them_too(relay, sim):
    with far_client(relay) as client:
        client.log_in()
        sim.drop_clients(channel="notify")
        assert until_end(client.notify) == b""
        assert client.lookup(0, "i4") == [1]
        sim.drop_clients()
        assert until_end(client.request) == b""


def test_a_relay_may_stand_behind_a_relay(relay, sim):
    entries = {"Far": "%s:%d" % (relay.host, PORT)}
    with center(small_plant(name="front"), entries) as front, far_client(front) as client:
        assert client.log_in()[:1] == b"9"
        assert client.lookup(0, "i4") == [1]


def test_faults_of_the_center_hit_the_relayed_hello(relay):
    relay.fault("7", "cut", after=0)
    with far_client(relay) as client:
        assert client.hello() == b""


def test_a_redirect_can_be_scripted_in_capitals(relay):
    relay.fault("7", "reply", data=b"7LAN\x7f\0\0\x01\x1f\x90")
    with far_client(relay, b"center") as client:
        assert client.hello() == b"7LAN\x7f\0\0\x01\x1f\x90"


@pytest.mark.parametrize("entry, part", [
    ("nowhere", "HOST:PORT"), ("host:0", "HOST:PORT"), ("127.0.0.1:70000", "HOST:PORT"),
    ({"address": "127.0.0.1:1", "mode": "fly"}, "center.X.mode"),
    ({"mode": "relay"}, "center.X.address")])
def test_a_wrong_center_entry_is_named(entry, part):
    with pytest.raises(PlantError) as error:
        Simulator(small_plant(center={"X": entry}))
    assert part in str(error.value)
