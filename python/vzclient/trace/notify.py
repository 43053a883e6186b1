"""The notification channel: its hello, and frames of changes, alarms and system events."""

import struct
from typing import TYPE_CHECKING, Generator

from . import layouts, words
from .channel import Channel, Steps
from .layouts import Misfit, u16
from .limits import MAX_FRAME, MAX_LOGIN

if TYPE_CHECKING:
    from . import Decoder

_SYSTEM_SIZES = {2: 7, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 9: 8, 10: 15, 11: 15, 12: 15, 13: 15,
                 14: 8, 15: 8, 22: 8, 255: 3}


class NotifyChannel(Channel):
    """The notification hello and its answer, then frames."""

    def __init__(self, decoder: "Decoder") -> None:
        super().__init__(decoder, "notify", MAX_LOGIN)

    # Notification hello, "8". Scrambled: session (16), machine's name with its zero byte, 1 when
    # the database is wanted, 1.
    def request(self) -> Steps:
        half = self.sent
        if half.buffer[:1] != b"8":
            raise Misfit("no notification hello", secret=True)
        while True:
            plain = layouts.unscramble(half.buffer[1:MAX_LOGIN])
            end = plain.find(b"\0", 16)
            if 0 <= end < len(plain) - 2:
                break
            yield from half.more(MAX_LOGIN)
        half.take(1 + layouts.scrambled(end + 3))
        self.ask("notification hello, session %s, machine %s, database %s" % (
            plain[:16].hex(), words.quote(plain[16:end]), "yes" if plain[end + 1] else "no"),
            "notification hello", self._hello_answer())

    # Scrambled as a whole: "8", 42 + 8 bytes that are not read, time and size of the driver
    # information file (u32 each, big-endian), project and title, each with a zero byte.
    def _hello_answer(self) -> Steps:
        half = self.received
        yield from half.need(2)
        first = layouts.unscramble(half.buffer[:2])
        if first == b"0":
            half.take(2)
            self.say(half.when, "<", "notification hello refused")
            return
        if first != b"8":
            raise Misfit("answer to notification hello begins with %02X, not 38" % first[0])
        while True:
            plain = layouts.unscramble(half.buffer[:MAX_LOGIN])
            project = plain.find(b"\0", 59)
            title = plain.find(b"\0", project + 1) if project >= 0 else -1
            if title >= 0:
                break
            yield from half.more(MAX_LOGIN)
        half.take(layouts.scrambled(title + 1))
        self.say(half.when, "<", "login record: project %s, title %s, drvinfo.dat of %s, %s" % (
            words.quote(plain[59:project]), words.quote(plain[project + 1:title]),
            words.count(int.from_bytes(plain[55:59], "big"), "byte"),
            words.moment(int.from_bytes(plain[51:55], "big"))))

    def unasked(self) -> Steps:
        half = self.received
        self.asked = ""
        try:
            text = yield from self._frame()
        except Misfit as misfit:
            size = len(half.buffer)
            text = "not understood: %s, %s" % (
                misfit, self.dump("<", half.take(size), size, False))
        self.say(half.when, "<", text)

    # Driver (u16), tag (u16), the value without type code; or FFFF and a system frame.
    def _frame(self) -> Generator[None, None, str]:
        half = self.received
        yield from half.need(2)
        driver = u16(half.buffer, 0)
        if driver == 0xFFFF:
            return (yield from self._system_frame())
        yield from half.need(4)
        tag = u16(half.buffer, 2)
        code = self.decoder.type_of(driver, tag)
        if not code:
            raise Misfit("change of %s, whose type is not known" % self.decoder.label(driver, tag))
        if code == layouts.TEXT:
            size = yield from half.find(b"\0", 4, MAX_FRAME)
        else:
            size = 4 + struct.calcsize(layouts.NUMBERS[code][1])
            yield from half.need(size)
        value = layouts.value(half.take(size), 4, code)[0]
        return "change %s %s" % (self.decoder.named(driver, tag), value)

    # FFFF, type (u8), and what the type says.
    def _system_frame(self) -> Generator[None, None, str]:
        half = self.received
        yield from half.need(3)
        kind = half.buffer[2]
        if kind in (1, 3):
            yield from half.need(3 + layouts.ALARM.size)
            return "%s %s" % ("alarm" if kind == 1 else "alarm (frame type 3)", layouts.alarm(
                half.take(3 + layouts.ALARM.size)[3:]))
        if kind in range(16, 22):
            size = yield from half.find(b"\0", 7, MAX_FRAME)
        else:
            size = _SYSTEM_SIZES.get(kind, 0)
            if not size:
                raise Misfit("system frame of type %d" % kind)
            yield from half.need(size)
        frame = half.take(size)
        text = "system frame %d" % kind
        rest = frame[3:]
        if 9 <= kind <= 22:
            text += " of " + self.decoder.named(u16(frame, 3), u16(frame, 5))
            rest = frame[7:]
        if kind in range(16, 22):
            return text + " text " + words.quote(rest[:-1])
        return text + (": " + words.hex(rest, len(rest)) if rest else "")
