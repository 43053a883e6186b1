"""Fixtures of the tests under fire."""

import threading

import pytest


class Storm:
    """Pushes changes of line1's tag "a", and alarms, to every client until it is stopped.

    Alarms only, changes only or both; the pushing thread lives in the test's process, the simulator
    in its own.
    """

    def __init__(self, plant):
        self._plant = plant
        self._stop = threading.Event()
        self.alarms = False
        self.error = None
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        try:
            while not self._stop.wait(0.005):
                if self._plant.client_count():
                    self._plant.push_series("line1", "a", 1000)
                    if self.alarms:
                        self._plant.raise_alarm(active=False, everyone=True)
        except BaseException as error:
            self.error = error

    def stop(self):
        self._stop.set()
        self._thread.join()
        assert self.error is None, self.error


@pytest.fixture
def storm(plant):
    """Thousands of changes a second, to every client of the small plant."""
    pushing = Storm(plant)
    yield pushing
    pushing.stop()
