"""The serving part: connections of both channels, dispatch of requests, faults and pushes."""

import asyncio
import collections
import socket
import time
from typing import Any, Callable, Deque, Dict, Iterable, List, Optional, Tuple

from . import center, frames, requests, scrambler
from .answers import REFUSED, Answer, Session, answer, describe
from .channel import Channel, Port
from .faults import Fault, FaultTable
from .files import acknowledged_spans
from .plant import Event, Plant, Tag
from .plantfile import PlantLayout

RELAY_PORT = 3968        # clients use the relay form of the login hello on this port alone
MAX_BACKLOG = 1 << 20    # queued bytes at which a channel gets no more signal changes
SUBSCRIBE_LEAD = 0.01    # seconds; a change is of no use to a client before it has the reply
SEND_PAUSE = 0.001       # seconds between two sends of one push, so they stay two receives
_KEPT_REQUESTS = 200000
_NEWER = 4               # seconds; clients take times that are 3 apart for the same


class Connection(Channel):
    """One accepted connection; the first request decides which channel it is."""

    def __init__(self, server: "Server", sock: socket.socket, number: int) -> None:
        super().__init__(server.loop, sock)
        self.server, self.number = server, number
        self.channel = "request"
        self.session = None  # type: Optional[Session]
        self.link = None  # type: Optional[center.Link]
        self.opening = None  # type: Optional[asyncio.Task[None]]  # connects the link
        self.address = self.peer()
        self._buffer = bytearray()
        self._awaited = False   # an acknowledgement is due
        self.stalled = False

    def received(self, data: bytes, drained: bool) -> None:
        if self.link is not None:
            self.server.record(self, data)
            self.link.send(data)
        elif self.channel == "notify" and self.session is not None:
            self.server.record(self, data)  # nothing is expected here after the hello
        else:
            self._buffer += data
            self._work(drained)

    def all_sent(self) -> None:
        self._work(True)

    def _work(self, drained: bool) -> None:
        """Take and answer requests one after the other, as far as bytes and replies allow."""
        while self._buffer and self.sock is not None and not self.stalled:
            if not self._awaited and not self.idle():
                return
            try:
                parsed = requests.parse(self._buffer, self.server.relay_form, drained)
            except requests.ProtocolError as error:
                self.server.log(self, "?", str(error))
                self.close()
                return
            if parsed is None:
                return
            request, size = parsed
            raw = bytes(self._buffer[:size])
            del self._buffer[:size]
            awaited, self._awaited = self._awaited, False
            self.server.handle(self, request, raw)
            if awaited:  # another request instead of an acknowledgement counts as one, too
                self.release()

    def send_acknowledged(self, data: bytes) -> None:
        """Send in spans, each but the last followed by a wait for its acknowledgement."""
        position = 0
        spans = acknowledged_spans(len(data))
        for i, span in enumerate(spans):
            self.send(data[position:position + span])
            if i + 1 < len(spans):
                self.send(self._await)
            position += span

    def _await(self) -> None:
        self._awaited = True
        self.hold()

    def stall(self) -> None:
        """Stay open but never answer again."""
        self.stalled = True
        self.hold()

    def end(self, how: Optional[str]) -> None:
        """Queue an ending: None for none, "close", "reset" or "stall"."""
        if how == "stall":
            self.send(self.stall)
        elif how is not None:
            self.send(lambda: self.close(how))

    def pipe_to(self, link: "center.Link") -> None:
        """From now on everything goes through to the plant behind a center."""
        self.link = link
        rest = bytes(self._buffer)
        self._buffer.clear()
        if rest:
            self.server.record(self, rest)
            link.send(rest)

    def ended(self) -> None:
        if self._buffer:
            self.server.record(self, bytes(self._buffer))
        if self.opening is not None:
            self.opening.cancel()
        if self.link is not None:
            self.link.close()
        self.server.forget(self)


class Server:
    """Serves one plant on one address. All methods run on the loop's thread.

    ``plants`` are the center entries (name to target), ``logger`` takes lines, ``recording``
    keeps the bytes of every request. OSError from ``start`` when the address cannot be used.
    """

    def __init__(self, loop: asyncio.AbstractEventLoop, plant: Plant, host: str, port: int,
                 plants: Optional[Dict[str, Any]] = None, recording: bool = False,
                 tick: Optional[float] = None,
                 logger: Optional[Callable[[str], None]] = None) -> None:
        self.loop, self.host, self.port = loop, host, port
        self._tick = tick  # None: the plant's own
        self.faults = FaultTable()
        self.overrides = {}  # type: Dict[str, Any]
        self.connections = {}  # type: Dict[int, Connection]
        self.sessions = {}  # type: Dict[bytes, Session]
        self.requests = collections.deque(
            maxlen=_KEPT_REQUESTS)  # type: Deque[Tuple[int, str, bytes]]
        self.waiters = []  # type: List[Callable[[], None]]
        self._plants = plants or {}
        self._recording, self._logger = recording, logger
        self._listener = None  # type: Optional[Port]
        self.silent = False  # nothing is sent on any connection
        self._count = 0
        self._ticker = None  # type: Optional[asyncio.TimerHandle]
        self._stepped = 0.0
        self._take(plant)

    # ---- life ---------------------------------------------------------------------------------

    def start(self) -> None:
        """Listen and start the signals; afterwards ``port`` is the port in use."""
        self._listener = Port(self.loop, self.host, self.port, self._accepted)
        self.port = self._listener.number
        try:
            self.listen()
        except OSError:
            self.close()
            raise
        self._start_clock()

    def listen(self) -> None:
        """Accept connections (again, on the same port)."""
        assert self._listener is not None
        self._listener.listen()

    def unlisten(self) -> None:
        """Refuse new connections; the present ones stay, and so does the port."""
        if self._listener is not None:
            self._listener.refuse()

    @property
    def listening(self) -> bool:
        """Whether new connections are accepted."""
        return self._listener is not None and self._listener.listening

    def close(self) -> None:
        """Give the port up and close every connection."""
        self._stop_clock()
        if self._listener is not None:
            self._listener.close()
        self.drop()

    def drop(self, how: str = "close") -> None:
        """Close every connection, with an orderly end or a "reset"."""
        for connection in list(self.connections.values()):
            connection.close(how)

    def set_silent(self, on: bool) -> None:
        """Send nothing on present and new connections, or go on with all that has waited."""
        self.silent = on
        for connection in list(self.connections.values()):
            change = connection.mute if on else connection.unmute
            change()

    def replace(self, layout: PlantLayout) -> None:
        """Close every connection and serve another plant from now on; PlantError: as before.

        Its generated files are newer than those of the plant before, so that no client takes its
        copy of those for current. The center entries stay.
        """
        newer = min(self.plant.layout.file_time + _NEWER, 2 ** 32 - 1)
        plant = Plant(layout._replace(file_time=max(layout.file_time, newer)))
        self.drop()
        self._stop_clock()
        self._take(plant)
        self._start_clock()

    def _take(self, plant: Plant) -> None:
        self.plant = plant
        self.tick = plant.layout.tick if self._tick is None else self._tick
        self._routes = center.Routes(plant.layout.name, plant.layout.project, self.host,
                                     self._plants)

    def _start_clock(self) -> None:
        if self.tick > 0:
            self._stepped = self.loop.time()
            self._ticker = self.loop.call_later(self.tick, self._on_tick)

    def _stop_clock(self) -> None:
        if self._ticker is not None:
            self._ticker.cancel()
            self._ticker = None

    @property
    def relay_form(self) -> bool:
        """Whether login hellos come with MAC and server name."""
        return self.port == RELAY_PORT

    # ---- connections --------------------------------------------------------------------------

    def _accepted(self, sock: socket.socket) -> None:
        self._count += 1
        connection = Connection(self, sock, self._count)
        self.connections[self._count] = connection
        if self.silent:
            connection.mute()
        fault = self.faults.take("accept")
        if fault is None:
            connection.start()
        elif fault.action == "close":
            connection.close(fault.arguments["how"])

    def forget(self, connection: Connection) -> None:
        """A connection is gone; its session goes with its last connection."""
        self.connections.pop(connection.number, None)
        self.log(connection, "-", "connection ended")
        session = connection.session
        if session is None:
            return
        if session.request is connection:
            session.request = None
        if session.notify is connection:
            session.notify = None
        if session.request is None and session.notify is None:
            self.sessions.pop(session.guid, None)

    def notify_channels(self) -> List[Connection]:
        """The open notification channels, oldest first."""
        return [c for c in self.connections.values()
                if c.channel == "notify" and c.session is not None]

    # ---- requests -----------------------------------------------------------------------------

    def handle(self, connection: Connection, request: Any, raw: bytes) -> None:
        """Answer one request, with the fault that is ordered for it, if any."""
        code = raw[:1].decode("latin-1")
        if isinstance(request, requests.ReceiveHello):
            connection.channel = "notify"
        self.record(connection, raw)
        if self._logger is not None:
            self.log(connection, code, describe(self.plant, request))
        fault = None
        if not isinstance(request, requests.Acknowledgement):
            fault = self.faults.take(code)
        if fault is None:
            self._answer(connection, request, None)
            return
        self.log(connection, code, "fault: %s" % fault.action)
        if fault.action == "delay":
            connection.send(float(fault.arguments["seconds"]),
                            lambda: self._answer(connection, request, None))
        else:
            self._answer(connection, request, fault)

    def _answer(self, connection: Connection, request: Any, fault: Optional[Fault]) -> None:
        scrambled = isinstance(request, requests.ReceiveHello)
        if fault is not None and fault.answers_itself():
            result = Answer(b"", False, [], [])
        elif isinstance(request, requests.Hello):
            result = self._hello(connection, request)
        elif scrambled:
            result = self._receive_hello(connection, request)
        else:
            result = answer(self.plant, connection.session, request)
            if isinstance(request, requests.Subscribe):
                self._let_reply_lead(connection.session)
        if fault is None:
            self._send(connection, result.data, result.acknowledged)
        else:
            outcome = fault.apply(result.data, scrambled)
            if fault.action == "cut":
                self._send(connection, outcome.steps[0], result.acknowledged)
            else:
                connection.send(*outcome.steps)
            connection.end(outcome.then)
        if result.changed or result.events:
            self.push(result.changed, result.events)

    @staticmethod
    def _let_reply_lead(session: Optional[Session]) -> None:
        """Hold pushes back a little, so a subscription's reply is there before its changes."""
        if session is not None and session.notify is not None:
            session.notify.send(SUBSCRIBE_LEAD)

    @staticmethod
    def _send(connection: Connection, data: bytes, acknowledged: bool) -> None:
        if acknowledged:
            connection.send_acknowledged(data)
        else:
            connection.send(data)

    def _hello(self, connection: Connection, request: requests.Hello) -> Answer:
        target = None
        if request.server is not None:
            found, target = self._routes.find(request.server)
            if not found:
                return Answer(REFUSED, False, [], [])
            if target is not None and target.redirect:
                address = socket.inet_aton(target.host)
                return Answer(frames.redirect_reply(address, target.port), False, [], [])
        session = Session(request.guid)
        session.request = connection
        connection.session = session
        self.sessions[request.guid] = session
        if target is not None:
            session.relay = (target.host, target.port)
            hello = center.hello_for(request, target.port == RELAY_PORT)
            center.open_link(connection, session.relay, hello, REFUSED)
            return Answer(b"", False, [], [])
        return Answer(b"7", False, [], [])

    def _receive_hello(self, connection: Connection, request: requests.ReceiveHello) -> Answer:
        session = self.sessions.get(request.guid)
        refusal = scrambler.scramble(REFUSED)
        if session is None:
            return Answer(refusal, False, [], [])
        connection.session = session
        session.notify = connection
        if session.relay is not None:
            center.open_link(connection, session.relay, center.receive_hello_for(request), refusal)
            return Answer(b"", False, [], [])
        return Answer(scrambler.scramble(self.receive_reply()), False, [], [])

    def receive_reply(self) -> bytes:
        """The plain reply to a notification hello, with what was ordered for its parts."""
        info = self.plant.file(b"RecData/drvinfo.dat")
        normal = {
            "project": self.plant.layout.project.encode("gb2312"),
            "title": self.plant.layout.title.encode("gb2312"),
            "dif_time": info.mtime if info else 0, "dif_size": len(info.data) if info else 0,
        }
        normal.update(self.overrides)
        return frames.receive_reply(**normal)

    # ---- pushes -------------------------------------------------------------------------------

    def _on_tick(self) -> None:
        now = self.loop.time()
        self.step(now - self._stepped)
        self._stepped = now
        self._ticker = self.loop.call_later(self.tick, self._on_tick)

    def step(self, seconds: float) -> None:
        """Advance the plant and push what changed."""
        self.push(*self.plant.step(seconds))

    def push(self, changed: Iterable[Tag], events: Iterable[Event]) -> None:
        """Push changes and alarms to the sessions that have subscribed them."""
        changes = [((tag.driver, tag.index),
                    frames.change_frame(tag.driver, tag.index, tag.payload))
                   for tag in changed if tag.pushable]
        alarms = [frames.alarm_frame(event.alarm, event.frame_type) for event in events]
        if not changes and not alarms:
            return
        for connection in self.notify_channels():
            session = connection.session
            if session.relay is not None or connection.queued > MAX_BACKLOG:
                continue
            wanted = [frame for key, frame in changes if key in session.tags]
            for i, send in enumerate(frames.pack_sends(
                    wanted + (alarms if session.alarms else []))):
                connection.send(*([SEND_PAUSE, send] if i else [send]))

    # ---- records ------------------------------------------------------------------------------

    def record(self, connection: Connection, raw: bytes) -> None:
        """Keep the bytes of a request as they came."""
        if self._recording:
            self.requests.append((connection.number, connection.channel, raw))
            for waiter in list(self.waiters):
                waiter()

    def log(self, connection: Connection, code: str, text: str) -> None:
        """Write a line about a connection, when lines are wanted."""
        if self._logger is not None:
            now = time.time()
            self._logger("%s.%03d #%d %s %s %s" % (
                time.strftime("%H:%M:%S", time.localtime(now)), now * 1000 % 1000,
                connection.number, connection.address, code, text))
