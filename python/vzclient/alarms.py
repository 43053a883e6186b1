"""The record of an alarm. Imported when it is first used: dataclasses take their time."""

from dataclasses import dataclass
from datetime import datetime
from typing import Optional


@dataclass(frozen=True)
class Alarm:
    """An alarm: when and where, its kind, group and level, the value and the limit it crossed.

    ``time`` is the alarm's, ``event_time`` that of the event it belongs to, if any: aware datetimes
    in local time. ``tag``, ``kind`` and ``group`` are texts of the project, "???" where it has
    none. ``level`` and ``status`` are numbers from 0 to 255. ``resynced``: it was active when the
    connection was regained, and may have been told before.
    """

    time: datetime
    event_time: Optional[datetime]
    tag: str
    kind: str
    group: str
    level: int
    value: float
    limit: float
    status: int
    resynced: bool = False
