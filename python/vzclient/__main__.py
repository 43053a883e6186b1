"""Entry point of ``python -m vzclient``."""

import sys

from .cli.main import main

sys.exit(main())
