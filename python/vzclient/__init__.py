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
from typing import Any

from .driver import Driver
from .errors import (ConnectError, ConnectionLost, LoginRefused, UnknownDriver, UnknownTag,
                     ValueRejected, VzError, VzTimeoutError, WriteDenied)
from .plant import Plant, connect
from .types import Alarm, Change, Rights, State, Stats
from .watches import AlarmWatch, Subscription, Watch

__all__ = [
    "Alarm", "AlarmWatch", "Change", "ConnectError", "ConnectionLost", "Driver", "LoginRefused",
    "Plant", "Rights", "State", "Stats", "Subscription", "UnknownDriver", "UnknownTag",
    "ValueRejected", "VzError", "VzTimeoutError", "Watch", "WriteDenied", "aio", "connect"]

logging.getLogger(__name__).addHandler(logging.NullHandler())


def __getattr__(name: str) -> Any:
    """Load ``vzclient.aio`` when it is first used: asyncio is slow to import."""
    if name == "aio":
        import importlib
        return importlib.import_module(".aio", __name__)
    raise AttributeError("module %r has no attribute %r" % (__name__, name))
