"""A driver and its tags."""

from typing import TYPE_CHECKING, Any, Callable, Dict, Mapping, Optional, Tuple, cast

import _vzclient

from .errors import WriteDenied
from .types import Change, Rights, Value
from .watches import Subscription, Watch

if TYPE_CHECKING:
    from .plant import Plant


class Driver:
    """The tags of one driver, by name. Made by a plant, and good for all its connections.

    Reading, writing and watching are thread-safe. ``timeout`` is in seconds, for the whole call;
    None means the plant's. Names that the driver does not have raise UnknownTag.
    """

    def __init__(self, plant: "Plant", name: str) -> None:
        self._plant = plant
        self._timeout = plant.timeout
        self._name = name
        self._tag_count = 0
        self._native = cast(_vzclient.Driver, None)  # bound before anyone sees this object

    def _bind(self, native: _vzclient.Driver, tag_count: int) -> None:
        self._native, self._tag_count = native, tag_count

    @property
    def name(self) -> str:
        """The driver's name."""
        return self._name

    @property
    def tag_count(self) -> int:
        """How many tags the driver has."""
        return self._tag_count

    def __repr__(self) -> str:
        return "<Driver %r of %s>" % (self._name, self._plant.host)

    # The names of tags are the server's: none can be gone through, nor looked for without asking.
    __iter__ = None
    __contains__ = None

    def __getitem__(self, name: str) -> Value:
        """Read one tag from the server."""
        try:
            return self._native.read_one(name, self._timeout)
        except _vzclient.Failure as failure:
            raise self._plant._error(failure, self._reading((name,)), self) from None

    def read(self, *names: str, missing: str = "raise",
             timeout: Optional[float] = None) -> Dict[str, Value]:
        """Read tags from the server, any number of them, in one go.

        Returns a dict of name to value, in the order of the names. ``missing``: "raise" raises one
        UnknownTag that names all tags that do not exist, "skip" leaves them out.
        """
        if missing not in ("raise", "skip"):
            raise ValueError('missing is "raise" or "skip", not %r' % (missing,))
        try:
            return self._native.read(names, self._timeout if timeout is None else timeout,
                                     missing == "skip")
        except _vzclient.Failure as failure:
            raise self._plant._error(failure, self._reading(names), self) from None

    def __setitem__(self, name: str, value: Value) -> None:
        """Write one tag; see ``write``."""
        self.write({name: value})

    def write(self, values: Mapping[str, Value], timeout: Optional[float] = None) -> None:
        """Write tags, any number of them.

        Every value is checked against its tag's type and range before anything is sent; what the
        tag cannot hold, or what cannot be sent exactly, raises ValueRejected, and a user without
        the right to write gets WriteDenied. A real tag takes an int that it holds exactly; a
        float is rounded to what it holds. A tag that was never read is read first, to learn its
        type. Datetimes without a zone are taken as local time.

        The server does not acknowledge writes: read the tag to see what became of one.
        """
        self._write(values, timeout, True)

    def _write(self, values: Mapping[str, Value], timeout: Optional[float], send: bool) -> None:
        """Write tags, or without ``send`` only check whether that can be done."""
        self._check_rights()
        names = tuple(values)
        try:
            self._native.write(names, tuple(values[name] for name in names),
                               self._timeout if timeout is None else timeout, send)
        except _vzclient.Failure as failure:
            raise self._plant._error(failure, "writing %s" % _some(names), self) from None

    def _check_rights(self) -> None:
        """Raise WriteDenied unless the user may write."""
        plant = self._plant
        if plant.read_only:
            raise WriteDenied("writing to %r on %s: the plant was connected with read_only=True"
                              % (self._name, plant.host))
        if not plant.rights & Rights.WRITE:
            raise WriteDenied("writing to %r on %s: user %r has no right to write; give it one on "
                              "the server" % (self._name, plant.host, plant.user))

    def watch(self, *names: str, timeout: Optional[float] = None, queue: int = 10000,
              overflow: str = "latest") -> Watch:
        """Watch tags: an iterable of Change, beginning with each tag's present value.

        ``timeout``: the iteration raises VzTimeoutError when nothing comes for so many seconds;
        None waits for ever. ``queue``: how many changes may wait to be taken. What ``overflow``
        does when there are more: "latest" keeps of each tag the newest value, "oldest" drops the
        oldest change. Watches go on over lost connections: when the connection is regained, the
        present values come again, marked as resynced.
        """
        watch = Watch(self._plant, queue, overflow, timeout)
        self._start(watch._feed, 0, names)
        return watch

    def on_change(self, function: Callable[[Change], Any], *names: str,
                  on_error: Optional[Callable[[BaseException], Any]] = None) -> Subscription:
        """Call ``function(change)`` for each change of these tags, beginning with their values.

        Calls are made one after the other on the plant's dispatcher thread; anything may be done
        in them. What ``function`` raises is logged, counted and given to ``on_error``, and delivery
        goes on. Returns the subscription, which holds the function; cancel it to end the calls.
        """
        subscription = self._plant._subscription(function, on_error)
        try:
            self._start(self._plant._queue, subscription._token, names)
        except BaseException:
            subscription.cancel()
            raise
        return subscription

    def _start(self, feed: _vzclient.Feed, token: int, names: Tuple[str, ...]) -> None:
        unique = tuple(dict.fromkeys(names))
        if not unique:
            raise ValueError("no tag to watch")
        try:
            self._native.watch(self._plant._routes, self._name, unique, feed, token, self._timeout)
        except _vzclient.Failure as failure:
            raise self._plant._error(failure, "watching %s" % _some(unique), self) from None

    @staticmethod
    def _reading(names: Tuple[str, ...]) -> str:
        return "reading %s" % _some(names)


def _some(names: Tuple[str, ...]) -> str:
    """The names, or the first of many."""
    shown = ", ".join(repr(name) for name in names[:5])
    return shown if len(names) <= 5 else "%s and %d more" % (shown, len(names) - 5)
