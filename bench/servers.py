"""The replay server in a process of its own, and where processes run."""
import os
import shutil
import subprocess

CACHE_ROOT = "/tmp/vzbrowser"
PROJECT = "bench"


def pin_to_one_core():
    """Pins this process and those it starts; returns the core and another one.

    The core is None where that is refused, the other one also where there is none.
    """
    try:
        *others, core = sorted(os.sched_getaffinity(0))
        os.sched_setaffinity(0, {core})
        return core, others[-1] if others else None
    except (AttributeError, OSError):
        return None, None


def never_preempts(pid):
    """Has a process wait until others on its core sleep, where the system has such a policy.

    A server that took the core the moment a request is sent would now and then spare the client its
    sleep in the receive, more often the slower that client is: more than a microsecond that no
    client is spared whose server is another machine.
    """
    try:
        os.sched_setscheduler(pid, os.SCHED_BATCH, os.sched_param(0))
    except (AttributeError, OSError):
        pass


class ReplayServer:
    """The server that the module and the floor are measured with; ends when its stdin is closed.

    It runs on the given core, or else where this process runs.
    """

    def __init__(self, programs, core=None):
        self._process = subprocess.Popen([os.path.join(programs, "replay_server")],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.port = int(self._process.stdout.readline())
        if core is not None:
            os.sched_setaffinity(self._process.pid, {core})
        never_preempts(self._process.pid)
        self.host = "127.0.0.1:%d" % self.port
        self._cache = os.path.join(CACHE_ROOT, self.host.replace(":", "_"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.stdin.close()
        self._process.stdout.close()
        self._process.wait(timeout=10)
        shutil.rmtree(os.path.join(self._cache, PROJECT), ignore_errors=True)
        try:
            os.rmdir(self._cache)
        except OSError:
            pass
