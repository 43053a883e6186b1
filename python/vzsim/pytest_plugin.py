"""Simulated plants for users' own pytest suites.

A suite asks for them with ``pytest_plugins = ["vzsim.pytest_plugin"]`` in its topmost conftest.py,
or with ``-p vzsim.pytest_plugin``. Every plant is a process of its own, started for one test and
ended with it; a failed test's report shows the logs of its plants::

    @pytest.mark.plant("boiler_house")
    def test_the_script_reads_the_pressure(simulated_plant):
        assert my_script(simulated_plant.address) == 8.0
"""

from __future__ import annotations  # older pytests do not name all these types

import contextlib
import os
from typing import Any, Callable, Dict, Iterator, List, Union

import pytest

from .process import SimProcess

Start = Callable[..., SimProcess]
_SHOWN_LINES = 500  # of a log, the last ones
_started = {}  # type: Dict[str, List[SimProcess]]  # of the tests that run, by the test's id


def pytest_configure(config: pytest.Config) -> None:
    """Tell pytest of the marker."""
    config.addinivalue_line(
        "markers", 'plant(plant="boiler_house", tick=0, ...): what simulated_plant simulates (a '
        "packaged plant, a file, relative ones beside the test's, or a table), and further "
        "arguments of vzsim.SimProcess")


@pytest.fixture
def plant_simulator(request: pytest.FixtureRequest) -> Iterator[Start]:
    """Starts plants: ``plant_simulator("boiler_house")`` gives a running ``vzsim.SimProcess``.

    The arguments are those of SimProcess, but the plant is the boiler house if none is given,
    and requests are logged unless ``verbose`` is False. All plants end with the test.
    """
    plants = _started.setdefault(request.node.nodeid, [])
    with contextlib.ExitStack() as running:
        def start(plant: Union[str, Dict[str, Any]] = "boiler_house",
                  **arguments: Any) -> SimProcess:
            arguments.setdefault("verbose", True)
            plants.append(running.enter_context(SimProcess(plant, **arguments)))
            return plants[-1]
        yield start


@pytest.fixture
def simulated_plant(request: pytest.FixtureRequest, plant_simulator: Start) -> SimProcess:
    """One running plant: what the marker ``plant`` says, or the boiler house.

    Its clock stands still, so that values move by ``step`` and orders alone, unless the marker
    says otherwise: ``tick`` are the seconds between two steps, None the plant's own.
    """
    marker = request.node.get_closest_marker("plant")
    given = marker.args if marker else ()
    arguments = dict(marker.kwargs) if marker else {}
    arguments.setdefault("tick", 0)
    if given and isinstance(given[0], (str, os.PathLike)):
        test = getattr(request.node, "path", None) or request.node.fspath
        beside = os.path.join(os.path.dirname(str(test)), os.fspath(given[0]))
        if os.path.exists(beside):
            given = (beside,) + given[1:]
    return plant_simulator(*given, **arguments)


def _shown(log: str) -> str:
    """The end of a log, and how much is left out."""
    lines = log.splitlines(True)
    left_out = len(lines) - _SHOWN_LINES
    return log if left_out <= 0 else "(%d lines before)\n%s" % (left_out, "".join(lines[left_out:]))


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Any:
    """Add the logs of a failed test's plants to its report."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for plant in _started.get(item.nodeid, []):
            title = "Plant %s at %s" % (plant.name, plant.address)
            report.sections.append((title, _shown(plant.log())))
    if call.when == "teardown":
        _started.pop(item.nodeid, None)
