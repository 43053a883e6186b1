"""What both channels have in common: bytes to use up, and the answer that is waited for."""

from abc import ABC, abstractmethod
from typing import TYPE_CHECKING, Callable, Generator, Iterator, List, Optional

from . import words
from .layouts import Misfit
from .limits import MAX_REPLY

if TYPE_CHECKING:
    from . import Decoder

Steps = Generator[None, None, None]


class Turn(Exception):
    """Thrown into the steps of one side: the other side speaks, or the channel ended."""


class Half:
    """One direction of a channel: bytes that are not used up, and the steps that use them.

    The steps are a generator. It yields when it needs more bytes, and gets Turn thrown in when
    none will come. It looks at the buffer and takes a message out when that is complete.
    """

    def __init__(self, limit: int) -> None:
        self.limit = limit
        self.buffer = bytearray()
        self.when = 0.0
        self.busy = False   # within a message
        self.lost = False   # collecting what cannot be decoded
        self.steps = iter(())  # type: Iterator[None]
        self.throw = None  # type: Optional[Callable[[BaseException], None]]

    def start(self, steps: Steps) -> None:
        self.steps, self.throw = steps, steps.throw
        next(steps)

    def feed(self, when: float, data: bytes) -> None:
        self.when = when
        self.buffer += data
        next(self.steps)

    def turn(self) -> None:
        if self.busy and self.throw:
            self.throw(Turn())

    def take(self, size: int) -> bytes:
        data = bytes(self.buffer[:size])
        del self.buffer[:size]
        return data

    def need(self, size: int) -> Steps:
        """Return when the buffer has ``size`` bytes."""
        if size > self.limit:
            raise Misfit("%d bytes are more than %d, given up" % (size, self.limit))
        while len(self.buffer) < size:
            yield

    def more(self, limit: int) -> Steps:
        """Return when the buffer has grown; ``limit`` bytes that are not enough are a misfit."""
        if len(self.buffer) >= limit:
            raise Misfit("no end within %d bytes, given up" % limit)
        yield

    def find(self, mark: bytes, start: int, limit: int) -> Generator[None, None, int]:
        """Return the offset behind the first ``mark`` from ``start`` on."""
        while True:
            end = self.buffer.find(mark, start, limit)
            if end >= 0:
                return end + len(mark)
            start = max(start, min(len(self.buffer), limit) - len(mark) + 1)
            yield from self.more(limit)

    def rest(self) -> Generator[None, None, bytes]:
        """Return all bytes up to the turn."""
        try:
            while len(self.buffer) <= self.limit:
                yield
        except Turn:
            return self.take(len(self.buffer))
        raise Misfit("more than %d bytes, given up" % self.limit)


class Channel(ABC):
    """What both channels have in common: two halves, and the answer that is waited for."""

    def __init__(self, decoder: "Decoder", name: str, sent_limit: int) -> None:
        self.decoder = decoder
        self.name = name
        self.lines = []  # type: List[str]
        self.sent = Half(sent_limit)
        self.received = Half(MAX_REPLY)
        self.asked = ""  # the request whose answer is waited for or being received
        self.answer = None  # type: Optional[Steps]
        self.secret = False  # nothing that was sent may be shown
        self.hushed = False  # nor what is received: it might repeat what was sent
        self.sent.start(self._steps(self.sent, ">", self.request))
        self.received.start(self._steps(self.received, "<", self._reply))

    def feed(self, when: float, direction: str, data: bytes) -> None:
        if direction == "<":
            self.sent.turn()
            self.received.feed(when, data)
            return
        if self.received.lost:
            self.received.turn()
        self.sent.feed(when, data)

    def finish(self, when: float) -> None:
        """The channel ended: say what is still held."""
        self.received.turn()
        self.sent.turn()
        self._unanswered(when)

    def say(self, when: float, direction: str, text: str) -> None:
        self.lines.append("%s %s %s %s" % (words.clock(when), self.name, direction, text))

    @abstractmethod
    def request(self) -> Steps:
        """Takes a request and says what it asks for."""

    @abstractmethod
    def unasked(self) -> Steps:
        """Takes what is received without having been asked for."""

    def _steps(self, half: Half, direction: str, message: Callable[[], Steps]) -> Steps:
        """Takes one message after the other out of a half, for ever."""
        while True:
            half.busy = False
            try:
                yield from half.need(1)
                half.busy = True
                yield from message()
            except Turn:
                self._cut_off(half, direction)
            except Misfit as misfit:
                self.say(half.when, direction, "not understood: %s" % misfit)
                yield from self.lose(half, direction, misfit.secret)

    def _reply(self) -> Steps:
        answer, self.answer = self.answer, None
        yield from answer or self.unasked()

    def ask(self, text: str, asked: str, answer: Steps) -> None:
        """A request is complete: what came before it is over, and an answer is waited for."""
        self.received.turn()
        self._unanswered(self.sent.when)
        self.say(self.sent.when, ">", text)
        self.asked, self.answer = asked, answer

    def _unanswered(self, when: float) -> None:
        if self.answer:
            self.say(when, "<", "no answer to %s" % self.asked)
        self.answer = None

    def _cut_off(self, half: Half, direction: str) -> None:
        size = len(half.buffer)
        what = "request" if direction == ">" else self.asked and "answer to %s" % self.asked
        self.say(half.when, direction, "%s cut off, %s" % (
            what or "frame", self.dump(direction, half.take(size), size, False)))

    def lose(self, half: Half, direction: str, secret: bool) -> Steps:
        """Collects what cannot be decoded, up to the turn, and shows its beginning."""
        kept = b""
        total = 0
        half.lost = True
        try:
            while True:
                total += len(half.buffer)
                kept += half.take(len(half.buffer))[:max(0, words.HEX_BYTES - len(kept))]
                yield
        except Turn:
            if total:
                self.say(half.when, direction, self.dump(direction, kept, total, secret))
        finally:
            half.lost = False

    def dump(self, direction: str, data: bytes, total: int, secret: bool) -> str:
        size = words.count(total, "byte")
        if direction == ">" and self.secret:
            secret = self.hushed = True
        if secret or self.hushed:
            return size + ", not shown"
        login = data.find(b"9", 0, words.HEX_BYTES) if direction == ">" else -1
        if login >= 0:
            return "%s: %s, not shown" % (size, (words.hex(data[:login], login) + " ...").lstrip())
        return size + (": " + words.hex(data, total) if total else "")
