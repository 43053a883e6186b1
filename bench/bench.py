"""Measures the module against a replay server, beside a plain ping-pong of the same bytes.

Client CPU time (user and system) per operation comes from getrusage of the client's own process.
The module runs in this process; the server and the ping-pong run in theirs, all on one core where
the system lets them be pinned. Rounds of module and ping-pong alternate, and each ratio is formed
within its round, so what else the machine does meets both alike.

The delivery of changes is measured beside the floor: a thread that makes the same calls of the same
function, and nothing else. A second floor receives the same bytes besides, which shows what of the
module's time no client can save. There the servers have a core of their own, where there is one.
"""
import argparse
import itertools
import json
import os
import platform
import resource
import shutil
import socket
import statistics
import struct
import subprocess
import sys
import time

import VzDBAccess
import floor

READ_SIZES = (1, 10, 100, 1000)
SUBSCRIBED_TAG = 60000  # not among the tags that are read from the server
CONNECTS = 20
FIXED_PAUSES_MS = 18
WARM_UPS = 200
CHANGED_TAG = 60000  # of the changes that the server sends on order
ORDER_TAGS = (64001, 64000)  # frames in one go, number of changes
FRAMES = (256, 16)  # in one chunk
LEAD_IN_CHUNKS = 100  # at first the client's system acknowledges before it receives
BUSY_TURNS = 40  # of the interpreter's switch interval, in one round with a busy script thread
WAIT_SECONDS = 0.01
PATIENCE_SECONDS = 20
CACHE_ROOT = "/tmp/vzbrowser"
PROJECT = "bench"


class ReplayServer:
    """The server, in its own process; ends when its stdin is closed.

    It runs on the given core, or else where this process runs.
    """

    def __init__(self, program, core=None):
        self._process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
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


class Spread:
    """Median, least and greatest of some figures."""

    def __init__(self, figures):
        self.median = statistics.median(figures)
        self.min = min(figures)
        self.max = max(figures)

    def text(self, digits):
        return "%.*f (%.*f-%.*f)" % (
            digits, self.median, digits, self.min, digits, self.max)

    def json(self):
        return {name: round(getattr(self, name), 4) for name in ("median", "min", "max")}


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


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def names_of(tags):
    return ",".join("t%06d" % tag for tag in tags)


def expected_value(place):
    """What the server has for the tag at a place of a request."""
    return 0.5 * place if place % 2 else 100000 + place


class Job:
    """One operation to measure: run(n) does it n times through the module.

    ping_pong are the arguments that have the ping-pong do the same; None when there is nothing to
    compare with. settle() follows each run unmeasured, so that nothing is left in flight.
    """

    def __init__(self, name, run, ping_pong=None, settle=lambda: None):
        self.name = name
        self.run = run
        self.settle = settle
        self.ping_pong = ping_pong
        self.module = []  # (CPU seconds, wall seconds) per operation, one for each round
        self.plain = []

    def count_for(self, seconds):
        self.run(WARM_UPS)
        self.settle()
        start = time.perf_counter()
        self.run(WARM_UPS)
        elapsed = time.perf_counter() - start
        self.settle()
        return max(WARM_UPS, int(seconds * WARM_UPS / elapsed))

    def round_of_module(self, count):
        cpu, wall = cpu_seconds(), time.perf_counter()
        self.run(count)
        cpu, wall = cpu_seconds() - cpu, time.perf_counter() - wall
        self.settle()
        self.module.append((cpu / count, wall / count))

    def round_of_ping_pong(self, program, port, count):
        args = [program, str(port)] + self.ping_pong + [str(count)]
        sample = json.loads(subprocess.check_output(args))
        self.plain.append((sample["cpu"] / count, sample["wall"] / count))

    def measure(self, rounds, seconds, program, port):
        count = self.count_for(seconds)
        for i in range(rounds):
            steps = [lambda: self.round_of_module(count)]
            if self.ping_pong:
                steps.append(lambda: self.round_of_ping_pong(program, port, count))
            for step in steps if i % 2 == 0 else reversed(steps):
                step()

    def result(self):
        def figures(samples):
            return {"cpu_us": Spread([1e6 * cpu for cpu, _ in samples]),
                    "per_second": Spread([1 / wall for _, wall in samples])}

        result = {"module": figures(self.module)}
        if self.plain:
            result["ping_pong"] = figures(self.plain)
            result["cpu_ratio"] = Spread([m[0] / p[0] for m, p in zip(self.module, self.plain)])
        return result


def connect(host):
    db = VzDBAccess.DBCore()
    result = db.Connect(host, "user", "password")
    if result != 0:
        sys.exit("bench: Connect gave %d" % result)
    return db


def read_job(driver, size):
    names = names_of(range(size))
    expected = [expected_value(place) for place in range(size)]
    driver.GetTagValue(names)  # caches the names
    if driver.GetTagValue(names) != (expected if size > 1 else expected[0]):
        sys.exit("bench: a read of %d tags gave other values than the server has" % size)

    def run(count):
        get = driver.GetTagValue
        for _ in itertools.repeat(None, count):
            get(names)

    return Job("read %d tag%s" % (size, "s" if size > 1 else ""), run, ["read", str(size)])


def memory_job(driver):
    name = names_of([SUBSCRIBED_TAG])
    if driver.ConnectTag(name) != 1 or driver.GetTagValue(name) != expected_value(0):
        sys.exit("bench: the subscription failed")

    def run(count):
        get = driver.GetTagValue
        for _ in itertools.repeat(None, count):
            get(name)

    return Job("read 1 subscribed tag", run)


def write_job(driver):
    name = names_of([0])
    if driver.SetTagValue(name, 5) != 0:
        sys.exit("bench: the write failed")

    def run(count):
        put = driver.SetTagValue
        for _ in itertools.repeat(None, count):
            put(name, 5)

    # Writes have no reply: a read waits until all have arrived.
    return Job("write 1 tag", run, ["write"], settle=lambda: driver.GetTagValue(name))


def connect_times(host):
    """Wall milliseconds of each of some connects, every one with a transfer of the driver file."""
    times = []
    for _ in range(CONNECTS):
        db = VzDBAccess.DBCore()
        start = time.perf_counter()
        result = db.Connect(host, "user", "password")
        times.append(1e3 * (time.perf_counter() - start))
        if result != 0:
            sys.exit("bench: Connect gave %d" % result)
        del db
    return Spread(times)


class Changes:
    """The changes that a script function was told of: values 1, 2, 3, ... in this order."""

    def __init__(self):
        count = last = 0

        def on_change(driver, tag, value):
            nonlocal count, last
            count += 1
            last = value

        def restart():
            nonlocal count, last
            count = last = 0

        self.on_change = on_change
        self.restart = restart
        self.count = lambda: count
        self.last = lambda: last

    def wait(self, count):
        """Sleeps until so many came."""
        deadline = time.perf_counter() + PATIENCE_SECONDS
        while self.count() < count and time.perf_counter() < deadline:
            time.sleep(WAIT_SECONDS)
        self.check(count)

    def wait_busily(self, count):
        """The same for a script that has its own work to do."""
        deadline = time.perf_counter() + PATIENCE_SECONDS
        while self.count() < count and time.perf_counter() < deadline:
            for _ in range(100):
                pass
        self.check(count)

    def check(self, count):
        if (self.count(), self.last()) != (count, count):
            sys.exit("bench: of %d changes %d came, the last one %s"
                     % (count, self.count(), self.last()))


class Module:
    """Has the module call changes.on_change for changes that the server sends."""

    def __init__(self, host):
        self._db = connect(host)
        self._driver = self._db.GetDriver("bench")
        if self._driver.ConnectTag(names_of([CHANGED_TAG])) != 1:
            sys.exit("bench: the subscription failed")

    def start(self, changes, count, frames):
        self._driver.SetTagNotify(changes.on_change)  # the first one stays
        self._order(LEAD_IN_CHUNKS * frames, frames)
        changes.wait(LEAD_IN_CHUNKS * frames)
        changes.restart()
        self._cpu = cpu_seconds()
        self._order(count, frames)

    def join(self):
        """CPU seconds of the process since the start."""
        return cpu_seconds() - self._cpu

    def close(self):
        del self._driver, self._db

    def _order(self, count, frames):
        if self._driver.SetTagValue(names_of(ORDER_TAGS), [frames, count]) != 0:
            sys.exit("bench: the order of changes failed")


class Floor:
    """Has a thread call changes.on_change in the same way."""

    def start(self, changes, count, frames, channel=-1):
        floor.start(changes.on_change, "bench", names_of([CHANGED_TAG]), count, frames, channel)

    def join(self):
        """CPU seconds of the thread."""
        return floor.join()

    def close(self):
        pass


class ReceivingFloor(Floor):
    """The same for changes that the server sends, so the thread receives and waits too."""

    def __init__(self, port):
        self._orders = socket.create_connection(("127.0.0.1", port))
        self._channel = socket.create_connection(("127.0.0.1", port))
        self._channel.sendall(b"8")
        self._channel.recv(512)

    def start(self, changes, count, frames):
        for number in (LEAD_IN_CHUNKS * frames, count):
            changes.restart()
            super().start(changes, number, frames, self._channel.fileno())
            items = [struct.pack("<HHHI", 0, tag, 3, value)  # driver, tag, type code, value
                     for tag, value in zip(ORDER_TAGS, (frames, number))]
            self._orders.sendall(struct.pack("<cH", b"g", len(items)) + b"".join(items))
            if number != count:
                changes.wait(number)
                self.join()

    def close(self):
        self._orders.close()
        self._channel.close()


class Delivery:
    """Changes in chunks of so many frames, delivered by the module and by the floors."""

    def __init__(self, sides, changes, frames):
        self.frames = frames
        self._sides = sides
        self._changes = changes
        self.cpu = {side: [] for side in sides}  # seconds of CPU for a change, for each round
        self.rate = {side: [] for side in sides}  # changes in a second, script thread busy

    def run(self, side, count, wait):
        """CPU and wall seconds of so many changes."""
        self._changes.restart()
        self._sides[side].start(self._changes, count, self.frames)
        start = time.perf_counter()
        wait(count)
        wall = time.perf_counter() - start
        return self._sides[side].join(), wall

    def count_for(self, side, seconds, wait):
        """How many take so long; found by trying more and more."""
        count, wall = 4 * self.frames, 0
        while wall < seconds / 4:
            count *= 2
            wall = self.run(side, count, wait)[1]
        return max(1, round(count * seconds / wall / self.frames)) * self.frames

    def measure(self, rounds, seconds, idle_cpu):
        """idle_cpu: seconds of CPU that this process takes for a second of waiting."""
        idle, busy = self._changes.wait, self._changes.wait_busily
        busy_seconds = BUSY_TURNS * sys.getswitchinterval()
        idle_count = {side: self.count_for(side, seconds, idle) for side in self._sides}
        busy_count = {side: self.count_for(side, busy_seconds, busy) for side in self._sides}
        for i in range(rounds):
            for side in self._sides if i % 2 == 0 else reversed(self._sides):
                cpu, wall = self.run(side, idle_count[side], idle)
                if side == "module":
                    cpu -= idle_cpu * wall
                self.cpu[side].append(cpu / idle_count[side])
                wall = self.run(side, busy_count[side], busy)[1]
                self.rate[side].append(busy_count[side] / wall)

    def result(self):
        def ratios(figures, side, upside_down):
            pairs = zip(figures["module"], figures[side])
            return Spread([f / m if upside_down else m / f for m, f in pairs])

        floors = [side for side in self._sides if side != "module"]
        return {
            "cpu_us": {side: Spread([1e6 * cpu for cpu in self.cpu[side]]) for side in self._sides},
            "cpu_ratio": {side: ratios(self.cpu, side, True) for side in floors},
            "busy_per_second": {side: Spread(self.rate[side]) for side in self._sides},
            "busy_ratio": {side: ratios(self.rate, side, False) for side in floors},
        }


def idle_cpu():
    """Seconds of CPU that this process takes for a second of waiting."""
    cpu, wall = cpu_seconds(), time.perf_counter()
    while time.perf_counter() - wall < 0.5:
        time.sleep(WAIT_SECONDS)
    return (cpu_seconds() - cpu) / (time.perf_counter() - wall)


def measure_deliveries(options, core):
    """core: where the servers run; None: where this process runs."""
    program = os.path.join(options.programs, "replay_server")
    with ReplayServer(program, core) as server, ReplayServer(program, core) as second:
        changes = Changes()
        sides = {"module": Module(server.host), "receiving_floor": ReceivingFloor(second.port),
                 "floor": Floor()}
        deliveries = [Delivery(sides, changes, frames) for frames in FRAMES]
        for delivery in deliveries:
            delivery.measure(options.rounds, options.seconds, idle_cpu())
        for side in sides.values():
            side.close()
        return {delivery.frames: delivery.result() for delivery in deliveries}


def measure(options):
    with ReplayServer(os.path.join(options.programs, "replay_server")) as server:
        db = connect(server.host)
        driver = db.GetDriver("bench")
        jobs = [read_job(driver, size) for size in READ_SIZES]
        jobs += [memory_job(driver), write_job(driver)]
        for job in jobs:
            job.measure(options.rounds, options.seconds,
                        os.path.join(options.programs, "pingpong"), server.port)
        del driver, db
        return {job.name: job.result() for job in jobs}, connect_times(server.host)


def print_table(results, connects, core, rounds):
    row = "%-22s %-23s %-21s %-20s %9s %9s"
    print("client CPU per operation in µs, and operations per second, %s"
          % ("all on core %d" % core if core is not None else "not pinned"))
    print("median (min-max) of %d alternating rounds" % rounds)
    print()
    print(row % ("", "module µs", "ping-pong µs", "ratio", "module/s", "ping-p./s"))
    for name, result in results.items():
        module, plain = result["module"], result.get("ping_pong")
        print(row % (
            name, module["cpu_us"].text(2), plain["cpu_us"].text(2) if plain else "-",
            result["cpu_ratio"].text(2) if plain else "-",
            "%.0f" % module["per_second"].median,
            "%.0f" % plain["per_second"].median if plain else "-"))
    print()
    print("connect: %s ms of wall time in %d connects, %d ms of them fixed pauses"
          % (connects.text(1), CONNECTS, FIXED_PAUSES_MS))


def print_deliveries(deliveries):
    row = "%-10s" + 3 * " %-25s" + 2 * " %-17s"
    for title, figures, ratio, digits in (
            ("client CPU per change in µs, script thread idle; ratio = floor / module",
             "cpu_us", "cpu_ratio", 3),
            ("changes per second, script thread busy; ratio = module / floor",
             "busy_per_second", "busy_ratio", 0)):
        print()
        print(title)
        print(row % ("", "module", "floor that receives", "floor", "receiving ratio", "ratio"))
        for frames, result in deliveries.items():
            sides = ("module", "receiving_floor", "floor")
            print(row % (("%d frames" % frames,)
                         + tuple(result[figures][side].text(digits) for side in sides)
                         + tuple(result[ratio][side].text(2) for side in sides[1:])))


def cpu_model():
    try:
        with open("/proc/cpuinfo") as lines:
            for line in lines:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor()


def write_json(path, results, connects, deliveries, core, rounds):
    document = {
        "machine": {"cpu": cpu_model(), "cores": os.cpu_count(), "arch": platform.machine(),
                    "kernel": platform.release(), "python": platform.python_version()},
        "core": core,
        "rounds": rounds,
        "operations": results,
        "connect_ms": connects,
        "connect_fixed_pauses_ms": FIXED_PAUSES_MS,
        "delivery_by_frames_in_a_chunk": deliveries,
    }
    with open(path, "w") as out:
        json.dump(document, out, indent=2, default=Spread.json)
        out.write("\n")


def main():
    parser = argparse.ArgumentParser(description="Measures round trips and client CPU time.")
    parser.add_argument("--programs", required=True, metavar="FOLDER",
                        help="where replay_server and pingpong are")
    parser.add_argument("--json", required=True, metavar="FILE", help="gets the figures")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--seconds", type=float, default=0.25,
                        help="of one round of one job (default: 0.25)")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("at least one round")
    core, server_core = pin_to_one_core()
    results, connects = measure(options)
    deliveries = measure_deliveries(options, server_core)
    print_table(results, connects, core, options.rounds)
    print_deliveries(deliveries)
    write_json(options.json, results, connects, deliveries, core, options.rounds)


if __name__ == "__main__":
    main()
