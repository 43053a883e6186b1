"""The wire trace: one line per message whatever the pieces, and never a password."""

import random
import socket
import struct
import time

import pytest

from plants import LINE1, SMALL_PLANT
from vzclient import trace
from vzclient.trace import Decoder
from vzsim import Simulator

DRIVERS = {0: "Boiler", 1: "锅炉"}
TAGS = {(0, 3): "Temp", (0, 8): 'a"b\n'}


@pytest.fixture(autouse=True)
def east_of_greenwich(monkeypatch):
    """Local time is eight hours ahead."""
    monkeypatch.setenv("TZ", "CST-8")
    time.tzset()
    yield
    monkeypatch.undo()
    time.tzset()


def decoder():
    return Decoder(DRIVERS.get, lambda driver, tag: TAGS.get((driver, tag)))


def event(text):
    """ "request > 37 01" as channel, direction and bytes; "..." in it stands for itself."""
    channel, direction, *rest = text.split(None, 2)
    return channel, direction, bytes.fromhex(rest[0]) if rest else b""


def fed(events, pieces=lambda data: [data], fresh=decoder):
    """The lines, without their times, of events whose bytes come in such pieces."""
    decode = fresh()
    lines = []
    for channel, direction, data in events:
        for piece in pieces(data) if data else [data]:
            lines += decode.feed(0.0, channel, direction, piece)
    return [line.split(" ", 1)[1] for line in lines]


def single_bytes(data):
    return [data[i:i + 1] for i in range(len(data))]


def scrambled(plain, key=0x9C):
    """By the rule, written once more: k, a + k, b - k, c XOR k."""
    wire = b""
    for at in range(0, len(plain), 3):
        a, b, c = (plain[at:at + 3] + b"\0\0")[:3]
        group = bytes([key, (a + key) % 256, (b - key) % 256, c ^ key])
        wire += group[:1 + len(plain[at:at + 3])]
    return wire


SESSION = bytes.fromhex("80A355671234ABCD80A355673F420F00")
RECORD = (b"8" + bytes(50) + bytes.fromhex("5F5E1000 00000006")
          + "一号线".encode("gb2312") + b"\0Plant\0")
HELLO = "request > 37 01 81 A2 54 7F E6 93 4B 80 2B 4D 00 FF A2 56 98 2A 69 18 25 00 00"
ALARM = ("00 F1 53 65  00 00 00 00  0C 00  03 00  02 00  03 01"
         "66 66 66 66 66 66 25 40  00 00 00 00 00 00 25 40")
ALARM_TEXT = ("kind 3 tag 12 group 2 level 3 status 1 value 10.7 limit 10.5"
              " at 2023-11-15 06:13:20")
TYPES = {  # type code and payload: what a line says
    "00 00": "empty", "01 00": "null", "06 00": "type 6", "15 00": "type 21", "FF FF": "type 65535",
    "02 00 FE FF": "i16 -2", "03 00 02 01 00 00": "i32 258", "16 00 FF FF FF FF": "i32 -1",
    "04 00 00 00 08 41": "f32 8.5", "04 00 CD CC CC 3D": "f32 0.1", "04 00 00 00 C0 7F": "f32 nan",
    "04 00 FF FF 7F 7F": "f32 3.4028235e+38",
    "05 00 00 00 00 00 00 00 04 40": "f64 2.5", "05 00 00 00 00 00 00 00 F0 FF": "f64 -inf",
    "07 00 AB AA AA AA AC 2E E6 40": "date 2024-05-17 09:30:00",
    "07 00 00 00 00 00 00 00 F8 7F": "date nan days",
    "07 00 9C 75 00 88 3C E4 37 7E": "date 1e+300 days",
    "08 00 41 42 00": 'text "AB"', "08 00 00": 'text ""',
    "08 00 E6 B8 A9 22 0A FF 00": 'text "温\\"\\n\\xff"',
    "0B 00 01": "bool true", "0B 00 02": "bool true", "0B 00 00": "bool false",
    "10 00 C8": "u8 200", "11 00 C8": "u8 200", "12 00 FF FF": "u16 65535",
    "13 00 FF FF FF FF": "u32 4294967295", "17 00 FE FF FF FF": "u32 4294967294",
    "14 00 FE FF FF FF FF FF FF FF": "i64 -2",
    "00 20 02 00 0B 00 01 08 00 41 00": 'array [bool true, text "A"]',
}
SYSTEM = {  # frames that say nothing of alarms
    "FF FF 02 01 02 03 04": "system frame 2: 01 02 03 04",
    "FF FF 04" + " 00" * 40: "system frame 4: " + " ".join(["00"] * 40),
    "FF FF 05 00 00 00 01": "system frame 5: 00 00 00 01",
    "FF FF 06" + " 07" * 17: "system frame 6: " + " ".join(["07"] * 17),
    "FF FF 07 00 00 00 00": "system frame 7: 00 00 00 00",
    "FF FF 08 01 02": "system frame 8: 01 02",
    "FF FF 09 00 00 03 00 01": 'system frame 9 of Boiler/3 "Temp": 01',
    "FF FF 0E 05 00 03 00 01": "system frame 14 of 5/3: 01",
    "FF FF 0F 01 00 03 00 01": "system frame 15 of 锅炉/3: 01",
    "FF FF 16 00 00 08 00 01": 'system frame 22 of Boiler/8 "a\\"b\\n": 01',
    "FF FF FF": "system frame 255",
}
for number in range(10, 14):
    SYSTEM["FF FF %02X 00 00 03 00 01 02 03 04 05 06 07 08" % number] = (
        'system frame %d of Boiler/3 "Temp": 01 02 03 04 05 06 07 08' % number)
for number in range(16, 22):
    SYSTEM["FF FF %02X 00 00 03 00 C2 AF 00" % number] = (
        'system frame %d of Boiler/3 "Temp" text "炉"' % number)

CONVERSATIONS = {
    "connecting": (
        ["request +", HELLO, "request < 37",
         "notify +", "notify > 38" + scrambled(SESSION + b"box\0\x01\x01").hex(),
         "notify < " + scrambled(RECORD).hex(),
         "request > 39 6F 70 00 70 77 00", "request < 39 00 00 00 00 08 00 00 00",
         "notify x", "request x"],
        ["request + opened",
         "request > login hello, session 80a355671234abcd80a355673f420f00",
         "request < login hello accepted",
         "notify + opened",
         "notify > notification hello, session 80a355671234abcd80a355673f420f00,"
         ' machine "box", database yes',
         'notify < login record: project "一号线", title "Plant", drvinfo.dat of 6 bytes,'
         " 2020-09-13 20:26:40",
         'request > user login "op", password not shown',
         "request < user login accepted, rights 8 (may write)",
         "notify x ended", "request x ended"]),
    "refusals": (
        [HELLO, "request < 30", "request > 39 E6 B8 A9 00 70 77 00", "request < 30",
         "request > 39 6F 70 00 70 77 00", "request < 39 01", "request > 33",
         "notify > 38" + scrambled(SESSION + b"box\0\0\x01").hex(), "notify < 5A 8A"],
        ["request > login hello, session 80a355671234abcd80a355673f420f00",
         "request < login hello refused",
         'request > user login "温", password not shown', "request < user login refused",
         'request > user login "op", password not shown',
         "request < user login accepted, rights 0", "request > project paths",
         "notify > notification hello, session 80a355671234abcd80a355673f420f00,"
         ' machine "box", database no', "notify < notification hello refused"]),
    "center server redirects": (
        ["request +", "request > 37" + scrambled(SESSION + bytes(6) + b"Line1\0").hex(),
         "request < 37 4C 61 4E C0 A8 01 14 1F 40", "request x"],
        ["request + opened",
         "request > login hello to a center server, session 80a355671234abcd80a355673f420f00,"
         ' server "Line1"',
         "request < redirect to 192.168.1.20:8000", "request x ended"]),
    "center server passes on": (
        ["request > 37" + scrambled(SESSION + bytes(6) + b"Line12\0").hex(), "request < 37",
         "request > 39 6F 70 00 70 77 00"],
        ["request > login hello to a center server, session 80a355671234abcd80a355673f420f00,"
         ' server "Line12"',
         "request < login hello accepted", 'request > user login "op", password not shown']),
    "look up": (
        ["request > 4C 00 00 54 31 00 00 00 54 32 00 07 00 D5 A2 00",
         "request < 4C 01 00 00 00 FF FF 00 00 05 01 09 09"],
        ['request > look up Boiler "T1" "T2" driver 7 "闸"',
         'request < look up reply: "T1" 1, "T2" unknown, "闸" 261']),
    "subscribe": (
        ["request > 62 03 00 00 00 03 00 00 00 00 04 00 00 01 00 05 00 00",
         "request < 62 06 00 03 00 2A 00 00 00 62 00 00 62 07 00 0B 00 01 02 00 FE FF",
         "notify < 00 00 03 00 2B 00 00 00 00 00 04 00 00 01 00 05 00 03 00"],
        ["request > subscribe 3 tags: Boiler/3 Boiler/4 锅炉/5",
         "request < subscribe reply, chunk, 6 bytes: i32 42",
         "request < subscribe reply, chunk, 0 bytes",
         "request < subscribe reply, last chunk, 7 bytes: bool true, i16 -2",
         'notify < change Boiler/3 "Temp" i32 43', "notify < change Boiler/4 bool false",
         "notify < change 锅炉/5 i16 3"]),
    "read": (
        ["request > 48 02 00 00 00 03 00 00 00 04 00",
         "request < 48 01 0A 00 05 00 00 00 00 00 00 60 54 40 48 00 06 00 03 00 03 00 00 00",
         "notify < 00 00 03 00 00 00 00 00 00 60 54 C0"],
        ["request > read 2 tags: Boiler/3 Boiler/4",
         "request < read reply, chunk, 10 bytes: f64 81.5",
         "request < read reply, last chunk, 6 bytes: i32 3",
         'notify < change Boiler/3 "Temp" f64 -81.5']),
    "values missing from a last chunk": (
        ["request > 48 02 00 00 00 03 00 09 00 04 00", "request < 48 00 03 00 0B 00 01",
         "request > 48 01 00 00 00 03 00", "request < 48 01 03 00 0B 00 00",
         "request > 48 01 00 00 00 03 00", "request < 48 00 00 00"],
        ["request > read 2 tags: Boiler/3 9/4",
         "request < read reply, last chunk, 3 bytes: bool true (1 value missing)",
         "request > read 1 tag: Boiler/3", "request < read reply, last chunk, 3 bytes: bool false",
         "request > read 1 tag: Boiler/3",
         "request < read reply, last chunk, 0 bytes (1 value missing)"]),
    "writes have no answer": (
        ["request > 67 01 00 00 00 01 00 03 00 05 00 00 00 67 03 00 00 00 03 00 05 00 00 00 00 00"
         "00 60 54 40 00 00 04 00 0B 00 01 00 00 05 00 08 00 E6 B8 A9 00", "request > 67 00 00",
         "request > 33", "request < 33 61 00 62 00 63 00 64 00"],
        ["request > write 1 tag: Boiler/1 i32 5",
         'request > write 3 tags: Boiler/3 f64 81.5, Boiler/4 bool true, Boiler/5 text "温"',
         "request > write 0 tags: ", "request > project paths",
         'request < project paths: "a", "b", "c", "d"']),
    "cancel": (
        ["request > 64 00 00 03 00", "request < 64"],
        ["request > cancel subscription 196608 (Boiler/3)", "request < subscription cancelled"]),
    "alarms": (
        ["request > 6E", "request < 6E 02 00" + 2 * ALARM, "request > 6E", "request < 6E 00 00",
         "notify < FF FF 01 " + ALARM + " FF FF 03 01 00 00 00 02 00 00 00" + ALARM[26:]],
        ["request > subscribe alarms",
         "request < 2 active alarms: " + ALARM_TEXT + "; " + ALARM_TEXT,
         "request > subscribe alarms", "request < 0 active alarms",
         "notify < alarm " + ALARM_TEXT,
         "notify < alarm (frame type 3) " + ALARM_TEXT.replace(
             "2023-11-15 06:13:20", "1970-01-01 08:00:01 event 1970-01-01 08:00:02")]),
    "file": (
        ["request > " + b"4RecData/drvinfo.dat\r\nLastTime:5F5E1000\r\nSize:6\r\nHello:Yes\r\n\r\n"
         .hex(),
         "request < " + (b"Exist:Yes\r\nFile Name:RecData/drvinfo.dat\r\nFileTime: 5F5E1000\r\n"
                         b"Size:6\r\n \r\nA\0\0\0\x05\0").hex(), "request > 33"],
        ['request > file "RecData/drvinfo.dat", LastTime:5F5E1000, Size:6, Hello:Yes',
         "request < file answer: Exist:Yes, FileName:RecData/drvinfo.dat, FileTime:5F5E1000,"
         " Size:6, body of 6 bytes", "request < file body, 6 bytes", "request > project paths"]),
    "file with acknowledgements": (
        ["request > " + b"4Hello1.txt\r\nHello:Yes\r\n\r\n".hex(),
         "request < " + b"Hello:Yes\nSIZE:c\n\nabcdef".hex(), "request > " + b"4Hello20000\0".hex(),
         "request < " + b"ghijkl".hex()],
        ['request > file "Hello1.txt", Hello:Yes',
         "request < file answer: Hello:Yes, SIZE:c, body of 12 bytes",
         "request > file acknowledgement, 131072 bytes", "request < file body, 12 bytes"]),
    "files without a body": (
        ["request > " + b"4a\r\n\r\n".hex(), "request < " + b"Exist:No\r\nSize:5\r\n\r\n".hex(),
         "request > " + b"4b\r\n\r\n".hex(), "request < " + b"UseLast:YES\r\nSize:5\r\n\r\n".hex(),
         "request > " + b"4c\r\n\r\n".hex(), "request < " + b"Size:0\r\n\r\n".hex(),
         "request > " + b"4d\r\n\r\n".hex(), "request < " + b"Size:-5\r\n\r\n".hex(),
         "request > " + b"4e\r\n\r\n".hex(), "request < " + b"Size:FFFFFFFFF\r\n\r\n".hex(),
         "request > 6E"],
        ['request > file "a"', "request < file answer: Exist:No, Size:5, no body",
         'request > file "b"', "request < file answer: UseLast:YES, Size:5, no body",
         'request > file "c"', "request < file answer: Size:0, body of 0 bytes",
         'request > file "d"', "request < file answer: Size:-5, body of 0 bytes",
         'request > file "e"', "request < file answer: Size:FFFFFFFFF, body of 4294967295 bytes",
         "request < file body cut off, 0 of 4294967295 bytes",
         "request > subscribe alarms"]),
    "values": (
        ["request > 48 %02X 00" % len(TYPES) + " 00 00 03 00" * len(TYPES)] + [
            "request < 48 01 %02X 00 %s" % (len(bytes.fromhex(value)), value) for value in TYPES],
        ["request > read %d tags: " % len(TYPES) + " ".join(["Boiler/3"] * 20)
         + " ... and %d more" % (len(TYPES) - 20)] + [
            "request < read reply, %schunk, %d byte%s: %s" % (
                "last " if number == len(TYPES) - 1 else "", len(bytes.fromhex(value)),
                "" if len(bytes.fromhex(value)) == 1 else "s", TYPES[value])
            for number, value in enumerate(TYPES)]),
    "system frames": (
        ["notify < " + frame for frame in SYSTEM], ["notify < " + SYSTEM[f] for f in SYSTEM]),
    "no answer": (
        ["request > 33", "request > 6E", "request x"],
        ["request > project paths", "request < no answer to project paths",
         "request > subscribe alarms", "request < no answer to subscribe alarms",
         "request x ended"]),
    "look up without an answer": (
        ["request > 4C 00 00 54 31 00", "request x"],
        ['request > look up Boiler "T1"', "request < no answer to look up", "request x ended"]),
    "cut off": (
        ["request > 48 01 00 00 00", "request < 48 00 03 00 0B",
         "request > 33", "request < 33 61", "request x", "notify < FF FF 01 00", "notify x"],
        ["request > request cut off, 5 bytes: 48 01 00 00 00",
         "request < not understood: nothing was asked",
         "request < 5 bytes: 48 00 03 00 0B", "request > project paths",
         "request < answer to project paths cut off, 2 bytes: 33 61", "request x ended",
         "notify < frame cut off, 4 bytes: FF FF 01 00", "notify x ended"]),
    "body cut off": (
        ["request > " + b"4a\r\n\r\n".hex(), "request < " + b"Size:5\r\n\r\nabc".hex(),
         "request > 33"],
        ['request > file "a"', "request < file answer: Size:5, body of 5 bytes",
         "request < file body cut off, 3 of 5 bytes", "request > project paths"]),
    "wrong first bytes": (
        ["request > 6E", "request < 30 31", "request > 5A 01 39 02", "request < 33",
         "request > 4C 00 00 41", "request < 4C 00 00 00 00", "request > 33", "request < 33"],
        ["request > subscribe alarms",
         "request < not understood: answer to subscribe alarms begins with 30, not 6E",
         "request < 2 bytes: 30 31", "request > not understood: unknown code 5A",
         "request > 4 bytes: 5A 01 ..., not shown",
         "request < not understood: nothing was asked",
         "request < 1 byte: 33", "request > look up, malformed, 4 bytes: 4C 00 00 41",
         "request < not understood: answer to a malformed request",
         "request < 5 bytes: 4C 00 00 00 00", "request > project paths"]),
    "bad chunks": (
        ["request > 48 02 00 00 00 03 00 00 00 04 00", "request < 48 01 02 00 03 00",
         "request < 48 00 0A 00 00 20 01 00 0B 00 01 0B 00 01",
         "request > 62 01 00 00 00 03 00 00", "request < 62 06 00 0B 00 01 0B 00 00",
         "request > 62 01 00 00 00 03 00 00", "request < 62 01 10 00", "request > 33"],
        ["request > read 2 tags: Boiler/3 Boiler/4",
         "request < read reply, chunk, 2 bytes; not understood: value cut off, 2 bytes: 03 00",
         "request < read reply, last chunk, 10 bytes: array [bool true]; not understood: nothing"
         " can follow an array, 3 bytes: 0B 00 01 (1 value missing)",
         "request > subscribe 1 tag: Boiler/3",
         "request < subscribe reply, last chunk, 6 bytes: bool true; not understood: nothing more"
         " was asked, 3 bytes: 0B 00 00",
         "request > subscribe 1 tag: Boiler/3",
         "request < not understood: chunk of 4097 bytes, more than 4096",
         "request < 4 bytes: 62 01 10 00", "request > project paths"]),
}


def conversation(name):
    events, lines = CONVERSATIONS[name]
    return [event(text) for text in events], lines


@pytest.mark.parametrize("name", CONVERSATIONS)
def test_each_message_has_its_line(name):
    events, lines = conversation(name)
    assert fed(events) == lines


@pytest.mark.parametrize("name", CONVERSATIONS)
def test_single_bytes_give_the_same_lines(name):
    events, lines = conversation(name)
    assert fed(events, single_bytes) == lines


@pytest.mark.parametrize("name", CONVERSATIONS)
def test_a_cut_anywhere_gives_the_same_lines(name):
    events, lines = conversation(name)
    for cut in range(1, max(len(data) for _, _, data in events)):
        assert fed(events, lambda data: [p for p in (data[:cut], data[cut:]) if p]) == lines


def test_sends_that_follow_one_another_may_come_as_one():
    events, lines = conversation("no answer")
    assert fed([("request", ">", b"3n"), ("request", "x", b"")]) == lines


def test_a_line_begins_with_local_time_and_milliseconds():
    assert list(decoder().feed(1700000000.2344, "request", ">", b"n")) == [
        "06:13:20.234 request > subscribe alarms"]
    assert list(decoder().feed(0.9996, "request", "+", b"")) == [
        "08:00:01.000 request + opened"]


@pytest.mark.parametrize("when", [float("nan"), float("inf"), -1e300, 1e300])
def test_a_time_that_is_none_is_shown_as_none(when):
    assert list(decoder().feed(when, "request", ">", b"n")) == [
        "--:--:--.--- request > subscribe alarms"]


def test_a_request_that_waits_for_its_end_has_the_time_of_its_last_piece():
    decode = decoder()
    assert list(decode.feed(1.0, "request", ">", b"L\0\0T")) == []
    assert list(decode.feed(2.0, "request", ">", b"1\0")) == []
    assert list(decode.feed(3.0, "request", "<", b"L\x01\0\0\0")) == [
        '08:00:02.000 request > look up Boiler "T1"',
        '08:00:03.000 request < look up reply: "T1" 1']


def test_the_work_is_done_whether_or_not_the_lines_are_taken():
    decode = decoder()
    decode.feed(0.0, "request", ">", bytes.fromhex("48 01 00 00 00 03 00"))
    decode.feed(0.0, "request", "<", bytes.fromhex("48 00 03 00 0B 00 01"))
    assert len(list(decode.feed(0.0, "notify", "<", bytes.fromhex("00 00 03 00 01")))) == 1


def test_names_may_be_replaced_and_need_not_be_known():
    decode = Decoder()
    frame = bytes.fromhex("FF FF 09 00 00 03 00 01")
    assert list(decode.feed(0.0, "notify", "<", frame)) == [
        "08:00:00.000 notify < system frame 9 of 0/3: 01"]
    decode.drivers = {0: "Line\x1b[31m"}.get
    decode.tags = lambda driver, tag: 1 // 0
    assert list(decode.feed(0.0, "notify", "<", frame)) == [
        "08:00:00.000 notify < system frame 9 of Line\\x1b[31m/3: 01"]


# ---- Beginning anew ------------------------------------------------------------------------------

def test_the_next_piece_is_a_new_frame_after_one_that_cannot_be_used():
    alarm = "notify < FF FF 01" + ALARM
    assert fed([event(text) for text in (
        "notify < FF FF 17 01 02", alarm, "notify < FF FF 00" + ALARM, alarm,
        "notify < 00 00 03 00 2A", alarm)]) == [
            "notify < not understood: system frame of type 23, 5 bytes: FF FF 17 01 02",
            "notify < alarm " + ALARM_TEXT,
            "notify < not understood: system frame of type 0, 35 bytes: FF FF 00 "
            + " ".join("%02X" % byte for byte in bytes.fromhex(ALARM)),
            "notify < alarm " + ALARM_TEXT,
            "notify < not understood: change of Boiler/3, whose type is not known, 5 bytes:"
            " 00 00 03 00 2A",
            "notify < alarm " + ALARM_TEXT]


def test_opening_a_channel_drops_what_it_held():
    assert fed([event(text) for text in (
        "notify < 00 00", "notify +", "notify < FF FF FF")]) == [
            "notify < frame cut off, 2 bytes: 00 00", "notify + opened",
            "notify < system frame 255"]


def test_types_are_learnt_anew_after_the_request_channel_was_opened_again():
    events, _ = conversation("read")
    frame = event("notify < 00 00 04 00 05 00 00 00")
    assert fed(events + [frame])[-1] == "notify < change Boiler/4 i32 5"
    assert fed(events + [event("notify +"), frame])[-1] == "notify < change Boiler/4 i32 5"
    assert "not understood" in fed(events + [event("request +"), frame])[-1]


def test_a_type_without_payload_makes_changes_unusable():
    for code in ("00 00", "06 00", "00 20 00 00"):
        assert "whose type is not known" in fed([event(text) for text in (
            "request > 48 01 00 00 00 03 00", "request < 48 00 %02X 00 %s" % (
                len(bytes.fromhex(code)), code), "notify < 00 00 03 00 01")])[-1]


def test_the_latest_read_tells_the_type():
    assert fed([event(text) for text in (
        "request > 48 02 00 00 00 03 00 00 00 03 00",
        "request < 48 00 0A 00 02 00 01 00 08 00 41 42 43 00",
        "notify < 00 00 03 00 42 43 00")])[-1] == 'notify < change Boiler/3 "Temp" text "BC"'


# ---- Limits --------------------------------------------------------------------------------------

def test_the_end_of_a_long_list_is_counted():
    names = b"".join(b"\0\0Tag%03d\0" % number for number in range(85))
    lines = fed([("request", ">", b"L" + names), ("request", "<", b"L" + bytes(4 * 85))])
    assert lines[0].endswith('"Tag018" "Tag019" ... and 65 more')
    assert lines[1].endswith('"Tag018" 0, "Tag019" 0 ... and 65 more')
    twenty = b"L" + names[:20 * 9]
    assert fed([("request", ">", twenty), ("request", "x", b"")])[0].endswith('"Tag019"')


def test_long_texts_are_cut():
    change = event("request > 48 01 00 00 00 03 00")
    read = b"H\0\x05\x10\x08\0" + "温".encode("utf-8") * 1367 + b"\0"  # 4101 bytes: too many
    assert "more than 4096" in fed([change, ("request", "<", read)])[1]
    read = b"H\0\x52\0\x08\0" + b"x" * 79 + b"\0"
    assert fed([change, ("request", "<", read)])[1].endswith('text "%s"' % ("x" * 79))
    read = b"H\0\xF8\0\x08\0" + "温".encode("utf-8") * 81 + b"xx\0"
    assert fed([change, ("request", "<", read)])[1].endswith('text "%s..."' % ("温" * 80))


def test_no_line_has_more_than_4096_bytes():
    decode = Decoder(lambda driver: "\U000E0001" * 99, lambda driver, tag: "\U000E0001" * 99)
    text = "\U000E0001".encode("utf-8") * 99 + b"\0"
    read = b"".join(b"\x08\0" + text for _ in range(10)) + b"\x03"
    lines = [line for channel, direction, data in (
        ("request", ">", b"g\x04\0" + 4 * (b"\0\0\0\0\x08\0" + text)),
        ("request", ">", b"H\x14\0" + bytes(80)),
        ("request", "<", b"H\0" + struct.pack("<H", len(read)) + read),
        ("notify", "<", b"\0\0\0\0" + text),
    ) for line in decode.feed(0.0, channel, direction, data)]
    assert [line.split(" ")[3] for line in lines] == ["write", "read", "read", "change"]
    assert all(2300 < len(line.encode("utf-8")) <= 4096 for line in lines)
    assert " ... and 2 more" in lines[0] and " more" in lines[1] and " ... and 6 more;" in lines[2]


def test_a_write_of_2048_bytes_is_shown_and_a_longer_one_given_up():
    def write(size):
        return b"g\x01\0\0\0\x01\0\x08\0" + b"x" * (size - 10) + b"\0"
    events = [("request", ">", write(2048)), ("request", ">", write(2049)), ("request", "x", b"")]
    lines = fed(events)
    assert lines[0] == 'request > write 1 tag: Boiler/1 text "%s..."' % ("x" * 80)
    assert lines[1] == "request > not understood: no end within 2048 bytes, given up"
    assert lines[2].startswith("request > 2049 bytes: 67 01 00 00 00 01 00 08 00 78 78")
    assert lines[2].endswith("78 ... and 1985 more")
    assert fed(events, single_bytes) == lines


def test_requests_beyond_65536_bytes_are_given_up():
    for request in (b"L" + b"\0\0A" * 21846, b"4" + b"x" * 65536):
        lines = fed([("request", ">", request), ("request", "x", b"")])
        assert "65536 bytes, given up" in lines[0]
        assert "%d bytes: " % len(request) in lines[1]
        assert fed([("request", ">", request), ("request", "x", b"")], single_bytes) == lines
    assert fed([("request", ">", b"H\xff\xff")]) == [
        "request > not understood: 262143 bytes are more than 65536, given up"]
    longest = b"L" + b"\0\0A\0" * 16383 + b"\0\0\0"
    assert fed([("request", ">", longest), ("request", "x", b"")])[0].endswith("and 16364 more")


def test_a_frame_of_2048_bytes_is_shown_and_a_longer_one_dropped():
    read = [event("request > 48 01 00 00 00 03 00"), event("request < 48 00 03 00 08 00 00")]
    assert fed(read + [("notify", "<", b"\0\0\x03\0" + b"x" * 2043 + b"\0")])[-1] == (
        'notify < change Boiler/3 "Temp" text "%s..."' % ("x" * 80))
    assert "no end within 2048 bytes, given up, 2049 bytes: 00 00 03 00 78" in fed(
        read + [("notify", "<", b"\0\0\x03\0" + b"x" * 2044 + b"\0")])[-1]


def test_a_header_of_2048_bytes_is_shown_and_a_longer_one_given_up():
    request = ("request", ">", b"4a\r\n\r\n")
    for size, last in ((2048, "file body, 3 bytes"), (2049, "no end within")):
        header = b"Size:3\r\n" + b"x" * (size - 12) + b"\r\n\r\n"
        assert len(header) == size
        whole = fed([request, ("request", "<", header + b"abc")])
        assert last in whole[-1]
        assert whole == fed([request, ("request", "<", header + b"abc")], single_bytes)


def test_a_login_record_of_512_bytes_is_shown_and_a_longer_one_given_up():
    hello = ("notify", ">", b"8" + scrambled(SESSION + b"box\0\x01\x01"))
    record = b"8" + bytes(58) + b"p" * 300 + b"\0" + b"t" * 23 + b"\0"
    assert len(scrambled(record)) == 512
    assert "login record" in fed([hello, ("notify", "<", scrambled(record))])[1]
    longer = record[:-1] + b"t\0"
    assert fed([hello, ("notify", "<", scrambled(longer))])[1] == (
        "notify < not understood: no end within 512 bytes, given up")


def test_what_is_kept_is_bounded():
    decode = decoder()

    def kept():
        halves = [half for channel in decode._channels.values()
                  for half in (channel.sent, channel.received)]
        return sum(len(half.buffer) for half in halves)

    most = 0
    for start in (b"4a\r\n\r\n", b"n", b"Z", b"H\x01\0\0\0\0\0"):
        list(decode.feed(0.0, "request", ">", start))
        list(decode.feed(0.0, "request", "<", {b"4": b"Size:FFFFFFFF\n\n", b"n": b"n\xff\xff"}.get(
            start[:1], b"")))
        for _ in range(1000):
            list(decode.feed(0.0, "request", "<", b"\0" * 4096))
            list(decode.feed(0.0, "notify", "<", b"\xfe" * 4096))
            most = max(most, kept())
        list(decode.feed(0.0, "request", "x", b""))
    assert most <= 8192


def test_the_table_of_types_is_bounded(monkeypatch):
    monkeypatch.setattr(trace, "MAX_TYPES", 100)
    decode = decoder()
    for driver in range(50):
        decode.learn((driver, 39), 3)
        assert decode.type_of(driver, 39) == 3
        assert sum(map(len, decode._types.values())) <= 100
    decode.learn((7, 200), 5)
    assert decode.type_of(7, 200) == 5 and decode.type_of(49, 39) == 0


def test_arrays_within_arrays_have_an_end():
    request = event("request > 48 01 00 00 00 03 00")
    for depth, last in ((8, "array [" * 8 + "]" * 8), (9, "arrays within arrays, 36 bytes")):
        body = b"\0\x20\x01\0" * (depth - 1) + b"\0\x20\0\0"
        assert last in fed([request, ("request", "<", b"H\0" + struct.pack(
            "<H", len(body)) + body)])[1]
    body = b"\0\x20\x01\0" * 1024
    assert "arrays within arrays" in fed([request, ("request", "<", b"H\0\0\x10" + body)])[1]


# ---- Garbage -------------------------------------------------------------------------------------

def garbage(seed, rounds):
    """Random events, many of them made of true messages that were changed a little."""
    chance = random.Random(seed)
    known = [item for name in CONVERSATIONS for item in conversation(name)[0]]
    for _ in range(rounds):
        channel, direction, data = chance.choice(known)
        change = chance.randrange(6)
        if change == 0:
            data = bytes(chance.randrange(256) for _ in range(chance.randrange(60)))
        elif change == 1 and data:
            at = chance.randrange(len(data))
            data = data[:at] + bytes([chance.randrange(256)]) + data[at + 1:]
        elif change == 2:
            data = data[:chance.randrange(len(data) + 1)]
        elif change == 3:
            data += chance.choice(known)[2]
        elif change == 4:
            channel = chance.choice(["request", "notify"])
        else:
            direction = chance.choice("<>")
        yield channel, direction, data


@pytest.mark.parametrize("seed", range(20))
def test_garbage_never_raises(seed):
    decode = decoder()
    for channel, direction, data in garbage(seed, 1000):
        for line in decode.feed(0.0, channel, direction, data):
            assert "trace failed" not in line
            assert line.isprintable() and len(line.encode("utf-8")) <= 4096


def test_garbage_on_the_request_channel_gives_the_same_lines_byte_by_byte():
    for seed in range(20):
        events = [(channel, direction, data) for channel, direction, data in garbage(seed, 100)
                  if channel == "request" and (direction in "<>") == bool(data)]
        assert fed(events) == fed(events, single_bytes)


def test_arguments_of_no_use_do_not_raise():
    decode = decoder()
    for arguments in ((None, "request", ">", b"n"), (0.0, "other", ">", b"n"),
                      (0.0, "request", "?", b"n"), (0.0, None, None, None),
                      (0.0, "request", ">", None), (0.0, "notify", "<", "text")):
        assert len(list(decode.feed(*arguments))) == 1
    assert list(decode.feed(0.0, "request", ">", b"n")) == [
        "08:00:00.000 request > subscribe alarms"]


def test_a_mistake_of_ours_costs_one_line(monkeypatch):
    monkeypatch.setattr(trace.layouts, "alarm", lambda record: 1 // 0)
    decode = decoder()
    frame = bytes.fromhex("FF FF 01" + ALARM)
    assert list(decode.feed(0.0, "notify", "<", frame)) == [
        "08:00:00.000 notify < trace failed: ZeroDivisionError"]
    assert list(decode.feed(0.0, "notify", "<", b"\xff\xff\xff")) == [
        "08:00:00.000 notify < system frame 255"]


def test_every_text_of_two_bytes_can_be_shown():
    request = event("request > 4C 00 00 54 31 00")[2]
    for first in range(1, 256):
        names = b"".join(b"\0\0" + bytes([first, second, 0x41, 0]) for second in range(1, 256))
        line = fed([("request", ">", b"L" + names), ("request", "x", b"")])[0]
        assert line.startswith("request > look up Boiler ") and line.isprintable()
    assert fed([("request", ">", request[:3] + b"\xB0 \xFFA\0"), ("request", "x", b"")])[0] == (
        'request > look up Boiler "\\xb0 \\xffA"')


# ---- The password --------------------------------------------------------------------------------

PASSWORD = b"Xq7~Zk!Wv"
LOGIN = b"9op\0" + PASSWORD + b"\0"


def forms(password):
    """The password as it must not be seen: as text and in hexadecimal, also in parts of three."""
    for at in range(len(password) - 2):
        part = password[at:at + 3]
        yield part.decode("ascii")
        for spaced in (part.hex(), " ".join("%02x" % byte for byte in part)):
            yield spaced
            yield spaced.upper()


def assert_hidden(lines):
    assert lines
    for line in lines:
        for form in forms(PASSWORD):
            assert form not in line


OPEN, HELLO_EVENT, HELLO_ANSWER = ("request", "+", b""), event(HELLO), ("request", "<", b"7")
END = ("request", "x", b"")
MALFORMED = {
    "whole": [("request", ">", LOGIN)],
    "without its last zero byte": [("request", ">", LOGIN[:-1])],
    "without any zero byte": [("request", ">", LOGIN.replace(b"\0", b""))],
    "with a zero byte within": [("request", ">", b"9op\0Xq\0" + PASSWORD + b"\0")],
    "with bytes behind": [("request", ">", LOGIN + PASSWORD + LOGIN)],
    "behind other requests": [("request", ">", b"nL\0\0T1\0" + LOGIN)],
    "behind a write that claims more": [("request", ">", b"g\x02\0\0\0\0\0\x08\0A\0" + LOGIN)],
    "behind a code that is none": [("request", ">", b"Z\0\1" + LOGIN)],
    "twice": [("request", ">", LOGIN), ("request", ">", LOGIN)],
    "with a second login within": [("request", ">", b"9op\0Xq\x009" + PASSWORD + b"\0\0")],
    "too long": [("request", ">", b"9" + PASSWORD * 8000)],
    "on the wrong channel": [("notify", ">", LOGIN), ("notify", "x", b"")],
    "interrupted": [("request", ">", LOGIN[:7]), ("request", "<", b"0"),
                    ("request", ">", LOGIN[7:])],
    "interrupted by an acceptance": [
        ("request", ">", LOGIN[:7]), ("request", "<", b"9\0\0\0\0\x08\0\0\0"),
        ("request", ">", LOGIN[7:])],
    "sent back": [("request", ">", LOGIN), ("request", "<", LOGIN)],
    "sent back twice": [("request", ">", LOGIN), ("request", "<", LOGIN), ("request", "<", LOGIN)],
    "sent back behind an acceptance": [
        ("request", ">", LOGIN), ("request", "<", b"9\0\0\0\0\x08\0\0\0" + LOGIN)],
    "too long and sent back": [("request", ">", b"9" + PASSWORD * 8000),
                               ("request", "<", PASSWORD * 9)],
}


@pytest.mark.parametrize("start", [[OPEN, HELLO_EVENT, HELLO_ANSWER], [OPEN, HELLO_EVENT], [OPEN]],
                         ids=["connected", "in one with the hello", "opened"])
@pytest.mark.parametrize("name", MALFORMED)
def test_the_password_is_hidden(name, start):
    events = start + MALFORMED[name] + [END]
    assert_hidden(fed(events))
    if name != "too long":
        assert_hidden(fed(events, single_bytes))


@pytest.mark.parametrize("name", ["whole", "without its last zero byte", "without any zero byte",
                                  "with bytes behind", "behind a code that is none",
                                  "interrupted", "interrupted by an acceptance", "sent back"])
def test_the_password_is_hidden_from_one_who_comes_late(name):
    assert_hidden(fed(MALFORMED[name] + [END]))
    assert_hidden(fed(MALFORMED[name] + [END], single_bytes))


def test_the_password_is_hidden_wherever_the_login_is_cut():
    for first in range(1, len(LOGIN)):
        for second in range(first, len(LOGIN)):
            for between in (b"", b"7", b"0", b"9"):
                events = [OPEN, HELLO_EVENT, HELLO_ANSWER, ("request", ">", LOGIN[:first]),
                          ("request", "<", between), ("request", ">", LOGIN[first:second]),
                          ("request", "<", between), ("request", ">", LOGIN[second:]), END]
                assert_hidden(fed(events))


def test_what_is_no_hello_is_not_shown_on_the_notification_channel():
    assert fed([("notify", ">", LOGIN * 3), ("notify", "x", b"")]) == [
        "notify > not understood: no notification hello", "notify > 42 bytes, not shown",
        "notify x ended"]


def test_before_the_login_only_hellos_and_logins_are_shown():
    assert fed([OPEN, ("request", ">", b"g\x01\0\0\0\0\0\x0B\0\1"), END]) == [
        "request + opened", "request > not understood: no login yet",
        "request > 10 bytes, not shown", "request x ended"]


def test_after_the_login_everything_is_shown():
    assert fed([OPEN, HELLO_EVENT, HELLO_ANSWER, ("request", ">", LOGIN),
                ("request", "<", b"9\0\0\0\0\x08\0\0\0"), ("request", ">", b"Z"), END])[-2:] == [
                    "request > 1 byte: 5A", "request x ended"]


def test_a_hello_that_swallowed_other_bytes_is_not_shown():
    assert fed([OPEN, ("request", ">", event(HELLO)[2] + LOGIN), HELLO_ANSWER])[1:] == [
        "request > login hello, malformed, 37 bytes, not shown", "request < login hello accepted"]


# ---- With a server -------------------------------------------------------------------------------

class Tapped:
    """A connection to the simulator whose decoder hears of every send and receive."""

    def __init__(self, decode, name, port):
        self.lines = []
        self.decode, self.name = decode, name
        self.sock = socket.create_connection(("127.0.0.1", port), 30)
        self.tell("+", b"")

    def tell(self, direction, data):
        self.lines += [line.split(" ", 2)[2] for line in self.decode.feed(
            time.time(), self.name, direction, data)]

    def send(self, data):
        self.sock.sendall(data)
        self.tell(">", data)

    def receive(self, size, piece):
        while size:
            data = self.sock.recv(min(size, piece))
            assert data, "the simulator ended the connection"
            size -= len(data)
            self.tell("<", data)

    def ask(self, data, size):
        self.send(data)
        self.receive(size, 7)

    def close(self):
        self.sock.close()
        self.tell("x", b"")


def test_a_session_with_the_simulator_is_understood():
    decode = Decoder({0: "line1"}.get, lambda driver, tag: {LINE1["水位"]: "水位"}.get(tag))
    level, text = LINE1["水位"], LINE1["str"]
    with Simulator(SMALL_PLANT, tick=0) as simulator:
        request = Tapped(decode, "request", simulator.port)
        request.ask(b"7" + scrambled(SESSION), 1)
        notify = Tapped(decode, "notify", simulator.port)
        notify.send(b"8" + scrambled(SESSION + b"box\0\1\1"))
        notify.receive(len(scrambled(bytes(59) + b"Line1\0A small plant\0")), 100)
        request.ask(b"9operator\0password\0", 9)
        request.ask(b"L\0\0" + "水位".encode("gb2312") + b"\0\0\0no\0", 9)
        request.ask(b"b\2\0" + struct.pack("<HHBHHB", 0, level, 0, 0, text, 0), 3 + 6 + 8)
        request.send(b"g\2\0" + struct.pack("<HHHi", 0, level, 3, -5)
                     + struct.pack("<HHH", 0, text, 8) + b"pump\0")
        notify.receive(8 + 9, 5)
        request.ask(b"H\1\0" + struct.pack("<HH", 0, level), 10)
        request.ask(b"n", 3)
        request.close()
        notify.close()
    assert request.lines == [
        "+ opened", "> login hello, session 80a355671234abcd80a355673f420f00",
        "< login hello accepted", '> user login "operator", password not shown',
        "< user login accepted, rights 8 (may write)",
        '> look up line1 "水位" "no"', '< look up reply: "水位" 19, "no" unknown',
        "> subscribe 2 tags: line1/19 line1/4",
        '< subscribe reply, last chunk, 14 bytes: i32 77, text "valve"',
        '> write 2 tags: line1/19 i32 -5, line1/4 text "pump"',
        "> read 1 tag: line1/19", "< read reply, last chunk, 6 bytes: i32 -5",
        "> subscribe alarms", "< 0 active alarms", "x ended"]
    assert notify.lines[:2] == [
        "+ opened", "> notification hello, session 80a355671234abcd80a355673f420f00,"
        ' machine "box", database yes']
    assert notify.lines[2].startswith('< login record: project "Line1", title "A small plant",')
    assert notify.lines[3:] == [
        '< change line1/19 "水位" i32 -5', '< change line1/4 text "pump"', "x ended"]
