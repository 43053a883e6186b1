"""Faults on order: what each does to the reply, to the connection and to the plant."""

import socket
import time

import pytest

from wire_client import Client, connect, scramble, take, unscramble, until_end

READ = b"H\x01\0\0\0\x01\0"
REPLY = b"H\0\x06\0\x03\0\x02\x01\0\0"


def test_refuse_answers_zero_once_and_then_all_is_well(client, sim):
    sim.fault("H", "refuse")
    assert client.ask(READ) == b"0"
    assert client.exchange(READ, 10) == REPLY


def test_a_refusal_may_be_any_code(client, sim):
    sim.fault("H", "refuse", answer=b"X")
    assert client.ask(READ) == b"X"


def test_a_refused_request_has_no_effect(client, sim):
    sim.fault("b", "refuse")
    assert client.ask(b"b\x01\0\0\0\x01\0\0") == b"0"
    sim.set_value("Types", "i4", 1)
    sim.push_raw(b"end")
    assert client.notify.recv(100) == b"end"


def test_each_login_step_can_be_refused(sim):
    sim.fault("7", "refuse")
    with Client(sim.port) as client:
        assert client.hello() == b"0"
    sim.fault("8", "refuse")
    with Client(sim.port) as client:
        client.hello()
        assert client.open_notify() == b"0"
    sim.fault("9", "refuse")
    with Client(sim.port) as client:
        assert client.log_in() == b"0"


def test_a_fault_lasts_for_its_number_of_requests(client, sim):
    sim.fault("H", "refuse", times=2)
    assert [client.ask(READ)[:1] for _ in range(3)] == [b"0", b"0", b"H"]
    sim.fault("H", "refuse", times=None)
    assert [client.ask(READ)[:1] for _ in range(3)] == [b"0", b"0", b"0"]
    sim.clear_faults()
    assert client.ask(READ)[:1] == b"H"


def test_skip_lets_requests_pass_first(client, sim):
    sim.fault("H", "refuse", skip=2)
    assert [client.ask(READ)[:1] for _ in range(4)] == [b"H", b"H", b"0", b"H"]


def test_faults_of_one_code_come_in_order_and_leave_other_codes_alone(client, sim):
    sim.fault("H", "refuse")
    sim.fault("H", "reply", data=b"mine")
    assert client.ask(b"3")[:1] == b"3"
    assert [client.ask(READ) for _ in range(3)] == [b"0", b"mine", REPLY]


def test_delay_answers_later_and_holds_back_what_follows(client, sim):
    sim.fault("H", "delay", seconds=0.1)
    begin = time.monotonic()
    assert client.exchange(READ + b"3", 10) == REPLY
    assert time.monotonic() - begin >= 0.1
    assert client.request.recv(1) == b"3"


@pytest.mark.parametrize("after", [0, 1, 9, 10])
def test_cut_sends_so_many_bytes_and_closes(client, sim, after):
    sim.fault("H", "cut", after=after)
    client.request.sendall(READ)
    assert until_end(client.request) == REPLY[:after]


def test_cut_may_end_with_a_reset(client, sim):
    sim.fault("H", "cut", after=3, then="reset")
    client.request.sendall(READ)
    with pytest.raises(ConnectionResetError):
        until_end(client.request)


def test_cut_may_end_with_a_stall(client, sim):
    sim.fault("H", "cut", after=3, then="stall")
    client.request.sendall(READ)
    assert take(client.request, 3) == REPLY[:3]
    client.request.sendall(READ)
    client.request.settimeout(0.1)
    with pytest.raises(socket.timeout):
        client.request.recv(1)
    assert sim.client_count("request") == 1


def test_cut_inside_a_long_file_still_waits_for_acknowledgements(client, sim):
    sim.set_file("big", bytes(300000), 1)
    sim.fault("4", "cut", after=200000)
    client.request.sendall(b"4big\r\nHello:Yes\r\n\r\n")
    take(client.request, 131072)
    client.request.sendall(b"4Hello20000\0")
    assert len(until_end(client.request)) == 200000 - 131072


def test_garbage_replaces_the_reply(client, sim):
    sim.fault("H", "garbage", data=b"\x80\x81")
    assert client.ask(READ) == b"\x80\x81"
    sim.fault("H", "garbage", size=100)
    noise = client.ask(READ)
    assert len(noise) == 100 and noise[0] >= 0x80
    sim.fault("H", "garbage", size=100)
    assert client.ask(READ) == noise


def test_a_scripted_reply_is_sent_exactly_and_the_request_takes_effect(client, sim):
    sim.fault("b", "reply", data=b"b\x03\0\x0b\0\x01")
    assert client.ask(b"b\x01\0\0\0\x01\0\0") == b"b\x03\0\x0b\0\x01"
    sim.set_value("Types", "i4", 1)
    assert client.notify.recv(100) == b"\0\0\x01\0\x01\0\0\0"


def test_a_write_can_be_answered_although_nobody_expects_it(client, sim):
    sim.fault("g", "reply", data=b"surprise")
    client.write(0, 1, b"\x03\0\x07\0\0\0")
    assert client.request.recv(100) == b"surprise"
    assert sim.get_value(0, 1) == 7


def test_a_scripted_notification_reply_can_be_scrambled_or_raw(sim):
    for scrambled in (True, False):
        sim.fault("8", "reply", data=b"0123456", scramble=scrambled)
        with Client(sim.port) as client:
            client.hello()
            client.notify = connect(sim.port)
            client.notify.sendall(b"8" + scramble(client.guid + b"h\0\x01\x01"))
            raw = client.notify.recv(100)
            assert (unscramble(raw) if scrambled else raw) == b"0123456"


def test_split_sends_the_reply_in_pieces(client, sim):
    sim.fault("H", "split", sizes=[1, 3], pause=0.1)
    client.request.sendall(READ)
    assert [client.request.recv(100) for _ in range(4)] == [
        REPLY[:1], REPLY[1:4], REPLY[4:7], REPLY[7:]]
    sim.fault("H", "split", size=4, pause=0.0)
    assert client.exchange(READ, 10) == REPLY


@pytest.mark.parametrize("how, error", [("close", None), ("reset", ConnectionResetError)])
def test_close_ends_the_connection_without_a_reply(client, sim, how, error):
    sim.fault("H", "close", how=how)
    client.request.sendall(READ)
    if error is None:
        assert until_end(client.request) == b""
    else:
        with pytest.raises(error):
            until_end(client.request)


def test_silent_swallows_one_request(client, sim):
    sim.fault("H", "silent")
    assert client.exchange(READ + b"3", 1) == b"3"


def test_a_new_connection_can_be_closed_or_left_unanswered(sim):
    sim.fault("accept", "close")
    with connect(sim.port) as sock:
        assert until_end(sock) == b""
    sim.fault("accept", "silent")
    with connect(sim.port) as sock:
        sock.sendall(b"3")
        sock.settimeout(0.1)
        with pytest.raises(socket.timeout):
            sock.recv(1)


@pytest.mark.parametrize("code, action, arguments", [
    ("Z", "refuse", {}), ("H", "explode", {}), ("H", "delay", {}), ("H", "cut", {}),
    ("H", "reply", {}), ("H", "split", {}), ("H", "split", {"sizes": [0]}),
    ("H", "split", {"sizes": [2, -1]}), ("H", "refuse", {"after": 3}),
    ("H", "cut", {"after": 1, "then": "explode"}), ("accept", "delay", {"seconds": 1})])
def test_a_fault_that_makes_no_sense_is_refused(sim, code, action, arguments):
    with pytest.raises(ValueError):
        sim.fault(code, action, **arguments)


# ---- connections -----------------------------------------------------------------------------

@pytest.mark.parametrize("kind", ["close", "reset"])
def test_clients_are_dropped_by_channel(client, sim, kind):
    assert sim.client_count() == 1
    assert sim.drop_clients(kind, channel="notify") == 1
    if kind == "close":
        assert until_end(client.notify) == b""
    else:
        with pytest.raises(ConnectionResetError):
            until_end(client.notify)
    assert client.lookup(0, "i4") == [1]
    assert (sim.client_count(), sim.client_count("request")) == (0, 1)
    assert sim.drop_clients(kind) == 1


def test_losing_the_request_channel_leaves_the_notifications(client, sim):
    client.subscribe((0, 1))
    sim.drop_clients(channel="request")
    sim.set_value(0, 1, 5)
    assert client.notify.recv(100) == b"\0\0\x01\0\x05\0\0\0"


def test_a_port_that_does_not_listen_refuses_until_it_does_again(client, sim):
    sim.set_listening(False)
    with pytest.raises(ConnectionRefusedError):
        connect(sim.port)
    assert client.lookup(0, "i4") == [1]
    sim.set_listening(True)
    with Client(sim.port) as other:
        assert other.log_in()[:1] == b"9"


def test_wrong_kinds_and_channels_are_refused(sim):
    with pytest.raises(ValueError):
        sim.drop_clients("explode")
    with pytest.raises(ValueError):
        sim.drop_clients(channel="both")
    with pytest.raises(ValueError):
        sim.client_count("both")


# ---- scripted login record -------------------------------------------------------------------

def test_the_parts_of_the_notification_reply_can_be_overridden(sim):
    sim.set_login(dif_time=1, dif_size=2, project=b"\xff\xfe", title=b"")
    with Client(sim.port) as client:
        client.hello()
        assert client.open_notify()[51:] == b"\0\0\0\x01\0\0\0\x02\xff\xfe\0\0"
    sim.clear_login()
    with Client(sim.port) as client:
        client.hello()
        assert client.open_notify()[59:].endswith(b"Small plant\0")
    with pytest.raises(ValueError):
        sim.set_login(dif_size=2 ** 32)


def test_an_empty_project_name_leaves_a_reply_of_61_bytes(sim):
    sim.set_login(project=b"", title=b"")
    with Client(sim.port) as client:
        client.hello()
        assert len(client.open_notify()) == 61
