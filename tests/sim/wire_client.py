"""A small client, written from the tables of the wire; it shares no code with the simulator."""

import os
import socket
import struct

WAIT = 30.0  # seconds until a test gives up


def scramble(plain):
    """Groups of three bytes become a key byte and the three combined with it."""
    out = b""
    for i in range(0, len(plain), 3):
        key = os.urandom(1)[0]
        group = plain[i:i + 3]
        mixed = [(group[0] + key) % 256]
        mixed += [(b - key) % 256 for b in group[1:2]] + [b ^ key for b in group[2:3]]
        out += bytes([key] + mixed)
    return out


def unscramble(wire):
    """The reverse."""
    out = []
    for i in range(0, len(wire), 4):
        key, *mixed = wire[i:i + 4]
        out += [(b - key) % 256 for b in mixed[:1]] + [(b + key) % 256 for b in mixed[1:2]]
        out += [b ^ key for b in mixed[2:3]]
    return bytes(out)


def connect(port, host="127.0.0.1"):
    """A connected socket with a time-out, so that no test hangs."""
    sock = socket.create_connection((host, port), WAIT)
    sock.settimeout(WAIT)
    return sock


def take(sock, size):
    """Exactly ``size`` bytes, or as many as come before the end."""
    data = b""
    while len(data) < size:
        part = sock.recv(size - len(data))
        if not part:
            break
        data += part
    return data


def until_end(sock):
    """All bytes up to the end of the connection."""
    data = b""
    while True:
        part = sock.recv(65536)
        if not part:
            return data
        data += part


class Client:
    """One client with both channels; ``server`` not None sends the relay form."""

    def __init__(self, port, host="127.0.0.1", server=None):
        self.port, self.host, self.server = port, host, server
        self.guid = os.urandom(16)
        self.request = connect(port, host)
        self.notify = None

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.request.close()
        if self.notify:
            self.notify.close()

    def ask(self, data, size=65536):
        """Send a request and return what one receive gives."""
        self.request.sendall(data)
        return self.request.recv(size)

    def exchange(self, data, size):
        """Send a request and return exactly ``size`` bytes of reply."""
        self.request.sendall(data)
        return take(self.request, size)

    def hello(self):
        """The login hello; returns its reply."""
        plain = self.guid
        if self.server is not None:
            plain += bytes(6) + self.server + b"\0"
        return self.ask(b"7" + scramble(plain))

    def open_notify(self, host_name=b"board"):
        """The notification hello; returns its reply unscrambled."""
        self.notify = connect(self.port, self.host)
        self.notify.sendall(b"8" + scramble(self.guid + host_name + b"\0\x01\x01"))
        return unscramble(self.notify.recv(512))

    def log_in(self, user=b"operator", password=b"secret"):
        """Both hellos and the user login; returns the login's reply."""
        assert self.hello() == b"7"
        assert self.open_notify()[:1] == b"8"
        return self.ask(b"9" + user + b"\0" + password + b"\0")

    def lookup(self, driver, *names):
        """Tag ids of names (text, sent as GB2312)."""
        reply = self.exchange(b"L" + b"".join(
            struct.pack("<H", driver) + name.encode("gb2312") + b"\0" for name in names),
            1 + 4 * len(names))
        assert reply[:1] == b"L"
        return [struct.unpack_from("<H", reply, 1 + 4 * i)[0] for i in range(len(names))]

    def read(self, *keys):
        """The chunk bodies of a read of (driver, tag) pairs."""
        self.request.sendall(b"H" + struct.pack("<H", len(keys)) + b"".join(
            struct.pack("<HH", *key) for key in keys))
        chunks = []
        more = 1
        while more == 1:
            code, more, size = struct.unpack("<cBH", take(self.request, 4))
            assert code == b"H"
            chunks.append(take(self.request, size))
        return chunks

    def subscribe(self, *keys):
        """The values of newly subscribed tags; only for replies of one chunk."""
        self.request.sendall(b"b" + struct.pack("<H", len(keys)) + b"".join(
            struct.pack("<HHB", driver, tag, 0) for driver, tag in keys))
        code, size = struct.unpack("<cH", take(self.request, 3))
        assert code == b"b"
        return take(self.request, size)

    def write(self, driver, tag, value):
        """Write one value given with its type code; there is no reply."""
        self.request.sendall(b"g\x01\0" + struct.pack("<HH", driver, tag) + value)

    def get_file(self, name, held=b"", hello=True):
        """Ask for a file; returns (header lines as a dict, body)."""
        self.request.sendall(b"4" + name + b"\r\n" + held + (b"Hello:Yes\r\n" if hello else b"")
                             + b"\r\n")
        data = b""
        while b"\r\n\r\n" not in data:
            data += self.request.recv(1)
        header = dict(line.split(b":", 1) for line in data[:-4].split(b"\r\n"))
        if b"Size" not in header:
            return header, None
        return header, self._body(header, len(data))

    def _body(self, header, received):
        size, body, span = int(header[b"Size"], 16), b"", 131072
        while len(body) < size:
            if b"Hello" not in header:
                received = 0
            elif received >= span:
                self.request.sendall(b"4Hello%X\0" % received)
                received, span = 0, max(span - 10240, 8192)
            part = self.request.recv(min(2048, span - received, size - len(body)))
            assert part
            body += part
            received += len(part)
        return body
