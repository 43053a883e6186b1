"""Jobs on the request channel: reads, reads from memory, writes, the first lookup of names."""
import time

from floor import requests

from clients import (Floor, PlainClient, connect, lookups, names_of, read_request, resolve,
                     value_read, value_subscribed)
from measure import Calls, Job, repeated, same

READ_SIZES = (1, 10, 100, 1000)
READ_AIM = 1.25
KEPT_SIZE = 100  # tags from which on it shows that their values are kept
WRITE_AIMS = {1: 1.3, 100: 2}  # by number of tags
MEMORY_AIM = 2
CHINESE_AIM = 1.5
RESOLVED = 10000
RESOLVED_AIM = 3
SUBSCRIBED = range(50000, 51000)  # not among the tags that are read from the server
SUBSCRIBED_CHINESE = 52000


def tags_text(count):
    return "%d tag%s" % (count, "" if count == 1 else "s")


def expected(count, value):
    return [value(place) for place in range(count)] if count > 1 else value(0)


class Clients:
    """One of each kind, connected to the replay server."""

    def __init__(self, server):
        self.db, self.driver = connect(server.host)
        self.floor = Floor(server.port)
        self.plain = PlainClient(server.port)
        self.host = server.host
        self.arrived = repeated(self.driver.GetTagValue, names_of([0]))  # writes have no reply

    def reader(self, names, values):
        """The module's reads of a list, which were tried before."""
        self.driver.GetTagValue(names)
        same(self.driver.GetTagValue(names), values, "a read")
        return Calls(repeated(self.driver.GetTagValue, names))

    def writer(self, names, value):
        same(self.driver.SetTagValue(names, value), 0, "a write")
        return Calls(repeated(self.driver.SetTagValue, names, value), lambda: self.arrived(1))


def read_job(clients, size, peers):
    tags = range(size)
    values = expected(size, value_read)
    clients.floor.use(read_request(tags))
    same(requests.read(""), values, "the floor's read")
    same(clients.plain.read(tags), values, "a plain read")
    sides = {
        "module": clients.reader(names_of(tags), values),
        "floor": Calls(clients.floor.read(tags)),
        "plain": Calls(repeated(clients.plain.read, tags)),
        **peers.sides("read", size),
    }
    if size >= KEPT_SIZE:
        clients.floor.use(read_request(tags))
        same(requests.read_kept(""), values, "the floor's read that keeps")
        sides["kept"] = Calls(clients.floor.read_kept(tags))
    return Job("read " + tags_text(size), sides, aim=("floor", READ_AIM))


def write_job(clients, size, peers):
    tags = range(size)
    values = [5] * size
    items = list(zip(tags, values))
    return Job("write " + tags_text(size), {
        "module": clients.writer(names_of(tags), values if size > 1 else 5),
        "floor": Calls(clients.floor.write(items), clients.floor.settle),
        "plain": Calls(repeated(clients.plain.write, tags, values),
                       lambda: clients.plain.read([0])),
        **peers.sides("write", size),
    }, aim=("floor", WRITE_AIMS[size]))


def memory_jobs(clients):
    driver = clients.driver
    for tags in (SUBSCRIBED[:500], SUBSCRIBED[500:]):
        same(driver.ConnectTag(names_of(tags)), 1, "ConnectTag")
    one, all_tags = names_of(SUBSCRIBED[:1]), names_of(SUBSCRIBED)
    values = expected(500, value_subscribed) * 2
    build = Calls(repeated(requests.build, len(SUBSCRIBED)))
    return [
        Job("read 1 subscribed tag", {
            "module": clients.reader(one, value_subscribed(0)),
            "floor": Calls(repeated(requests.parse, one)),
        }, aim=("floor", MEMORY_AIM)),
        Job("read 1000 subscribed tags",
            {"module": clients.reader(all_tags, values), "floor": build},
            aim=("floor", MEMORY_AIM)),
    ]


def chinese_jobs(clients):
    """The same with names of Chinese characters, beside those in ASCII."""
    driver = clients.driver
    same(driver.ConnectTag(names_of([SUBSCRIBED_CHINESE], True)), 1, "ConnectTag")
    jobs = []
    for size in READ_SIZES:
        values = expected(size, value_read)
        jobs.append(Job("read %s, Chinese names" % tags_text(size), {
            "module": clients.reader(names_of(range(size), True), values),
            "ascii": clients.reader(names_of(range(size)), values),
        }, aim=("ascii", CHINESE_AIM)))
    jobs.append(Job("read 1 subscribed tag, Chinese name", {
        "module": clients.reader(names_of([SUBSCRIBED_CHINESE], True), value_subscribed(0)),
        "ascii": clients.reader(names_of(SUBSCRIBED[:1]), value_subscribed(0)),
    }, aim=("ascii", CHINESE_AIM)))
    jobs.append(Job("write 1 tag, Chinese name", {
        "module": clients.writer(names_of([0], True), 5),
        "ascii": clients.writer(names_of([0]), 5),
    }, aim=("ascii", CHINESE_AIM)))
    return jobs


class FirstResolution:
    """The module's first lookup of names, each time in a new session, which is not measured."""

    def __init__(self, host, names):
        self._host = host
        self._names = names

    def seconds(self, count):
        used = 0
        for _ in range(count):
            db, driver = connect(self._host)
            start = time.process_time()
            resolve(driver, self._names)
            used += time.process_time() - start
            del driver, db
        return used


def resolution_job(clients):
    names = names_of(range(RESOLVED))
    same(clients.plain.look_up(names), list(range(RESOLVED)), "a plain lookup")
    return Job("first lookup of %s names" % format(RESOLVED, ","), {
        "module": FirstResolution(clients.host, names),
        "floor": Calls(repeated(clients.floor.exchange, *lookups(names))),
        "plain": Calls(repeated(clients.plain.look_up, names)),
    }, aim=("floor", RESOLVED_AIM), count=1)


def jobs(server, peers):
    clients = Clients(server)
    yield from (read_job(clients, size, peers) for size in READ_SIZES)
    yield from memory_jobs(clients)
    yield from (write_job(clients, size, peers) for size in WRITE_AIMS)
    yield resolution_job(clients)
    yield from chinese_jobs(clients)
