"""The byte scrambler of the login hellos and of the notification hello's reply.

Plain bytes go in groups of three; each group becomes a random key byte ``k`` followed by
``a + k``, ``b - k``, ``c ^ k`` (all modulo 256). A last group of one or two bytes is sent as its
key and its one or two combined bytes. Nothing is secret: whoever has the bytes can read them.
"""

import os
from typing import Callable, Optional


def scrambled_length(plain_length: int) -> int:
    """Bytes on the wire of ``plain_length`` plain bytes: 16 give 22, 3 give 4, 0 give 0."""
    groups, rest = divmod(plain_length, 3)
    return 4 * groups + (rest + 1 if rest else 0)


def scramble(plain: bytes, keys: Optional[Callable[[int], bytes]] = None) -> bytes:
    """Return ``plain`` scrambled; ``keys(n)`` supplies n key bytes (default: the system's)."""
    groups = (len(plain) + 2) // 3
    key_bytes = (keys or os.urandom)(groups)
    out = bytearray()
    for group in range(groups):
        k = key_bytes[group]
        part = plain[3 * group:3 * group + 3]
        out.append(k)
        out.append((part[0] + k) & 0xFF)
        if len(part) > 1:
            out.append((part[1] - k) & 0xFF)
        if len(part) > 2:
            out.append(part[2] ^ k)
    return bytes(out)


def unscramble(wire: bytes) -> bytes:
    """Return the plain bytes of ``wire``.

    Raises ValueError for a tail of one byte: a key without a byte to go with it.
    """
    if len(wire) % 4 == 1:
        raise ValueError("scrambled bytes end with a lone key byte")
    return unscramble_prefix(wire)


def unscramble_prefix(wire: bytes) -> bytes:
    """Return as many plain bytes as ``wire`` holds so far; a lone last key byte gives none."""
    out = bytearray()
    for start in range(0, len(wire), 4):
        part = wire[start:start + 4]
        k = part[0]
        if len(part) > 1:
            out.append((part[1] - k) & 0xFF)
        if len(part) > 2:
            out.append((part[2] + k) & 0xFF)
        if len(part) > 3:
            out.append(part[3] ^ k)
    return bytes(out)
