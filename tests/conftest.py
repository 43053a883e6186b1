"""Fixtures of the tests that drive the built module.

The module is imported only in child interpreters, started from a command given as a list, so the
same tests run under other interpreters, preloaded sanitizers and emulators, and a crash fails one
test. The plant simulator runs in a process of its own: methods hold the interpreter lock while they
wait.

VZ_INTERPRETER   command of the interpreter under test, as a shell would split it
VZ_IMPORT_PATH   folder that it imports from (build/python)
VZ_PRELOAD       libraries preloaded into it, joined with ":"
VZ_TIME_SCALE    factor on every deadline
VZ_ROUNDS_SCALE  factor on how often tests repeat what a rare coincidence might break
"""

import os
import shutil
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))
sys.path.insert(0, os.path.join(ROOT, "tests", "harness"))
sys.path.append(os.path.join(ROOT, "build", "python"))  # what the package's Python half imports

from cache import cache_folder  # noqa: E402
from plants import SMALL_PLANT  # noqa: E402
from script import Script  # noqa: E402
from vzsim import SimProcess  # noqa: E402


@pytest.fixture
def plant():
    """The small plant, simulated; its clock stands still."""
    with SimProcess(SMALL_PLANT) as simulator:
        yield simulator
        shutil.rmtree(cache_folder("%s:%d" % (simulator.host, simulator.port)), True)


@pytest.fixture
def script():
    """A script in a child interpreter, which must end well and say nothing on standard error."""
    with Script() as child:
        yield child


@pytest.fixture
def session(plant, script):
    """A script connected to the small plant as its operator: ``db``, and ``drv`` of line1."""
    script.connect(plant)
    script("drv = db.GetDriver('line1')")
    plant.requests(clear=True)
    return script
