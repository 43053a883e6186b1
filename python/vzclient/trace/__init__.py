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

from typing import Callable, Dict, Iterator, List, Optional, Tuple

from . import layouts, words
from .channel import Channel
from .limits import (
    MAX_CHUNK, MAX_FRAME, MAX_LINE, MAX_LOGIN, MAX_REPLY, MAX_REQUEST, MAX_TYPES, MAX_WRITE)
from .notify import NotifyChannel
from .requests import RequestChannel

__all__ = [
    "Decoder", "MAX_CHUNK", "MAX_FRAME", "MAX_LINE", "MAX_LOGIN", "MAX_REPLY", "MAX_REQUEST",
    "MAX_TYPES", "MAX_WRITE"]


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
        self._channels = {}  # type: Dict[str, Channel]

    def feed(self, when: float, channel: str, direction: str, data: bytes) -> Iterator[str]:
        """Tell of one send or receive; gives the lines of the messages that are complete by it.

        when: seconds since 1970. channel: "request" or "notify". direction: ">" sent, "<"
        received, "+" the channel was opened, "x" it ended, the last two without data. Lines have
        no end of line and at most MAX_LINE bytes. The work is done before this returns.
        """
        lines = []  # type: List[str]
        current = None  # type: Optional[Channel]
        try:
            if channel not in ("request", "notify") or direction not in ("<", ">", "+", "x"):
                return iter(["%s no such channel or direction" % words.clock(when)])
            current = self._channels.get(channel)
            if current is None:
                current = self._channels[channel] = self._open(channel, False)
            current.lines = lines
            self._follow(current, when, direction, bytes(data))
        except Exception as error:  # a mistake of ours must not end the session that is traced
            lines.append("%s %s %s trace failed: %s" % (
                words.clock(when), channel, direction, type(error).__name__))
            self._channels[channel] = self._open(channel, current is None or current.secret)
        return iter(lines)

    def _open(self, channel: str, secret: bool) -> Channel:
        if channel == "notify":
            return NotifyChannel(self)
        return RequestChannel(self, secret)

    def _follow(self, current: Channel, when: float, direction: str, data: bytes) -> None:
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
        return words.visible(name) if isinstance(name, str) else unknown % driver

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
            " " + words.quoted(name) if isinstance(name, str) else "")

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
        types[number] = code if code == layouts.TEXT or code in layouts.NUMBERS else 0

    def type_of(self, driver: int, tag: int) -> int:
        """The type code of a tag, 0 when it is not known or has no payload."""
        return (self._types.get(driver, b"")[tag:tag + 1] or b"\0")[0]
