"""The center server's part: finds the plant a client names, redirects to it or relays for it."""

import asyncio
import socket
from typing import Any, Dict, Optional, Tuple

from . import scrambler
from .channel import Channel
from .plantfile import CenterLayout
from .requests import Hello, ReceiveHello


class Routes:
    """The plants a server speaks for: itself and its center entries.

    Without entries every name means the plant itself: a client that was given this server's
    address and port directly sends that address as the name.
    """

    def __init__(self, name: str, project: str, host: str,
                 entries: Dict[str, CenterLayout]) -> None:
        self._entries = entries
        self._own = {name, project, host, "localhost"}

    def find(self, wire_name: bytes) -> Tuple[bool, Optional[CenterLayout]]:
        """Return (whether the name is known, its target; None is the plant itself)."""
        for encoding in ("utf-8", "gb2312"):
            try:
                name = wire_name.decode(encoding)
            except UnicodeDecodeError:
                continue
            if name in self._entries:
                return True, self._entries[name]
            if name in self._own:
                return True, None
        return not self._entries, None


def hello_for(request: Hello, relay_form: bool) -> bytes:
    """The login hello a center sends on to a plant, in the form its port asks for."""
    plain = request.guid
    if relay_form:
        plain += request.mac + (request.server or b"") + b"\0"
    return b"7" + scrambler.scramble(plain)


def receive_hello_for(request: ReceiveHello) -> bytes:
    """The notification hello a center sends on to a plant."""
    return b"8" + scrambler.scramble(
        request.guid + request.host + b"\0" + bytes((request.access_db, request.constant)))


class Link(Channel):
    """The connection from a center to a plant, for one client connection."""

    def __init__(self, client: Any, sock: socket.socket) -> None:
        super().__init__(client.loop, sock)
        self._client = client

    def received(self, data: bytes, drained: bool) -> None:
        self._client.send(data)

    def ended(self) -> None:
        self._client.send(self._client.close)


def open_link(client: Any, target: Tuple[str, int], hello: bytes, refusal: bytes) -> None:
    """Connect to the plant, say ``hello`` there and pipe both ways from then on.

    The client's connection takes no further request until that is done; when the plant cannot
    be reached it is answered ``refusal``.
    """
    client.hold()
    client.opening = client.loop.create_task(_open(client, target, hello, refusal))


async def _open(client: Any, target: Tuple[str, int], hello: bytes, refusal: bytes) -> None:
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.setblocking(False)
    try:
        await asyncio.wait_for(client.loop.sock_connect(sock, target), 5.0)
    except (OSError, asyncio.TimeoutError):
        sock.close()
        client.send(refusal)
        client.release()
        return
    except asyncio.CancelledError:
        sock.close()
        raise
    if client.sock is None:
        sock.close()
        return
    link = Link(client, sock)
    link.send(hello)
    client.pipe_to(link)
    client.release()
    link.start()
