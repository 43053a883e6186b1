"""The command ``python -m vzsim``."""

import argparse
import asyncio
import json
import signal
import sys
from typing import Any, Dict, List, Optional

from . import control, plantfile
from .channel import finish
from .controller import Controller
from .plant import Plant
from .server import Server


def options() -> argparse.ArgumentParser:
    """The parser of the command's options."""
    parser = argparse.ArgumentParser(
        prog="vzsim", description="Serves a simulated plant to real-time database clients.")
    parser.add_argument("plant", help="plant file (TOML or JSON), name of a packaged plant "
                        "(boiler_house), or - for one line of JSON on standard input")
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (%(default)s)")
    parser.add_argument("--port", type=int, default=8080,
                        help="port to listen on, 0 for a free one (%(default)s); on 3968 it is "
                        "a center server")
    parser.add_argument("--center", action="append", default=[], metavar="NAME=HOST:PORT",
                        help="as a center server, relay for this plant")
    parser.add_argument("--redirect", action="append", default=[], metavar="NAME=HOST:PORT",
                        help="as a center server, send clients of this plant to its address")
    parser.add_argument("--tick", type=float, metavar="SECONDS",
                        help="time between signal steps, 0 stops the clock (the plant's own)")
    parser.add_argument("-v", "--verbose", action="store_true",
                        help="log every request on standard error")
    parser.add_argument("--control", action="store_true",
                        help="take orders as JSON lines on standard input, end when it ends")
    return parser


def _centers(given: argparse.Namespace) -> Dict[str, plantfile.CenterLayout]:
    entries = {}  # type: Dict[str, Any]
    for mode, texts in (("relay", given.center), ("redirect", given.redirect)):
        for text in texts:
            name, _, address = text.partition("=")
            entries[name] = {"address": address, "mode": mode}
    return plantfile.center(entries)


def _load(name: str) -> plantfile.PlantLayout:
    if name != "-":
        return plantfile.load(name)
    try:
        return plantfile.load(json.loads(sys.stdin.readline()))
    except ValueError as error:
        raise plantfile.PlantError("standard input: %s" % error)


def _log(line: str) -> None:
    sys.stderr.write(line + "\n")
    sys.stderr.flush()


def main(arguments: Optional[List[str]] = None) -> int:
    """Run the command; returns 0 after SIGTERM or SIGINT, 1 without an address, 2 bad plant."""
    given = options().parse_args(arguments)
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    try:
        layout = _load(given.plant)
        centers = dict(layout.center)
        centers.update(_centers(given))
        server = Server(loop, Plant(layout), given.host, given.port, centers,
                        given.control, given.tick, _log if given.verbose else None)
    except plantfile.PlantError as error:
        _log("vzsim: %s" % error)
        return 2
    try:
        server.start()
    except (OSError, OverflowError) as error:
        _log("vzsim: cannot listen on %s:%d: %s" % (given.host, given.port, error))
        return 1
    for number in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(number, loop.stop)
    if given.control:
        control.serve(loop, Controller(server), sys.stdin)
    print("vzsim: %s listening on %s:%d" % (layout.name, given.host, server.port), flush=True)
    loop.run_forever()
    server.close()
    finish(loop)
    return 0
