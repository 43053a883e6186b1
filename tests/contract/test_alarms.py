"""Alarms as they reach a script's callback: the subscription, the lists, the ten arguments."""

import os
import shutil
import struct

import pytest

import wire
from plants import LINE1, SMALL_PLANT
from script import Script, run

TIME = 1600000000   # 2020-09-13 12:26:40 UTC
TEXTS = "太高,too low,锅炉".encode("gb2312").replace(b",", b"\r\n") + b"\r\n"
TAGS = "水位\r\nvalve\r\n".encode("gb2312")
LISTS = ["RecData/textlist", "RecData/taglist"]
SUBSCRIBE = "db.SetRtAlarmNotify(note, %d)"
ZONES = "/usr/share/zoneinfo"


def record(almtm=TIME, evttm=0, tid=0, kind=0, group=0, level=1, status=2, value=1.5, limit=-2.0):
    return struct.pack("<IIHHHBBdd", almtm, evttm, tid, kind, group, level, status, value, limit)


def frame(number=1, **fields):
    return b"\xff\xff" + bytes([number]) + record(**fields)


def existing_alarms(records):
    """The reply to a subscription."""
    return b"n" + struct.pack("<H", len(records)) + b"".join(records)


def change_of_a(n):
    return wire.change(0, LINE1["a"], struct.pack("<i", n))


def note(script):
    """Gives the script a callback that notes the arguments of alarms in ``calls``."""
    script("calls = []\nnote = lambda *alarm: calls.append(alarm)")


@pytest.fixture
def plant(simulate):
    """The small plant with lists of alarm texts and alarm tags."""
    plant = simulate(dict(SMALL_PLANT, file_time=TIME))
    plant.set_file(LISTS[0], TEXTS, TIME)
    plant.set_file(LISTS[1], TAGS, TIME)
    return plant


@pytest.fixture
def script():
    """A script in a child interpreter whose local time is UTC."""
    with Script(TZ="UTC0") as child:
        yield child


@pytest.fixture
def session(session):
    """A session whose ``note`` notes the arguments of alarms in ``calls``."""
    note(session)
    return session


@pytest.fixture
def subscribe(session):
    """Subscribes alarms, which gives None."""
    def call(existing=0):
        assert session(SUBSCRIBE % existing) is None
    return call


@pytest.fixture
def told(session):
    """Gives items of each call once that many have come, as their literal forms, or all of them."""
    def take(count, item=None):
        if count:
            session.wait_until("len(calls) >= %d" % count)
        if item is None:
            return session("[tuple(map(repr, alarm)) for alarm in calls], calls.clear()")[0]
        return session("[alarm[%d] for alarm in calls], calls.clear()" % item)[0]
    return take


@pytest.fixture
def told_levels(told):
    """Gives the levels of the calls once that many have come."""
    return lambda count: told(count, 6)


@pytest.fixture
def reconnect(session, host):
    """Connects the same core again."""
    def call():
        assert session("db.Connect(%r, 'operator', 'password')" % host) == 0
    return call


@pytest.fixture
def lists_asked(sent):
    """Gives the names of the lists asked for so far, and forgets them."""
    def take():
        return [data[1:].partition(b"\r\n")[0].decode() for data in sent("4")
                if b"drvinfo" not in data]
    return take


# ---- arguments ----------------------------------------------------------------------------------

def test_an_alarm_has_ten_arguments(session, subscribe, push, told):
    subscribe()
    push(frame(evttm=TIME + 3661, tid=1, kind=1, group=2, level=7, status=3, value=0.1, limit=5.0))
    assert told(1) == [(
        "datetime.datetime(2020, 9, 13, 12, 26, 40)", "datetime.datetime(2020, 9, 13, 13, 27, 41)",
        "'valve'", "1", "'too low'", "'锅炉'", "7", "0.1", "5.0", "3")]


def test_the_arguments_have_their_types(session, subscribe, push):
    subscribe()
    push(frame())
    session.wait_until("calls")
    assert session("[type(item).__module__ + '.' + type(item).__name__ for item in calls[0]]") == [
        "datetime.datetime", "datetime.datetime", "builtins.str", "builtins.int", "builtins.str",
        "builtins.str", "builtins.int", "builtins.float", "builtins.float", "builtins.int"]
    session("import datetime")
    assert session("[(type(t) is datetime.datetime, t.tzinfo, t.microsecond, t.fold)"
                   " for t in calls[0][:2]]") == [(True, None, 0, 0)] * 2


def test_without_an_event_time_the_alarm_time_is_told_twice(session, subscribe, push, told):
    subscribe()
    push(frame())
    alarm, = told(1)
    assert alarm[:4] == ("datetime.datetime(2020, 9, 13, 12, 26, 40)",) * 2 + ("'水位'", "0")


@pytest.mark.parametrize("number", [1, 3])
def test_alarms_of_both_types_are_told(subscribe, push, told_levels, number):
    subscribe()
    push(frame(number, level=5) + frame(number, level=6) + frame(4 - number, level=7))
    assert told_levels(3) == [5, 6, 7]


def test_frames_of_other_types_are_no_alarms(session, subscribe, push, told_levels):
    subscribe()
    for number in range(256):
        if number not in (1, 3):
            push(b"\xff\xff" + bytes([number]) + record(level=5) + bytes(40))
    push(frame(level=9))
    assert told_levels(1) == [9]


def test_alarms_of_the_plant_are_told(session, plant, subscribe, told_levels):
    subscribe()
    plant.raise_alarm(level=3)
    plant.raise_alarm(level=4, frame_type=3)
    assert told_levels(2) == [3, 4]


@pytest.mark.parametrize("level, status", [(0, 0), (127, 128), (128, 127), (255, 255)])
def test_level_and_status_are_unsigned(subscribe, push, told, level, status):
    subscribe()
    push(frame(level=level, status=status))
    alarm, = told(1)
    assert (alarm[6], alarm[9]) == (repr(level), repr(status))


@pytest.mark.parametrize("number", [
    float("nan"), float("inf"), float("-inf"), -0.0, 5e-324, 1.7976931348623157e308, 0.1])
def test_value_and_limit_are_told_exactly(subscribe, push, told, number):
    subscribe()
    push(frame(value=number, limit=1.0) + frame(value=1.0, limit=number))
    assert [alarm[7:9] for alarm in told(2)] == [(repr(number), "1.0"), ("1.0", repr(number))]


@pytest.mark.parametrize("field, end, at", [("tid", 2, 2), ("kind", 3, 4), ("group", 3, 5)])
def test_an_index_at_its_lists_end_gives_question_marks(subscribe, push, told, field, end, at):
    subscribe()
    push(b"".join(frame(**{field: n}) for n in (end - 1, end, end + 1, 0xFFFF)))
    found = told(4, at)
    assert found[0] != "???" and found[1:] == ["???"] * 3


# ---- times --------------------------------------------------------------------------------------

LIMITS = [0, 1, TIME, 2**31 - 1, 2**31, 2**32 - 1]
CHINA = ["1970, 1, 1, 8, 0", "1970, 1, 1, 8, 0, 1", "2020, 9, 13, 20, 26, 40",
         "2038, 1, 19, 11, 14, 7", "2038, 1, 19, 11, 14, 8", "2106, 2, 7, 14, 28, 15"]
EASTERN = ["1969, 12, 31, 19, 0", "1969, 12, 31, 19, 0, 1", "2020, 9, 13, 8, 26, 40",
           "2038, 1, 18, 22, 14, 7", "2038, 1, 18, 22, 14, 8", "2106, 2, 7, 1, 28, 15"]
UTC = ["1970, 1, 1, 0, 0", "1970, 1, 1, 0, 0, 1", "2020, 9, 13, 12, 26, 40",
       "2038, 1, 19, 3, 14, 7", "2038, 1, 19, 3, 14, 8", "2106, 2, 7, 6, 28, 15"]


def zone(name, *arguments):
    """Parameters that need a zone file."""
    return pytest.param(name, *arguments, marks=pytest.mark.skipif(
        not os.path.exists(os.path.join(ZONES, name)), reason="no zone file " + name))


def times(plant, name, seconds):
    """The alarm times and event times that a script in that zone is told for these seconds."""
    plant.fault("n", "reply", data=existing_alarms(
        [record(almtm=second) for second in seconds] +
        [record(almtm=5, evttm=second) for second in seconds]))
    with Script(TZ=name) as script:
        script.connect(plant)
        note(script)
        script("db.SetRtAlarmNotify(note, 1)")
        found = script("[tuple(map(repr, alarm[:2])) for alarm in calls]")
        flags = script("[alarm[3] for alarm in calls]")
        plant.drop_clients()
    assert flags == [0] * len(seconds) + [int(second != 0) for second in seconds]
    return found[:len(seconds)], [event for _, event in found[len(seconds):]]


def dates(texts):
    return ["datetime.datetime(%s)" % text for text in texts]


@pytest.mark.parametrize("name, texts", [
    ("UTC0", UTC), ("CST-8", CHINA), ("EST5EDT,M3.2.0,M11.1.0", EASTERN),
    zone("Asia/Shanghai", CHINA), zone("America/New_York", EASTERN)])
def test_times_are_local_and_unsigned(plant, name, texts):
    alarms, events = times(plant, name, LIMITS)
    assert alarms == [(text, text) for text in dates(texts)]
    assert events[1:] == dates(texts)[1:]   # no event at 0: it is told as the alarm's time


@pytest.mark.parametrize("name, seconds, texts", [
    # An hour comes twice when summer time ends, and is told the same way twice.
    zone("America/New_York", [1583650799, 1583650800, 1604206800, 1604210400],
         ["2020, 3, 8, 1, 59, 59", "2020, 3, 8, 3, 0", "2020, 11, 1, 1, 0", "2020, 11, 1, 1, 0"]),
    zone("Asia/Shanghai", [520560000, 1593561600], ["1986, 7, 1, 9, 0", "2020, 7, 1, 8, 0"]),
    ("EST5EDT,M3.2.0,M11.1.0", [1604206800, 1604210400], ["2020, 11, 1, 1, 0"] * 2),
    ("XXX-5:45", [TIME], ["2020, 9, 13, 18, 11, 40"]),
])
def test_times_follow_summer_time(plant, name, seconds, texts):
    alarms, events = times(plant, name, seconds)
    assert [time for time, _ in alarms] == events == dates(texts)


def test_a_change_of_the_zone_holds_for_later_alarms(session, subscribe, push, told):
    subscribe()
    push(frame())
    assert told(1)[0][0] == dates(["2020, 9, 13, 12, 26, 40"])[0]
    session("os.environ['TZ'] = 'CST-8'\ntime.tzset()")
    push(frame())
    assert told(1)[0][0] == dates(["2020, 9, 13, 20, 26, 40"])[0]


# ---- list files ---------------------------------------------------------------------------------

X = b"x" * 300
FILES = {
    "LF": (b"one\ntwo\n", ["one", "two"]),
    "CR LF": (b"one\r\ntwo\r\n", ["one", "two"]),
    "no last LF": (b"one\ntwo", ["one", "two"]),
    "no last LF but a CR": (b"one\ntwo\r", ["one", "two"]),
    "empty lines": (b"\none\n\n\nthree\n\n", ["one", "three"]),
    "empty second line": (b"one\n\nthree\nfour\n", ["one", "three", "four"]),
    "lone CR": (b"\r\none\n\r\nthree\n\r", ["one", "three"]),
    "two CRs": (b"one\r\r\ntwo\r\r", ["one\r", "two\r"]),
    "CR and CR": (b"\r\r\nnext\n", ["\r", "next"]),
    "CR inside": (b"o\rne\n\rtwo\n", ["o\rne", "\rtwo"]),
    "blanks": (b" \n one \n\t\n", [" ", " one ", "\t"]),
    "empty": (b"", []),
    "nothing but ends": (b"\n\r\n\n\r", []),
    "Chinese": ("水位\r\n太高\n锅炉".encode("gb2312"), ["水位", "太高", "锅炉"]),
    "254 bytes": (X[:254] + b"\nnext\n", ["x" * 254, "next"]),
    "255 bytes": (X[:255] + b"\nnext\n", ["x" * 255, "next"]),
    "255 bytes, CR LF": (X[:255] + b"\r\nnext\n", ["x" * 255, "next"]),
    "255 bytes, no LF": (b"first\n" + X[:255], ["first", "x" * 255]),
    "255 bytes, CR, no LF": (b"first\n" + X[:255] + b"\r", ["first", "x" * 255]),
    "256 bytes": (X[:256] + b"\nnext\n", ["x" * 255, "next"]),
    "256 bytes, CR LF": (X[:256] + b"\r\nnext\n", ["x" * 255, "next"]),
    "256 bytes, no LF": (X[:256], ["x" * 255]),
    "257 bytes": (X[:257] + b"\nnext\n", ["x" * 255, "next"]),
    "very long": (b"y" * 10000 + b"\r\nnext\n", ["y" * 255, "next"]),
    "a character ends a full line": (X[:253] + "水x".encode("gb2312") + b"\nnext\n",
                                     ["x" * 253 + "水", "next"]),
    "a character is cut": (X[:254] + "水".encode("gb2312") + b"\nnext\n", ["x" * 254, "next"]),
    "Chinese is cut": ("水".encode("gb2312") * 128 + b"\r\nnext\n", ["水" * 127, "next"]),
}


def entries(push, told, name, count):
    """The first entries of a list, as alarms tell them, "???" behind its end."""
    field, at = ("kind", 4) if name == LISTS[0] else ("tid", 2)
    frames = [frame(**{field: n}) for n in range(count)]
    for n in range(0, count, 50):   # frames of one send must fit into a receive
        push(b"".join(frames[n:n + 50]))
    return told(count, at)


@pytest.mark.parametrize("name", LISTS)
@pytest.mark.parametrize("file", FILES)
def test_a_list_file_gives_its_lines(session, plant, subscribe, push, told, name, file):
    data, lines = FILES[file]
    plant.set_file(name, data, TIME)
    subscribe()
    assert entries(push, told, name, len(lines) + 1) == lines + ["???"]


@pytest.mark.parametrize("name", LISTS)
def test_a_list_may_be_long(session, plant, subscribe, push, told, name):
    lines = ["阀门 %d" % n for n in range(1500)]
    plant.set_file(name, "\r\n".join(lines).encode("gb2312"), TIME)
    subscribe()
    assert entries(push, told, name, 1501) == lines + ["???"]


def test_all_65536_indexes_may_be_used(session, plant, subscribe, push, told):
    plant.set_file(LISTS[1], b"".join(b"%d\n" % n for n in range(65537)), TIME)
    subscribe()
    push(b"".join(frame(tid=n) for n in (0, 255, 256, 32768, 65535)))
    assert told(5, 2) == ["0", "255", "256", "32768", "65535"]


def test_a_list_that_comes_compressed_is_not_unpacked(
        session, plant, cached, subscribe, push, told):
    plant.set_file(LISTS[0], b"packed\n", TIME, gz=True)
    subscribe()
    assert os.path.exists(cached(LISTS[0] + ".gz"))
    assert entries(push, told, LISTS[0], 1) == ["???"]


# ---- fetching the lists -------------------------------------------------------------------------

def test_the_lists_are_asked_for_after_the_alarms(session, subscribe, sent):
    subscribe()
    assert sent() == [b"n", b"4RecData/textlist\r\nHello:Yes\r\n\r\n",
                      b"4RecData/taglist\r\nHello:Yes\r\n\r\n"]


def test_lists_in_the_cache_are_asked_for_too(session, cached, subscribe, sent, push, told):
    for name in LISTS:
        os.makedirs(os.path.dirname(cached(name)), exist_ok=True)
        with open(cached(name), "wb") as stream:
            stream.write(b"old\nolder\n")
        os.utime(cached(name), (1000, 1000))
    subscribe()
    assert [data.partition(b"\r\n")[0] for data in sent("4")] == [
        b"4RecData/textlist", b"4RecData/taglist"]
    push(frame())
    alarm, = told(1)
    assert (alarm[2], alarm[4]) == ("'水位'", "'太高'")


def test_the_lists_are_written_into_the_cache(session, cached, subscribe):
    subscribe()
    for name, data in zip(LISTS, (TEXTS, TAGS)):
        with open(cached(name), "rb") as stream:
            assert stream.read() == data


def test_the_lists_are_loaded_once(session, plant, subscribe, reconnect, lists_asked, push, told):
    subscribe()
    assert lists_asked() == LISTS
    for name in LISTS:
        plant.set_file(name, b"new\n", TIME + 60)
    reconnect()
    subscribe(1)
    assert lists_asked() == []
    push(frame())
    alarm, = told(1)
    assert (alarm[2], alarm[4]) == ("'水位'", "'太高'")


def test_another_core_loads_lists_of_its_own(session, plant, subscribe, host, lists_asked):
    subscribe()
    lists_asked()
    plant.set_file(LISTS[0], b"new\n", TIME + 60)
    plant.raise_alarm()
    session("second = VzDBAccess.DBCore()\nsecond.Connect(%r, 'operator', 'password')\n"
            "others = []\nfn = lambda *alarm: others.append(alarm[4])\n"
            "second.SetRtAlarmNotify(fn, 1)" % host)
    assert session("others") == ["new"]
    assert lists_asked() == LISTS


@pytest.mark.parametrize("missing", [LISTS, LISTS[:1], LISTS[1:]])
def test_a_missing_list_gives_question_marks(session, plant, subscribe, push, told, missing):
    for name in missing:
        plant.remove_file(name)
    subscribe()
    push(frame())
    alarm, = told(1)
    assert alarm[4] == ("'???'" if LISTS[0] in missing else "'太高'")
    assert alarm[2] == ("'???'" if LISTS[1] in missing else "'水位'")


def test_a_list_not_obtained_is_read_from_the_cache(session, plant, cached, subscribe, push, told):
    for name in LISTS:
        os.makedirs(os.path.dirname(cached(name)), exist_ok=True)
        with open(cached(name), "wb") as stream:
            stream.write("缓存\n".encode("gb2312"))
    plant.fault("4", "close")
    subscribe()
    push(frame())
    alarm, = told(1)
    assert (alarm[2], alarm[4]) == ("'缓存'", "'缓存'")


def test_a_list_not_obtained_at_all_gives_question_marks(
        session, plant, cached, subscribe, push, told):
    plant.fault("4", "close")
    shutil.rmtree(os.path.dirname(cached(LISTS[0])), True)
    subscribe()
    push(frame())
    alarm, = told(1)
    assert (alarm[2], alarm[4], alarm[5]) == ("'???'",) * 3


# ---- existing alarms ----------------------------------------------------------------------------

@pytest.mark.parametrize("count", [0, 1, 3, 300, 65535])
def test_existing_alarms_are_told_in_order_on_the_calling_thread(session, plant, count):
    plant.fault("n", "reply", data=existing_alarms(
        [record(TIME - n, tid=n % 2, level=n % 256, value=n) for n in range(count)]))
    session("note = lambda *alarm: calls.append((alarm[2], alarm[6:8], threading.get_ident()))")
    session(SUBSCRIBE % 1)
    me = session("threading.get_ident()")
    assert session("calls") == [
        (["水位", "valve"][n % 2], (n % 256, float(n)), me) for n in range(count)]


def test_an_existing_alarm_has_ten_arguments(session, plant, subscribe, told):
    plant.raise_alarm(tid=1, type=1, grp=2, level=255, status=254, value=0.5, limit=-0.5,
                      almtm=TIME, evttm=TIME + 1)
    subscribe(1)
    assert told(1) == [tuple(dates(["2020, 9, 13, 12, 26, 40", "2020, 9, 13, 12, 26, 41"])) + (
        "'valve'", "1", "'too low'", "'锅炉'", "255", "0.5", "-0.5", "254")]


@pytest.mark.parametrize("existing", [1, 2, -1, 256, 2**31 - 1, -2**31])
def test_any_number_but_0_asks_for_existing_alarms(plant, subscribe, told_levels, existing):
    plant.raise_alarm(level=8)
    subscribe(existing)
    assert told_levels(1) == [8]


@pytest.mark.parametrize("count", [0, 3, 300])
def test_existing_alarms_that_are_not_wanted_are_dropped(
        session, plant, subscribe, push, told_levels, count):
    for _ in range(count):
        plant.raise_alarm(level=5)
    subscribe(0)
    assert session("drv.GetTagValue('a')") == 1   # nothing of the reply is left
    push(frame(level=6))
    assert told_levels(1) == [6]


def test_records_may_come_in_pieces(plant, subscribe, told_levels):
    for level in 5, 6:
        plant.raise_alarm(level=level)
    plant.fault("n", "split", sizes=[3, 5, 30, 1], pause=0.001)
    subscribe(1)
    assert told_levels(2) == [5, 6]


def test_later_alarms_follow_existing_ones(plant, subscribe, told_levels):
    plant.raise_alarm(level=1)
    subscribe(1)
    plant.raise_alarm(level=2)
    assert told_levels(2) == [1, 2]


@pytest.mark.parametrize("hook", [True, False])
def test_a_callback_that_raises_for_existing_alarms_hears_them_all(session, plant, push, hook):
    for level in 1, 2, 3:
        plant.raise_alarm(level=level)
    if hook:
        session("errors = []\nsys.unraisablehook = lambda e: errors.append("
                "(e.exc_type.__name__, str(e.exc_value), e.object is note))")
    else:
        session.expect_stderr = b"KeyError: 3"
    session("def note(*alarm):\n    calls.append(alarm[6])\n    raise KeyError(alarm[6])")
    assert session(SUBSCRIBE % 1) is None
    assert session("calls") == [1, 2, 3]
    push(frame(level=4))
    session.wait_until("len(calls) == 4")
    if hook:
        session.wait_until("len(errors) == 4")
        assert session("errors") == [("KeyError", str(n), True) for n in (1, 2, 3, 4)]


def test_a_callback_with_other_parameters_is_an_error_of_its_own(session, plant):
    plant.raise_alarm()
    session("errors = []\nsys.unraisablehook = lambda e: errors.append(e.exc_type.__name__)\n"
            "note = lambda one: None")
    assert session(SUBSCRIBE % 1) is None
    assert session("errors") == ["TypeError"]


# ---- which callback, and when -------------------------------------------------------------------

def test_live_alarms_are_told_on_another_thread(session, push):
    session("note = lambda *alarm: calls.append(threading.get_ident())")
    session(SUBSCRIBE % 0)
    push(frame() * 2)
    push(frame())
    session.wait_until("len(calls) == 3")
    assert session("len(set(calls)), threading.get_ident() in calls") == (1, False)


def test_alarms_before_a_subscription_are_stepped_over(session, subscribe, push, told_levels):
    session("changes = []\nfn = lambda *change: changes.append(change)\n"
            "drv.SetTagNotify(fn)\ndrv.ConnectTag('a')")
    push(frame(1, level=1) + change_of_a(5) + frame(3, level=2) + change_of_a(6))
    session.wait_until("len(changes) == 2")
    subscribe(1)
    push(frame(level=3))
    assert told_levels(1) == [3]


def test_alarms_while_existing_ones_are_told_are_stepped_over(session, plant, push, tmp_path):
    plant.raise_alarm(level=1)
    gate = str(tmp_path / "gate")
    os.mkfifo(gate)
    session("def note(*alarm):\n"
            "    calls.append(alarm[6])\n"
            "    if alarm[6] == 1:\n"
            "        with open(%r, 'w') as stream: stream.write('in')\n"
            "        with open(%r) as stream: stream.read()" % (gate, gate))
    session.start(SUBSCRIBE % 1)
    with open(gate) as stream:
        assert stream.read() == "in"
    push(frame(level=2))
    with open(gate, "w"):
        pass
    assert session.result() is None
    push(frame(level=3))
    session.wait_until("3 in calls")
    assert session("calls") == [1, 3]


def test_a_cut_alarm_is_stepped_over(subscribe, push, told_levels):
    subscribe()
    for size in range(1, 35):
        push(frame(level=1)[:size])
    push(frame(level=2))
    assert told_levels(1) == [2]


@pytest.mark.parametrize("existing", [0, 1])
def test_the_first_callback_stays_and_nothing_is_sent(
        session, plant, subscribe, sent, push, told_levels, existing):
    subscribe()
    sent()
    plant.raise_alarm(level=1)
    session.wait_until("calls")
    session("wrong = lambda *alarm: calls.append('wrong')")
    assert session("db.SetRtAlarmNotify(wrong, %d)" % existing) is None
    assert sent() == []
    push(frame(level=2))
    assert told_levels(2) == [1, 2]


def test_the_callback_survives_a_reconnect(session, plant, subscribe, reconnect, push, sent, told):
    subscribe()
    reconnect()
    sent()
    session("wrong = lambda *alarm: calls.append('wrong')\ndb.SetRtAlarmNotify(wrong, 1)")
    assert sent() == []
    push(frame(tid=1))
    assert told(1, 2) == ["valve"]


def test_the_callback_survives_a_lost_connection(session, plant, subscribe, reconnect, push, told):
    subscribe()
    plant.drop_clients()
    session.wait_until("threads() == 1")
    reconnect()
    push(frame(tid=1))
    assert told(1, 2) == ["valve"]


def test_a_subscription_from_a_call_for_an_existing_alarm_comes_first(
        session, plant, sent, push, told_levels):
    plant.raise_alarm(level=1)
    session("def outer(*alarm):\n"
            "    calls.append(alarm)\n"
            "    db.SetRtAlarmNotify(note, 0)\n"
            "db.SetRtAlarmNotify(outer, 1)")
    assert [data[:1] for data in sent()] == [b"n", b"4", b"4", b"n"]   # the lists are there
    push(frame(level=2))
    push(frame(level=3))
    assert told_levels(3) == [1, 2, 3]


# ---- failures -----------------------------------------------------------------------------------

def check_unset(session, push, told_levels):
    """No callback is set: a live alarm is not told, a new subscription takes effect."""
    push(frame(level=50))
    session("db.SetRtAlarmNotify(note, 0)")
    push(frame(level=51))
    assert told_levels(1) == [51]


@pytest.mark.parametrize("existing", [0, 1])
@pytest.mark.parametrize("after", [0, 1, 2, 3, 4, 34, 35, 66])
@pytest.mark.parametrize("how", ["close", "reset"])
def test_a_reply_that_is_cut_is_a_failure(
        session, plant, subscribe, reconnect, lists_asked, push, told_levels, existing, after,
        how):
    plant.raise_alarm(level=1)
    plant.raise_alarm(level=2)
    plant.fault("n", "cut", after=after, then=how)
    subscribe(existing)
    assert session("calls") == []
    assert lists_asked() == []
    reconnect()
    check_unset(session, push, told_levels)
    assert lists_asked() == LISTS


@pytest.mark.parametrize("data", [b"N\0\0", b"0", b"\0\0\0", b"0\0\0", b"4\0\0", b"n", b"n\0"])
def test_another_header_is_a_failure(session, plant, subscribe, push, lists_asked, told_levels,
                                     data):
    plant.fault("n", "reply", data=data)
    subscribe(1)
    assert lists_asked() == []
    check_unset(session, push, told_levels)


@pytest.mark.parametrize("sizes", [[1, 100], [2, 100], [1, 1, 100]])
def test_a_header_in_pieces_is_a_failure(
        session, plant, subscribe, reconnect, lists_asked, push, told_levels, sizes):
    plant.raise_alarm(level=1)
    plant.fault("n", "split", sizes=sizes, pause=1.0)
    subscribe(1)
    assert session("calls") == []
    assert lists_asked() == []
    reconnect()
    check_unset(session, push, told_levels)


def test_a_failure_leaves_the_rest_of_the_session_alone(session, plant, subscribe, push):
    session("drv.ConnectTag('a')")
    plant.fault("n", "refuse")
    subscribe(1)
    push(change_of_a(8))
    assert session("drv.GetTagValue('a,b')") == [8, 2]


def test_a_subscription_before_connect_is_a_failure(script, plant):
    note(script)
    script("db = VzDBAccess.DBCore()")
    assert script(SUBSCRIBE % 1) is None
    assert script("db.Connect('%s:%d', 'operator', 'password')" % (plant.host, plant.port)) == 0
    plant.raise_alarm(level=4)
    assert script(SUBSCRIBE % 1) is None
    assert script("[alarm[6] for alarm in calls]") == [4]
    plant.drop_clients()


def test_a_subscription_on_a_lost_session_is_a_failure(
        session, plant, subscribe, reconnect, sent, push, told_levels):
    plant.drop_clients()
    session.wait_until("threads() == 1")
    subscribe(1)
    assert sent() == []
    reconnect()
    check_unset(session, push, told_levels)


@pytest.mark.parametrize("kind", ["close", "reset"])
def test_a_subscription_without_a_request_channel_is_a_failure(
        session, plant, subscribe, reconnect, push, told_levels, kind):
    plant.drop_clients(kind, channel="request")
    subscribe(1)
    assert session("calls") == []
    reconnect()
    check_unset(session, push, told_levels)


# ---- the datetime interface ---------------------------------------------------------------------

def test_the_import_alone_brings_no_datetime():
    done = run("import sys\n"
               "before = {n for n in sys.modules if 'datetime' in n}\n"
               "import VzDBAccess\n"
               "print(sorted({n for n in sys.modules if 'datetime' in n} - before))")
    assert (done.returncode, done.stdout.strip(), done.stderr) == (0, "[]", "")


def test_the_subscription_brings_datetime(session, plant, subscribe):
    session("drv.ConnectTag('a')\ndrv.SetTagNotify(note)")
    assert session("'datetime' in sys.modules") is False
    subscribe()
    assert session("'datetime' in sys.modules") is True


def test_a_script_without_datetime_gets_no_subscription(session, plant, subscribe, sent):
    session("errors = []\nsys.unraisablehook = lambda e: errors.append("
            "issubclass(e.exc_type, ImportError))\n"
            "sys.modules['datetime'] = None")
    subscribe(1)
    assert session("errors") == [True]
    assert sent() == []
    session("del sys.modules['datetime']")
    plant.raise_alarm(level=3)
    subscribe(1)
    assert session("[alarm[6] for alarm in calls]") == [3]
