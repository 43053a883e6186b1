"""Jobs on the notification channel: changes of tags that a script function is told of.

Each side has a server of its own, on another core than the client where there is one, which sends
faster than the client takes: so each receive gives a full chunk.
"""
import socket
import struct
import time

from floor import delivery

from clients import (DRIVER, SUBSCRIBE_LIST, connect, lists_of, name_of, names_of, open_socket,
                     read_request, write_request)
from measure import Job, same
from servers import ReplayServer

CHUNK_BYTES = 2048  # of one receive, by the module and by the floor
PUSH_TAG, TURNS_TAG = 64000, 64001
MANY_TAGS = 1000
FIRST_TRIAL = 4096  # changes
FIRST_BUSY_TRIAL = 131072  # many turns of the interpreter's switch interval
WAIT_SECONDS = 0.001
PATIENCE_SECONDS = 20
REPEATED_AIM = 1.0  # the same tag again and again: its names need not be made anew
MANY_AIM = 1.5
BUSY_AIM = 0.5
CHINESE_AIM = 1.5


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
        same((self.count(), self.last()), (count, count), "a delivery")

    def wait_busily(self, count):
        """The same for a script that has its own work to do."""
        deadline = time.perf_counter() + PATIENCE_SECONDS
        while self.count() < count and time.perf_counter() < deadline:
            for _ in range(100):
                pass
        same((self.count(), self.last()), (count, count), "a delivery")


class Side:
    """Gives orders to a server of its own, and has changes.on_change called for what it sends."""

    def __init__(self, programs, core, turns=1):
        self.server = ReplayServer(programs, core)
        self.changes = Changes()
        self._orders = open_socket(self.server.port)
        self._orders.sendall(write_request([(TURNS_TAG, turns)]))

    def order(self, count):
        self._orders.sendall(write_request([(PUSH_TAG, count)]))

    def wait_until_sent(self):
        """Sleeps until the server has sent all, and others of this process may run meanwhile."""
        self._orders.sendall(read_request([0]))
        self._orders.recv(64)

    def start(self, count):
        self.order(count)

    def join(self):
        pass

    def seconds(self, count):
        """CPU seconds of this process for so many changes."""
        self.changes.restart()
        start = time.process_time()
        self.start(count)
        self.wait_until_sent()
        self.changes.wait(count)
        self.join()
        return time.process_time() - start

    def busy_seconds(self, count):
        """Wall seconds of the same when the script has its own work to do."""
        self.changes.restart()
        start = time.perf_counter()
        self.start(count)
        self.changes.wait_busily(count)
        wall = time.perf_counter() - start
        self.join()
        return wall

    def close(self):
        self._orders.close()
        self.server.__exit__()


class ModuleSide(Side):
    def __init__(self, programs, core, turns=1, chinese=False):
        super().__init__(programs, core, turns)
        self._db, self._driver = connect(self.server.host)
        names = [name_of(0, True)] if chinese else lists_of(range(turns), SUBSCRIBE_LIST)
        for part in names:
            same(self._driver.ConnectTag(part), 1, "ConnectTag")
        self._driver.SetTagNotify(self.changes.on_change)

    def close(self):
        del self._driver, self._db
        super().close()


class FloorSide(Side):
    """A thread that takes the lock once for each chunk; names are made once, or for each call."""

    def __init__(self, programs, core, cached=False):
        super().__init__(programs, core)
        self._cached = cached
        self._channel = open_channel(self.server.port)

    def start(self, count):
        delivery.start(self.changes.on_change, DRIVER, names_of([0]), count, CHUNK_BYTES,
                       self._channel.fileno(), self._cached)
        self.order(count)

    def join(self):
        delivery.join()

    def close(self):
        self._channel.close()
        super().close()


class PlainSide(Side):
    """A script that receives and calls, without a thread."""

    FRAMES = struct.Struct("<HHi")

    def __init__(self, programs, core):
        super().__init__(programs, core)
        self._channel = open_channel(self.server.port)
        self._names = [name_of(0)]

    def start(self, count):
        self.order(count)
        on_change, names, rest = self.changes.on_change, self._names, b""
        while self.changes.count() < count:
            chunk = rest + self._channel.recv(CHUNK_BYTES)
            end = len(chunk) // self.FRAMES.size * self.FRAMES.size
            for _, tag, value in self.FRAMES.iter_unpack(chunk[:end]):
                on_change(DRIVER, names[tag], value)
            rest = chunk[end:]

    def close(self):
        self._channel.close()
        super().close()


def open_channel(port):
    """A connection that has made itself known as the notification channel."""
    channel = socket.create_connection(("127.0.0.1", port))
    channel.settimeout(None)
    channel.sendall(b"8")
    channel.recv(512)
    return channel


class Busy:
    """The busy form of a side."""

    def __init__(self, side):
        self.seconds = side.busy_seconds


def jobs(programs, core, peers):
    """core: where the servers run; None: where this process runs."""
    many = ModuleSide(programs, core, turns=MANY_TAGS)
    chinese = ModuleSide(programs, core, chinese=True)
    module = ModuleSide(programs, core)
    floor = FloorSide(programs, core)
    cached = FloorSide(programs, core, cached=True)
    plain = PlainSide(programs, core)
    yield Job("deliver a change", {
        "module": module, "floor": floor, "cached": cached, "plain": plain,
        **peers.sides("deliver", 1),
    }, aim=("floor", REPEATED_AIM), first=FIRST_TRIAL)
    yield Job("deliver a change, %s tags in turn" % MANY_TAGS,
              {"module": many, "floor": floor}, aim=("floor", MANY_AIM),
              first=FIRST_TRIAL)
    yield Job("deliver a change, Chinese name", {"module": chinese, "ascii": module},
              aim=("ascii", CHINESE_AIM), first=FIRST_TRIAL)
    yield Job("changes while the script is busy",
              {"module": Busy(module), "floor": Busy(floor), "cached": Busy(cached)},
              aim=("floor", BUSY_AIM), unit="/s", first=FIRST_BUSY_TRIAL)
    for side in (module, chinese, many, floor, cached, plain):
        side.close()
