"""Requests and replies as bytes, written from the tables of the wire."""

import struct


def unscramble(data):
    """Plain bytes of a scrambled message: groups of a key byte and up to three bytes under it."""
    plain = bytearray()
    for at in range(0, len(data), 4):
        key, group = data[at], data[at + 1:at + 4]
        rules = (lambda b: (b - key) % 256, lambda b: (b + key) % 256, lambda b: b ^ key)
        plain += bytes(rule(b) for rule, b in zip(rules, group))
    return bytes(plain)


def keys(data):
    """The key bytes of a scrambled message."""
    return data[::4]


def lookup(driver, *names):
    """A lookup request; names are text or GB2312 bytes."""
    encoded = [n if isinstance(n, bytes) else n.encode("gb2312") for n in names]
    return b"L" + b"".join(struct.pack("<H", driver) + name + b"\0" for name in encoded)


def lookup_reply(*ids):
    return b"L" + b"".join(struct.pack("<HH", i, 0x5AA5) for i in ids)


def read(driver, *ids):
    return b"H" + struct.pack("<H", len(ids)) + b"".join(
        struct.pack("<HH", driver, i) for i in ids)


def read_chunk(body, flag=0, size=None):
    """One chunk of a read reply: flag 1 when another one follows."""
    return b"H" + struct.pack("<BH", flag, len(body) if size is None else size) + body


def subscribe(driver, *ids):
    return b"b" + struct.pack("<H", len(ids)) + b"".join(
        struct.pack("<HHB", driver, i, 0) for i in ids)


def subscribe_chunk(body, size=None):
    return b"b" + struct.pack("<H", len(body) if size is None else size) + body


def write(*groups):
    """A write request of (driver id, tag id, encoded value)."""
    return b"g" + struct.pack("<H", len(groups)) + b"".join(
        struct.pack("<HH", driver, tag) + value for driver, tag, value in groups)


def i4(n):
    return b"\x03\0" + struct.pack("<i", n)


def r8(x):
    return b"\x05\0" + struct.pack("<d", x)


def text(s):
    return b"\x08\0" + (s if isinstance(s, bytes) else s.encode("utf-8")) + b"\0"


def change(driver, tag, payload):
    """A notification frame: a tag has a new value, given without its type code."""
    return struct.pack("<HH", driver, tag) + payload


def file_reply(body, header=b"", time=0x5F5E1000, size=None):
    """A file transfer's reply: header lines, a blank line, the body."""
    return (b"FileTime:%X\r\nSize:%X\r\n" % (time, len(body) if size is None else size)
            + header + b"\r\n" + body)


def driver_record(name, number, tags):
    """A record of the driver information file."""
    return name + b"\0" + struct.pack("<HH", number, tags)
