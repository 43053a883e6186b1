"""Jobs of a whole session or process: connect, the end of a session, import.

Sessions are timed by the wall, as most of their time is pauses; an import by its CPU. The least of
some tries is taken: whatever else the machine does only adds to it.
"""
import json
import os
import subprocess
import sys
import time

import VzDBAccess

from measure import Job, same

FIXED_PAUSES_MS = 18  # of a connect
CONNECT_AIM_MS = 5
END_AIM_MS = 70
IMPORT_AIM_MS = 1.5
IMPORT_AIM_KB = 1024
TRIES = 3

# Prints what an import takes: milliseconds of CPU, and kilobytes of memory.
IMPORT = """
import json, sys, time, importlib
def resident():
    with open("/proc/self/status") as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith("VmRSS"))
resident()
name = sys.argv[1]
before = resident()
start = time.process_time()
importlib.import_module(name)
elapsed = time.process_time() - start
print(json.dumps([1e3 * elapsed, resident() - before]))
"""


class Session:
    """Makes sessions and ends them; both are timed."""

    def __init__(self, host):
        self._host = host
        self._begun = []
        self._ended = []

    def _run(self):
        db = VzDBAccess.DBCore()
        start = time.perf_counter()
        same(db.Connect(self._host, "user", "password"), 0, "Connect")
        begun = time.perf_counter()
        self._begun.append(1e3 * (begun - start) - FIXED_PAUSES_MS)
        begun = time.perf_counter()
        del db
        self._ended.append(1e3 * (time.perf_counter() - begun))

    def connect(self):
        """Milliseconds of a connect, beyond its pauses."""
        self._run()
        return self._begun.pop()

    def end(self):
        """Milliseconds of the end of a session."""
        self._run()
        return self._ended.pop()


class Figure:
    """A side whose figure a function gives; the least of some."""

    def __init__(self, function, *args):
        self._function = function
        self._args = args

    def seconds(self, count):
        return count * min(self._function(*self._args) for _ in range(TRIES))


def import_figure(module, which):
    """0: milliseconds of CPU, 1: kilobytes of resident memory, shared libraries with it."""
    env = dict(os.environ)
    env.pop("PYTHONDONTWRITEBYTECODE", None)  # an installed package is compiled once
    out = subprocess.check_output([sys.executable, "-c", IMPORT, module], env=env)
    return json.loads(out)[which]


def jobs(server):
    session = Session(server.host)
    yield Job("connect, beyond %d ms of pauses" % FIXED_PAUSES_MS,
              {"module": Figure(session.connect)}, (None, CONNECT_AIM_MS), "ms", count=1)
    yield Job("del db", {"module": Figure(session.end)}, (None, END_AIM_MS), "ms", count=1)
    for which, unit, aim in ((0, "ms", IMPORT_AIM_MS), (1, "KB", IMPORT_AIM_KB)):
        yield Job("import" if which == 0 else "memory of the import", {
            "module": Figure(import_figure, "VzDBAccess", which),
            "floor": Figure(import_figure, "floor.delivery", which),
        }, (None, aim), unit, count=1)
