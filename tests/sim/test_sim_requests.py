"""Requests cut out of the stream: literal bytes, every shorter prefix, what follows."""

import itertools
import struct

import pytest

from vzsim import requests, scrambler
from vzsim.files import FileRequest

GUID = bytes(range(16))
HELLO = b"7" + scrambler.scramble(GUID)
RECEIVE = b"8" + scrambler.scramble(GUID + b"board\0\x01\x01")

COMPLETE = [
    (HELLO, requests.Hello(GUID, b"", None)),
    (RECEIVE, requests.ReceiveHello(GUID, b"board", 1, 1)),
    (b"9user\0pw\0", requests.Login(b"user", b"pw")),
    (b"9\0\0", requests.Login(b"", b"")),
    (b"3", requests.Paths()),
    (b"4RecData/x\r\nHello:Yes\r\n\r\n",
     FileRequest(b"RecData/x", None, None, None, None, True)),
    (b"4f\r\nLastTime:5F5E1000\r\nSize:A\r\ngzTime:1\r\ngzSize:FF\r\n\r\n",
     FileRequest(b"f", 0x5F5E1000, 10, 1, 255, False)),
    (b"4Hello20000\0", requests.Acknowledgement(0x20000)),
    (b"L\x01\0ab\0", requests.Lookup(((1, b"ab"),))),
    (b"d\x01\0\x02\0", requests.Unadvise(1, 2)),
    (b"b\x02\0\x01\0\x02\0\0\x03\0\x04\0\0", requests.Subscribe(((1, 2), (3, 4)))),
    (b"H\x02\0\x01\0\x02\0\x03\0\x04\0", requests.Read(((1, 2), (3, 4)))),
    (b"g\x02\0\x01\0\x02\0\x03\0\x05\0\0\0\x03\0\x04\0\x08\0x\0",
     requests.Write(((1, 2, 3, 5), (3, 4, 8, b"x")))),
    (b"n", requests.AlarmRequest()),
]


@pytest.mark.parametrize("wire, request_", COMPLETE, ids=itertools.count())
def test_a_complete_request_is_taken_with_its_length(wire, request_):
    assert requests.parse(wire) == (request_, len(wire))


@pytest.mark.parametrize("wire, request_", COMPLETE, ids=itertools.count())
def test_every_shorter_prefix_waits_for_more(wire, request_):
    for size in range(len(wire)):
        assert requests.parse(wire[:size]) is None


@pytest.mark.parametrize("wire, request_", [c for c in COMPLETE if c[0][:1] != b"L"],
                         ids=itertools.count())
def test_what_follows_a_request_is_left_alone(wire, request_):
    assert requests.parse(wire + b"n9") == (request_, len(wire))


def test_the_direct_hello_has_23_bytes():
    assert len(HELLO) == 23


@pytest.mark.parametrize("name", [b"", b"P", b"Plant", b"n" * 255])
def test_the_relay_hello_ends_with_its_server_name(name):
    wire = b"7" + scrambler.scramble(GUID + b"\1\2\3\4\5\6" + name + b"\0")
    expected = requests.Hello(GUID, b"\1\2\3\4\5\6", name)
    assert requests.parse(wire + b"n", relay=True) == (expected, len(wire))
    for size in range(len(wire)):
        assert requests.parse(wire[:size], relay=True) is None


def test_a_lookup_takes_all_entries_up_to_the_end_of_the_bytes():
    wire = b"L\x01\0a\0\x02\0bc\0\x03\0\0"
    assert requests.parse(wire) == (
        requests.Lookup(((1, b"a"), (2, b"bc"), (3, b""))), len(wire))


def test_a_lookup_waits_while_bytes_are_pending():
    assert requests.parse(b"L\x01\0a\0", drained=False) is None


def test_a_driver_id_with_zero_bytes_is_no_end_of_a_name():
    assert requests.parse(b"L\0\0") is None
    assert requests.parse(b"L\0\0a\0\0") is None
    assert requests.parse(b"L\0\0a\0\0\0") is None


def test_a_file_named_like_an_acknowledgement_is_a_file():
    parsed, _ = requests.parse(b"4Hello20000\r\n\r\n")
    assert parsed.name == b"Hello20000"


def test_a_number_that_is_none_counts_as_absent():
    parsed, _ = requests.parse(b"4f\r\nSize:xyz\r\nother\r\n\r\n")
    assert parsed == FileRequest(b"f", None, None, None, None, False)


@pytest.mark.parametrize("wire", [b"Z", b"\0", b"1", b"\xff"])
def test_an_unknown_code_is_an_error(wire):
    with pytest.raises(requests.ProtocolError):
        requests.parse(wire)


def test_the_offer_of_acknowledgements_begins_with_yes_in_any_case():
    for value, offered in ((b"yes please", True), (b" YES", True), (b"Ye", False), (b"No", False)):
        assert requests.parse(b"4f\r\nhello:" + value + b"\r\n\r\n")[0].hello is offered


def test_a_request_without_an_end_is_an_error_at_its_limit():
    assert requests.MAX_REQUEST == 65536
    assert requests.parse(b"4" + b"x" * (requests.MAX_REQUEST - 2)) is None
    with pytest.raises(requests.ProtocolError):
        requests.parse(b"4" + b"x" * (requests.MAX_REQUEST - 1))


def test_arrays_nested_without_an_end_are_an_error():
    with pytest.raises(requests.ProtocolError):
        requests.parse(b"g\x01\0\0\0\0\0" + struct.pack("<HH", 8192, 1) * 10000)


def test_the_largest_counts_are_taken():
    wire = b"H\xff\x03" + bytes(4 * 1023)
    assert len(requests.parse(wire)[0].tags) == 1023
    assert requests.parse(wire[:-1]) is None
