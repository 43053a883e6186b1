"""The request channel: requests and their answers."""

import re
from typing import TYPE_CHECKING, Callable, Dict, Generator, List, Optional, Tuple

from . import layouts, words
from .channel import Channel, Steps, Turn
from .layouts import Cut, Misfit, u16
from .limits import MAX_CHUNK, MAX_FRAME, MAX_REQUEST, MAX_WRITE

if TYPE_CHECKING:
    from . import Decoder

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


class RequestChannel(Channel):
    """Requests and their answers."""

    def __init__(self, decoder: "Decoder", secret: bool) -> None:
        super().__init__(decoder, "request", MAX_REQUEST)
        self.secret = secret
        self._requests = {
            b"7": self._hello, b"9": self._login, b"4": self._file, b"3": self._paths,
            b"L": self._look_up, b"b": self._subscribe, b"H": self._read, b"g": self._write,
            b"d": self._cancel, b"n": self._alarms,
        }  # type: Dict[bytes, Callable[[], Steps]]

    def request(self) -> Steps:
        code = bytes(self.sent.buffer[:1])
        if self.secret:
            self.received.turn()  # the login was accepted, if its answer ended early
        if self.secret and code not in (b"7", b"9"):
            raise Misfit("no login yet", secret=True)
        if code not in self._requests:
            raise Misfit("unknown code %02X" % code[0])
        yield from self._requests[code]()

    def unasked(self) -> Steps:
        raise Misfit("nothing was asked")
        yield

    def _accept(self, code: bytes, size: int) -> Steps:
        """Return when an answer that begins with ``code`` has ``size`` bytes."""
        first = bytes(self.received.buffer[:1])
        if first != code:
            raise Misfit("answer to %s begins with %02X, not %02X" % (
                self.asked, first[0], code[0]))
        yield from self.received.need(size)

    def _told(self, text: str) -> None:
        self.say(self.received.when, "<", text)

    # Login hello, "7"; its end shows when the answer comes. Scrambled: session (16); to a center
    # server also hardware address (6, zeros) and the name of the server, with its zero byte.

    def _hello(self) -> Steps:
        self.secret = True
        wire = yield from self.sent.rest()
        plain = layouts.unscramble(wire[1:])
        relay = plain[16:22] == bytes(6) and plain.find(b"\0", 22) == len(plain) - 1
        if relay:
            text = "login hello to a center server, session %s, server %s" % (
                plain[:16].hex(), words.quote(plain[22:-1]))
        elif len(wire) == 23:
            text = "login hello, session %s" % plain.hex()
        else:
            text = "login hello, malformed, " + self.dump(">", wire, len(wire), True)
        self.ask(text, "login hello", self._hello_answer(relay))

    # "7"; from a center server perhaps "lan", IPv4 address (4) and port (2), both big-endian.
    def _hello_answer(self, relay: bool) -> Steps:
        half = self.received
        if half.buffer[:1] == b"0":
            half.take(1)
            self._told("login hello refused")
            return
        yield from self._accept(b"7", 1)
        try:
            while relay and len(half.buffer) < 10 and b"lan".startswith(half.buffer[1:4].lower()):
                yield
        except Turn:
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

    def _login(self) -> Steps:
        self.secret = True
        half = self.sent
        try:
            end = yield from half.find(b"\0", 1, half.limit)
            size = yield from half.find(b"\0", end, half.limit)
        except Turn:
            size = len(half.buffer)
            half.take(size)
            self.ask("user login cut off, %d bytes, not shown" % size, "user login",
                     self._login_answer(False))
            return
        user = half.take(size)[1:end - 1]
        self.ask("user login %s, password not shown" % words.quote(user, "utf-8"), "user login",
                 self._login_answer(True))
        yield from self.lose(half, ">", True)

    # "9", 4 bytes that mean nothing, rights (u32); it may end early. None of it is dumped: it might
    # repeat the request.
    def _login_answer(self, complete: bool) -> Steps:
        half = self.received
        first = half.buffer[:1]
        if first == b"9":
            try:
                yield from half.need(9)
            except Turn:
                pass
            self.secret = self.hushed = not complete
            data = half.take(9)
            rights = int.from_bytes(data[5:], "little") if len(data) == 9 else 0
            self._told("user login accepted, rights %d%s" % (
                rights, " (may write)" if rights & 8 else ""))
        else:
            half.take(1)
            self._told("user login %s" % ("refused" if first == b"0" else "failed"))
        yield from self.lose(half, "<", True)

    # File transfer, "4": text lines up to an empty one. An acknowledgement within the body is
    # "4Hello", a hexadecimal count and a zero byte, and has no answer.

    def _file(self) -> Steps:
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
            self.say(half.when, ">", "file acknowledgement, %s" % words.count(size, "byte"))
            return
        if found.group() == b"\0":
            raise Misfit("zero byte in the request for a file")
        lines = half.take(found.end())[1:-4].split(b"\r\n")
        self.ask("file " + words.listed([words.quote(lines[0])] + [
            words.visible(words.text(line)) for line in lines[1:]], len(lines)),
            "file", self._file_answer())

    # Lines "name:value" up to an empty one; blanks and CR do not count. Then the body.
    def _file_answer(self) -> Steps:
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
            if total <= words.LIST_ITEMS:
                lines.append(words.visible(words.text(line)))
        body = _body_size(fields)
        self._told("file answer: %s, %s" % (
            words.listed(lines, total), "no body" if body is None else "body of %s" % words.count(
                body, "byte")))
        if body:
            yield from self._file_body(body)

    def _file_body(self, size: int) -> Steps:
        half = self.received
        left = size
        try:
            while True:
                left -= len(half.take(min(left, len(half.buffer))))
                if not left:
                    break
                yield
        except Turn:
            self._told("file body cut off, %d of %s" % (size - left, words.count(size, "byte")))
            return
        self._told("file body, %s" % words.count(size, "byte"))

    def _paths(self) -> Steps:
        self.sent.take(1)
        self.ask("project paths", "project paths", self._paths_answer())
        return
        yield

    def _paths_answer(self) -> Steps:
        yield from self._accept(b"3", 1)
        end = 1
        for _ in range(4):
            end = yield from self.received.find(b"\0", end, 2048)
        paths = self.received.take(end)[1:-1].split(b"\0")
        self._told("project paths: " + ", ".join(words.quote(path) for path in paths))

    # Look up, "L"; its end shows when the answer comes. For each name driver (u16), name, zero
    # byte. Answer: for each tag (u16) and 2 bytes that mean nothing.

    def _look_up(self) -> Steps:
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
            driver = u16(data, at)
            names.append(data[at + 2:end])
            shown.append(("" if driver == previous else self.decoder.driver(driver) + " ")
                         + words.quote(names[-1]))
            previous = driver
            at = end + 1
        if at < len(data):
            self.ask("look up, malformed, " + self.dump(">", data, len(data), False), asked,
                     self._unknown_answer())
            return
        self.ask("look up " + words.listed(shown, len(shown), " "), asked,
                 self._look_up_answer(names))

    def _unknown_answer(self) -> Steps:
        raise Misfit("answer to a malformed request")
        yield

    def _look_up_answer(self, names: List[bytes]) -> Steps:
        yield from self._accept(b"L", 1 + 4 * len(names))
        data = self.received.take(1 + 4 * len(names))
        tags = [u16(data, 1 + 4 * i) for i in range(len(names))]
        self._told("look up reply: " + words.listed(
            ("%s %s" % (words.quote(name), "unknown" if tag == 0xFFFF else tag)
             for name, tag in zip(names, tags)), len(names)))

    # Subscribe, "b", and read, "H": count (u16), then for each driver (u16) and tag (u16), and in
    # a subscription 1 byte. Answers: chunks of values with type code.

    def _subscribe(self) -> Steps:
        tags = yield from self._tags("subscribe", 5)
        self.ask("subscribe " + self._tag_list(tags), "subscribe", self._subscribe_answer(tags))

    def _read(self) -> Steps:
        tags = yield from self._tags("read", 4)
        self.ask("read " + self._tag_list(tags), "read", self._read_answer(tags))

    def _tags(self, what: str, size: int) -> Generator[None, None, List[Tuple[int, int]]]:
        half = self.sent
        yield from half.need(3)
        count = u16(half.buffer, 1)
        yield from half.need(3 + size * count)
        data = half.take(3 + size * count)
        return [(u16(data, at), u16(data, at + 2)) for at in range(3, len(data), size)]

    def _tag_list(self, tags: List[Tuple[int, int]]) -> str:
        labels = (self.decoder.label(driver, tag) for driver, tag in tags[:words.LIST_ITEMS])
        return "%s: %s" % (words.count(len(tags), "tag"), words.listed(labels, len(tags), " "))

    # Chunks of "b", length (u16), values, until all values have come.
    def _subscribe_answer(self, tags: List[Tuple[int, int]]) -> Steps:
        done = 0
        while True:
            yield from self._accept_next(b"b", 3)
            body = yield from self._chunk(3)
            values, done = self._values(body, tags, done)
            last = done >= len(tags)
            self._told("subscribe reply, %s, %s%s" % (
                "last chunk" if last else "chunk", words.count(len(body), "byte"), values))
            if last:
                return

    # Chunks of "H", 1 when another follows, length (u16), values.
    def _read_answer(self, tags: List[Tuple[int, int]]) -> Steps:
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
                "last chunk" if last else "chunk", words.count(len(body), "byte"), values,
                " (%s missing)" % words.count(missing, "value") if last and missing else ""))

    def _accept_next(self, code: bytes, size: int) -> Steps:
        yield from self.received.need(1)
        yield from self._accept(code, size)

    def _chunk(self, head: int) -> Generator[None, None, bytes]:
        """The body of the chunk whose head of so many bytes ends with its length."""
        half = self.received
        size = u16(half.buffer, head - 2)
        if size > MAX_CHUNK:
            raise Misfit("chunk of %d bytes, more than %d" % (size, MAX_CHUNK))
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
                text, end, code = layouts.coded(body, at)
            except Cut:
                trouble = "value cut off"
                break
            except Misfit as misfit:
                trouble = str(misfit)
                break
            self.decoder.learn(tags[done], code)
            shown.append(text)
            at = end
            done += 1
            if code == layouts.ARRAY and at < len(body):
                trouble = "nothing can follow an array"
                break
        text = ": " + words.listed(shown, len(shown)) if shown else ""
        if trouble:
            text += "; not understood: %s, %s" % (
                trouble, self.dump("<", body[at:], len(body) - at, False))
        return text, done

    # Write, "g": count (u16), then for each driver (u16), tag (u16) and value with type code. No
    # answer.
    def _write(self) -> Steps:
        half = self.sent
        yield from half.need(3)
        count = u16(half.buffer, 1)
        shown = []  # type: List[str]
        at = 3
        for _ in range(count):
            yield from half.need(at + 6)
            driver, tag = u16(half.buffer, at), u16(half.buffer, at + 2)
            if u16(half.buffer, at + 4) == layouts.ARRAY:
                raise Misfit("arrays are never written")
            while True:
                try:
                    text, end, _code = layouts.coded(bytes(half.buffer[:MAX_WRITE]), at + 4)
                except Cut:
                    yield from half.more(MAX_WRITE)
                else:
                    break
            at = end
            if len(shown) < words.LIST_ITEMS:
                shown.append("%s %s" % (self.decoder.label(driver, tag), text))
        half.take(at)
        self.say(half.when, ">", "write %s: %s" % (
            words.count(count, "tag"), words.listed(shown, count)))

    def _cancel(self) -> Steps:
        yield from self.sent.need(5)
        data = self.sent.take(5)
        self.ask("cancel subscription %d (%s)" % (
            int.from_bytes(data[1:], "little"), self.decoder.label(u16(data, 1), u16(data, 3))),
            "cancel subscription", self._cancel_answer())

    def _cancel_answer(self) -> Steps:
        yield from self._accept(b"d", 1)
        self.received.take(1)
        self._told("subscription cancelled")

    def _alarms(self) -> Steps:
        self.sent.take(1)
        self.ask("subscribe alarms", "subscribe alarms", self._alarms_answer())
        return
        yield

    # "n", count (u16), alarm records.
    def _alarms_answer(self) -> Steps:
        half = self.received
        yield from self._accept(b"n", 3)
        count = u16(half.take(3), 1)
        shown = []
        for number in range(count):
            yield from half.need(layouts.ALARM.size)
            record = half.take(layouts.ALARM.size)
            if number < words.LIST_ITEMS:
                shown.append(layouts.alarm(record))
        self._told("%s%s" % (words.count(count, "active alarm"),
                             ": " + words.listed(shown, count, "; ") if count else ""))
