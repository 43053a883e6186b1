"""One non-blocking TCP connection: reads what comes, and sends what is queued, in order.

The queue holds bytes (one send each), pauses in seconds, and functions to call when everything
before them is gone. All runs on the thread of the event loop.
"""

import abc
import asyncio
import collections
import socket
import struct
from typing import Any, Callable, Deque, List, Optional, Union

READ_SIZE = 65536
_MAX_READS = 16  # receives in a row before other connections get their turn

Step = Union[bytes, memoryview, float, Callable[[], None]]


class Channel(abc.ABC):
    """A connected socket on the loop; owners override ``received`` and ``ended``."""

    def __init__(self, loop: asyncio.AbstractEventLoop, sock: socket.socket) -> None:
        self.loop = loop
        self.sock = sock  # type: Optional[socket.socket]
        self._queue = collections.deque()  # type: Deque[Step]
        self._timer = None  # type: Optional[asyncio.TimerHandle]
        self._writing = False
        self._held = False
        self._muted = False
        self.queued = 0  # bytes in the queue
        sock.setblocking(False)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def start(self) -> None:
        """Begin to read."""
        if self.sock is not None:
            self.loop.add_reader(self.sock, self._readable)

    @abc.abstractmethod
    def received(self, data: bytes, drained: bool) -> None:
        """Called with bytes that came; ``drained``: no more are waiting at the moment."""

    def ended(self) -> None:
        """Called once when the connection is gone, whoever ended it."""

    # ---- sending ------------------------------------------------------------------------------

    def send(self, *steps: Step) -> None:
        """Queue steps behind those already there."""
        if self.sock is None:
            return
        for step in steps:
            if isinstance(step, (bytes, memoryview)):
                if not step:
                    continue
                self.queued += len(step)
            self._queue.append(step)
        self._pump()

    def idle(self) -> bool:
        """Whether everything queued is done."""
        return not self._queue and self._timer is None and not self._held

    def hold(self) -> None:
        """Stop sending until ``release``; to be queued as a step."""
        self._held = True

    def release(self) -> None:
        """Go on sending after ``hold``."""
        self._held = False
        self._pump()

    def mute(self) -> None:
        """Send nothing more until ``unmute``; what is queued and comes to it waits."""
        self._muted = True

    def unmute(self) -> None:
        """Send what has waited, and go on."""
        self._muted = False
        self._pump()
        self._progress()

    def drop_queue(self) -> None:
        """Forget what has not been sent."""
        self._queue.clear()
        self.queued = 0

    def _pump(self) -> None:
        # A step that is a function may itself send, hold or close, so all is asked every time.
        while (self._queue and self.sock is not None and not self._held and not self._muted
               and not self._writing and self._timer is None):
            step = self._queue.popleft()
            if isinstance(step, (bytes, memoryview)):
                self.queued -= len(step)
                self._send_now(step)
            elif isinstance(step, (int, float)):
                self._timer = self.loop.call_later(step, self._pause_over)
            else:
                step()

    def _send_now(self, data: Union[bytes, memoryview]) -> None:
        """Send as much as there is room for; the rest goes back to the head of the queue."""
        try:
            sent = self.sock.send(data)
        except (BlockingIOError, InterruptedError):
            sent = 0
        except OSError:
            self.close()
            return
        if sent == len(data):
            return
        self._queue.appendleft(memoryview(data)[sent:])
        self.queued += len(data) - sent
        self._writing = True
        self.loop.add_writer(self.sock, self._writable)

    def _writable(self) -> None:
        self.loop.remove_writer(self.sock)
        self._writing = False
        self._pump()
        self._progress()

    def _pause_over(self) -> None:
        self._timer = None
        self._pump()
        self._progress()

    def _progress(self) -> None:
        if self.sock is not None and self.idle():
            self.all_sent()

    def all_sent(self) -> None:
        """Called when a wait for room or time is over and the queue is empty."""

    # ---- reading ------------------------------------------------------------------------------

    def _readable(self) -> None:
        parts = []  # type: List[bytes]
        drained = False
        gone = False
        for _ in range(_MAX_READS):
            try:
                data = self.sock.recv(READ_SIZE)
            except (BlockingIOError, InterruptedError):
                drained = True
                break
            except OSError:
                data = b""
            if not data:
                drained = gone = True
                break
            parts.append(data)
            if len(data) < READ_SIZE:
                drained = True
                break
        if parts:
            self.received(b"".join(parts), drained)
        if gone:
            self.close()

    # ---- ending -------------------------------------------------------------------------------

    def close(self, how: str = "close") -> None:
        """End the connection; ``how`` "reset" sends a reset instead of an orderly end."""
        sock, self.sock = self.sock, None
        if sock is None:
            return
        self.loop.remove_reader(sock)
        self.loop.remove_writer(sock)
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None
        self.drop_queue()
        if how == "reset":
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()
        self.ended()

    def peer(self) -> str:
        """The other end as "address:port", for the log."""
        try:
            return "%s:%d" % self.sock.getpeername()[:2]
        except (OSError, AttributeError):
            return "gone"


def finish(loop: asyncio.AbstractEventLoop) -> None:
    """Cancel what still waits on a loop that has been stopped, and close the loop."""
    waiting = asyncio.all_tasks(loop)
    for task in waiting:
        task.cancel()
    if waiting:
        loop.run_until_complete(asyncio.gather(*waiting, return_exceptions=True))
    loop.close()


def _bound(host: str, port: int) -> socket.socket:
    """A socket bound to the address; OSError when it cannot be had."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        _share(sock, True)
        sock.bind((host, port))
    except (OSError, OverflowError):
        sock.close()
        raise
    return sock


def _share(sock: socket.socket, on: bool) -> None:
    """Let others of this kind have the same port, or nobody."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1 if on else 0)


class Port:
    """A TCP port: listens, or refuses connections, and stays ours until ``close``.

    A second socket, which never listens, holds it. Without that another program could have the
    port while it does not listen, even a client that tries it again and again: the system would
    once choose it for the client's own end, which then is connected to itself.

    OSError when the address cannot be used. ``accepted`` is called with each new socket.
    """

    def __init__(self, loop: asyncio.AbstractEventLoop, host: str, port: int,
                 accepted: Callable[[socket.socket], Any]) -> None:
        self._loop, self._host, self._accepted = loop, host, accepted
        self._holder = _bound(host, port)
        self._listener = None  # type: Optional[socket.socket]
        self.number = self._holder.getsockname()[1]

    @property
    def listening(self) -> bool:
        """Whether connections are accepted."""
        return self._listener is not None

    def listen(self) -> None:
        """Accept connections from now on."""
        if self._listener is not None:
            return
        _share(self._holder, True)
        sock = _bound(self._host, self.number)
        try:
            sock.listen(512)
        except OSError:
            sock.close()
            raise
        sock.setblocking(False)
        self._listener = sock
        self._loop.add_reader(sock, self._readable)

    def refuse(self) -> None:
        """Refuse connections from now on; those not accepted yet are reset."""
        sock, self._listener = self._listener, None
        if sock is not None:
            self._loop.remove_reader(sock)
            sock.close()
            _share(self._holder, False)

    def _readable(self) -> None:
        for _ in range(64):
            if self._listener is None:
                return
            try:
                sock, _ = self._listener.accept()
            except OSError:
                return
            self._accepted(sock)

    def close(self) -> None:
        """Give the port up."""
        self.refuse()
        self._holder.close()
