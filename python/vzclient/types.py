"""The records that this package gives out."""

import enum
from datetime import datetime
from typing import NamedTuple, Optional, Tuple, Union

import _vzclient

Value = Union[None, bool, int, float, str, datetime]
"""What a tag can hold. None: the tag has no value."""


class Change(NamedTuple):
    """A value of a tag, and when it was received (aware datetime, local time).

    ``resynced``: it was read anew after the connection had been lost.
    """

    driver: str
    tag: str
    value: Value
    time: datetime
    resynced: bool = False


_vzclient.use_change(Change)

AlarmRecord = Tuple[int, int, int, int, int, int, int, float, float, bool]
"""An alarm as the native half gives it: times, indices of texts, level, status, value, limit."""


class Rights(enum.IntFlag):
    """What a user may do."""

    NONE = 0
    WRITE = 8


class State:
    """How the connection is.

    ``name`` is "connecting", "live", "stale" (connected, but an answer is overdue), "lost" (it is
    tried anew, unless reconnect is off) or "closed". ``since``: when that began; a connection is
    lost since it was live, however often it was tried anew. ``last_heard``: when the server last
    sent something, None before it ever did. ``reason``: why, where there is something to say.
    Times are aware datetimes in local time.
    """

    __slots__ = ("name", "since", "last_heard", "reason")

    def __init__(self, name: str, since: datetime, last_heard: Optional[datetime] = None,
                 reason: str = "") -> None:
        self.name, self.since, self.last_heard, self.reason = name, since, last_heard, reason

    def __str__(self) -> str:
        return "%s (%s)" % (self.name, self.reason) if self.reason else self.name

    def __repr__(self) -> str:
        return "<State %s since %s>" % (self, self.since.isoformat(" ", "seconds"))


class Stats(NamedTuple):
    """What a plant has seen so far, over all its connections.

    ``dropped`` counts events that were displaced in full queues, ``unusable_frames`` the times
    that received bytes could not be understood, and what came with them was lost: then all that is
    watched is told anew, as resynced. ``bytes_received`` counts those of notifications.
    """

    requests: int = 0
    timeouts: int = 0
    changes: int = 0
    alarms: int = 0
    unusable_frames: int = 0
    dropped: int = 0
    callback_errors: int = 0
    reconnects: int = 0
    bytes_received: int = 0
