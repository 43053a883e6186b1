"""Changes of tags as they reach a script's callback, and the frames that must not disturb them."""

import struct

import pytest

import wire
from plants import LINE1

A, B, C = LINE1["a"], LINE1["b"], LINE1["c"]
SYSTEM = 0xFFFF
BOILER, WIDE, TABLE_END = 1, 7, 8   # ids of drivers; drivers not asked for are known as well
TAG_TYPES = range(9, 23)            # system frames that name a driver and a tag
TEXT_TYPES = range(16, 22)          # those that carry a text as well

# Bytes of a system frame by its type; those of the text types without their text.
LENGTHS = {1: 35, 2: 7, 3: 35, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 9: 8, 10: 15, 11: 15, 12: 15, 13: 15,
           14: 8, 15: 8, 16: 8, 17: 8, 18: 8, 19: 8, 20: 8, 21: 8, 22: 8, 255: 3}


def i4(tag, n, driver=0):
    return wire.change(driver, tag, struct.pack("<i", n))


def system(number, rest=b""):
    return struct.pack("<HB", SYSTEM, number) + rest


def naming(number, driver, tag, rest=b""):
    """A system frame that names a driver and a tag."""
    return system(number, struct.pack("<HH", driver, tag) + rest)


def whole(number, text=b""):
    """A system frame of the length that its type has; of a type without one, 40 bytes."""
    frame = naming(number, 0, A, text) if number in TAG_TYPES else system(number)
    size = LENGTHS.get(number, 40) + len(text)
    # What follows a text is its end. Elsewhere no rest of a frame may look like a good one.
    return frame + (b"\0" if number in TEXT_TYPES else b"\xaa") * (size - len(frame))


@pytest.fixture
def session(session):
    """A script whose callback of line1 notes its arguments in ``calls``."""
    session("calls = []\nnote = lambda *change: calls.append(change)\ndrv.SetTagNotify(note)")
    return session


@pytest.fixture
def told(session):
    """Gives the arguments of the calls so far, once that many have come, and forgets them."""
    def take(count):
        if count:
            session.wait_until("len(calls) >= %d" % count)
        return session("calls[:], calls.clear()")[0]
    return take


@pytest.fixture
def values(told):
    """Gives the values of the calls so far, once that many have come, and forgets them."""
    return lambda count: [value for _, _, value in told(count)]


@pytest.fixture
def subscribe(session):
    """Subscribes tags of line1."""
    def call(names):
        assert session("drv.ConnectTag(%r)" % names) == 1
    return call


@pytest.fixture
def line1(subscribe):
    """The tags a, b and c of line1 are subscribed."""
    subscribe("a,b,c")


# ---- arguments ----------------------------------------------------------------------------------

@pytest.mark.parametrize("name, payload, kind, value", [
    ("i2", b"\x00\x80", "int", -32768),
    ("i2", b"\xff\x7f", "int", 32767),
    ("i4", b"\x2a\0\0\0", "int", 42),
    ("i4", b"\x00\x00\x00\x80", "int", -2147483648),
    ("r4", b"\0\0\xc0\xbf", "float", -1.5),
    ("r4", b"\xcd\xcc\xcc\x3d", "float", 0.10000000149011612),
    ("r8", b"\x9a\x99\x99\x99\x99\x99\xb9\x3f", "float", 0.1),
    ("r8", b"\0\0\0\0\0\0\0\x80", "float", -0.0),
    ("r8", b"\0\0\0\0\0\0\xf0\x7f", "float", float("inf")),
    ("r8", b"\0\0\0\0\0\0\xf8\x7f", "float", float("nan")),
    ("str", b"on\0", "str", "on"),
    ("str", b"\0", "str", ""),
    ("str", "阀门 🔧\0".encode(), "str", "阀门 🔧"),
    ("str", b"x" * 2043 + b"\0", "str", "x" * 2043),
    ("bool", b"\1", "bool", True),
    ("bool", b"\0", "bool", False),
    ("i1", b"\xff", "int", 255),   # told as unsigned
    ("i1", b"\x7f", "int", 127),
    ("ui1", b"\xff", "int", 255),
    ("ui2", b"\xff\xff", "int", 65535),
    ("ui4", b"\xff\xff\xff\xff", "int", -1),   # told as signed
    ("ui4", b"\xff\xff\xff\x7f", "int", 2147483647),
    ("int", b"\xfe\xff\xff\xff", "int", -2),
    ("uint", b"\xff\xff\xff\xff", "int", -1),
    ("水位", b"\x01\0\0\0", "int", 1),
], ids=lambda item: None if isinstance(item, (str, bytes)) and len(item) > 40 else repr(item))
def test_a_change_of_each_type(session, subscribe, push, name, payload, kind, value):
    subscribe(name)
    push(wire.change(0, LINE1[name], payload))
    session.wait_until("calls")
    assert session("[tuple(map(repr, change)) for change in calls]") == [
        (repr("line1"), repr(name), repr(value))]
    assert session("[type(item).__name__ for item in calls[0]]") == ["str", "str", kind]


def test_the_values_of_a_callback_are_what_a_read_gives(session, subscribe, push):
    sizes = {"i2": 2, "i4": 4, "r4": 4, "r8": 8, "bool": 1, "i1": 1, "ui1": 1, "ui2": 2, "ui4": 4,
             "int": 4, "uint": 4, "str": 9}
    subscribe(",".join(sizes))
    for name, size in sizes.items():
        push(wire.change(0, LINE1[name], b"\x81\x82\x83\x84\x85\x86\x87\x88\0"[:size]))
    session.wait_until("len(calls) == %d" % len(sizes))
    assert session("[change[1] for change in calls]") == list(sizes)
    assert session("[change[2] for change in calls] == drv.GetTagValue(%r)" % ",".join(sizes))


def test_the_names_of_driver_and_tag_are_chinese(session, subscribe, plant, push):
    session("boiler = db.GetDriver('锅炉')\nboiler.SetTagNotify(note)\nboiler.ConnectTag('x')")
    subscribe("水位")
    push(i4(0, 1, BOILER) + i4(LINE1["水位"], 2))
    session.wait_until("len(calls) == 2")
    assert session("calls") == [("锅炉", "x", 1), ("line1", "水位", 2)]


@pytest.mark.parametrize("data, text", [
    (b"\xd6\xd0", "\ufffd\ufffd"), (b"ok \xff!", "ok \ufffd!"), (b"\xe6\xb0", "\ufffd"),
    (b"\xed\xa0\x80", "\ufffd\ufffd\ufffd")])
def test_text_that_is_no_utf8_has_replacement_characters(subscribe, push, values, data, text):
    subscribe("str")
    push(wire.change(0, LINE1["str"], data + b"\0"))
    assert values(1) == [text]


def test_the_callback_may_be_any_callable(session, push):
    session("class Sink:\n"
            "    def __call__(self, *change): calls.append(('sink',) + change)\n"
            "    def method(self, driver, tag, value): calls.append((driver, tag, value))\n"
            "sink = Sink()\nmethod = sink.method\n"
            "boiler = db.GetDriver('锅炉')\nboiler.SetTagNotify(sink)\nboiler.ConnectTag('x')\n"
            "wide = db.GetDriver('wide')\nwide.SetTagNotify(method)\nwide.ConnectTag('t0001')")
    push(i4(0, 1, BOILER) + i4(1, 2, WIDE))
    session.wait_until("len(calls) == 2")
    assert session("calls") == [("sink", "锅炉", "x", 1), ("wide", "t0001", 2)]


def test_the_callback_gets_no_keywords(session, line1, push):
    session("seen = []\n"
            "boiler = db.GetDriver('锅炉')\n"
            "fn = lambda *args, **names: seen.append((len(args), names))\n"
            "boiler.SetTagNotify(fn)\nboiler.ConnectTag('x')")
    push(i4(0, 1, BOILER))
    session.wait_until("seen")
    assert session("seen") == [(3, {})]


# ---- names --------------------------------------------------------------------------------------

def test_the_name_is_told_without_its_blanks(subscribe, push, told):
    subscribe(" a , b ")
    push(i4(A, 1) + i4(B, 2))
    assert told(2) == [("line1", "a", 1), ("line1", "b", 2)]


def test_the_name_the_tag_was_resolved_by_is_told(plant, subscribe, push, told):
    plant.fault("L", "reply", data=wire.lookup_reply(A))
    subscribe("other")
    push(i4(A, 1))
    assert told(1) == [("line1", "other", 1)]


@pytest.mark.parametrize("call", ["drv.GetTagValue('later')", "drv.ConnectTag('later')",
                                  "drv.SetTagValue('later', 1)"])
def test_the_latest_name_the_tag_was_resolved_by_is_told(
        session, plant, subscribe, push, told, call):
    subscribe("a")
    plant.fault("L", "reply", data=wire.lookup_reply(A))
    session(call)
    push(i4(A, 1))
    assert told(1)[0] == ("line1", "later", 1)


def test_a_name_that_is_known_is_not_resolved_again(session, plant, subscribe, push, told):
    subscribe("a")
    plant.fault("L", "reply", data=wire.lookup_reply(A))
    session("drv.GetTagValue('later')\ndrv.GetTagValue('a')")
    push(i4(A, 1))
    assert told(1) == [("line1", "later", 1)]


# ---- chunks -------------------------------------------------------------------------------------

def test_the_frames_of_a_send_are_told_in_order(line1, push, told):
    push(i4(C, 1) + i4(A, 2) + i4(C, 3) + i4(B, 4))
    assert told(4) == [("line1", "c", 1), ("line1", "a", 2), ("line1", "c", 3), ("line1", "b", 4)]


def test_each_change_is_told_with_the_value_of_its_own_frame(subscribe, push, values):
    subscribe("str")
    texts = ["on", "", "off", "x" * 300, "水"]
    push(b"".join(wire.change(0, LINE1["str"], text.encode() + b"\0") for text in texts))
    assert values(5) == texts


def test_frames_of_all_kinds_are_told_in_order(session, line1, push, plant):
    session("fn = lambda *alarm: calls.append(('alarm', alarm[6]))\ndb.SetRtAlarmNotify(fn, 0)")
    alarm = bytes(14) + b"\x07" + bytes(17)
    push(i4(A, 1) + system(1, alarm) + system(255) + i4(B, 2) + whole(17, b"abc") + system(3, alarm)
         + i4(A, 3))
    session.wait_until("len(calls) == 5")
    assert session("calls") == [("line1", "a", 1), ("alarm", 7), ("line1", "b", 2), ("alarm", 7),
                                ("line1", "a", 3)]


def test_256_frames_fill_a_chunk(line1, push, values):
    push(b"".join(i4(A, n) for n in range(256)))
    assert values(256) == list(range(256))


def test_a_chunk_of_2048_bytes_may_end_with_a_frame_that_is_cut(subscribe, push, values):
    subscribe("ui1")
    frames = [wire.change(0, LINE1["ui1"], bytes([n % 251])) for n in range(410)]
    push(b"".join(frames))   # 2050 bytes: two receives, the second one starts inside a frame
    assert values(409) == [n % 251 for n in range(409)]
    push(frames[5])
    assert values(1) == [5]


# ---- frames that cannot be used -----------------------------------------------------------------

UNUSABLE = {
    "driver at the table's end": i4(A, 9, TABLE_END), "driver 65534": i4(A, 9, 0xFFFE),
    "driver not asked for": i4(0, 9, BOILER), "hole in the table": i4(0, 9, 2),
    "tag at the driver's end": i4(23, 9), "tag 65535": i4(0xFFFF, 9),
    "tag never read": wire.change(0, LINE1["i2"], b"\1\0"),
    "type 0": system(0), "type 23": system(23), "type 100": system(100), "type 254": system(254),
}


@pytest.mark.parametrize("name", UNUSABLE)
def test_an_unusable_frame_drops_the_rest_of_its_chunk(line1, push, values, name):
    push(i4(A, 1) + UNUSABLE[name] + i4(A, 2))
    push(i4(B, 3))
    assert values(2) == [1, 3]


@pytest.mark.parametrize("name, asked", [
    ("i2", False), ("empty", False), ("empty", True), ("null", True)])
def test_a_tag_without_a_type_has_no_length(session, line1, push, values, name, asked):
    if asked:
        session("drv.ConnectTag(%r)" % name)
    for size in range(9):
        push(wire.change(0, LINE1[name], bytes(size)) + i4(A, size))
    push(i4(B, -1))
    assert values(1) == [-1]


@pytest.mark.parametrize("name", ["empty", "null", "cy", "ui8", "array"])
def test_a_value_without_bytes_drops_the_rest_of_its_chunk(session, line1, push, values, name):
    session("drv.ConnectTag(%r)" % name)
    push(i4(A, 1) + wire.change(0, LINE1[name], b"") + i4(A, 2))
    push(i4(B, 3))
    assert values(2) == [1, 3]


@pytest.mark.parametrize("driver, tag", [
    (BOILER, 0), (2, 0), (TABLE_END, 0), (0xFFFF, 0), (0, 23), (0, 0xFFFF)])
def test_system_frames_must_name_a_tag_of_a_driver_in_use(line1, push, values, driver, tag):
    for number in TAG_TYPES:
        push(naming(number, driver, tag, bytes(LENGTHS[number] - 7)) + i4(A, number))
    push(i4(B, 99))
    assert values(1) == [99]


def test_system_frames_may_name_any_tag_of_a_driver_in_use(session, push, values):
    session("drv.ConnectTag('a')\ndb.GetDriver('锅炉')\ndb.GetDriver('wide')")
    for driver, tag in (0, 0), (0, 22), (BOILER, 0), (WIDE, 1199):
        for number in TAG_TYPES:
            push(naming(number, driver, tag, bytes(LENGTHS[number] - 7)) + i4(A, number))
        assert values(len(TAG_TYPES)) == list(TAG_TYPES)


def test_each_system_frame_has_the_length_of_its_type(line1, push, values):
    for number in range(256):
        push(whole(number) + i4(A, number))
        push(i4(B, -1))
    found = values(256 + len(LENGTHS))
    delivered = {number for number in found if number >= 0}
    assert delivered == set(LENGTHS)
    assert found == [n for number in range(256)
                     for n in ([number] if number in LENGTHS else []) + [-1]]


@pytest.mark.parametrize("size", sorted(set(LENGTHS.values())))
def test_other_types_have_no_length(line1, push, values, size):
    for number in sorted(set(range(256)) - set(LENGTHS)):
        push(naming(number, 0, A, bytes(40))[:size] + i4(A, number))
    push(i4(B, -1))
    assert values(1) == [-1]


@pytest.mark.parametrize("change", [-1, 1])
def test_a_system_frame_of_another_length_drops_what_follows(line1, push, values, change):
    for number in sorted(LENGTHS):
        frame = whole(number, b"abc" if number in TEXT_TYPES else b"")
        # A type without more than itself and a text without its end have no shorter form.
        if change < 0 and (number == 255 or number in TEXT_TYPES):
            continue
        push((frame[:change] if change < 0 else frame + b"\xaa") + i4(A, number))
    push(i4(B, -1))
    assert values(1) == [-1]


@pytest.mark.parametrize("number", TEXT_TYPES)
def test_a_text_ends_at_its_zero_byte(line1, push, values, number):
    sizes = [0, 1, 2, 3, 100, 255, 256, 1000, 2032]   # the last one fills a receive
    for size in sizes:
        push(whole(number, b"x" * size) + (i4(A, size) if size < 2000 else b""))
        push(i4(B, -size - 1))
    assert values(17) == [n for size in sizes for n in ([size] if size < 2000 else [])
                          + [-size - 1]]


@pytest.mark.parametrize("number", TEXT_TYPES)
def test_a_text_without_an_end_drops_its_chunk(line1, push, values, number):
    push(i4(A, 1) + naming(number, 0, 0, b"no end"))
    push(i4(A, 2))
    assert values(2) == [1, 2]


def test_a_text_may_hold_what_looks_like_a_frame(line1, push, values):
    push(naming(18, 0, 0, b"\x01\x02\xff\xff\xff\0") + i4(A, 1))
    assert values(1) == [1]


@pytest.mark.parametrize("frame", [i4(A, 0x01020304), wire.change(0, LINE1["str"], b"abcdef\0"),
                                   wire.change(0, LINE1["r8"], b"\1" * 8)], ids=["i4", "str", "r8"])
def test_a_frame_that_is_cut_is_dropped_and_the_next_chunk_starts_anew(
        line1, subscribe, push, values, frame):
    subscribe("str,r8")
    push(frame)   # the bytes of a whole one before it are never taken for its rest
    values(1)
    for size in range(1, len(frame)):
        push(i4(B, size) + frame[:size])
        push(i4(C, -size))
    count = 2 * (len(frame) - 1)
    assert values(count) == [n for size in range(1, len(frame)) for n in (size, -size)]


def test_the_rest_of_a_frame_is_not_put_together_with_its_start(line1, push, values):
    push(i4(A, 1)[:6])
    push(i4(A, 1)[6:] + i4(B, 2))   # taken for a change of a tag never read
    push(i4(C, 3))
    assert values(1) == [3]


@pytest.mark.parametrize("number", sorted(LENGTHS))
def test_a_system_frame_that_is_cut_ends_its_chunk_alone(line1, push, values, number):
    frame = whole(number, b"abc" if number in TEXT_TYPES else b"")
    sizes = range(1, len(frame))
    for size in sizes:
        push(i4(A, size) + frame[:size])
    assert values(len(sizes)) == list(sizes)
    push(i4(A, 77))
    assert values(1) == [77]


# ---- values without a call ----------------------------------------------------------------------

def test_without_a_callback_a_change_is_stored(session, push, sent):
    session("boiler = db.GetDriver('锅炉')\nboiler.ConnectTag('x')")
    sent()
    push(i4(0, 42, BOILER))
    assert session("boiler.GetTagValue('x')") == 42
    assert sent() == []
    assert session("calls") == []


def test_with_a_callback_a_change_is_stored_before_the_call(session, subscribe, push, sent):
    session("wide = db.GetDriver('wide')\n"
            "fn = lambda driver, tag, value: calls.append((value, wide.GetTagValue(tag)))\n"
            "wide.SetTagNotify(fn)\nwide.ConnectTag('t0005')")
    sent()
    push(i4(5, 42, WIDE) + i4(5, 43, WIDE))
    session.wait_until("len(calls) == 2")
    assert session("calls") == [(42, 42), (43, 43)]
    assert sent() == []


def test_a_change_of_a_tag_that_was_only_read_is_told(session, push, told):
    session("drv.GetTagValue('a')")
    push(i4(A, 9))
    assert told(1) == [("line1", "a", 9)]
    assert session("drv.GetTagValue('a')") == 1   # asked anew: it is not subscribed


@pytest.mark.parametrize("name", ["date", "i8"])
def test_a_value_without_an_object_is_not_told(session, line1, push, told, name):
    session("drv.ConnectTag(%r)" % name)
    push(wire.change(0, LINE1[name], b"\5" + bytes(7)) + i4(A, 1))
    assert told(1) == [("line1", "a", 1)]


def test_a_callback_set_after_the_subscription_hears_later_changes(session, push):
    session("boiler = db.GetDriver('锅炉')\nboiler.ConnectTag('x')")
    push(i4(0, 1, BOILER))
    session("boiler.SetTagNotify(note)")
    push(i4(0, 2, BOILER))
    session.wait_until("calls")
    assert session("calls") == [("锅炉", "x", 2)]


# ---- which callback -----------------------------------------------------------------------------

@pytest.mark.parametrize("other", ["drv", "db.GetDriver('line1')"])
def test_the_first_callback_stays(session, line1, push, told, other):
    session("wrong = lambda *change: calls.append('wrong')\n%s.SetTagNotify(wrong)" % other)
    push(i4(A, 1) + i4(B, 2))
    assert told(2) == [("line1", "a", 1), ("line1", "b", 2)]


def test_the_callback_outlives_the_object_it_was_set_through(session, push):
    session("db.GetDriver('锅炉').SetTagNotify(note)\ndb.GetDriver('锅炉').ConnectTag('x')\n"
            "gc.collect()")
    push(i4(0, 3, BOILER))
    session.wait_until("calls")
    assert session("calls") == [("锅炉", "x", 3)]


def test_two_drivers_have_callbacks_of_their_own(session, line1, push):
    session("others = []\nfn = lambda *change: others.append(change)\n"
            "boiler = db.GetDriver('锅炉')\nboiler.SetTagNotify(fn)\nboiler.ConnectTag('x')")
    push(i4(A, 1) + i4(0, 2, BOILER) + i4(B, 3) + i4(0, 4, BOILER))
    session.wait_until("len(calls) == 2 and len(others) == 2")
    assert session("calls") == [("line1", "a", 1), ("line1", "b", 3)]
    assert session("others") == [("锅炉", "x", 2), ("锅炉", "x", 4)]


def test_callbacks_are_set_anew_after_connect(session, line1, plant, host, push, values):
    push(i4(A, 1))
    assert values(1) == [1]
    assert session("db.Connect(%r, 'operator', 'password')" % host) == 0
    session("drv = db.GetDriver('line1')\ndrv.ConnectTag('a')")
    push(i4(A, 2))
    assert session("drv.GetTagValue('a')") == 2
    assert session("calls") == []
    session("others = []\nfn = lambda *change: others.append(change)\ndrv.SetTagNotify(fn)")
    push(i4(A, 3))
    session.wait_until("others")
    assert session("calls, others") == ([], [("line1", "a", 3)])


def test_two_sessions_of_one_script_have_callbacks_of_their_own(session, host, plant, line1):
    session("second = VzDBAccess.DBCore()\nsecond.Connect(%r, 'operator', 'password')\n"
            "others = []\nfn = lambda *change: others.append(change)\n"
            "drv2 = second.GetDriver('line1')\ndrv2.SetTagNotify(fn)\ndrv2.ConnectTag('c')" % host)
    plant.set_value("line1", "a", 10)
    plant.set_value("line1", "c", 30)
    session.wait_until("len(calls) == 2 and others")
    assert session("calls") == [("line1", "a", 10), ("line1", "c", 30)]
    assert session("others") == [("line1", "c", 30)]


# ---- threads ------------------------------------------------------------------------------------

def test_callbacks_run_on_one_other_thread(session, push):
    session("fn = lambda *change: calls.append(threading.get_ident())\n"
            "wide = db.GetDriver('wide')\nwide.SetTagNotify(fn)\nwide.ConnectTag('t0001')")
    for _ in range(3):
        push(i4(1, 0, WIDE) * 2)
    session.wait_until("len(calls) == 6")
    assert session("len(set(calls)), threading.get_ident() in calls") == (1, False)


def test_callbacks_run_one_after_the_other(session, push):
    session("inside = []\n"
            "def fn(driver, tag, value):\n"
            "    inside.append(value)\n"
            "    time.sleep(0.001)   # lets other threads run\n"
            "    calls.append((value, list(inside)))\n"
            "    inside.remove(value)\n"
            "drivers = [db.GetDriver('wide'), db.GetDriver('锅炉')]\n"
            "for driver, tag in zip(drivers, ('t0001', 'x')):\n"
            "    driver.SetTagNotify(fn)\n    driver.ConnectTag(tag)")
    for n in range(0, 40, 4):
        push(i4(1, n, WIDE) + i4(0, n + 1, BOILER) + i4(1, n + 2, WIDE) + i4(0, n + 3, BOILER))
    session.wait_until("len(calls) == 40")
    assert session("calls") == [(n, [n]) for n in range(40)]


def test_a_callback_that_raises_does_not_stop_the_next(session, push):
    session("errors = []\n"
            "sys.unraisablehook = lambda e: errors.append((e.exc_type.__name__, e.object is fn))\n"
            "def fn(driver, tag, value):\n"
            "    calls.append(value)\n"
            "    raise ValueError(value)\n"
            "wide = db.GetDriver('wide')\nwide.SetTagNotify(fn)\nwide.ConnectTag('t0001')")
    push(i4(1, 1, WIDE) + i4(1, 2, WIDE))
    push(i4(1, 3, WIDE))
    session.wait_until("len(errors) == 3")
    assert session("calls") == [1, 2, 3]
    assert session("errors") == [("ValueError", True)] * 3


def test_a_callback_with_other_parameters_is_an_error_of_its_own(session, line1, push, values):
    session("errors = []\nsys.unraisablehook = lambda e: errors.append(e.exc_type.__name__)\n"
            "fn = lambda driver, tag: None\n"
            "wide = db.GetDriver('wide')\nwide.SetTagNotify(fn)\nwide.ConnectTag('t0001')")
    push(i4(1, 1, WIDE) + i4(A, 2))
    assert values(1) == [2]
    assert session("errors") == ["TypeError"]
