"""The clients that are measured with the replay server: the module, the floor and plain sockets."""
import socket
import struct

import VzDBAccess
from floor import requests

from measure import same

DRIVER = "bench"
NUMERALS = str.maketrans("0123456789", "零一二三四五六七八九")
LOOKUP_BYTES = 768  # of a request that looks names up
READ_LIST = 1000  # tags in one list: a round number that fits in a request
SUBSCRIBE_LIST = 500
WRITE_LIST = 100


def name_of(tag, chinese=False):
    return "标" + ("%06d" % tag).translate(NUMERALS) if chinese else "t%06d" % tag


def names_of(tags, chinese=False):
    return ",".join(name_of(tag, chinese) for tag in tags)


def lists_of(tags, length):
    """The names of a range of tags in lists of at most so many."""
    return [names_of(tags[at:at + length]) for at in range(0, len(tags), length)]


def value_read(place):
    """What the server has for the tag at a place of a read request."""
    return 0.5 * place if place % 2 else 100000 + place


def value_subscribed(place):
    return 100000 + place


# ---- The module ---------------------------------------------------------------------------------

def connect(host):
    db = VzDBAccess.DBCore()
    same(db.Connect(host, "user", "password"), 0, "Connect")
    return db, db.GetDriver(DRIVER)


def resolve(driver, names):
    """Has the driver look names up, and do nothing else: a write that cannot be encoded."""
    same(driver.SetTagValue(names, None), -3, "a write of no value")


# ---- Bytes --------------------------------------------------------------------------------------

def read_request(tags):
    return struct.pack("<cH", b"H", len(tags)) + b"".join(
        struct.pack("<HH", 0, tag) for tag in tags)


def subscribe_request(tags):
    return struct.pack("<cH", b"b", len(tags)) + b"".join(
        struct.pack("<HHB", 0, tag, 0) for tag in tags)


def subscribe_reply_length(count):
    """One chunk: code, length, and a type code and four bytes for each."""
    return 3 + 6 * count


def write_request(values):
    """values: tag and integer of each."""
    return struct.pack("<cH", b"g", len(values)) + b"".join(
        struct.pack("<HHHi", 0, tag, 3, value) for tag, value in values)


def lookups(names):
    """The requests that the lookup of a list takes, and the lengths of their replies."""
    batches, lengths = [b"L"], [1]
    for name in names.split(","):
        item = struct.pack("<H", 0) + name.encode("gb2312") + b"\0"
        if len(batches[-1]) + len(item) > LOOKUP_BYTES:
            batches.append(b"L")
            lengths.append(1)
        batches[-1] += item
        lengths[-1] += 4
    return batches, lengths


def open_socket(port):
    """A connection with the module's options, which the system treats in a way of its own."""
    sock = socket.create_connection(("127.0.0.1", port))
    sock.settimeout(None)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for option in (socket.SO_RCVTIMEO, socket.SO_SNDTIMEO):
        sock.setsockopt(socket.SOL_SOCKET, option, struct.pack("@ll", 8, 0))
    return sock


# ---- The floor ----------------------------------------------------------------------------------

class Floor:
    """The extension's methods on a connection of its own. A request is set before each round."""

    def __init__(self, port):
        self._socket = open_socket(port)

    def use(self, request):
        requests.use(self._socket.fileno(), request)

    def repeated(self, request, method, *args):
        def run(count):
            self.use(request)
            for _ in range(count):
                method(*args)
        return run

    def exchange(self, batches, lengths):
        self.use(b"")
        requests.exchange(batches, lengths)

    def read(self, tags):
        return self.repeated(read_request(tags), requests.read, names_of(tags))

    def read_kept(self, tags):
        """Of tags from 0 on."""
        return self.repeated(read_request(tags), requests.read_kept, names_of(tags))

    def write(self, values):
        return self.repeated(write_request(values), requests.write,
                             names_of([tag for tag, _ in values]), 0)

    def settle(self):
        """Returns when all that was sent has arrived."""
        self.use(read_request([0]))
        same(requests.read(""), value_read(0), "the floor's read")


# ---- Plain sockets ------------------------------------------------------------------------------

class PlainClient:
    """What a script without an extension does: socket and struct."""

    ITEM = struct.Struct("<HH")
    HEADER = struct.Struct("<cBH")

    def __init__(self, port):
        self._socket = open_socket(port)

    def read(self, tags):
        pack = self.ITEM.pack
        self._socket.sendall(struct.pack("<cH", b"H", len(tags))
                             + b"".join([pack(0, tag) for tag in tags]))
        values = []
        more = 1
        reply = b""
        while more == 1:
            while len(reply) < self.HEADER.size:
                reply += self._receive()
            _, more, length = self.HEADER.unpack_from(reply)
            end = self.HEADER.size + length
            while len(reply) < end:
                reply += self._receive()
            self._decode(reply, end, values)
            reply = reply[end:]
        return values if len(values) > 1 else values[0]

    def _decode(self, reply, end, values):
        at = self.HEADER.size
        integer = struct.Struct("<i").unpack_from
        real = struct.Struct("<d").unpack_from
        while at < end:
            if reply[at] == 3:
                values.append(integer(reply, at + 2)[0])
                at += 6
            else:
                values.append(real(reply, at + 2)[0])
                at += 10

    def _receive(self):
        got = self._socket.recv(65536)
        if not got:
            raise SystemExit("bench: the server ended a connection")
        return got

    def write(self, tags, values):
        pack = struct.Struct("<HHHi").pack
        self._socket.sendall(struct.pack("<cH", b"g", len(tags)) + b"".join(
            [pack(0, tag, 3, value) for tag, value in zip(tags, values)]))

    def look_up(self, names):
        """Tag ids of a list of names."""
        batches, lengths = lookups(names)
        tags = []
        for batch, length in zip(batches, lengths):
            self._socket.sendall(batch)
            reply = b""
            while len(reply) < length:
                reply += self._receive()
            tags += [tag for tag, _ in self.ITEM.iter_unpack(reply[1:])]
        return tags
