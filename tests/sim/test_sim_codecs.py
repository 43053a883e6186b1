"""The codecs against literal bytes: scrambler, values, frames."""

import struct

import pytest

from vzsim import frames, scrambler, values


def keys(*given):
    """A key source that hands out these bytes."""
    return lambda count: bytes(given[:count])


# ---- scrambler -------------------------------------------------------------------------------

@pytest.mark.parametrize("plain, wire", [
    (b"", b""),
    (b"\x01", b"\x10\x11"),
    (b"\x01\x02", b"\x10\x11\xf2"),
    (b"\x01\x02\x03", b"\x10\x11\xf2\x13"),
    (b"\x01\x02\x03\xff", b"\x10\x11\xf2\x13\x20\x1f"),
])
def test_scrambled_bytes_both_ways(plain, wire):
    assert scrambler.scramble(plain, keys(0x10, 0x20)) == wire
    assert scrambler.unscramble(wire) == plain


@pytest.mark.parametrize("plain, wire", [
    (0, 0), (1, 2), (2, 3), (3, 4), (4, 6), (16, 22), (23, 31)])
def test_scrambled_lengths(plain, wire):
    assert scrambler.scrambled_length(plain) == wire
    assert len(scrambler.scramble(bytes(plain))) == wire


def test_a_lone_key_byte_cannot_be_unscrambled():
    with pytest.raises(ValueError):
        scrambler.unscramble(b"\x10\x11\xf2\x13\x20")
    assert scrambler.unscramble_prefix(b"\x10\x11\xf2\x13\x20") == b"\x01\x02\x03"


def test_every_prefix_gives_the_plain_bytes_that_are_there():
    plain = bytes(range(7))
    wire = scrambler.scramble(plain)
    lengths = [len(scrambler.unscramble_prefix(wire[:size])) for size in range(len(wire) + 1)]
    assert lengths == [0, 0, 1, 2, 3, 3, 4, 5, 6, 6, 7]


# ---- values ----------------------------------------------------------------------------------

ENCODED = [
    (values.I2, -2, b"\x02\0\xfe\xff"),
    (values.I4, 258, b"\x03\0\x02\x01\0\0"),
    (values.R4, 1.5, b"\x04\0\0\0\xc0\x3f"),
    (values.R8, -2.5, b"\x05\0\0\0\0\0\0\0\x04\xc0"),
    (values.DATE, 25569.0, b"\x07\0\0\0\0\0\x40\xf8\xd8\x40"),
    (values.BOOL, True, b"\x0b\0\x01"),
    (values.BOOL, False, b"\x0b\0\0"),
    (values.I1, -1, b"\x10\0\xff"),
    (values.UI1, 255, b"\x11\0\xff"),
    (values.UI2, 65535, b"\x12\0\xff\xff"),
    (values.UI4, 4294967295, b"\x13\0\xff\xff\xff\xff"),
    (values.I8, -3, b"\x14\0\xfd\xff\xff\xff\xff\xff\xff\xff"),
    (values.INT, -4, b"\x16\0\xfc\xff\xff\xff"),
    (values.UINT, 5, b"\x17\0\x05\0\0\0"),
    (values.STR, b"AB", b"\x08\0AB\0"),
    (values.STR, b"", b"\x08\0\0"),
    (values.EMPTY, None, b"\0\0"),
    (values.NULL, None, b"\x01\0"),
    (values.CY, None, b"\x06\0"),
    (values.UI8, None, b"\x15\0"),
]


@pytest.mark.parametrize("vt, value, wire", ENCODED)
def test_values_both_ways(vt, value, wire):
    assert values.encode(vt, value) == wire
    assert values.decode(wire) == (vt, value, len(wire))
    assert values.decode(b"??" + wire[2:], 2, vt) == (vt, value, len(wire))


@pytest.mark.parametrize("vt, value, wire", ENCODED)
def test_every_shorter_prefix_of_a_value_is_truncated(vt, value, wire):
    for size in range(len(wire)):
        with pytest.raises(values.Truncated):
            values.decode(wire[:size])


def test_an_array_carries_a_count_and_typed_elements():
    wire = b"\x00\x20\x04\0\x03\0\x01\0\0\0\x08\0x\0\x0b\0\x01\x05\0" + struct.pack("<d", 0.5)
    assert values.encode(values.ARRAY, [1, "x", True, 0.5]) == wire
    assert values.decode(wire) == (
        values.ARRAY, [(3, 1), (8, b"x"), (11, True), (5, 0.5)], len(wire))
    for size in range(len(wire)):
        with pytest.raises(values.Truncated):
            values.decode(wire[:size])


def test_an_array_whose_count_exceeds_its_bytes_is_truncated_before_reading():
    with pytest.raises(values.Truncated):
        values.decode(b"\x00\x20\xff\xff" + b"\0\0" * 3)


def test_an_empty_text_at_the_very_beginning_is_a_value():
    assert values.decode(b"\0", 0, values.STR) == (values.STR, b"", 1)


def test_any_nonzero_byte_is_true():
    assert values.decode(b"\x0b\0\x07") == (values.BOOL, True, 3)


@pytest.mark.parametrize("vt", sorted(values.INT_RANGES))
def test_whole_numbers_are_taken_up_to_their_limits_and_no_further(vt):
    low, high = values.INT_RANGES[vt]
    assert values.coerce(vt, low) == low and values.coerce(vt, high) == high
    values.encode(vt, low), values.encode(vt, high)
    for beyond in (low - 1, high + 1):
        with pytest.raises(ValueError):
            values.coerce(vt, beyond)
        with pytest.raises(ValueError):
            values.encode(vt, beyond)
    assert values.coerce(vt, low - 1, clamp=True) == low
    assert values.coerce(vt, high + 1, clamp=True) == high


def test_numbers_and_texts_are_converted_to_the_tags_type():
    assert values.coerce(values.I4, 2.6) == 3
    assert values.coerce(values.I4, b"12") == 12
    assert values.coerce(values.R8, "1.25") == 1.25
    assert values.coerce(values.STR, 7) == "7"
    assert values.coerce(values.BOOL, 0.5) is True
    assert values.coerce(values.R4, 0.1) == pytest.approx(0.1) and \
        values.coerce(values.R4, 0.1) != 0.1
    assert values.coerce(values.DATE, "1970-01-01 12:00:00") == 25569.5


@pytest.mark.parametrize("vt, value", [
    (values.I4, "word"), (values.I4, float("nan")), (values.R4, 1e39), (values.I4, None),
    (values.DATE, "yesterday"), (values.ARRAY, 1)])
def test_what_has_no_meaning_is_refused(vt, value):
    with pytest.raises(ValueError):
        values.coerce(vt, value)


def test_a_text_with_a_nul_cannot_be_encoded():
    with pytest.raises(ValueError):
        values.encode(values.STR, "a\0b")


# ---- frames ----------------------------------------------------------------------------------

ALARM = frames.Alarm(0x01020304, 5, 6, 7, 8, 9, 10, 1.5, -2.5)
ALARM_BYTES = (b"\x04\x03\x02\x01\x05\0\0\0\x06\0\x07\0\x08\0\x09\x0a"
               b"\0\0\0\0\0\0\xf8\x3f" b"\0\0\0\0\0\0\x04\xc0")


def test_an_alarm_has_32_bytes_both_ways():
    assert frames.encode_alarm(ALARM) == ALARM_BYTES
    assert frames.decode_alarm(ALARM_BYTES) == ALARM
    for size in list(range(32)) + [33]:
        with pytest.raises(ValueError):
            frames.decode_alarm((ALARM_BYTES + b"\0")[:size])


def test_an_alarm_field_out_of_range_is_refused():
    assert frames.encode_alarm(ALARM._replace(level=255))[14] == 255
    with pytest.raises(ValueError):
        frames.encode_alarm(ALARM._replace(level=256))


def test_alarm_frames_and_lists():
    assert frames.alarm_frame(ALARM) == b"\xff\xff\x01" + ALARM_BYTES
    assert frames.alarm_frame(ALARM, 3) == b"\xff\xff\x03" + ALARM_BYTES
    assert frames.alarm_list([]) == b"n\0\0"
    assert frames.alarm_list([ALARM, ALARM]) == b"n\x02\0" + ALARM_BYTES * 2


def test_a_change_frame_has_no_type_code():
    assert frames.change_frame(1, 0x0203, b"\x2a\0\0\0") == b"\x01\0\x03\x02\x2a\0\0\0"


def test_sends_hold_whole_frames_up_to_2048_bytes():
    frame = bytes(8)
    assert [len(s) for s in frames.pack_sends([frame] * 256)] == [2048]
    assert [len(s) for s in frames.pack_sends([frame] * 257)] == [2048, 8]
    assert [len(s) for s in frames.pack_sends([bytes(35)] * 59)] == [58 * 35, 35]
    assert [len(s) for s in frames.pack_sends([bytes(2048), bytes(2049), b"x"])] == [2048, 1]
    assert frames.pack_sends([]) == []


def test_login_replies():
    assert frames.login_reply(0x01020304) == b"9\0\0\0\0\x04\x03\x02\x01"
    assert frames.redirect_reply(b"\x7f\0\0\x02", 0x1234) == b"7lan\x7f\0\0\x02\x12\x34"
    assert frames.paths_reply([b"a", b"", b"b", b"c"]) == b"3a\0\0b\0c\0"
    assert frames.receive_reply(b"P", b"T", 0x01020304, 5) == (
        b"8" + bytes(50) + b"\x01\x02\x03\x04\0\0\0\x05P\0T\0")


def test_the_smallest_notification_reply_has_more_than_60_bytes():
    assert len(frames.receive_reply(b"", b"", 0, 0)) == 61


def test_a_lookup_reply_has_four_bytes_a_name():
    assert frames.lookup_reply([(1, 3), (0xFFFF, 0)]) == b"L\x01\0\x03\0\xff\xff\0\0"


def test_chunks_are_cut_between_values_at_4096_bytes():
    value = (bytes(8), False)
    assert [len(c) for c in frames.value_chunks([value] * 512)] == [4096]
    assert [len(c) for c in frames.value_chunks([value] * 513)] == [4096, 8]
    assert [len(c) for c in frames.value_chunks([(bytes(4096), False)])] == [4096]
    assert frames.value_chunks([]) == [b""]
    with pytest.raises(ValueError):
        frames.value_chunks([(bytes(4097), False)])


def test_a_value_that_ends_its_chunk_is_followed_by_a_new_one():
    assert frames.value_chunks([(b"a", False), (b"b", True), (b"c", False)]) == [b"ab", b"c"]
    assert frames.value_chunks([(b"b", True)]) == [b"b"]


def test_chunk_headers():
    assert frames.subscribe_reply([b"abc", b"d"]) == b"b\x03\0abcb\x01\0d"
    assert frames.read_reply([b"abc", b"d"]) == b"H\x01\x03\0abcH\0\x01\0d"
    assert frames.read_reply([b""]) == b"H\0\0\0"
