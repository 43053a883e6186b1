"""Alarms: what is subscribed and brought, the records, and who is told."""

import struct

import pytest

TIME = 1600000000  # 2020-09-13 12:26:40 UTC
TEXTS = "太高,too low,锅炉".encode("gb2312").replace(b",", b"\r\n") + b"\r\n"
TAGS = "水位\r\nvalve\r\n".encode("gb2312")


def record(almtm=TIME, evttm=0, tid=0, kind=0, group=0, level=1, status=2, value=1.5, limit=-2.0):
    return struct.pack("<IIHHHBBdd", almtm, evttm, tid, kind, group, level, status, value, limit)


def frame(number=1, **fields):
    return b"\xff\xff" + bytes([number]) + record(**fields)


@pytest.fixture
def variables():
    """Local time is eight hours ahead of UTC."""
    return {"TZ": "CST-8"}


@pytest.fixture
def listed(connected, sim):
    """A client of a plant with lists of alarm texts and alarm tags."""
    sim.set_file("RecData/textlist", TEXTS, TIME)
    sim.set_file("RecData/taglist", TAGS, TIME)
    return connected


@pytest.fixture
def alarms(listed):
    """A client that watches alarms."""
    listed("alarms = plant.alarms()")
    return listed


def test_alarms_are_subscribed_by_one_byte_and_their_texts_brought(listed, sim):
    listed("alarms = plant.alarms()")
    assert [data.partition(b"\r\n")[0] for _, _, data in sim.requests()] == [
        b"n", b"4RecData/textlist", b"4RecData/taglist"]


def test_texts_are_brought_once(alarms, sim):
    sim.requests(clear=True)
    alarms("second = plant.alarms()")
    assert [data for _, _, data in sim.requests()] == [b"n"]


@pytest.mark.parametrize("number", [1, 3])
def test_an_alarm_is_a_record_with_texts_and_local_times(alarms, sim, number):
    sim.push_raw(frame(number, evttm=TIME + 61, tid=1, kind=0, group=2, level=7, status=3,
                       value=0.1, limit=5.0))
    alarms("alarm = alarms.get(LIMIT)")
    assert alarms("str(alarm.time), str(alarm.event_time)") == (
        "2020-09-13 20:26:40+08:00", "2020-09-13 20:27:41+08:00")
    assert alarms("alarm.tag, alarm.kind, alarm.group, alarm.level, alarm.value, alarm.limit,"
                  " alarm.status, alarm.resynced") == (
        "valve", "太高", "锅炉", 7, 0.1, 5.0, 3, False)
    assert alarms("type(alarm) is vzclient.Alarm, kind_of(setattr, alarm, 'level', 1)") == (
        True, "FrozenInstanceError")


def test_an_alarm_without_an_event_has_no_time_of_it(alarms, sim):
    sim.push_raw(frame())
    assert alarms("alarms.get(LIMIT).event_time") is None


def test_texts_beyond_the_lists_are_question_marks(alarms, sim):
    sim.push_raw(frame(tid=2, kind=3, group=65535, level=255, status=255))
    assert alarms("[(a.tag, a.kind, a.group, a.level, a.status) for a in [alarms.get(LIMIT)]]") == [
        ("???", "???", "???", 255, 255)]


def test_without_lists_all_texts_are_question_marks(connected, sim):
    connected("alarms = plant.alarms()")
    sim.push_raw(frame())
    assert connected("[(a.tag, a.kind, a.group) for a in [alarms.get(LIMIT)]]") == [
        ("???", "???", "???")]


@pytest.mark.parametrize("seconds,shown", [
    (0, "1970-01-01 08:00:00+08:00"),
    (2147483647, "2038-01-19 11:14:07+08:00"),
    (2147483648, "2038-01-19 11:14:08+08:00"),
    (4294967295, "2106-02-07 14:28:15+08:00")])
def test_times_of_all_years_are_told(alarms, sim, seconds, shown):
    sim.push_raw(frame(almtm=seconds))
    assert alarms("str(alarms.get(LIMIT).time)") == shown


def test_active_alarms_come_first_when_they_are_wanted(listed, sim):
    for level in (1, 2):
        sim.raise_alarm(level=level)
    listed("every, new = plant.alarms(), plant.alarms(existing=False)")
    sim.raise_alarm(level=3)
    assert listed("[every.get(LIMIT).level for _ in range(3)], new.get(LIMIT).level") == (
        [1, 2, 3], 3)
    assert listed("every.waiting, new.waiting") == (0, 0)


def test_each_watch_is_told_each_alarm(alarms, sim):
    alarms("second = plant.alarms()")
    sim.push_raw(frame(level=5) + frame(level=6))
    assert alarms("[[w.get(LIMIT).level for _ in range(2)] for w in (alarms, second)]") == [
        [5, 6]] * 2


def test_a_closed_watch_is_told_nothing(alarms, sim):
    alarms("second = plant.alarms()\nalarms.close()")
    sim.push_raw(frame())
    assert alarms("second.get(LIMIT).level, alarms.waiting, kind_of(alarms.get)") == (
        1, 0, "ConnectionLost")


def test_iterating_waits_no_longer_than_it_is_told(listed, sim):
    listed("alarms = plant.alarms(timeout=0.05)")
    assert listed("kind_of(next, iter(alarms))") == "VzTimeoutError"
    sim.push_raw(frame(level=5))
    assert listed("alarms.get(LIMIT).level") == 5


def test_texts_are_those_of_the_new_connection(alarms, sim):
    sim.set_file("RecData/textlist", b"other\r\n", TIME + 10)
    sim.drop_clients()
    alarms("until(lambda: plant.stats.reconnects == 1)")
    sim.push_raw(frame())
    assert alarms("alarms.get(LIMIT).kind") == "other"


@pytest.mark.parametrize("data", [b"X\0\0", b"n\0", b"n\1\0" + record()[:-1]])
def test_an_answer_that_cannot_be_used_ends_the_connection(listed, sim, data):
    sim.fault("n", "reply", data=data)
    assert listed("kind_of(connect(timeout=0.5, reconnect=False).alarms)") in (
        "ConnectionLost", "VzTimeoutError")
    assert listed("plant.alarms().waiting") == 0


def test_texts_that_were_not_there_are_loaded_by_the_next_subscription(connected, sim):
    connected("first = plant.alarms()")
    sim.push_raw(frame(kind=1))
    assert connected("first.get(LIMIT).kind") == "???"
    sim.set_file("RecData/textlist", TEXTS, TIME)
    connected("second = plant.alarms()")
    sim.push_raw(frame(kind=1))
    assert connected("second.get(LIMIT).kind, first.get(LIMIT).kind") == ("too low", "too low")
