"""What a tag costs in a session with few or many tags: from 1 to 65,535 of them.

Lists are as long as a request takes, or as the number of tags. Every round has sessions of its own,
so names are looked up, and tags subscribed, for the first time. The floor sends and receives the
same bytes.
"""
import time

from floor import requests

from clients import (READ_LIST, SUBSCRIBE_LIST, WRITE_LIST, connect, lookups, names_of,
                     read_request, resolve, subscribe_reply_length, subscribe_request,
                     write_request)
from deliveries import ModuleSide
from measure import Spread

SIZES = (1, 10, 100, 1000, 10000, 65535)
LEAST_TAGS = 2000  # of a figure: few tags are measured again and again
LEAST_CHANGES = 65536
OPERATIONS = ("resolve", "subscribe", "read", "write", "deliver")


def timed(run, argument_lists):
    """CPU seconds of run(*arguments) for each of the lists."""
    start = time.process_time()
    for arguments in argument_lists:
        run(*arguments)
    return time.process_time() - start


def groups_of(size):
    """Ranges of so many tags: enough of them for a figure, none in two of them."""
    count = max(1, min(LEAST_TAGS, 65535) // size)
    return [range(at * size, (at + 1) * size) for at in range(count)]


def split(groups, length):
    return [group[at:at + length] for group in groups for at in range(0, len(group), length)]


def module_round(host, size):
    """CPU seconds of each operation for a tag, in a new session."""
    groups = groups_of(size)
    tags = sum(map(len, groups))
    db, driver = connect(host)
    used = {"resolve": timed(resolve, [(driver, names_of(group)) for group in groups])}
    reads = [(names_of(part),) for part in split(groups, READ_LIST)]
    writes = [(names_of(part), [0] * len(part) if len(part) > 1 else 0)
              for part in split(groups, WRITE_LIST)]
    subscriptions = [(names_of(part),) for part in split(groups, SUBSCRIBE_LIST)]
    timed(driver.GetTagValue, reads)
    used["read"] = timed(driver.GetTagValue, reads)
    timed(driver.SetTagValue, writes)
    driver.GetTagValue(names_of([0]))  # when it is answered, all writes have arrived
    used["write"] = timed(driver.SetTagValue, writes)
    driver.GetTagValue(names_of([0]))
    used["subscribe"] = timed(driver.ConnectTag, subscriptions)
    del driver, db
    return {operation: seconds / tags for operation, seconds in used.items()}


def floor_round(floor, size):
    groups = groups_of(size)
    tags = sum(map(len, groups))
    used = {"resolve": timed(floor.exchange, [lookups(names_of(group)) for group in groups])}

    def exchanges(make, length, reply_length):
        return [([make(part)], [reply_length(len(part))]) for part in split(groups, length)]

    used["subscribe"] = timed(floor.exchange, exchanges(subscribe_request, SUBSCRIBE_LIST,
                                                        subscribe_reply_length))
    reads = [floor.repeated(read_request(part), requests.read, "")
             for part in split(groups, READ_LIST)]
    used["read"] = timed(lambda run: run(1), [(run,) for run in reads])
    writes = [([write_request([(tag, 0) for tag in part])], [0])
              for part in split(groups, WRITE_LIST)]
    used["write"] = timed(floor.exchange, writes)
    floor.settle()
    return {operation: seconds / tags for operation, seconds in used.items()}


class Deliveries:
    """Changes of so many tags in turn, by a session that stays."""

    def __init__(self, programs, core, size):
        self._side = ModuleSide(programs, core, turns=size)
        self._count = max(LEAST_CHANGES, size)
        self._side.seconds(self._count)

    def round(self):
        return self._side.seconds(self._count) / self._count

    def close(self):
        self._side.close()


def measure(server, floor, programs, core, rounds, sizes=SIZES):
    """Microseconds of CPU for a tag: {operation: {"module": {size: Spread}, "floor": ...}}."""
    figures = {operation: {"module": {size: [] for size in sizes},
                           "floor": {size: [] for size in sizes}} for operation in OPERATIONS}
    del figures["deliver"]["floor"]
    for size in sizes:
        deliveries = Deliveries(programs, core, size)
        for _ in range(rounds):
            for name, used in (("module", module_round(server.host, size)),
                               ("floor", floor_round(floor, size))):
                for operation, seconds in used.items():
                    figures[operation][name][size].append(1e6 * seconds)
            figures["deliver"]["module"][size].append(1e6 * deliveries.round())
        deliveries.close()
    return {operation: {side: {str(size): Spread(values).json() for size, values in by_size.items()}
                        for side, by_size in sides.items()}
            for operation, sides in figures.items()}
