"""The threads of a child as the system sees them: whether they sleep, and how often they did."""

import os
import time

from script import TIME_SCALE


def others(pid):
    """The threads of a process but the first."""
    return sorted(int(tid) for tid in os.listdir("/proc/%d/task" % pid) if int(tid) != pid)


def other(pid, timeout=30):
    """The one thread of a process besides the first; one of an ended session may have to go."""
    deadline = time.monotonic() + timeout * TIME_SCALE
    while len(others(pid)) != 1:
        assert time.monotonic() < deadline, "not one more thread: %s" % others(pid)
        time.sleep(0.001)
    return others(pid)[0]


def sleeps(pid, tid):
    """How often the thread has gone to sleep of its own accord."""
    with open("/proc/%d/task/%d/status" % (pid, tid)) as stream:
        fields = dict(line.split(":\t", 1) for line in stream if ":\t" in line)
    return int(fields["voluntary_ctxt_switches"])


def asleep(pid, tid):
    """Whether the thread sleeps: it waits for bytes, a lock or time."""
    with open("/proc/%d/task/%d/stat" % (pid, tid)) as stream:
        return stream.read().rpartition(")")[2].split()[0] == "S"


def wait_asleep(pid, tid, count=0, timeout=30):
    """Wait until the thread sleeps and has gone to sleep ``count`` times at least."""
    deadline = time.monotonic() + timeout * TIME_SCALE
    while sleeps(pid, tid) < count or not asleep(pid, tid):
        assert time.monotonic() < deadline, "thread %d of %d does not sleep" % (tid, pid)
        time.sleep(0.001)
