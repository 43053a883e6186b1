"""Entry point of ``python -m vzsim``."""

import os
import sys

from .cli import main

status = main()
sys.stdout.flush()
if "--control" in sys.argv:
    # The control thread may hold the lock of standard input, which a normal exit would wait for.
    os._exit(status)
sys.exit(status)
