"""A client's way through a session: hellos, login, paths, lookup, read, subscribe, write."""

import struct
import threading

import pytest

from conftest import small_plant
from vzsim import Simulator
from wire_client import Client, connect, scramble, take, unscramble, until_end


def values_of(body):
    """The (type code, payload) pairs of a chunk body without texts or arrays."""
    sizes = {2: 2, 3: 4, 4: 4, 5: 8, 7: 8, 11: 1, 16: 1, 17: 1, 18: 2, 19: 4, 20: 8, 22: 4, 23: 4}
    found = []
    while body:
        vt = struct.unpack_from("<H", body)[0]
        size = sizes.get(vt, 0)
        found.append((vt, body[2:2 + size]))
        body = body[2 + size:]
    return found


# ---- login -----------------------------------------------------------------------------------

def test_the_login_hello_is_answered_by_its_code_alone(sim):
    with Client(sim.port) as client:
        assert client.hello() == b"7"


def test_the_notification_reply_tells_project_title_and_driver_file(sim):
    with Client(sim.port) as client:
        client.hello()
        reply = client.open_notify()
    assert reply[:1] == b"8"
    assert reply[1:51] == bytes(50)
    drivers = b"Types\0\x00\x00\x13\x00" + "锅炉".encode("gb2312") + b"\0\x07\x00\x03\x00"
    assert struct.unpack(">II", reply[51:59]) == (1600000000, len(drivers))
    assert reply[59:] == "小厂".encode("gb2312") + b"\0Small plant\0"


def test_a_notification_hello_of_an_unknown_session_is_refused(sim):
    with Client(sim.port) as client:
        assert client.open_notify() == b"0"


def test_a_session_lives_as_long_as_one_of_its_channels(sim):
    with Client(sim.port) as client:
        client.log_in()
        client.notify.close()
        sim.wait_clients(0)
        assert client.open_notify()[:1] == b"8"
        client.request.close()
        sim.wait_clients(0, channel="request")
        client.notify.close()
        sim.wait_clients(0)
        assert client.open_notify() == b"0"


def test_a_session_without_a_notification_channel_may_subscribe(sim):
    with Client(sim.port) as client:
        client.hello()
        client.ask(b"9operator\0secret\0")
        assert client.subscribe((0, 1)) == b"\x03\0\x02\x01\0\0"
        assert client.lookup(0, "i4") == [1]


def test_waiting_for_clients_ends_when_they_come(sim):
    with Client(sim.port) as client:
        late = threading.Timer(0.1, client.log_in)
        late.start()
        sim.wait_clients(1)
        late.join()
        assert sim.client_count() == 1


def test_waiting_for_requests_ends_when_they_come(sim):
    with Client(sim.port) as client:
        late = threading.Timer(0.1, client.hello)
        late.start()
        assert sim.wait_requests(1)[0][2][:1] == b"7"
        late.join()


def test_a_user_with_the_right_password_gets_its_rights_word(sim):
    with Client(sim.port) as client:
        assert client.log_in() == b"9\0\0\0\0\x08\0\0\0"
    with Client(sim.port) as client:
        assert client.log_in(b"guest", b"") == b"9\0\0\0\0\0\0\0\0"


@pytest.mark.parametrize("user, password", [(b"operator", b"wrong"), (b"nobody", b"")])
def test_a_wrong_user_is_refused_and_may_try_again(sim, user, password):
    with Client(sim.port) as client:
        assert client.log_in(user, password) == b"0"
        assert client.ask(b"9operator\0secret\0")[:1] == b"9"


def test_a_plant_without_users_lets_everybody_in_to_write():
    with Simulator(small_plant(users=[])) as sim:
        with Client(sim.port) as client:
            assert client.log_in(b"x", b"y") == b"9\0\0\0\0\x08\0\0\0"


def test_tag_requests_before_the_user_login_are_refused(sim):
    with Client(sim.port) as client:
        client.hello()
        assert client.ask(b"L\0\0i4\0") == b"0"
        assert client.ask(b"H\x01\0\0\0\x01\0") == b"0"
        assert client.ask(b"n") == b"0"


def test_requests_before_the_hello_are_refused(sim):
    with Client(sim.port) as client:
        assert client.ask(b"3") == b"0"


def test_an_unknown_code_ends_the_connection(sim):
    with Client(sim.port) as client:
        client.hello()
        client.request.sendall(b"Z")
        assert until_end(client.request) == b""


def test_project_paths_are_four_texts(client):
    root = "/project/小厂/".encode("gb2312")
    assert client.ask(b"3") == (b"3" + root + b"\0" + root + b"RecData/Event/\0"
                                + root + b"RecData/Alarm2/\0" + root + b"RecData/\0")


# ---- lookup ----------------------------------------------------------------------------------

def test_lookup_gives_ids_and_65535_for_unknown_names(client):
    assert client.lookup(0, "i4", "nothing", "i2") == [1, 0xFFFF, 0]
    assert client.lookup(7, "水位") == [0]
    assert client.lookup(3, "i4") == [0xFFFF]


def test_a_lookup_reply_carries_the_type_code_behind_each_id(client):
    assert client.exchange(b"L\0\0r8\0\0\0x\0", 9) == b"L\x03\0\x05\0\xff\xff\0\0"


def test_a_lookup_cut_inside_a_name_waits_for_the_rest(client, sim):
    client.request.sendall(b"L\0\0i")
    client.request.sendall(b"4\0")
    assert take(client.request, 5) == b"L\x01\0\x03\0"
    assert sim.requests(codes="L")[0][2] == b"L\0\0i4\0"


# ---- read and subscribe ----------------------------------------------------------------------

def test_every_type_is_read_with_its_code_and_width(client):
    body, = client.read(*[(0, i) for i in range(18) if i != 5])
    assert values_of(body) == [
        (2, b"\xfe\xff"), (3, b"\x02\x01\0\0"), (4, b"\0\0\xc0\x3f"),
        (5, b"\0\0\0\0\0\0\x04\xc0"), (7, struct.pack("<d", 25569.0)), (11, b"\x01"),
        (16, b"\xff"), (17, b"\xff"), (18, b"\xff\xff"), (19, b"\xff\xff\xff\xff"),
        (20, b"\xfd" + b"\xff" * 7), (22, b"\xfc\xff\xff\xff"), (23, b"\x05\0\0\0"),
        (0, b""), (1, b""), (6, b""), (21, b"")]
    assert client.read((0, 5)) == [b"\x08\0AB\0"]


def test_an_array_ends_the_chunk_that_holds_it(client):
    array = b"\x00\x20\x02\x00\x03\x00\x01\x00\x00\x00\x03\x00\x02\x00\x00\x00"
    assert client.read((0, 1), (0, 18), (0, 0)) == [
        b"\x03\0\x02\x01\0\0" + array, b"\x02\0\xfe\xff"]


def test_unknown_tags_are_answered_as_empty_values(client):
    assert client.read((0, 19), (9, 0), (0, 0)) == [b"\0\0\0\0\x02\0\xfe\xff"]


def test_a_long_read_comes_in_chunks_cut_between_values(client):
    chunks = client.read(*[(0, 1)] * 1023)  # 6 bytes a value: 682 of them fill 4092 bytes
    assert [len(chunk) for chunk in chunks] == [4092, 2046]


def test_a_read_of_nothing_is_one_empty_chunk(client):
    assert client.exchange(b"H\0\0", 4) == b"H\0\0\0"


def test_a_subscription_answers_the_values_of_its_tags(client):
    assert client.subscribe((0, 1), (0, 6), (0, 50)) == b"\x03\0\x02\x01\0\0\x0b\0\x01\0\0"


def test_a_long_subscription_reply_comes_in_chunks(client):
    request = b"b\x00\x02" + b"\0\0\x03\0\0" * 512  # 10 bytes a value: 409 of them a chunk
    reply = client.exchange(request, 3 + 4090 + 3 + 1030)
    assert reply[:3] == b"b" + struct.pack("<H", 4090)
    assert reply[4093:4096] == b"b" + struct.pack("<H", 1030)


def test_unadvise_stops_the_pushes_of_a_tag(client, sim):
    client.subscribe((0, 1), (0, 0))
    assert client.ask(b"d\0\0\x01\0") == b"d"
    sim.set_value("Types", "i4", 1)
    sim.set_value("Types", "i2", 1)
    assert client.notify.recv(100) == b"\0\0\0\0\x01\0"
    assert client.ask(b"d\0\0\x63\0") == b"0"


# ---- write -----------------------------------------------------------------------------------

def test_a_written_value_is_stored_in_the_tags_own_type(client, sim):
    client.write(0, 1, b"\x03\0\x07\0\0\0")                 # int to i4
    client.write(0, 2, b"\x05\0" + struct.pack("<d", 2.25))  # float to r4
    client.write(0, 5, b"\x08\0xy\0")                        # text to str
    client.write(0, 6, b"\x0b\0\0")                          # bool to bool
    client.write(0, 9, b"\x08\x0012\0")                      # text to ui2
    client.read((0, 0))
    assert [sim.get_value("Types", i) for i in (1, 2, 5, 6, 9)] == [7, 2.25, "xy", False, 12]


def test_two_values_of_one_write_are_both_stored(client, sim):
    client.request.sendall(b"g\x02\0" b"\0\0\0\0\x03\0\x05\0\0\0"
                           b"\0\0\x01\0\x03\0\x06\0\0\0")
    client.read((0, 0))
    assert (sim.get_value(0, 0), sim.get_value(0, 1)) == (5, 6)


def test_a_write_that_does_not_suit_its_tag_is_left_out(client, sim):
    client.write(0, 0, b"\x03\0\xff\xff\x7f\0")  # too large for i2
    client.write(0, 1, b"\x08\0word\0")          # no number
    client.write(9, 9, b"\x03\0\0\0\0\0")        # no such tag
    client.write(0, 16, b"\x03\0\0\0\0\0")       # a tag without a value
    client.read((0, 0))
    assert (sim.get_value(0, 0), sim.get_value(0, 1)) == (-2, 258)


def test_a_write_without_the_right_changes_nothing(sim):
    with Client(sim.port) as guest:
        guest.log_in(b"guest", b"")
        guest.write(0, 1, b"\x03\0\x07\0\0\0")
        assert guest.read((0, 1)) == [b"\x03\0\x02\x01\0\0"]


def test_rights_taken_away_hold_at_once(client, sim):
    sim.set_rights("operator", 0)
    client.write(0, 1, b"\x03\0\x07\0\0\0")
    assert client.read((0, 1)) == [b"\x03\0\x02\x01\0\0"]


def test_a_written_setpoint_moves_its_process_value(client, sim):
    client.write(7, 1, b"\x05\0" + struct.pack("<d", 20.0))
    client.read((7, 1))
    sim.step(2.0)  # one time constant: 63.2 per cent of the way from 10 to 20
    assert sim.get_value("锅炉", "Process") == pytest.approx(16.321, abs=0.001)


# ---- the stream ------------------------------------------------------------------------------

def test_requests_sent_byte_by_byte_are_put_together(client, sim):
    request = b"H\x01\0\0\0\x01\0"
    for i in range(len(request)):
        client.request.sendall(request[i:i + 1])
    assert take(client.request, 10) == b"H\0\x06\0\x03\0\x02\x01\0\0"
    assert sim.requests(codes="H")[0][2] == request


def test_requests_sent_together_are_answered_in_order(client):
    read = b"H\x01\0\0\0\x01\0"
    write = b"g\x01\0\0\0\x01\0\x03\0\x09\0\0\0"
    reply = client.exchange(read + write + read + b"L\0\0i4\0", 25)
    assert reply == (b"H\0\x06\0\x03\0\x02\x01\0\0" b"H\0\x06\0\x03\0\x09\0\0\0"
                     b"L\x01\0\x03\0")


def test_the_hello_may_arrive_in_pieces(sim):
    with connect(sim.port) as sock:
        hello = b"7" + scramble(bytes(16))
        assert len(hello) == 23
        sock.sendall(hello[:9])
        sock.sendall(hello[9:])
        assert sock.recv(16) == b"7"


def test_sessions_of_many_clients_do_not_mix(sim):
    clients = [Client(sim.port) for _ in range(40)]
    try:
        for one in clients:
            assert one.log_in()[:1] == b"9"
        sim.wait_clients(40)
        for i, one in enumerate(clients):
            one.subscribe((0, 1)) if i % 2 else one.subscribe((0, 0))
        sim.set_value(0, 1, 77)
        sim.set_value(0, 0, 78)
        for i, one in enumerate(clients):
            expected = b"\0\0\x01\0\x4d\0\0\0" if i % 2 else b"\0\0\0\0\x4e\0"
            assert one.notify.recv(100) == expected
            assert one.read((0, 1)) == [b"\x03\0\x4d\0\0\0"]
    finally:
        for one in clients:
            one.__exit__()
    sim.wait_clients(0)


def test_the_request_bytes_are_recorded_as_they_came(client, sim):
    kinds = [(channel, raw[:1]) for _, channel, raw in sim.requests(clear=True)]
    assert kinds == [("request", b"7"), ("notify", b"8"), ("request", b"9")]
    client.read((0, 1))
    assert [raw for _, _, raw in sim.wait_requests(1)] == [b"H\x01\0\0\0\x01\0"]
    with pytest.raises(TimeoutError):
        sim.wait_requests(2, timeout=0.05)


def test_the_recorded_notification_hello_holds_what_the_client_said(sim):
    with Client(sim.port) as client:
        client.hello()
        client.open_notify(b"my-board")
        raw = sim.requests()[1][2]
    assert unscramble(raw[1:]) == client.guid + b"my-board\0\x01\x01"
