"""What goes wrong in a plant, told to a running simulator: outages, silence, ramps, bursts, alarms.

::

    with sim.outage():                       # the server is away, its plant is not
        sim.set_value("Boiler", "Mode", 1)
    sim.play(ramp("Boiler/Steam pressure", 8.0, 11.0, seconds=2.0))
    with sim.alarm("Network", "Leak detector"):
        ...
"""

import abc
import contextlib
from typing import Any, Dict, Iterable, Iterator, List, Optional, Tuple, Union

from . import plantfile

TagKey = Union[int, str]
Place = Union[str, Tuple[TagKey, TagKey]]
Step = Tuple[Place, Any, float]  # "Driver/Tag" or (driver, tag), value, seconds to the next step


def ramp(tag: Place, first: float, last: float, seconds: float, steps: int = 20) -> List[Step]:
    """The steps that take a tag from ``first`` to ``last`` evenly, for ``play``.

    There are ``steps`` changes after the first value, ``seconds`` in all; the last value stands
    for no time. Whole-numbered tags round each value. ValueError: ``steps`` is less than 1.
    """
    if steps < 1:
        raise ValueError("a ramp has at least one step")
    found = [(tag, first + (last - first) * i / steps, seconds / steps)
             for i in range(steps)]  # type: List[Step]
    return found + [(tag, last, 0.0)]


class Scenarios(abc.ABC):
    """The scenarios of ``Simulator`` and ``SimProcess``; thread-safe, each waits for its end.

    What begins with ``begin_`` goes on until its ``end_``; the context manager of the same name
    does both. To begin what has begun is a RuntimeError, to end what is not on does nothing.
    """

    host = ""  # address in use
    port = 0   # port in use
    name = ""  # the plant's name

    @property
    def address(self) -> str:
        """The host text that a client on this machine connects to, "host:port"."""
        return "%s:%d" % ("127.0.0.1" if self.host in ("", "0.0.0.0") else self.host, self.port)

    @abc.abstractmethod
    def _call(self, operation: str, **arguments: Any) -> Any:
        """Carry an operation out and give its result."""

    # ---- the server ---------------------------------------------------------------------------

    def begin_outage(self, kind: str = "close") -> None:
        """Let the server go away: its port refuses connections and every connection is ended.

        ``kind`` "close" ends them in order, "reset" resets them. The port stays reserved. The
        plant lives on: its signals move, and it can be set, replaced and asked.
        """
        self._call("begin_outage", kind=kind)

    def end_outage(self) -> None:
        """Bring the server back on its port; clients have to log in and subscribe anew."""
        self._call("end_outage")

    @contextlib.contextmanager
    def outage(self, kind: str = "close") -> Iterator[None]:
        """The server is away inside the block; see ``begin_outage``."""
        self.begin_outage(kind)
        try:
            yield
        finally:
            self.end_outage()

    def replace(self, plant: Union[str, Dict[str, Any]]) -> None:
        """Serve another plant from now on, mostly during an outage; all connections are ended.

        ``plant`` is what ``SimProcess`` takes; ``read_plant`` gives a table to change. Values,
        alarms, users, rights and files are those of the new plant, and its driver table is newer
        than the one before, so that clients fetch it. Center entries and ordered faults stay.
        PlantError: the plant cannot be used, the present one goes on.
        """
        self.name = self._call("replace", plant=plantfile.table(plant))

    def begin_silence(self) -> None:
        """Let the server send nothing at all; connections stand and new ones are accepted.

        Nothing is lost: a request takes effect when it comes and is answered at the end of the
        silence, with the values of when it came; the next one on that connection waits for this.
        Changes and alarms are kept for the end as well, those of signals up to a megabyte.
        """
        self._call("begin_silence")

    def end_silence(self) -> None:
        """Send, in order, what the silence has held back, and go on."""
        self._call("end_silence")

    @contextlib.contextmanager
    def silence(self) -> Iterator[None]:
        """The server says nothing inside the block; see ``begin_silence``."""
        self.begin_silence()
        try:
            yield
        finally:
            self.end_silence()

    # ---- values -------------------------------------------------------------------------------

    def play(self, steps: Iterable[Step]) -> None:
        """Set one tag after the other, and return when the time of the last step is over.

        A step is (tag, value, seconds): the tag as "Driver/Tag" or (driver, tag), its new value,
        which it keeps, and how long to wait then. ``ramp`` makes such steps. An unknown tag is a
        KeyError, a value that does not suit it a ValueError, and then nothing is set.
        """
        self._call("play", steps=list(steps))

    def begin_play(self, steps: Iterable[Step], repeat: bool = False) -> int:
        """Begin to play, once or over and over, and return a number for ``end_play``."""
        return int(self._call("begin_play", steps=list(steps), repeat=repeat))

    def end_play(self, number: int) -> None:
        """End a play, whether all of it is done or not; raises what has stopped it before.

        KeyError: it was ended before.
        """
        self._call("end_play", number=number)

    @contextlib.contextmanager
    def playing(self, steps: Iterable[Step], repeat: bool = False) -> Iterator[None]:
        """The steps are played while the block runs, and end with it; see ``play``."""
        number = self.begin_play(steps, repeat)
        try:
            yield
        finally:
            self.end_play(number)

    def burst(self, driver: TagKey, tag: TagKey, values: Iterable[Any],
              pause: float = 0.0) -> int:
        """Send a change for each value to all that have subscribed the tag, as fast as they take.

        Whole changes, at most 2048 bytes a send, with ``pause`` seconds between sends. The tag
        keeps the last value; only that can raise an alarm. Returns the number of channels;
        sending may go on afterwards. ValueError: no values, or unsuitable ones; nothing is sent.

        Without a pause sends run together, and a client that takes what one receive gives for
        whole changes loses some, but those of 32-bit tags, which 2048 bytes hold without a rest.
        """
        return int(self._call("burst", driver=driver, tag=tag, values=list(values), pause=pause))

    def push_cut(self, driver: TagKey, tag: TagKey, values: Iterable[Any], cuts: Iterable[int],
                 pause: float = 0.01) -> int:
        """Send changes as ``burst`` does, but cut at these places, in bytes from the first one.

        A change is 4 bytes and the value's (2, 4 or 8; a text's and one more). ``pause`` seconds
        lie between the pieces. ValueError: the cuts do not rise, or lie outside.
        """
        return int(self._call("push_cut", driver=driver, tag=tag, values=list(values),
                              cuts=list(cuts), pause=pause))

    # ---- alarms -------------------------------------------------------------------------------

    def begin_alarm(self, driver: TagKey, tag: TagKey, text: Optional[str] = None) -> None:
        """Take a tag a little beyond a limit of its own and hold it there: the alarm is raised.

        ``text`` is the alarm text of the limit meant, None the first one. Other limits on the way
        raise theirs. Change and alarm go to all that have subscribed them. KeyError: no such
        limit; ValueError: the tag's type holds no value beyond it.
        """
        self._call("begin_alarm", driver=driver, tag=tag, text=text)

    def end_alarm(self, driver: TagKey, tag: TagKey) -> None:
        """Take a tag back inside all its limits and hold it there: its alarms are cleared."""
        self._call("end_alarm", driver=driver, tag=tag)

    @contextlib.contextmanager
    def alarm(self, driver: TagKey, tag: TagKey, text: Optional[str] = None) -> Iterator[None]:
        """The tag is in alarm inside the block; see ``begin_alarm``."""
        self.begin_alarm(driver, tag, text)
        try:
            yield
        finally:
            self.end_alarm(driver, tag)
