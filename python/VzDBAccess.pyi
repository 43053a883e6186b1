"""Access to a real-time process database server: connect, read, write, subscribe.

A ``DBCore`` is a session with one server, a ``Driver`` one driver of the server's project.
The module is imported as ``VzDBAccess``; its own ``__name__`` is "vzdb".

Every method runs with the interpreter lock held and never gives it up, also while it waits for
the server: all other Python threads stand still meanwhile. A single wait ends after 8 seconds
(13 through a relay); one method may wait several times. All arguments are positional.

Texts: tag and driver names are str and must have a GB2312 form; what follows the first character
without one is dropped. A zero character in an argument raises ValueError.
"""

import datetime
from typing import Any, Callable, List, Union, final

_Value = Union[bool, int, float, str]

_TagCallback = Callable[[str, str, Any], object]
"""callback(driver, tag, value)"""

_AlarmCallback = Callable[
    [
        datetime.datetime,  # alarm time, local, without time zone
        datetime.datetime,  # event time, local; the alarm time when there is no event time
        str,  # tag, "???" when unknown
        int,  # 1 when there is an event time, else 0
        str,  # kind, "???" when unknown
        str,  # group, "???" when unknown
        int,  # level, 0 to 255
        float,  # value at alarm time
        float,  # limit that was crossed
        int,  # status, 0 to 255
    ],
    object,
]


@final
class DBCore:
    """A session with one database server; unconnected when made.

    There is no method to disconnect: the session ends when the object is deleted, when
    ``Connect`` is called again, when the server closes the notification channel, and when the
    interpreter exits. Its drivers end with it. Cannot be subclassed.
    """

    def __new__(cls, *args: object, **kwargs: object) -> DBCore:
        """Make an unconnected session. Arguments are ignored."""

    def Connect(self, host: str, user: str, password: str, /) -> int:
        """Log in to a server and load the project's driver table.

        A session that is there is ended first, whatever comes of the new one.

        host: "host", "host:port" (port 80 when none is given), "p2p:server" (through the
            default center server) or "p2p(1.2.3.4):server" (through the center server at that
            IPv4 address, port 3968). The prefix "p2p" counts in any case.
        user, password: at most 253 bytes of UTF-8 together, sent as they are.

        Returns 0 when connected, -1 when the server refused the user, -2 when the connection or
        the transfer of the driver table failed, the project's name cannot name a folder, or the
        input cannot be sent, -3 when the server named no project or answered the login with
        something else. -2 also once the interpreter has begun to exit. A failed call leaves no
        session.

        Each wait: at most 8 seconds, 13 through a relay; looking a host name up may take longer.
        """

    def GetDriver(self, name: str, /) -> Driver:
        """Get a driver of the project by name.

        name: exactly as in the project, case included.

        Every call makes a new object; objects of one name share one driver of the session, and
        with it callback, subscriptions and known tag names. Asks the server nothing.

        Raises SystemError for an unknown name and when there is no session: "returned NULL
        without setting an exception".
        """

    def SetRtAlarmNotify(self, callback: _AlarmCallback, notify_existing: int, /) -> None:
        """Subscribe to real-time alarms, once for the life of this object.

        callback: called with the ten arguments of an alarm: alarm time, event time, tag, 1 when
            there is an event time else 0, kind, group, level, value, limit, status. On the
            session's background thread. The callable is borrowed: keep it alive for as long as
            this object. What it returns is ignored, what it raises goes to
            ``sys.unraisablehook``.
        notify_existing: not 0: first call it, on this thread, for each alarm that is active now.

        Always returns None: whether it worked is not told. After a subscription that worked,
        another one changes and sends nothing, also after another Connect, whose session is then
        not subscribed: make a new DBCore for that. After one that failed it can be tried again.

        Raises TypeError "parameter must be callable".
        """


@final
class Driver:
    """A driver of a session; ``DBCore.GetDriver`` makes them. Cannot be subclassed.

    Once the session has ended, and on an object made by calling the type, every method raises
    RuntimeError.

    ``tags`` is one name, or several with commas between; spaces around a name are dropped, and
    nothing between two commas counts as nothing. Names the server was asked for are remembered,
    unknown ones too, and never asked again in this session. Names over 764 bytes of GB2312 are
    unknown without asking.

    Order: names remembered from before come first, the ones that had to be asked follow, so a
    list that mixes both is worked on in another order than it is written in. Once all names of a
    list are remembered, or when none is, the order is the list's own.
    """

    def __new__(cls, *args: object, **kwargs: object) -> Driver:
        """Make an object without a session, of no use. Arguments are ignored."""

    def SetTagNotify(self, callback: _TagCallback, /) -> None:
        """Set the function that is called when a subscribed tag of this driver changes.

        callback: called with driver name, tag name and new value (bool, int, float or str), on
            the session's background thread. The callable is borrowed: keep it alive until the
            session has ended. What it returns is ignored, what it raises goes to
            ``sys.unraisablehook``. Values without a Python object are stored but not told.

        The first function stays for the session; later calls do nothing. Raises TypeError
        "parameter must be callable".
        """

    def ConnectTag(self, tags: str, /) -> int:
        """Subscribe tags: from then on the server sends their changes, and reads of them are
        answered from memory.

        tags: at most 519 new ones in one call; the rest stays unsubscribed without a word.
            Unknown names are passed over, tags subscribed already are not asked again.

        Returns 1, also when no name is known; 0 when an exchange with the server failed.
        """

    def GetTagValue(self, tags: str, /) -> Union[_Value, List[_Value], None]:
        """Read tags: subscribed ones from memory, the others from the server.

        tags: at most 1023 unsubscribed ones are asked in one call; further ones have the value
            of an earlier read, or none.

        Returns the value of one name: int, float, bool or str; unsigned 32-bit integers come as
        signed ones (4294967295 is -1), signed 8-bit ones as unsigned (-1 is 255). None when the
        name is unknown, when ``tags`` names nothing, or when an exchange with the server failed.

        Returns a list for several names, in the order told above. The slots of unknown names,
        and of values without a Python object, are empty: no None, but nothing at all. Never
        touch such a slot, nor print, copy, compare or loop over the list: the interpreter may
        crash. ``len`` is safe, and so are slots that do hold a value.

        Raises SystemError ("returned NULL without setting an exception") for one name whose value
        has no Python object: dates, 64-bit integers, arrays, empty values.
        """

    def SetTagValue(self, tags: str, values: Union[_Value, List[_Value]], /) -> int:
        """Write tags. The server answers nothing, so what becomes of the values is not told.

        tags, values: one name takes one value; several take a list (no tuple) with at least one
            item for each name, in the order told above. An unknown name consumes its item. A
            value is a str without zero character (sent as UTF-8), a bool, an int of 32 bits
            with sign, or a float; other types have no form on the wire. The whole request has at
            most 2048 bytes, so a text written alone at most 2038.

        Returns 0 when the request was sent, also when of several names none is known; -1 when
        the user may not write; -2 when looking the names up or sending failed; -3, with nothing
        written, when the one name is unknown, a value cannot be encoded, a list is missing, too
        short, or given for one name, or the request would be too long.

        Raises OverflowError for an int outside 32 bits, after -1 was sent in its place.
        """
