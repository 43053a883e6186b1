"""Long streams of changes: none lost, none misread, no memory kept."""

import pytest

from script import TIME_SCALE, rounds

FRAMES_PER_SEND = 256  # of 8 bytes: whole frames, one receive
CHANGES = rounds(2000000)
PAGES_OF_A_MIB = 256


@pytest.fixture
def counting(session):
    """A session subscribed to "a" whose callback checks that each value follows the last."""
    session("calls = expected = 0\n"
            "wrong = []\n"
            "def follow(driver, tag, value):\n"
            "    global calls, expected\n"
            "    if value != expected:\n"
            "        wrong.append(value)\n"
            "    expected = value + 1\n"
            "    calls += 1\n"
            "def wait(count):\n"
            "    end = time.monotonic() + %r\n"
            "    while calls < count:\n"
            "        assert time.monotonic() < end, (calls, count)\n"
            "        time.sleep(0.0005)\n"
            "def pages():\n"
            "    return int(open('/proc/self/statm').read().split()[1])\n"
            "drv.SetTagNotify(follow)\n"
            "assert drv.ConnectTag('a') == 1" % (30 * TIME_SCALE))
    return session


def test_every_change_of_a_long_stream_arrives_and_memory_stays_flat(counting, plant):
    """Frames are not put together across receives, so each send waits for the one before it."""
    pages = []
    for first in range(0, CHANGES, FRAMES_PER_SEND):
        count = min(FRAMES_PER_SEND, CHANGES - first)
        plant.push_series("line1", "a", count, first=first, frames_per_send=FRAMES_PER_SEND)
        counting("wait(%d)" % (first + count))
        if first * 10 // CHANGES >= len(pages):
            pages.append(counting("pages()"))
    assert counting("calls, wrong") == (CHANGES, [])
    assert counting("drv.GetTagValue('a')") == CHANGES - 1
    assert len(pages) == 10
    if not counting.emulated:
        assert pages[9] - pages[0] < PAGES_OF_A_MIB, pages


def test_an_unpaced_flood_leaves_a_working_session(counting, plant):
    for _ in range(20):
        plant.push_series("line1", "a", 50000)
        assert counting("drv.GetTagValue('b')") == 2
    counting("wait(1000)")
    plant.push_change("line1", "a", 4711)
    counting.wait_until("drv.GetTagValue('a') == 4711", timeout=60)
    assert counting("drv.GetTagValue('c')") == 3
