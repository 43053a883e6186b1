"""Project files: the reply's header, generated files, acknowledgements, the configured folder."""

import gzip
import os

import pytest

from conftest import small_plant
from vzsim import Simulator, files
from wire_client import Client, take

ASKED = files.FileRequest(b"f", None, None, None, None, True)


def reply(found, **held):
    return files.file_reply(ASKED._replace(**held), found)


def test_the_header_of_a_plain_file():
    found = files.ProjectFile(b"0123456789", 0x5F5E1000)
    assert reply(found) == (
        b"Exist:Yes\r\nFileName:f\r\nFileTime:5F5E1000\r\nSize:A\r\n\r\n0123456789", False)


def test_a_missing_file():
    assert reply(None) == (b"Exist:No\r\n\r\n", False)


def test_the_clients_copy_is_current_when_time_and_size_match():
    found = files.ProjectFile(b"abc", 100)
    assert reply(found, last_time=100, last_size=3) == (b"UseLast:Yes\r\n\r\n", False)
    for time, size in ((101, 3), (100, 4), (100, None)):
        assert reply(found, last_time=time, last_size=size)[0].endswith(b"abc")


def test_a_compressed_file_is_compared_with_the_compressed_copy():
    found = files.ProjectFile(b"abc", 100, gz=True)
    data, _ = reply(found, last_time=100, last_size=3)
    head, _, body = data.partition(b"\r\n\r\n")
    assert b"\r\nGZ:Yes" in head and gzip.decompress(body) == b"abc"
    assert reply(found, gz_time=100, gz_size=len(body))[0] == b"UseLast:Yes\r\n\r\n"


def test_append_sends_what_the_client_lacks():
    found = files.ProjectFile(b"0123456789", 100, append=True)
    data, _ = reply(found, last_time=50, last_size=7)
    assert b"Append:Yes" in data and b"Size:3\r\n" in data and data.endswith(b"\r\n\r\n789")
    for size in (None, 0, 10, 11):  # nothing to continue, or no beginning of this file
        data, _ = reply(found, last_time=50, last_size=size)
        assert b"Append" not in data and data.endswith(b"\r\n\r\n0123456789")


def test_acknowledgements_are_wanted_for_replies_beyond_the_first_span():
    def wanted(size):
        data, hello = reply(files.ProjectFile(bytes(size), 1))
        return len(data), hello
    assert wanted(131000) == (131000 + 49, False)
    header = len(b"Exist:Yes\r\nFileName:f\r\nFileTime:1\r\nSize:1FFFF\r\nHello:Yes\r\n\r\n")
    assert wanted(131072 - header) == (131072 - 11, False)
    assert wanted(131072 - header + 1) == (131072 + 1, True)


def test_acknowledgements_are_never_wanted_from_a_client_that_offers_none():
    data, hello = reply(files.ProjectFile(bytes(200000), 1, hello=True), hello=False)
    assert not hello and b"Hello" not in data


def test_hello_can_be_forced_and_forbidden():
    assert reply(files.ProjectFile(b"a", 1, hello=True))[1]
    assert not reply(files.ProjectFile(bytes(200000), 1, hello=False))[1]


def test_the_spans_between_acknowledgements_shrink_to_8192():
    assert files.acknowledged_spans(131072) == [131072]
    assert files.acknowledged_spans(131073) == [131072, 1]
    spans = files.acknowledged_spans(1000000)
    assert spans[:3] == [131072, 120832, 110592]
    assert spans[12] == 8192 and set(spans[12:-1]) == {8192} and sum(spans) == 1000000


def test_a_name_too_long_for_a_header_value_is_left_out():
    found = files.ProjectFile(b"a", 1)
    assert b"FileName:" + b"n" * 255 in reply(found, name=b"n" * 255)[0]
    assert b"FileName" not in reply(found, name=b"n" * 256)[0]


def test_driver_information_bytes():
    assert files.driver_info([(b"A", 1, 5), (b"", 0x0203, 0)]) == b"A\0\x01\0\x05\0\0\x03\x02\0\0"


def test_list_file_bytes():
    assert files.list_file([b"a", b"bc"]) == b"a\r\nbc\r\n"


# ---- through the server ----------------------------------------------------------------------

def test_the_generated_files_tell_the_plant(client):
    boiler = "锅炉".encode("gb2312")
    assert client.get_file(b"RecData/drvinfo.dat")[1] == (
        b"Types\0\0\0\x13\0" + boiler + b"\0\x07\0\x03\0")
    assert client.get_file(b"recdata/TextList")[1] == b"too high\r\n" + boiler + b"\r\ntoo low\r\n"
    assert client.get_file(b"RecData/taglist")[1] == "水位".encode("gb2312") + b"\r\n"


def test_a_file_asked_for_again_is_current(client):
    header, body = client.get_file(b"RecData/drvinfo.dat")
    held = b"LastTime:" + header[b"FileTime"] + b"\r\nSize:%X\r\n" % len(body)
    assert client.get_file(b"RecData/drvinfo.dat", held) == ({b"UseLast": b"Yes"}, None)


def test_a_file_set_by_a_test_is_served_and_removed(client, sim):
    sim.set_file("Media/图.bin", b"pixels", 1000)
    name = "media/图.bin".encode("gb2312")
    header, body = client.get_file(name)
    assert body == b"pixels" and header[b"FileTime"] == b"3E8" and header[b"FileName"] == name
    sim.remove_file("Media/图.bin")
    assert client.get_file(name) == ({b"Exist": b"No"}, None)


def test_a_long_file_waits_for_its_acknowledgements(client, sim):
    data = os.urandom(400000)
    sim.set_file("big", data, 1000)
    header, body = client.get_file(b"big")
    assert header[b"Hello"] == b"Yes" and body == data
    sent = [raw for _, _, raw in sim.requests(codes="4")][1:]
    assert sent == [b"4Hello20000\0", b"4Hello1D800\0", b"4Hello1B000\0"]


def test_nothing_passes_a_span_that_is_not_acknowledged(client, sim):
    sim.set_file("big", bytes(300000), 1000)
    client.request.sendall(b"4big\r\nHello:Yes\r\n\r\n")
    assert len(take(client.request, 131072)) == 131072
    client.request.settimeout(0.1)
    with pytest.raises(OSError):
        client.request.recv(1)


def test_a_long_file_without_acknowledgements_comes_in_one_go(client, sim):
    data = os.urandom(3000000)
    sim.set_file("big", data, 1000, hello=False)
    assert client.get_file(b"big")[1] == data


def test_requests_go_on_after_a_transfer(client, sim):
    sim.set_file("big", bytes(140000), 1000)
    client.get_file(b"big")
    assert client.lookup(0, "i4") == [1]


def test_a_late_acknowledgement_is_stepped_over(client):
    client.request.sendall(b"4Hello100\0")
    assert client.lookup(0, "i4") == [1]


def test_files_of_the_folder_are_served_and_nothing_outside(tmp_path):
    (tmp_path / "project" / "Media").mkdir(parents=True)
    (tmp_path / "project" / "Media" / "logo.png").write_bytes(b"png")
    (tmp_path / "secret").write_bytes(b"secret")
    plant = small_plant(files={"folder": str(tmp_path / "project")})
    with Simulator(plant) as sim, Client(sim.port) as client:
        client.log_in()
        assert client.get_file(b"Media/logo.png")[1] == b"png"
        for name in (b"../secret", b"Media/../../secret", str(tmp_path / "secret").encode(),
                     b"Media", b"Media/none"):
            assert client.get_file(name) == ({b"Exist": b"No"}, None)
