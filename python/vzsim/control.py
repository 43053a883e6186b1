"""Control of a simulator process: JSON lines on its standard input, answers on its output.

A line {"id": 1, "do": "get_value", "with": {"driver": "A", "tag": "B"}} is answered by
{"id": 1, "result": ...} or {"id": 1, "error": "KeyError", "text": "..."}. Bytes travel as
{"$hex": "00ff"}. The process ends when its standard input does.
"""

import asyncio
import json
import sys
import threading
from typing import Any, IO

from .controller import Controller
from .plantfile import PlantError

ERRORS = {kind.__name__: kind for kind in (
    PlantError, ValueError, KeyError, TimeoutError, OSError, TypeError, RuntimeError)}


def pack(value: Any) -> Any:
    """``value`` with its bytes replaced by their hexadecimal form, ready for JSON."""
    if isinstance(value, (bytes, bytearray)):
        return {"$hex": bytes(value).hex()}
    if isinstance(value, (list, tuple)):
        return [pack(item) for item in value]
    if isinstance(value, dict):
        return {name: pack(item) for name, item in value.items()}
    return value


def unpack(value: Any) -> Any:
    """The reverse of ``pack``; tuples come back as lists."""
    if isinstance(value, list):
        return [unpack(item) for item in value]
    if isinstance(value, dict):
        if set(value) == {"$hex"}:
            return bytes.fromhex(value["$hex"])
        return {name: unpack(item) for name, item in value.items()}
    return value


def serve(loop: asyncio.AbstractEventLoop, controller: Controller, source: IO[str]) -> None:
    """Read orders from ``source`` on a thread and carry them out on the loop until its end."""
    def read() -> None:
        try:
            for line in source:
                loop.call_soon_threadsafe(_begin, loop, controller, line)
            loop.call_soon_threadsafe(loop.stop)
        except RuntimeError:
            pass  # the loop has been closed meanwhile
    threading.Thread(target=read, name="control", daemon=True).start()


_running = set()  # tasks that nobody holds may vanish


def _begin(loop: asyncio.AbstractEventLoop, controller: Controller, line: str) -> None:
    task = loop.create_task(_carry_out(controller, line))
    _running.add(task)
    task.add_done_callback(_running.discard)


async def _carry_out(controller: Controller, line: str) -> None:
    number = None
    try:
        order = json.loads(line)
        number = order.get("id")
        result = await controller.call(order["do"], unpack(order.get("with", {})))
        answer = {"id": number, "result": pack(result)}
    except Exception as error:  # whatever an order does, it is told and the plant runs on
        text = error.args[0] if isinstance(error, KeyError) and error.args else error
        answer = {"id": number, "error": _name(error), "text": str(text)}
    sys.stdout.write(json.dumps(answer) + "\n")
    sys.stdout.flush()


def _name(error: Exception) -> str:
    for name, kind in ERRORS.items():
        if isinstance(error, kind):
            return name
    return "RuntimeError"
