"""The simulator inside this process, on a thread of its own."""

import asyncio
import threading
from typing import Any, Callable, Dict, Optional, Union

from . import plantfile
from .channel import finish
from .controller import Controller
from .operations import Operations
from .plant import Plant
from .server import Server


class Simulator(Operations):
    """Serves a plant from a background thread until ``close``; also a context manager.

    ``plant`` is a path, the name of a packaged plant, or a table as a plant file holds it.
    ``port`` 0 takes a free one. ``centers`` are entries like those of a plant file's center
    table, added to them. ``tick`` overrides the plant's seconds between signal steps; 0 stops
    the clock, so values move by ``step`` alone. ``log`` is called with each line of the log.
    Raises PlantError for a bad plant and OSError for an address that cannot be used.

    Do not use it in the process of a client that holds the interpreter lock while it waits:
    the two would wait for each other. ``SimProcess`` is for that.
    """

    def __init__(self, plant: Union[str, Dict[str, Any]], host: str = "127.0.0.1", port: int = 0,
                 centers: Optional[Dict[str, Any]] = None, tick: Optional[float] = None,
                 log: Optional[Callable[[str], None]] = None) -> None:
        layout = plantfile.load(plant)
        routes = dict(layout.center)
        routes.update(plantfile.center(centers or {}))
        running = Plant(layout)
        self._loop = asyncio.new_event_loop()
        self._thread = None  # type: Optional[threading.Thread]
        self._server = Server(self._loop, running, host, port, routes, True, tick, log)
        self._controller = Controller(self._server)
        try:
            self._server.start()
        except (OSError, OverflowError):
            self._loop.close()
            raise
        self.name, self.host, self.port = layout.name, host, self._server.port
        self._thread = threading.Thread(target=self._run, name="vzsim", daemon=True)
        self._thread.start()

    def _run(self) -> None:
        asyncio.set_event_loop(self._loop)
        self._loop.run_forever()

    def _call(self, operation: str, **arguments: Any) -> Any:
        if self._thread is None:
            raise RuntimeError("the simulator is closed")
        return asyncio.run_coroutine_threadsafe(
            self._controller.call(operation, arguments), self._loop).result()

    def close(self) -> None:
        """Close all connections and end the thread; more calls do nothing."""
        thread, self._thread = self._thread, None
        if thread is None:
            return
        self._loop.call_soon_threadsafe(self._server.close)
        self._loop.call_soon_threadsafe(self._loop.stop)
        thread.join()
        finish(self._loop)

    def __enter__(self) -> "Simulator":
        return self

    def __exit__(self, *error: Any) -> None:
        self.close()
