"""The wire trace: turns the bytes of a session into lines of text, one per message.

A ``Decoder`` is told of every send and receive and follows the two channels on its own: it joins
pieces, knows which request an answer belongs to, and learns from replies the types that change
frames need. It never raises. Bytes it cannot decode are shown in hexadecimal with the reason, and
it begins anew at the next sensible point: on the request channel when the other side speaks, on
the notification channel at the next piece.

Two requests do not say where they end, the login hello and the look up. Their lines appear when
their answer begins or the channel ends, with the time of their last piece. So does that of an
answer which may go on: "accepted" from a center server, a user login without rights.

The password of a user login is never shown in any form. Therefore, from the opening of a request
channel until its login was accepted, nothing that was sent is shown but hellos and user names, and
of sent bytes that cannot be decoded, what follows the first "9" (the code of a login) never is.
"""

import datetime
import re
import struct
import time
from typing import Callable, Dict, Generator, Iterable, Iterator, List, Optional, Tuple

MAX_LINE = 4096         # bytes of one line in UTF-8, by the limits of lists and texts below
MAX_REQUEST = 65536     # bytes of a request; a longer one is given up
MAX_WRITE = 2048        # bytes of a write
MAX_REPLY = 1024 * 1024  # bytes of a reply that are kept; one that needs more is given up
MAX_FRAME = 2048        # bytes of a notification frame
MAX_LOGIN = 512         # bytes of a hello and of its answer
MAX_CHUNK = 4096        # bytes of a chunk of values
MAX_TYPES = 16 * 1024 * 1024  # tags whose types are remembered; beyond, they are learnt anew

_LIST_ITEMS = 20      # items of a list that are shown,
_LIST_BYTES = 3500    # and their bytes at most
_TEXT_CHARACTERS = 80
_HEX_BYTES = 64
_ARRAY_DEPTH = 8

_Steps = Generator[None, None, None]


class _Turn(Exception):
    """Thrown into the steps of one side: the other side speaks, or the channel ended."""


class _Misfit(Exception):
    """Bytes that fit no layout. Its text says why; ``secret`` ones are counted, not shown."""

    def __init__(self, reason: str, secret: bool = False) -> None:
        super().__init__(reason)
        self.secret = secret


class _Cut(Exception):
    """The bytes at hand end before the value does."""


# ---- Words ---------------------------------------------------------------------------------------

def _clock(when: float) -> str:
    """Local time of day of seconds since 1970, with milliseconds."""
    try:
        seconds, milliseconds = divmod(int(round(when * 1000)), 1000)
        return time.strftime("%H:%M:%S", time.localtime(seconds)) + ".%03d" % milliseconds
    except (ValueError, OverflowError, OSError, TypeError):
        return "--:--:--.---"


def _moment(seconds: int) -> str:
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds))


def _visible(text: str) -> str:
    """``text`` cut to a bearable length, with escapes for what no terminal should get."""
    shown = []
    for character in text[:_TEXT_CHARACTERS]:
        if 0xDC80 <= ord(character) <= 0xDCFF:
            shown.append("\\x%02x" % (ord(character) - 0xDC00))  # a byte that is no text
        elif character.isprintable():
            shown.append(character)
        else:
            shown.append(character.encode("unicode_escape").decode("ascii"))
    return "".join(shown) + ("..." if len(text) > _TEXT_CHARACTERS else "")


def _text(data: bytes, encoding: str = "gb2312") -> str:
    head = data[:4 * _TEXT_CHARACTERS + 4]  # no character has more than four bytes
    return head.decode(encoding, "surrogateescape")


def _quoted(text: str) -> str:
    return '"%s"' % _visible(text).replace('"', '\\"')


def _quote(data: bytes, encoding: str = "gb2312") -> str:
    return _quoted(_text(data, encoding))


def _hex(data: bytes, total: int) -> str:
    """The first of ``total`` bytes, of which ``data`` are at hand."""
    shown = " ".join("%02X" % byte for byte in data[:_HEX_BYTES])
    more = total - min(len(data), _HEX_BYTES)
    return shown + (" ... and %d more" % more if more else "")


def _count(number: int, what: str) -> str:
    return "%d %s%s" % (number, what, "" if number == 1 else "s")


def _listed(items: Iterable[str], total: int, separator: str = ", ") -> str:
    """The first of ``total`` items, and how many more there are."""
    shown = []  # type: List[str]
    size = 0
    for item in items:
        size += len(item.encode("utf-8", "replace")) + len(separator)
        if len(shown) == _LIST_ITEMS or size > _LIST_BYTES:
            break
        shown.append(item)
    more = ["... and %d more" % (total - len(shown))] if total > len(shown) else []
    return separator.join(shown) + (" " if shown and more else "") + "".join(more)


# ---- Bytes ---------------------------------------------------------------------------------------

def _u16(data: bytes, at: int) -> int:
    return int.from_bytes(data[at:at + 2], "little")


def _unscramble(wire: bytes) -> bytes:
    """The plain bytes of ``wire``, also of one that has not come to its end.

    Groups of four: k, a + k, b - k, c XOR k, modulo 256; the last one may be shorter.
    """
    plain = bytearray()
    for at, byte in enumerate(wire):
        place = at % 4
        if place == 0:
            key = byte
        else:
            plain.append((byte - key) & 0xFF if place == 1 else
                         (byte + key) & 0xFF if place == 2 else byte ^ key)
    return bytes(plain)


def _scrambled(plain: int) -> int:
    """Bytes on the wire of so many plain ones."""
    groups, rest = divmod(plain, 3)
    return 4 * groups + (rest + 1 if rest else 0)


_TEXT, _ARRAY = 8, 8192
_NUMBERS = {
    2: ("i16", "<h"), 3: ("i32", "<i"), 4: ("f32", "<f"), 5: ("f64", "<d"), 7: ("date", "<d"),
    11: ("bool", "<?"), 16: ("u8", "<B"), 17: ("u8", "<B"), 18: ("u16", "<H"), 19: ("u32", "<I"),
    20: ("i64", "<q"), 22: ("i32", "<i"), 23: ("u32", "<I"),
}  # type: Dict[int, Tuple[str, str]]
_BARE = {0: "empty", 1: "null"}


def _single(value: float) -> str:
    """The shortest decimal number of a 32-bit float."""
    for digits in range(6, 9):
        text = "%.*g" % (digits, value)
        try:
            if struct.pack("<f", float(text)) == struct.pack("<f", value):
                return text
        except OverflowError:  # rounded up beyond the largest
            continue
    return "%.9g" % value


def _date(days: float) -> str:
    """Days since 1899-12-30 of local time."""
    try:
        moment = datetime.datetime(1899, 12, 30) + datetime.timedelta(
            milliseconds=round(days * 86400000))
    except (ValueError, OverflowError):
        return "%r days" % days
    return moment.isoformat(" ", "milliseconds" if moment.microsecond else "seconds")


def _value(data: bytes, at: int, code: int, depth: int = 0) -> Tuple[str, int]:
    """The value of type ``code`` at offset ``at`` in words, and the offset behind it.

    Raises _Cut when the bytes end before it does, _Misfit for arrays within arrays too deep.
    """
    if code == _TEXT:
        end = data.find(b"\0", at)
        if end < 0:
            raise _Cut()
        return "text " + _quote(data[at:end], "utf-8"), end + 1
    if code == _ARRAY:
        return _array(data, at, depth)
    if code not in _NUMBERS:
        return _BARE.get(code, "type %d" % code), at
    name, layout = _NUMBERS[code]
    end = at + struct.calcsize(layout)
    if end > len(data):
        raise _Cut()
    number = struct.unpack(layout, data[at:end])[0]
    if name == "bool":
        return "bool true" if number else "bool false", end
    if name == "f32":
        return "f32 " + _single(number), end
    return "%s %s" % (name, _date(number) if name == "date" else repr(number)), end


def _coded(data: bytes, at: int, depth: int = 0) -> Tuple[str, int, int]:
    """As _value, for a value behind its type code, which comes last in the result."""
    if at + 2 > len(data):
        raise _Cut()
    code = _u16(data, at)
    return _value(data, at + 2, code, depth) + (code,)


def _array(data: bytes, at: int, depth: int) -> Tuple[str, int]:
    if depth == _ARRAY_DEPTH:
        raise _Misfit("arrays within arrays")
    if at + 2 > len(data):
        raise _Cut()
    count = _u16(data, at)
    at += 2
    items = []
    for _ in range(count):
        text, at, _code = _coded(data, at, depth + 1)
        items.append(text)
    return "array [%s]" % _listed(items, count), at


_ALARM = struct.Struct("<IIHHHBBdd")


def _alarm(record: bytes) -> str:
    raised, event, tag, kind, group, level, status, value, limit = _ALARM.unpack(record)
    text = "kind %d tag %d group %d level %d status %d value %r limit %r at %s" % (
        kind, tag, group, level, status, value, limit, _moment(raised))
    return text + (" event " + _moment(event) if event else "")


# ---- Channels ------------------------------------------------------------------------------------

class _Half:
    """One direction of a channel: bytes that are not used up, and the steps that use them.

    The steps are a generator. It yields when it needs more bytes, and gets _Turn thrown in when
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

    def start(self, steps: _Steps) -> None:
        self.steps, self.throw = steps, steps.throw
        next(steps)

    def feed(self, when: float, data: bytes) -> None:
        self.when = when
        self.buffer += data
        next(self.steps)

    def turn(self) -> None:
        if self.busy and self.throw:
            self.throw(_Turn())

    def take(self, size: int) -> bytes:
        data = bytes(self.buffer[:size])
        del self.buffer[:size]
        return data

    def need(self, size: int) -> _Steps:
        """Return when the buffer has ``size`` bytes."""
        if size > self.limit:
            raise _Misfit("%d bytes are more than %d, given up" % (size, self.limit))
        while len(self.buffer) < size:
            yield

    def more(self, limit: int) -> _Steps:
        """Return when the buffer has grown; ``limit`` bytes that are not enough are a misfit."""
        if len(self.buffer) >= limit:
            raise _Misfit("no end within %d bytes, given up" % limit)
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
        except _Turn:
            return self.take(len(self.buffer))
        raise _Misfit("more than %d bytes, given up" % self.limit)


class _Channel:
    """What both channels have in common: two halves, and the answer that is waited for."""

    def __init__(self, decoder: "Decoder", name: str, sent_limit: int) -> None:
        self.decoder = decoder
        self.name = name
        self.lines = []  # type: List[str]
        self.sent = _Half(sent_limit)
        self.received = _Half(MAX_REPLY)
        self.asked = ""  # the request whose answer is waited for or being received
        self.answer = None  # type: Optional[_Steps]
        self.secret = False  # nothing that was sent may be shown
        self.hushed = False  # nor what is received: it might repeat what was sent
        self.sent.start(self._steps(self.sent, ">", self._request))
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
        self.lines.append("%s %s %s %s" % (_clock(when), self.name, direction, text))

    def _request(self) -> _Steps:
        raise NotImplementedError

    def _unasked(self) -> _Steps:
        raise NotImplementedError

    def _steps(self, half: _Half, direction: str, message: Callable[[], _Steps]) -> _Steps:
        """Takes one message after the other out of a half, for ever."""
        while True:
            half.busy = False
            try:
                yield from half.need(1)
                half.busy = True
                yield from message()
            except _Turn:
                self._cut_off(half, direction)
            except _Misfit as misfit:
                self.say(half.when, direction, "not understood: %s" % misfit)
                yield from self._lose(half, direction, misfit.secret)

    def _reply(self) -> _Steps:
        answer, self.answer = self.answer, None
        yield from answer or self._unasked()

    def _ask(self, text: str, asked: str, answer: _Steps) -> None:
        """A request is complete: what came before it is over, and an answer is waited for."""
        self.received.turn()
        self._unanswered(self.sent.when)
        self.say(self.sent.when, ">", text)
        self.asked, self.answer = asked, answer

    def _unanswered(self, when: float) -> None:
        if self.answer:
            self.say(when, "<", "no answer to %s" % self.asked)
        self.answer = None

    def _cut_off(self, half: _Half, direction: str) -> None:
        size = len(half.buffer)
        what = "request" if direction == ">" else self.asked and "answer to %s" % self.asked
        self.say(half.when, direction, "%s cut off, %s" % (
            what or "frame", self._dump(direction, half.take(size), size, False)))

    def _lose(self, half: _Half, direction: str, secret: bool) -> _Steps:
        """Collects what cannot be decoded, up to the turn, and shows its beginning."""
        kept = b""
        total = 0
        half.lost = True
        try:
            while True:
                total += len(half.buffer)
                kept += half.take(len(half.buffer))[:max(0, _HEX_BYTES - len(kept))]
                yield
        except _Turn:
            if total:
                self.say(half.when, direction, self._dump(direction, kept, total, secret))
        finally:
            half.lost = False

    def _dump(self, direction: str, data: bytes, total: int, secret: bool) -> str:
        size = _count(total, "byte")
        if direction == ">" and self.secret:
            secret = self.hushed = True
        if secret or self.hushed:
            return size + ", not shown"
        login = data.find(b"9", 0, _HEX_BYTES) if direction == ">" else -1
        if login >= 0:
            return "%s: %s, not shown" % (size, (_hex(data[:login], login) + " ...").lstrip())
        return size + (": " + _hex(data, total) if total else "")


class _RequestChannel(_Channel):
    """Requests and their answers."""

    def __init__(self, decoder: "Decoder", secret: bool) -> None:
        super().__init__(decoder, "request", MAX_REQUEST)
        self.secret = secret
        self._requests = {
            b"7": self._hello, b"9": self._login, b"4": self._file, b"3": self._paths,
            b"L": self._look_up, b"b": self._subscribe, b"H": self._read, b"g": self._write,
            b"d": self._cancel, b"n": self._alarms,
        }  # type: Dict[bytes, Callable[[], _Steps]]

    def _request(self) -> _Steps:
        code = bytes(self.sent.buffer[:1])
        if self.secret:
            self.received.turn()  # the login was accepted, if its answer ended early
        if self.secret and code not in (b"7", b"9"):
            raise _Misfit("no login yet", secret=True)
        if code not in self._requests:
            raise _Misfit("unknown code %02X" % code[0])
        yield from self._requests[code]()

    def _unasked(self) -> _Steps:
        raise _Misfit("nothing was asked")
        yield

    def _accept(self, code: bytes, size: int) -> _Steps:
        """Return when an answer that begins with ``code`` has ``size`` bytes."""
        first = bytes(self.received.buffer[:1])
        if first != code:
            raise _Misfit("answer to %s begins with %02X, not %02X" % (
                self.asked, first[0], code[0]))
        yield from self.received.need(size)

    def _told(self, text: str) -> None:
        self.say(self.received.when, "<", text)

    # Login hello, "7"; its end shows when the answer comes. Scrambled: session (16); to a center
    # server also hardware address (6, zeros) and the name of the server, with its zero byte.

    def _hello(self) -> _Steps:
        self.secret = True
        wire = yield from self.sent.rest()
        plain = _unscramble(wire[1:])
        relay = plain[16:22] == bytes(6) and plain.find(b"\0", 22) == len(plain) - 1
        if relay:
            text = "login hello to a center server, session %s, server %s" % (
                plain[:16].hex(), _quote(plain[22:-1]))
        elif len(wire) == 23:
            text = "login hello, session %s" % plain.hex()
        else:
            text = "login hello, malformed, " + self._dump(">", wire, len(wire), True)
        self._ask(text, "login hello", self._hello_answer(relay))

    # "7"; from a center server perhaps "lan", IPv4 address (4) and port (2), both big-endian.
    def _hello_answer(self, relay: bool) -> _Steps:
        half = self.received
        if half.buffer[:1] == b"0":
            half.take(1)
            self._told("login hello refused")
            return
        yield from self._accept(b"7", 1)
        try:
            while relay and len(half.buffer) < 10 and b"lan".startswith(half.buffer[1:4].lower()):
                yield
        except _Turn:
            relay = False
        if relay and len(half.buffer) >= 10 and half.buffer[1:4].lower() == b"lan":
            data = half.take(10)
            self._told("redirect to %d.%d.%d.%d:%d" % (
                tuple(data[4:8]) + (int.from_bytes(data[8:], "big"),)))
            return
        half.take(1)
        self._told("login hello accepted")

    # User login, "9": user name and password, each with a zero byte. What is sent before the
    # answer comes may be more of a password.

    def _login(self) -> _Steps:
        self.secret = True
        half = self.sent
        try:
            end = yield from half.find(b"\0", 1, half.limit)
            size = yield from half.find(b"\0", end, half.limit)
        except _Turn:
            size = len(half.buffer)
            half.take(size)
            self._ask("user login cut off, %d bytes, not shown" % size, "user login",
                      self._login_answer(False))
            return
        user = half.take(size)[1:end - 1]
        self._ask("user login %s, password not shown" % _quote(user, "utf-8"), "user login",
                  self._login_answer(True))
        yield from self._lose(half, ">", True)

    # "9", 4 bytes that mean nothing, rights (u32); it may end early. None of it is dumped: it might
    # repeat the request.
    def _login_answer(self, complete: bool) -> _Steps:
        half = self.received
        first = half.buffer[:1]
        if first == b"9":
            try:
                yield from half.need(9)
            except _Turn:
                pass
            self.secret = self.hushed = not complete
            data = half.take(9)
            rights = int.from_bytes(data[5:], "little") if len(data) == 9 else 0
            self._told("user login accepted, rights %d%s" % (
                rights, " (may write)" if rights & 8 else ""))
        else:
            half.take(1)
            self._told("user login %s" % ("refused" if first == b"0" else "failed"))
        yield from self._lose(half, "<", True)

    # File transfer, "4": text lines up to an empty one. An acknowledgement within the body is
    # "4Hello", a hexadecimal count and a zero byte, and has no answer.

    def _file(self) -> _Steps:
        half = self.sent
        start = 0
        while True:
            found = _FILE_END.search(half.buffer, start, half.limit)
            if found:
                break
            start = max(0, min(len(half.buffer), half.limit) - 3)
            yield from half.more(half.limit)
        acknowledged = _ACKNOWLEDGEMENT.match(half.buffer)
        if acknowledged:
            size = int(acknowledged.group(1), 16)
            half.take(found.end())
            self.say(half.when, ">", "file acknowledgement, %s" % _count(size, "byte"))
            return
        if found.group() == b"\0":
            raise _Misfit("zero byte in the request for a file")
        lines = half.take(found.end())[1:-4].split(b"\r\n")
        self._ask("file " + _listed([_quote(lines[0])] + [
            _visible(_text(line)) for line in lines[1:]], len(lines)), "file", self._file_answer())

    # Lines "name:value" up to an empty one; blanks and CR do not count. Then the body.
    def _file_answer(self) -> _Steps:
        half = self.received
        fields = {}  # type: Dict[bytes, bytes]
        lines = []  # type: List[str]
        total = size = 0
        while True:
            end = yield from half.find(b"\n", 0, MAX_FRAME - size)
            line = half.take(end).translate(None, b" \t\r\n")
            size += end
            if not line:
                break
            name, _, value = line.partition(b":")
            fields[name.lower()] = value.lower()
            total += 1
            if total <= _LIST_ITEMS:
                lines.append(_visible(_text(line)))
        body = _body_size(fields)
        self._told("file answer: %s, %s" % (
            _listed(lines, total), "no body" if body is None else "body of %s" % _count(
                body, "byte")))
        if body:
            yield from self._file_body(body)

    def _file_body(self, size: int) -> _Steps:
        half = self.received
        left = size
        try:
            while True:
                left -= len(half.take(min(left, len(half.buffer))))
                if not left:
                    break
                yield
        except _Turn:
            self._told("file body cut off, %d of %s" % (size - left, _count(size, "byte")))
            return
        self._told("file body, %s" % _count(size, "byte"))

    def _paths(self) -> _Steps:
        self.sent.take(1)
        self._ask("project paths", "project paths", self._paths_answer())
        return
        yield

    def _paths_answer(self) -> _Steps:
        yield from self._accept(b"3", 1)
        end = 1
        for _ in range(4):
            end = yield from self.received.find(b"\0", end, 2048)
        paths = self.received.take(end)[1:-1].split(b"\0")
        self._told("project paths: " + ", ".join(_quote(path) for path in paths))

    # Look up, "L"; its end shows when the answer comes. For each name driver (u16), name, zero
    # byte. Answer: for each tag (u16) and 2 bytes that mean nothing.

    def _look_up(self) -> _Steps:
        data = yield from self.sent.rest()
        asked = "look up"
        names = []  # type: List[bytes]
        at = 1
        shown = []
        previous = -1
        while at < len(data):
            end = data.find(b"\0", at + 2)
            if end < 0:
                break
            driver = _u16(data, at)
            names.append(data[at + 2:end])
            shown.append(("" if driver == previous else self.decoder.driver(driver) + " ")
                         + _quote(names[-1]))
            previous = driver
            at = end + 1
        if at < len(data):
            self._ask("look up, malformed, " + self._dump(">", data, len(data), False), asked,
                      self._unknown_answer())
            return
        self._ask("look up " + _listed(shown, len(shown), " "), asked,
                  self._look_up_answer(names))

    def _unknown_answer(self) -> _Steps:
        raise _Misfit("answer to a malformed request")
        yield

    def _look_up_answer(self, names: List[bytes]) -> _Steps:
        yield from self._accept(b"L", 1 + 4 * len(names))
        data = self.received.take(1 + 4 * len(names))
        tags = [_u16(data, 1 + 4 * i) for i in range(len(names))]
        self._told("look up reply: " + _listed(
            ("%s %s" % (_quote(name), "unknown" if tag == 0xFFFF else tag)
             for name, tag in zip(names, tags)), len(names)))

    # Subscribe, "b", and read, "H": count (u16), then for each driver (u16) and tag (u16), and in
    # a subscription 1 byte. Answers: chunks of values with type code.

    def _subscribe(self) -> _Steps:
        tags = yield from self._tags("subscribe", 5)
        self._ask("subscribe " + self._tag_list(tags), "subscribe", self._subscribe_answer(tags))

    def _read(self) -> _Steps:
        tags = yield from self._tags("read", 4)
        self._ask("read " + self._tag_list(tags), "read", self._read_answer(tags))

    def _tags(self, what: str, size: int) -> Generator[None, None, List[Tuple[int, int]]]:
        half = self.sent
        yield from half.need(3)
        count = _u16(half.buffer, 1)
        yield from half.need(3 + size * count)
        data = half.take(3 + size * count)
        return [(_u16(data, at), _u16(data, at + 2)) for at in range(3, len(data), size)]

    def _tag_list(self, tags: List[Tuple[int, int]]) -> str:
        labels = (self.decoder.label(driver, tag) for driver, tag in tags[:_LIST_ITEMS])
        return "%s: %s" % (_count(len(tags), "tag"), _listed(labels, len(tags), " "))

    # Chunks of "b", length (u16), values, until all values have come.
    def _subscribe_answer(self, tags: List[Tuple[int, int]]) -> _Steps:
        done = 0
        while True:
            yield from self._accept_next(b"b", 3)
            body = yield from self._chunk(3)
            values, done = self._values(body, tags, done)
            last = done >= len(tags)
            self._told("subscribe reply, %s, %s%s" % (
                "last chunk" if last else "chunk", _count(len(body), "byte"), values))
            if last:
                return

    # Chunks of "H", 1 when another follows, length (u16), values.
    def _read_answer(self, tags: List[Tuple[int, int]]) -> _Steps:
        done = 0
        last = False
        while not last:
            yield from self._accept_next(b"H", 4)
            last = self.received.buffer[1] != 1
            body = yield from self._chunk(4)
            values, done = self._values(body, tags, done)
            missing = len(tags) - done
            last = last or not missing
            self._told("read reply, %s, %s%s%s" % (
                "last chunk" if last else "chunk", _count(len(body), "byte"), values,
                " (%s missing)" % _count(missing, "value") if last and missing else ""))

    def _accept_next(self, code: bytes, size: int) -> _Steps:
        yield from self.received.need(1)
        yield from self._accept(code, size)

    def _chunk(self, head: int) -> Generator[None, None, bytes]:
        """The body of the chunk whose head of so many bytes ends with its length."""
        half = self.received
        size = _u16(half.buffer, head - 2)
        if size > MAX_CHUNK:
            raise _Misfit("chunk of %d bytes, more than %d" % (size, MAX_CHUNK))
        yield from half.need(head + size)
        return half.take(head + size)[head:]

    def _values(self, body: bytes, tags: List[Tuple[int, int]], done: int) -> Tuple[str, int]:
        """The values of a chunk in words, and how many tags have theirs. Learns their types."""
        shown = []
        at = 0
        trouble = ""
        while at < len(body):
            if done == len(tags):
                trouble = "nothing more was asked"
                break
            try:
                text, end, code = _coded(body, at)
            except _Cut:
                trouble = "value cut off"
                break
            except _Misfit as misfit:
                trouble = str(misfit)
                break
            self.decoder.learn(tags[done], code)
            shown.append(text)
            at = end
            done += 1
            if code == _ARRAY and at < len(body):
                trouble = "nothing can follow an array"
                break
        text = ": " + _listed(shown, len(shown)) if shown else ""
        if trouble:
            text += "; not understood: %s, %s" % (
                trouble, self._dump("<", body[at:], len(body) - at, False))
        return text, done

    # Write, "g": count (u16), then for each driver (u16), tag (u16) and value with type code. No
    # answer.
    def _write(self) -> _Steps:
        half = self.sent
        yield from half.need(3)
        count = _u16(half.buffer, 1)
        shown = []  # type: List[str]
        at = 3
        for _ in range(count):
            yield from half.need(at + 6)
            driver, tag = _u16(half.buffer, at), _u16(half.buffer, at + 2)
            if _u16(half.buffer, at + 4) == _ARRAY:
                raise _Misfit("arrays are never written")
            while True:
                try:
                    text, end, _code = _coded(bytes(half.buffer[:MAX_WRITE]), at + 4)
                except _Cut:
                    yield from half.more(MAX_WRITE)
                else:
                    break
            at = end
            if len(shown) < _LIST_ITEMS:
                shown.append("%s %s" % (self.decoder.label(driver, tag), text))
        half.take(at)
        self.say(half.when, ">", "write %s: %s" % (_count(count, "tag"), _listed(shown, count)))

    def _cancel(self) -> _Steps:
        yield from self.sent.need(5)
        data = self.sent.take(5)
        self._ask("cancel subscription %d (%s)" % (
            int.from_bytes(data[1:], "little"), self.decoder.label(_u16(data, 1), _u16(data, 3))),
            "cancel subscription", self._cancel_answer())

    def _cancel_answer(self) -> _Steps:
        yield from self._accept(b"d", 1)
        self.received.take(1)
        self._told("subscription cancelled")

    def _alarms(self) -> _Steps:
        self.sent.take(1)
        self._ask("subscribe alarms", "subscribe alarms", self._alarms_answer())
        return
        yield

    # "n", count (u16), alarm records.
    def _alarms_answer(self) -> _Steps:
        half = self.received
        yield from self._accept(b"n", 3)
        count = _u16(half.take(3), 1)
        shown = []
        for number in range(count):
            yield from half.need(_ALARM.size)
            record = half.take(_ALARM.size)
            if number < _LIST_ITEMS:
                shown.append(_alarm(record))
        self._told("%s%s" % (_count(count, "active alarm"),
                             ": " + _listed(shown, count, "; ") if count else ""))


_FILE_END = re.compile(b"\0|\r\n\r\n")
_ACKNOWLEDGEMENT = re.compile(b"4Hello([0-9A-Fa-f]{1,8})\0")


def _body_size(fields: Dict[bytes, bytes]) -> Optional[int]:
    """Bytes of the body that follows a file answer; None when none does."""
    if not fields.get(b"exist", b"yes").startswith(b"yes"):
        return None
    if fields.get(b"uselast", b"").startswith(b"yes"):
        return None
    digits = re.match(rb"[0-9a-f]*", fields.get(b"size", b""))
    return min(int(digits.group() or b"0", 16), 0xFFFFFFFF) if digits else 0


class _NotifyChannel(_Channel):
    """The notification hello and its answer, then frames."""

    def __init__(self, decoder: "Decoder") -> None:
        super().__init__(decoder, "notify", MAX_LOGIN)

    # Notification hello, "8". Scrambled: session (16), machine's name with its zero byte, 1 when
    # the database is wanted, 1.
    def _request(self) -> _Steps:
        half = self.sent
        if half.buffer[:1] != b"8":
            raise _Misfit("no notification hello", secret=True)
        while True:
            plain = _unscramble(half.buffer[1:MAX_LOGIN])
            end = plain.find(b"\0", 16)
            if 0 <= end < len(plain) - 2:
                break
            yield from half.more(MAX_LOGIN)
        half.take(1 + _scrambled(end + 3))
        self._ask("notification hello, session %s, machine %s, database %s" % (
            plain[:16].hex(), _quote(plain[16:end]), "yes" if plain[end + 1] else "no"),
            "notification hello", self._hello_answer())

    # Scrambled as a whole: "8", 42 + 8 bytes that are not read, time and size of the driver
    # information file (u32 each, big-endian), project and title, each with a zero byte.
    def _hello_answer(self) -> _Steps:
        half = self.received
        yield from half.need(2)
        first = _unscramble(half.buffer[:2])
        if first == b"0":
            half.take(2)
            self.say(half.when, "<", "notification hello refused")
            return
        if first != b"8":
            raise _Misfit("answer to notification hello begins with %02X, not 38" % first[0])
        while True:
            plain = _unscramble(half.buffer[:MAX_LOGIN])
            project = plain.find(b"\0", 59)
            title = plain.find(b"\0", project + 1) if project >= 0 else -1
            if title >= 0:
                break
            yield from half.more(MAX_LOGIN)
        half.take(_scrambled(title + 1))
        self.say(half.when, "<", "login record: project %s, title %s, drvinfo.dat of %s, %s" % (
            _quote(plain[59:project]), _quote(plain[project + 1:title]),
            _count(int.from_bytes(plain[55:59], "big"), "byte"),
            _moment(int.from_bytes(plain[51:55], "big"))))

    def _unasked(self) -> _Steps:
        half = self.received
        self.asked = ""
        try:
            text = yield from self._frame()
        except _Misfit as misfit:
            size = len(half.buffer)
            text = "not understood: %s, %s" % (
                misfit, self._dump("<", half.take(size), size, False))
        self.say(half.when, "<", text)

    # Driver (u16), tag (u16), the value without type code; or FFFF and a system frame.
    def _frame(self) -> Generator[None, None, str]:
        half = self.received
        yield from half.need(2)
        driver = _u16(half.buffer, 0)
        if driver == 0xFFFF:
            return (yield from self._system_frame())
        yield from half.need(4)
        tag = _u16(half.buffer, 2)
        code = self.decoder.type_of(driver, tag)
        if not code:
            raise _Misfit("change of %s, whose type is not known" % self.decoder.label(driver, tag))
        if code == _TEXT:
            size = yield from half.find(b"\0", 4, MAX_FRAME)
        else:
            size = 4 + struct.calcsize(_NUMBERS[code][1])
            yield from half.need(size)
        value = _value(half.take(size), 4, code)[0]
        return "change %s %s" % (self.decoder.named(driver, tag), value)

    # FFFF, type (u8), and what the type says.
    def _system_frame(self) -> Generator[None, None, str]:
        half = self.received
        yield from half.need(3)
        kind = half.buffer[2]
        if kind in (1, 3):
            yield from half.need(3 + _ALARM.size)
            return "%s %s" % ("alarm" if kind == 1 else "alarm (frame type 3)", _alarm(
                half.take(3 + _ALARM.size)[3:]))
        if kind in range(16, 22):
            size = yield from half.find(b"\0", 7, MAX_FRAME)
        else:
            size = _SYSTEM_SIZES.get(kind, 0)
            if not size:
                raise _Misfit("system frame of type %d" % kind)
            yield from half.need(size)
        frame = half.take(size)
        text = "system frame %d" % kind
        rest = frame[3:]
        if 9 <= kind <= 22:
            text += " of " + self.decoder.named(_u16(frame, 3), _u16(frame, 5))
            rest = frame[7:]
        if kind in range(16, 22):
            return text + " text " + _quote(rest[:-1])
        return text + (": " + _hex(rest, len(rest)) if rest else "")


_SYSTEM_SIZES = {2: 7, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 9: 8, 10: 15, 11: 15, 12: 15, 13: 15,
                 14: 8, 15: 8, 22: 8, 255: 3}


# ---- The decoder ---------------------------------------------------------------------------------

class Decoder:
    """Decodes what a session sends and receives. One thread at a time.

    drivers: gives the name of a driver id, tags: that of a tag, from driver and tag id; None for
    one that is not known. Both are asked when a line is made and may be replaced at any time.
    """

    def __init__(self, drivers: Callable[[int], Optional[str]] = lambda driver: None,
                 tags: Callable[[int, int], Optional[str]] = lambda driver, tag: None) -> None:
        self.drivers = drivers
        self.tags = tags
        self._types = {}  # type: Dict[int, bytearray]
        self._types_size = 0
        self._channels = {}  # type: Dict[str, _Channel]

    def feed(self, when: float, channel: str, direction: str, data: bytes) -> Iterator[str]:
        """Tell of one send or receive; gives the lines of the messages that are complete by it.

        when: seconds since 1970. channel: "request" or "notify". direction: ">" sent, "<"
        received, "+" the channel was opened, "x" it ended, the last two without data. Lines have
        no end of line and at most MAX_LINE bytes. The work is done before this returns.
        """
        lines = []  # type: List[str]
        current = None  # type: Optional[_Channel]
        try:
            if channel not in ("request", "notify") or direction not in ("<", ">", "+", "x"):
                return iter(["%s no such channel or direction" % _clock(when)])
            current = self._channels.get(channel)
            if current is None:
                current = self._channels[channel] = self._open(channel, False)
            current.lines = lines
            self._follow(current, when, direction, bytes(data))
        except Exception as error:  # a mistake of ours must not end the session that is traced
            lines.append("%s %s %s trace failed: %s" % (
                _clock(when), channel, direction, type(error).__name__))
            self._channels[channel] = self._open(channel, current is None or current.secret)
        return iter(lines)

    def _open(self, channel: str, secret: bool) -> _Channel:
        if channel == "notify":
            return _NotifyChannel(self)
        return _RequestChannel(self, secret)

    def _follow(self, current: _Channel, when: float, direction: str, data: bytes) -> None:
        if direction in ("<", ">"):
            if data:
                current.feed(when, direction, data)
            return
        current.finish(when)
        current.say(when, direction, "opened" if direction == "+" else "ended")
        self._channels[current.name] = self._open(current.name, direction == "+")
        if direction == "+" and current.name == "request":
            self._types.clear()
            self._types_size = 0

    def driver(self, driver: int, unknown: str = "driver %d") -> str:
        """A driver's name, or ``unknown`` with its id."""
        try:
            name = self.drivers(driver)
        except Exception:  # names are a help, and their source is not ours
            name = None
        return _visible(name) if isinstance(name, str) else unknown % driver

    def label(self, driver: int, tag: int) -> str:
        """A tag by driver and id, such as Boiler/3."""
        return "%s/%d" % (self.driver(driver, "%d"), tag)

    def named(self, driver: int, tag: int) -> str:
        """A tag with its name, if that is known, such as Boiler/3 "Temp"."""
        try:
            name = self.tags(driver, tag)
        except Exception:
            name = None
        return self.label(driver, tag) + (
            " " + _quoted(name) if isinstance(name, str) else "")

    def learn(self, tag: Tuple[int, int], code: int) -> None:
        """Remember the type that changes of a tag will have."""
        driver, number = tag
        types = self._types.setdefault(driver, bytearray())
        grown = number + 1 - len(types)
        if grown > 0:
            self._types_size += grown
            if self._types_size > MAX_TYPES:
                self._types = {driver: types}
                self._types_size = number + 1
            types.extend(bytes(grown))
        types[number] = code if code == _TEXT or code in _NUMBERS else 0

    def type_of(self, driver: int, tag: int) -> int:
        """The type code of a tag, 0 when it is not known or has no payload."""
        return (self._types.get(driver, b"")[tag:tag + 1] or b"\0")[0]
