"""Jobs of the package vzclient, beside the module VzDBAccess: reads, changes, import.

Here the first side is the package.
"""
import itertools
import time

import vzclient

from clients import DRIVER, connect, name_of, names_of, value_read
from deliveries import FIRST_TRIAL, Side
from measure import Calls, Job, repeated, same
from round_trips import tags_text
from sessions import Figure, import_figure

READ_SIZES = (1, 10, 100, 1000)
READ_AIM = 1.15
RATE_AIM = 500000
IMPORT_AIM_MS = 25


def reader(driver, size):
    """The package's reads: by name, or of many names."""
    names = [name_of(tag) for tag in range(size)]
    if size == 1:
        same(driver[names[0]], value_read(0), "a read")
        return Calls(repeated(driver.__getitem__, names[0]))
    same(driver.read(*names), {name: value_read(place) for place, name in enumerate(names)},
         "a read")

    def run(count):
        read = driver.read
        for _ in range(count):
            read(*names)
    return Calls(run)


def read_job(package, module, size):
    names = names_of(range(size))
    sides = {"module": reader(package, size), "older": Calls(repeated(module.GetTagValue, names))}
    if size > 1:
        sides["dict"] = Calls(same_result(module, size))
    return Job("vzclient: read " + tags_text(size), sides, aim=("older", READ_AIM))


def same_result(module, size):
    """The module's reads, made what the package gives."""
    names, text = [name_of(tag) for tag in range(size)], names_of(range(size))

    def run(count):
        for _ in range(count):
            dict(zip(names, module.GetTagValue(text)))
    return run


class Rate:
    """Changes in a second, by the wall, that reach a script: by a watch or by a callback."""

    def __init__(self, programs, core, callback):
        self._side = Side(programs, core)
        self._plant = vzclient.connect(self._side.server.host, "user", "password", queue=1 << 24)
        self._driver = self._plant[DRIVER]
        self._callback = callback
        self._watch = None if callback else self._driver.watch(name_of(0), queue=1 << 24)
        self._seen = 0
        if callback:
            self._driver.on_change(self._on_change, name_of(0))

    def _on_change(self, change):
        self._seen += 1

    def seconds(self, count):
        self._settle()
        start = time.perf_counter()
        if self._callback:
            goal = self._seen + count
            self._side.order(count)
            while self._seen < goal:
                time.sleep(0.0005)
        else:
            self._side.order(count)
            for change in itertools.islice(self._watch, count):
                pass
            same(change.value, count, "a watch")
        return time.perf_counter() - start

    def _settle(self):
        """Nothing waits: the present value was taken."""
        while self._watch is not None and self._watch.waiting:
            self._watch.get()

    def close(self):
        self._plant.close()
        self._side.close()


def jobs(server, programs, core):
    db, module = connect(server.host)
    with vzclient.connect(server.host, "user", "password") as plant:
        yield from (read_job(plant[DRIVER], module, size) for size in READ_SIZES)
    del module, db
    watch, callback = Rate(programs, core, False), Rate(programs, core, True)
    yield Job("vzclient: changes iterated over", {"module": watch}, (None, RATE_AIM), "/s",
              first=FIRST_TRIAL)
    yield Job("vzclient: changes to a callback", {"module": callback}, (None, RATE_AIM), "/s",
              first=FIRST_TRIAL)
    watch.close()
    callback.close()
    yield Job("vzclient: import", {"module": Figure(import_figure, "vzclient", 0)},
              (None, IMPORT_AIM_MS), "ms", count=1)
