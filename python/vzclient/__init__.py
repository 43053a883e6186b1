"""Access to the tags and alarms of a real-time process database server.

::

    import vzclient

    with vzclient.connect("plant.local:8000", user="operator", password="secret") as plant:
        boiler = plant["Boiler"]
        print(boiler["Temp"])
        boiler["Setpoint"] = 80.0
        with boiler.watch("Temp", "Level") as changes:
            for change in changes:
                print(change.time, change.tag, change.value)

``vzclient.aio`` is the same for asyncio. Log records go to the loggers ``vzclient.*``.
"""

import logging
from typing import TYPE_CHECKING, Any

from .driver import Driver
from .errors import (ConnectError, ConnectionLost, LoginRefused, UnknownDriver, UnknownTag,
                     ValueRejected, VzError, VzTimeoutError, WriteDenied)
from .plant import Plant, connect
from .types import Change, Rights, State, Stats
from .watches import AlarmWatch, Subscription, Watch

if TYPE_CHECKING:
    from . import aio
    from .alarms import Alarm

__all__ = [
    "Alarm", "AlarmWatch", "Change", "ConnectError", "ConnectionLost", "Driver", "LoginRefused",
    "Plant", "Rights", "State", "Stats", "Subscription", "UnknownDriver", "UnknownTag",
    "ValueRejected", "VzError", "VzTimeoutError", "Watch", "WriteDenied", "aio", "connect"]

logging.getLogger(__name__).addHandler(logging.NullHandler())


def __getattr__(name: str) -> Any:
    """Load what is slow to import when it is first used."""
    import importlib
    if name == "aio":
        return importlib.import_module(".aio", __name__)
    if name == "Alarm":
        return importlib.import_module(".alarms", __name__).Alarm
    raise AttributeError("module %r has no attribute %r" % (__name__, name))
