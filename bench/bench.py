"""Measures the module against a replay server, beside a plain ping-pong of the same bytes.

Client CPU time (user and system) per operation comes from getrusage of the client's own process.
The module runs in this process; the server and the ping-pong run in theirs, all on one core where
the system lets them be pinned. Rounds of module and ping-pong alternate, and each ratio is formed
within its round, so what else the machine does meets both alike.
"""
import argparse
import itertools
import json
import os
import platform
import resource
import shutil
import statistics
import subprocess
import sys
import time

import VzDBAccess

READ_SIZES = (1, 10, 100, 1000)
SUBSCRIBED_TAG = 60000  # not among the tags that are read from the server
CONNECTS = 20
FIXED_PAUSES_MS = 18
WARM_UPS = 200
CACHE_ROOT = "/tmp/vzbrowser"
PROJECT = "bench"


class ReplayServer:
    """The server, in its own process; ends when its stdin is closed."""

    def __init__(self, program):
        self._process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.port = int(self._process.stdout.readline())
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
    """Pins this process and those it starts; returns the core, or None where that is refused."""
    try:
        core = max(os.sched_getaffinity(0))
        os.sched_setaffinity(0, {core})
        return core
    except (AttributeError, OSError):
        return None


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


def cpu_model():
    try:
        with open("/proc/cpuinfo") as lines:
            for line in lines:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor()


def write_json(path, results, connects, core, rounds):
    document = {
        "machine": {"cpu": cpu_model(), "cores": os.cpu_count(), "arch": platform.machine(),
                    "kernel": platform.release(), "python": platform.python_version()},
        "core": core,
        "rounds": rounds,
        "operations": results,
        "connect_ms": connects,
        "connect_fixed_pauses_ms": FIXED_PAUSES_MS,
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
    core = pin_to_one_core()
    results, connects = measure(options)
    print_table(results, connects, core, options.rounds)
    write_json(options.json, results, connects, core, options.rounds)


if __name__ == "__main__":
    main()
