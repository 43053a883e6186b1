"""A file of the cache that another process has locked: calls wait for it as for the server."""

import fcntl
import os
import signal
import time

import pytest

from cache import cache_folder
from prelude import host_of
from script import TIME_SCALE, ScriptError

# What the child needs to see that it has the file open, and so waits for its lock.
OPENED = """
def opened(path):
    for name in os.listdir("/proc/%d/fd" % os.getpid()):
        try:
            if os.readlink("/proc/self/fd/" + name) == path: return True
        except OSError: pass
    return False
"""


def wait(condition):
    """Wait until a condition holds."""
    deadline = time.monotonic() + 30 * TIME_SCALE
    while not condition():
        assert time.monotonic() < deadline, "not in time"
        time.sleep(0.001)


class Lock:
    """A file of the cache that this process has locked."""

    def __init__(self, path, kind):
        self.path = path
        self._file = os.open(path, os.O_RDONLY)
        fcntl.flock(self._file, kind)

    def release(self):
        """Let go; nothing when that was done."""
        if self._file >= 0:
            os.close(self._file)
            self._file = -1

    def wait_wanted(self, pid):
        """Wait until that process has the file open too."""
        folder = "/proc/%d/fd/" % pid

        def leads_here(name):
            try:
                return os.readlink(folder + name) == self.path
            except OSError:  # closed meanwhile
                return False

        wait(lambda: any(map(leads_here, os.listdir(folder))))


@pytest.fixture
def lock(sim, client):
    """Locks a file that the client has in its cache."""
    client(OPENED + "with connect() as plant: alarms = plant.alarms()")
    held = []

    def call(kind, name="drvinfo.dat"):
        held.append(Lock(os.path.join(cache_folder(host_of(sim)), "Line1/RecData", name), kind))
        return held[-1]

    yield call
    for each in held:
        each.release()


@pytest.fixture(params=["reads", "writes"])
def locked(request, lock):
    """The locked driver file, which a connect is about to read or to write."""
    if request.param == "reads":
        return lock(fcntl.LOCK_EX)
    held = lock(fcntl.LOCK_SH)
    os.utime(held.path, (1, 1))  # no longer the server's
    return held


def test_a_connect_gives_up_at_its_deadline(client, locked, raised):
    kind, text = raised("connect(timeout=0.5)")
    assert kind == "VzTimeoutError" and "not done within 0.5 s" in text
    client("until(lambda: (threads(), sockets()) == (1, 0))")
    locked.release()
    client("plant = connect()")
    assert client("plant['line1']['a']") == 1


def test_a_connect_waits_until_the_other_lets_go(client, locked):
    client.start("plant = connect()")
    locked.wait_wanted(client.pid)
    locked.release()
    client.result()
    assert client("plant['line1']['a']") == 1


def test_ctrl_c_ends_a_connect(client, locked):
    client.start("connect(timeout=1000)")
    locked.wait_wanted(client.pid)
    os.kill(client.pid, signal.SIGINT)
    with pytest.raises(ScriptError) as caught:
        client.result(timeout=5)
    assert caught.value.kind == "KeyboardInterrupt"
    client("until(lambda: (threads(), sockets()) == (1, 0))")


def test_ctrl_c_that_another_thread_gets_ends_a_connect(client, locked):
    client("""
def strike():
    until(lambda: opened(%r))
    signal.pthread_kill(threading.get_ident(), signal.SIGINT)
Thread(strike)
""" % locked.path)
    client.start("connect(timeout=1000)")
    with pytest.raises(ScriptError) as caught:
        client.result(timeout=5)
    assert caught.value.kind == "KeyboardInterrupt"


def test_a_handler_that_does_not_raise_lets_a_connect_go_on(client, locked, tmp_path):
    handled = tmp_path / "handled"
    client("seen = []\n"
           "def handler(*_):\n"
           "    seen.append(opened(%r))\n"
           "    open(%r, 'w').close()\n"
           "signal.signal(signal.SIGUSR1, handler)" % (locked.path, str(handled)))
    client.start("plant = connect()")
    locked.wait_wanted(client.pid)
    os.kill(client.pid, signal.SIGUSR1)
    wait(handled.exists)
    locked.release()
    client.result()
    assert client("seen, plant['line1']['a']") == ([True], 1)


def test_closing_ends_a_reconnect(client, sim, locked):
    locked.release()
    client("plant = connect()")
    held = Lock(locked.path, fcntl.LOCK_EX)
    try:
        sim.drop_clients()
        held.wait_wanted(client.pid)
        client("plant.close()\nuntil(lambda: (threads(), sockets()) == (1, 0))")
    finally:
        held.release()


def test_a_list_of_alarm_texts_is_waited_for_until_the_deadline(client, lock):
    client("plant = connect(timeout=%r)" % TIME_SCALE)
    held = lock(fcntl.LOCK_SH, "textlist")
    os.utime(held.path, (1, 1))
    assert client("kind_of(plant.alarms)") == "VzTimeoutError"
    held.release()
    client("until(lambda: plant.stats.reconnects == 1)\nplant.alarms()")
