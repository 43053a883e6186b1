"""Entry point of ``python -m vzsim``."""

import os
import sys

from .cli import main

status = main()
sys.stdout.flush()
# The control thread may be waiting on standard input; nothing is left to clean up behind it.
os._exit(status) if "--control" in sys.argv else sys.exit(status)
