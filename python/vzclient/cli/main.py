"""The command ``vzclient``: finds what to do, does it, and tells by an exit code how it went."""

import importlib
import logging
import os
import sys
from typing import Callable, List, Optional

from ..errors import (UnknownDriver, UnknownTag, ValueRejected, VzError, VzTimeoutError,
                      WriteDenied)
from . import options as _options

OK, USAGE, NO_CONNECTION, TIME_OUT, UNKNOWN, DENIED, INTERRUPTED = 0, 1, 2, 3, 4, 5, 130


def main(arguments: Optional[List[str]] = None) -> int:
    """Run a command; arguments: those of the process when None. Returns its exit code.

    0 done, 1 wrong use, 2 no connection, 3 time-out, 4 unknown name, 5 denied, 130 Ctrl-C.
    """
    if sys.stdout is None:
        sys.stdout = open(os.devnull, "w")
    try:
        status = _run(sys.argv[1:] if arguments is None else arguments)
        sys.stdout.flush()
        return status
    except KeyboardInterrupt:
        return INTERRUPTED
    except BrokenPipeError:  # nobody reads on
        _discard_output()
        return OK
    except OSError as error:
        _discard_output()
        return _fail(USAGE, _reason(error))


def _run(arguments: List[str]) -> int:
    try:
        if arguments[:1] == ["sim"]:  # its options are not ours to parse
            return _function("sim")(_options.for_sim(arguments[1:]))
        options = _options.parse(arguments)
        _log(options)
        return _function(options.command)(options)
    except SystemExit as exit:  # of a parser, which has said why
        return exit.code if isinstance(exit.code, int) else USAGE
    except _options.CommandError as error:
        return _fail(USAGE, str(error))
    except VzError as error:
        return _fail(_code(error), str(error))


def _function(command: str) -> Callable[[_options.Options], int]:
    module = importlib.import_module("." + _options.MODULES[command], __package__)
    function = getattr(module, command)  # type: Callable[[_options.Options], int]
    return function


def _code(error: VzError) -> int:
    if isinstance(error, VzTimeoutError):
        return TIME_OUT
    if isinstance(error, (UnknownDriver, UnknownTag)):
        return UNKNOWN
    if isinstance(error, WriteDenied):
        return DENIED
    return USAGE if isinstance(error, ValueRejected) else NO_CONNECTION


def _fail(code: int, message: str) -> int:
    from .output import visible
    print("vzclient: " + visible(message), file=sys.stderr)
    return code


def _reason(error: OSError) -> str:
    if error.strerror is None:
        return str(error)
    return "%s: %s" % (error.filename, error.strerror) if error.filename else error.strerror


def _log(options: _options.Options) -> None:
    """Log on standard error: all, or what people who look on without end should know."""
    live = options.command in ("watch", "alarms", "record") and not getattr(options, "plot", False)
    level = logging.WARNING if live and options.reconnect else logging.CRITICAL
    form = "vzclient: %(message)s"
    if options.verbose:
        level, form = logging.DEBUG, "%(asctime)s %(name)s: %(message)s"
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(logging.Formatter(form))
    logger = logging.getLogger("vzclient")
    logger.addHandler(handler)
    logger.setLevel(level)


def _discard_output() -> None:
    """Let what standard output still holds go nowhere when the interpreter flushes it."""
    try:
        with open(os.devnull, "w") as nowhere:
            os.dup2(nowhere.fileno(), sys.stdout.fileno())
    except (OSError, ValueError):
        pass
