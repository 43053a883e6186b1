"""The command ``sim``: the simulator's own, under this one's roof."""

import os
import sys

from .options import Options


def sim(options: Options) -> int:
    """Run the simulator with the arguments that follow; 1 for every way of failing."""
    from vzsim.cli import main
    try:
        status = main(options.arguments)
    except SystemExit as end:
        status = end.code  # type: ignore[assignment]
    if "--control" in options.arguments:
        # Its thread may hold the lock of standard input, which a normal exit would wait for.
        sys.stdout.flush()
        os._exit(1 if status else 0)
    return 1 if status else 0
