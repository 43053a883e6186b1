#!/usr/bin/env python3
"""Writes the seeds: one small input for each thing that a target's bytes can say.

They lie in corpus/ and change only when this file does; inputs that were once found lie beside
them, under names that begin with "found-".
"""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CUT = b"\xfe\xed"  # what follows does not arrive together with what came before
LEVEL = b"\xcb\xae\xce\xbb"  # the GB2312 form of a name
LEVEL_UTF8 = b"\xe6\xb0\xb4\xe4\xbd\x8d"

I4 = b"\x03\x00\x2a\x00\x00\x00"
VALUES = {
    "empty": b"\x00\x00", "null": b"\x01\x00", "i2": b"\x02\x00\xfe\xff", "i4": I4,
    "r4": b"\x04\x00\x00\x00\x08\x41", "r8": b"\x05\x00" + struct.pack("<d", -2.5),
    "cy": b"\x06\x00", "date": b"\x07\x00" + struct.pack("<d", 45356.297326388885),
    "text": b"\x08\x00AB\x00", "text_empty": b"\x08\x00\x00", "bool": b"\x0b\x00\x01",
    "bool_odd": b"\x0b\x00\x80", "i1": b"\x10\x00\xff", "ui1": b"\x11\x00\xff",
    "ui2": b"\x12\x00\xff\xff", "ui4": b"\x13\x00\xff\xff\xff\xff",
    "i8": b"\x14\x00\x00\x00\x00\x00\x00\x00\x00\x80", "ui8": b"\x15\x00",
    "int": b"\x16\x00\x00\x00\x00\x80", "uint": b"\x17\x00\xff\xff\xff\x7f",
    "unknown": b"\x2a\x00", "nan": b"\x05\x00\x00\x00\x00\x00\x00\x00\xf8\x7f",
    "signalling_nan": b"\x04\x00\x01\x00\x80\x7f", "denormal": b"\x05\x00\x01" + bytes(7),
    "minus_infinity": b"\x05\x00\x00\x00\x00\x00\x00\x00\xf0\xff",
    "date_far": b"\x07\x00" + struct.pack("<d", 1e300), "text_number": b"\x08\x00-12.5e3\x00",
    "text_colour": b"\x08\x00#FF8000\x00", "text_date": b"\x08\x002024-03-05 07:08:09\x00",
    "text_gb": b"\x08\x00" + LEVEL + b"\x00",
    "array": b"\x00\x20\x02\x00" + I4 + b"\x08\x00AB\x00",
    "array_empty": b"\x00\x20\x00\x00", "array_in_array": b"\x00\x20\x01\x00\x00\x20",
    "array_cut": b"\x00\x20\xff\xff" + I4, "text_cut": b"\x08\x00AB", "i4_cut": I4[:-1],
}  # with type code
ALARM = struct.pack("<IIHHHBBdd", 1600000000, 1600000001, 1, 0, 5, 2, 1, 81.5, 80.0)
RECORD = b"8" + b"x" * 50 + b"\x5f\x5e\x10\xff"  # "\xff" stands for a zero byte in target login


def variants():
    seeds = {name: b"\x00" + data for name, data in VALUES.items()}
    seeds.update(("typed_" + name, data[:1] + data[2:]) for name, data in VALUES.items()
                 if data[1] == 0 and 1 < data[0] < 24 and "_" not in name)
    seeds["typed_array"] = b"\xff\x01\x00" + I4
    return seeds


def change(tag, payload, driver=0):
    return struct.pack("<HH", driver, tag) + payload


def notifications():
    # In target notify the tag id of driver 0 is its type code.
    changes = [change(data[0], data[2:]) for name, data in VALUES.items()
               if data[1] == 0 and 1 < data[0] < 24 and len(data) > 2 and "cut" not in name]
    system = {2: bytes(4), 4: bytes(40), 5: bytes(4), 6: bytes(17), 7: bytes(4), 8: bytes(2)}
    system.update((kind, b"\x00\x00\x03\x00" + bytes(8)) for kind in (10, 11, 12, 13))
    system.update((kind, b"\x00\x00\x03\x00\x00") for kind in (9, 14, 15, 22))
    system.update((kind, b"\x03\x00\x05\x00abc\x00") for kind in range(16, 22))
    frames = b"".join(b"\xff\xff" + bytes([kind]) + data for kind, data in sorted(system.items()))
    return {
        "all_types": b"\x03" + b"".join(changes),
        "all_types_no_callback": b"\x02" + b"".join(changes),
        "alarm": b"\x03\xff\xff\x01" + ALARM, "alarm_type_3": b"\x03\xff\xff\x03" + ALARM,
        "alarm_cut": b"\x03\xff\xff\x01" + ALARM[:-1],
        "alarm_without_call": b"\x02\xff\xff\x01" + ALARM,
        "system_frames": b"\x03" + frames + b"\xff\xff\xff" + changes[0],
        "system_frame_0": b"\x03\xff\xff\x00" + changes[0], "system_frame_100": b"\x03\xff\xff\x64",
        "boiler": b"\x03" + change(0, b"AB\x00", 3) + change(5, b"", 3),
        "text_without_end": b"\x03" + change(8, b"AB"),
        "no_such_driver": b"\x03" + change(3, I4, 9),
        "driver_never_asked_for": b"\x03" + change(1, I4, 1),
        "no_value_yet": b"\x03" + change(39, I4),
        "change_cut": b"\x03" + changes[0] + change(3, b"\x01\x02"), "one_byte": b"\x03\xff",
        "mixed": b"\x03" + changes[1] + b"\xff\xff\x01" + ALARM + changes[5] + b"\xff\xff\xff",
        "full_chunk": b"\x03" + change(3, b"\x01\x02\x03\x04") * 256,
    }


def read(*chunks):
    return b"".join(b"H" + (b"\x00" if i + 1 == len(chunks) else b"\x01")
                    + struct.pack("<H", len(chunk)) + CUT + chunk + CUT
                    for i, chunk in enumerate(chunks))


def subscribe(*chunks):
    return b"".join(b"b" + CUT + struct.pack("<H", len(chunk)) + CUT + chunk + CUT
                    for chunk in chunks)


def replies():
    # Five names, of which the last is unknown: a, b, c, LEVEL, none; then d, a, (blank), e.
    found = b"L" + b"".join(struct.pack("<HH", n, 3) for n in (0, 1, 2, 3, 0xFFFF)) + CUT
    more = b"L" + struct.pack("<HHHH", 4, 3, 5, 3) + CUT
    one = b"L\x04\x00\x03\x00" + CUT
    four = [VALUES["i4"], VALUES["text"], VALUES["r8"], VALUES["bool"]]
    numbers = VALUES["ui2"] + VALUES["i1"] + VALUES["r4"] + VALUES["date"]
    return {
        "subscribe": b"\x00\x01" + found + subscribe(b"".join(four)),
        "subscribe_in_chunks": b"\x00\x01" + found + subscribe(*four),
        "subscribe_empty_chunks": b"\x00\x01" + found + subscribe(*[b""] * 17),
        "subscribe_header_split": b"\x00\x01" + found + b"b\x06" + CUT + b"\x00" + I4,
        "read": b"\x00\x02" + found + read(b"".join(four)),
        "read_in_chunks": b"\x00\x02" + found + read(*four),
        "read_numbers": b"\x00\x02" + found + read(numbers),
        "read_values_missing": b"\x00\x02" + found + read(four[0]),
        "read_one_more": b"\x00\x02" + found + read(b"".join(four) + I4),
        "read_value_cut": b"\x00\x02" + found + read(b"".join(four)[:-1]),
        "read_array_ends_chunk": b"\x00\x02" + found + read(VALUES["array"], b"".join(four[1:])),
        "read_behind_array": b"\x00\x02" + found + read(VALUES["array"] + I4),
        "read_header_split": b"\x00\x02" + found + b"H\x00" + CUT + b"\x06\x00" + I4,
        "read_chunk_too_long": b"\x00\x02" + found + b"H\x00\x01\x10" + bytes(100),
        "read_bytewise": b"\x01\x02" + found + read(b"".join(four)),
        "read_silence": b"\x80\x02" + found + b"H\x00\x20\x00" + I4,
        "read_refused": b"\x00\x02" + found + b"0", "lookup_cut": b"\x00\x02" + found[:8],
        "lookup_beyond_table": b"\x00\x04L\x28\x00\x03\x00",
        "read_one": b"\x00\x04" + one + read(I4),
        "read_one_without_object": b"\x00\x04" + one + read(VALUES["date"]),
        "subscribe_then_read": b"\x00\x03" + found + subscribe(b"".join(four)) + read(b""),
        "both_lists": b"\x00\x1b" + found + subscribe(b"".join(four)) + more + subscribe(I4 + I4),
        "write": b"\x00\x20" + found, "write_lookup_silence": b"\x80\x20" + found[:3],
        "single_lookup": b"\x00\x40L\x04\x00" + CUT + one + b"d",
        "paths": b"\x00\x40L\x04\x00" + CUT + one + b"d" + CUT + b"3/p/\0/e/\0/a/\0/h/\0",
        "paths_cut": b"\x00\x40L\x04\x00" + CUT + one + b"d" + CUT + b"3/p/\0/e",
        "unadvise_refused": b"\x00\x40L\x04\x00" + CUT + one + b"0",
        "alarms": b"\x00\x81" + found + subscribe(b"".join(four)) + b"n\x02\x00" + CUT + ALARM
        + ALARM
        + CUT + b"Size:9\r\n\r\nhigh\nlow\n" + CUT + b"Size:3\r\n\r\na\nb",
        "alarms_dropped": b"\x00\x80n\x01\x00" + CUT + ALARM + CUT + b"Exist:No\r\n\r\n" + CUT
        + b"UseLast:Yes\r\n\r\n",
        "alarms_none": b"\x00\x80n\x00\x00",
        "alarms_cut": b"\x00\x80n\x02\x00" + CUT + ALARM + ALARM[:-1],
        "alarms_refused": b"\x00\x800",
    }


def frames():
    # As target notify, but cut into pieces: the first two bytes tell how.
    seeds = {name: b"\x05\x01" + data[1:] for name, data in notifications().items()}
    seeds["whole_chunks"] = b"\x00\x02" + change(3, b"\x01\x02\x03\x04") * 300
    good = change(17, b"\x05")
    seeds["longest_text"] = b"\x04\x00" + change(8, b"x" * 2043 + b"\x00") + good
    seeds["text_too_long"] = b"\x04\x00" + change(8, b"x" * 2044 + b"\x00") + good
    seeds["system_text_too_long"] = (b"\x04\x00\xff\xff\x10\x00\x00\x03\x00" + b"x" * 2041
                                     + b"\x00" + good)
    seeds["good_behind_bad"] = b"\x02\x00" + good + b"\xff\xff\x00" + good
    return seeds


def client():
    # Operations: 1 look up three names of five, 2 read four tags, 4 watch three, 8 write, 16 watch
    # alarms, 32 probe, 64 watch two, 128 read one.
    def seed(how, operations, replies, told=b""):
        told += b"\xff" * (-len(told) % 8)
        return bytes([how, operations, len(told) // 8]) + told + replies
    found = b"L" + struct.pack("<HHHHHH", 1, 3, 0xFFFF, 3, 2, 3) + CUT
    four = [VALUES["i4"], VALUES["text"], VALUES["r8"], VALUES["bool"]]
    three = [VALUES["i4"], VALUES["text"], VALUES["ui1"]]
    values, watched = b"".join(four), b"".join(three)
    told = change(1, b"\x07\x00\x00\x00") + change(2, b"on\x00") + change(5, b"\x01")
    lists = b"Size:9\r\n\r\nhigh\nlow\n" + CUT + b"Size:3\r\n\r\na\nb" + CUT
    probed = b"L\xff\xff\x00\x00" + CUT
    return {
        "look_up": seed(0, 1, found), "look_up_bytewise": seed(1, 1, found),
        "look_up_cut": seed(0, 1, found[:9]), "look_up_refused": seed(0, 1, b"0" + found[1:]),
        "look_up_silence": seed(0x80, 1, found[:5]),
        "read": seed(0, 2, read(values)), "read_in_chunks": seed(0, 2, read(*four)),
        "read_short": seed(0, 2, read(four[0])), "read_one_more": seed(0, 2, read(values + I4)),
        "read_cut": seed(0, 2, read(values[:-1])),
        "read_silence": seed(0x80, 2, b"H\x00\x20\x00" + I4),
        "read_array": seed(0, 2, read(VALUES["array"], b"".join(four[1:]))),
        "read_behind_array": seed(0, 2, read(VALUES["array"] + I4)),
        "read_array_cut": seed(0, 2, read(VALUES["array_cut"])),
        "read_text_cut": seed(0, 2, read(VALUES["text_cut"])),
        "read_bytewise": seed(1, 2, read(values)),
        "read_empty_chunks": seed(0, 2, b"H\x01\x00\x00" * 16),
        "read_too_long": seed(0, 2, b"H\x00\x01\x10" + bytes(4097)),
        "watch": seed(0, 4, subscribe(watched), told),
        "watch_in_chunks": seed(0, 4, subscribe(*three), told),
        "watch_cut": seed(0, 4, subscribe(watched[:-1]), told),
        "watch_array": seed(0, 4, subscribe(three[0] + VALUES["array"], three[2]), told),
        "watch_twice": seed(0, 68, subscribe(watched) + subscribe(I4), told + change(7, I4[2:])),
        "watch_silence": seed(0x80, 4, b"b\x06\x00" + I4[:3], told),
        "watch_unusable": seed(0, 4, subscribe(watched), b"\xff\xff\x00" + told),
        "write": seed(0, 8, b""),
        "alarms": seed(0, 16, b"n\x02\x00" + CUT + ALARM + ALARM + CUT + lists,
                       b"\xff\xff\x01" + ALARM),
        "alarms_cut": seed(0, 16, b"n\x02\x00" + CUT + ALARM + ALARM[:-1]),
        "alarms_list_cut": seed(0, 16, b"n\x00\x00" + CUT + b"Size:9\r\n\r\nhigh\n"),
        "alarms_silence": seed(0x80, 16, b"n\x00\x00" + CUT + b"Size:99\r\n\r\n"),
        "alarms_no_lists": seed(0, 16, b"n\x00\x00" + CUT + b"Exist:No\r\n\r\n" + CUT
                                + b"Exist:No\r\n\r\n"),
        "alarms_refused": seed(0, 16, b"0"), "probe": seed(0, 32, probed),
        "probe_end": seed(0, 32, b""),
        "everything": seed(0, 255, found + read(values) + subscribe(watched) + b"n\x01\x00" + CUT
                           + ALARM + CUT + lists + probed + subscribe(I4) + read(I4), told),
        "everything_silence": seed(0x80, 255, found + read(values) + subscribe(watched), told),
    }


def transfers():
    head = b"FileName:f\r\nFileTime:5F5E1000\r\nSize:5\r\n"
    return {
        "whole": b"\x00\x00\x00" + head + b"\r\nABCDE",
        "in_parts": b"\x00\x00\x00" + head + b"\r\n" + CUT + b"AB" + CUT + b"CDE",
        "bytewise_body": b"\x00\x00\x00" + head + b"\r\n" + b"A" + CUT + b"B" + CUT + b"CDE",
        "bytewise": b"\x01\x00\x00" + head + b"\r\nABCDE",
        "surplus_in_last_receive": b"\x00\x00\x00" + head + b"\r\nAB" + CUT + b"CDEFGH",
        "surplus": b"\x00\x00\x00" + head + b"\r\nABCDEFGH",
        "cut": b"\x00\x00\x00" + head + b"\r\nABC",
        "silence": b"\x80\x00\x00" + head + b"\r\nABC", "empty_file": b"\x00\x01\x00Size:0\r\n\r\n",
        "gz": b"\x00\x02\x00" + head + b"GZ:Yes\r\n\r\n\x1f\x8bCDE",
        "append": b"\x00\x01\x00" + head + b"Append:Yes\r\n\r\nABCDE",
        "no_such_file": b"\x00\x01\x00Exist:No\r\n\r\n",
        "use_last": b"\x00\x01\x00UseLast:Yes\r\n\r\n",
        "current": b"\x00\x09\x00", "half_is_not_current": b"\x00\x0d\x00" + head + b"\r\nABCDE",
        "acknowledged_by_relay": b"\x00\x10\xff" + b"Hello:Yes\r\nSize:9C40\r\n\r\n" + CUT
        + b"0123456789abcdef" * 64,
        "acknowledged": b"\x00\x00\xff" + b"Hello:Yes\r\nSize:24000\r\n\r\n" + CUT
        + b"0123456789abcdef" * 64,
        "size_huge": b"\x00\x00\x00Size:FFFFFFFF\r\n\r\nAB",
        "size_signed": b"\x00\x00\x00Size:-5\r\n\r\nABCDE",
        "name_too_long": b"\x00\x00\x00" + b"n" * 64 + b":1\r\n\r\n",
        "value_too_long": b"\x00\x00\x00FileName:" + b"v" * 256,
        "longest_fields": b"\x00\x00\x00" + b"n" * 63 + b":" + b"v" * 255 + b"\r\nSize:1\r\n\r\nA",
        "blanks": b"\x00\x00\x00 Si\tze : 1 \r\n\r\nA", "colons": b"\x00\x00\x00Size::1:\n\nA",
        "no_end_of_header": b"\x00\x00\x00Size:5\r\n", "nothing": b"",
        "mixed_case": b"\x00\x01\x00sIZE:1\r\nappend:YES\r\ngz:no\r\n\r\nA",
    }


def driver_files():
    boiler = b"Boiler\x00\x00\x00\x08\x00"
    return {
        "one": boiler, "two": boiler + b"\xb9\xf8\xc2\xaf\x00\x07\x00\x03\x00", "empty": b"",
        "same_name": boiler + b"Boiler\x00\x01\x00\x09\x00", "no_name": b"\x00\x01\x00\x02\x00",
        "cut_in_number": boiler + b"Mill\x00\x01\x00\x03", "cut_in_name": boiler + b"Mi",
        "limits": b"a\x00\xff\xff\xff\xff" + b"b\x00\x00\x00\x00\x00",
        "four_bytes": b"\x00\x01\x00\x02",
    }


def lists():
    return {
        "two_lines": b"\x00high\nlow\n",
        "cr_lf": b"\x00high\r\nlow\r\n",
        "no_last_end": b"\x00high\nlow",
        "empty_lines": b"\x00\n\r\n\nhigh\n\r",
        "gb": b"\x00" + LEVEL + b"\n" + LEVEL[:3] + b"\nx\n",
        "255": b"\x00" + b"x" * 255 + b"\n", "256": b"\x00" + b"x" * 256 + b"\n",
        "255_and_cr": b"\x00" + b"x" * 255 + b"\r\n",
        "cut_in_character": b"\x00" + b"x" * 254 + LEVEL + b"\n",
        "zero_byte": b"\x00a\x00b\nc\n", "across_reads": b"\xf0" + b"x" * 600 + b"\r\ny",
    }


def texts():
    return {
        "ascii": b"Steam pressure",
        "gb": LEVEL,
        "utf8": LEVEL_UTF8,
        "mixed": b"T1 " + LEVEL + b" x",
        "gb_cut": LEVEL[:3], "utf8_cut": LEVEL_UTF8[:5], "first_and_last_cell": b"\xa1\xa1\xf7\xfe",
        "beyond_rows": b"\xf8\xa1",
        "single_0x80": b"a\x80b",
        "gbk_only": b"\x81\x40",
        "euro": b"\xe2\x82\xac",
        "surrogate": b"\xed\xa0\x80",
        "overlong": b"\xc0\xaf",
        "four_bytes": b"\xf0\x9f\x94\xa5",
        "zero": b"a\x00" + LEVEL,
        "bom": b"\xef\xbb\xbfa",
        "middle_dot": b"\xa1\xa4",
        "dash": b"\xa1\xaa",
        "utf16": b"a\x00\x34\x6c\x4d\x4f",
        "empty": b"", "nine_bytes_then_gb": b"123456789" + LEVEL,
    }


def formats():
    def seed(number, digits, old=b"", new=b"", text=b""):
        return number + bytes([digits + 2]) + old + b"\0" + new + b"\0" + text
    day = struct.pack("<d", 45356.297326388885)
    return {
        "tokens": seed(day, 0, b",", b"", b"a,b,, c ,"),
        "replace": seed(day, 3, b"ab", b"b", b"ababab"),
        "replace_longer": seed(day, 10, b"x", b"xx", b"axbxc"),
        "date": seed(day, -1, b"", b"", b"2024-03-05 07:08:09"),
        "template": seed(day, 11, b"", b"", b"$Y $2Y-$M $2M-$D $2D $h:$m:$s $2h:$2m:$2s"),
        "date_far": seed(struct.pack("<d", 1e18), 1), "nan": seed(b"\x00" * 6 + b"\xf8\x7f", 0),
        "infinity": seed(b"\x00" * 6 + b"\xf0\x7f", 5),
        "largest": seed(b"\xff" * 6 + b"\xef\x7f", 10),
        "i64_lowest": seed(bytes(7) + b"\x80", -1),
        "date_fields": seed(b"\xff" * 8, 2, b"", b"", b"99999999999-99-99 99:99:99"),
        "date_lowest": seed(bytes(8), 0, b"", b"", b"-2147483648--2147483648"),
        "colour": seed(day, 0, b"", b"", b"#FF8000"),
        "host": seed(day, 0, b"", b"", b"10.1.2.3:8080"),
        "relay": seed(day, 0, b"", b"", b"P2P(10.1.2.3):Plant"),
        "trim": seed(day, 0, b" \t", b"", b"\t a b \x00"),
        "set_of_all": seed(day, 0, b"abc", b"c", b"aabbcc"),
        "numbers": seed(day, 0, b"-", b"+", b" -4294967296.5e10"),
        "case": seed(day, 0, b"", b"", b"aBc\xc0\xe0"),
        "epoch": seed(struct.pack("<d", 25569.0), 0),
        "before_epoch": seed(struct.pack("<d", 25568.5), 0),
    }


def logins():
    notify = RECORD + b"\xff\xff\xff\x06Fuzz\xffPlant\xff"
    user = CUT + b"9\x00\x00\x00\x00\x08\x00\x00\x00" + CUT
    drvinfo = b"Size:6\r\nFileTime:5F5E10FF\r\n\r\nA\x00\x00\x00\x05\x00"
    good = notify + b"\x00" + b"7" + user + drvinfo
    direct = b"\x00\x00\x00"
    return {
        "good": b"\x81" + direct[1:] + good,
        "good_no_thread": direct + good,
        "through_center": b"\x01\x00\x00" + good,
        "center_port": b"\x02\x00\x00" + good,
        "redirect": b"\x82\x00\x00" + notify + b"\x007lan\xc0\x00\x02\x02\x1f\x40" + user + drvinfo,
        "redirect_in_circles": b"\x01\x00\x00" + notify + b"\x007lan\xc0\x00\x02\x02\x0f\x80"
        + user + drvinfo,
        "redirect_short": b"\x01\x00\x00" + notify + b"\x007lan\xc0\x00\x02" + user + drvinfo,
        "refused": direct + b"\x000",
        "silence": b"\x00\x80\x00\x00",
        "other_answer": direct + b"\x00x",
        "notify_refused": direct + b"0\x007", "notify_scrambled": b"\x00\x00\x40Z\x8a\x007",
        "notify_lone_key": b"\x00\x00\x40Z\x8aZ\xff\x5b\x007",
        "notify_bytewise": b"\x00\x00\x01" + good,
        "notify_short": direct + RECORD + b"\xff\xff\xff\xff\x007",
        "no_project": direct + RECORD + b"\xff\xff\xff\x06\xff\xff\x007",
        "names_without_end": direct + RECORD + b"\xff\xff\xff\x06Fuzz\x007" + user + drvinfo,
        "project_dots": direct + RECORD + b"\xff\xff\xff\x06..\xff\xff\x007",
        "project_slash": direct + RECORD + b"\xff\xff\xff\x06a/b\xff\xff\x007",
        "project_gb": direct + RECORD + b"\xff\xff\xff\x06\xb9\xf8\xc2\xaf\xff\xff\x007" + user
        + drvinfo,
        "user_refused": direct + notify + b"\x007" + CUT + b"0",
        "rights_cut": direct + notify + b"\x007" + CUT + b"9\x00\x00\x00\x00\x08" + CUT + drvinfo,
        "file_cut": direct + notify + b"\x007" + user + drvinfo[:-1],
        "no_file": direct + notify + b"\x007" + user + b"Exist:No\r\n\r\n",
        "highest_driver": direct + notify + b"\x007" + user
        + b"Size:6\r\n\r\nA\x00\xff\xff\xff\xff",
    }


def packets():
    return {
        "abcde": bytes.fromhex("10 71 52 73 F3 57 72"),
        "refused": b"\x5a\x8a",
        "empty": b"",
        "lone_key": b"\x01",
        "key_at_end": b"\x01\x02\x03\x04\x05", "hello": bytes.fromhex(
            "0181A2547FE6934B802B4D00FFA256982A6918250000"),
        "512_bytes": bytes(range(256)) * 2, "511_bytes": bytes(511), "509_bytes": b"\xff" * 509,
    }


TARGETS = {
    "variant": variants, "notify": notifications, "replies": replies, "transfer": transfers,
    "frames": frames, "client": client, "drvinfo": driver_files, "lists": lists, "text": texts,
    "format": formats, "login": logins, "scrambler": packets,
}


def main():
    for target, seeds in TARGETS.items():
        folder = os.path.join(HERE, "corpus", target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds().items():
            with open(os.path.join(folder, name), "wb") as out:
                out.write(data)


if __name__ == "__main__":
    main()
