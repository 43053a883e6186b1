"""A plant simulator: serves a described plant to real-time database clients over TCP.

``python3 -m vzsim boiler_house --port 8080`` runs the packaged boiler house. Tests use
``SimProcess`` (a process of its own) or ``Simulator`` (a thread of this process)::

    from vzsim import SimProcess

    with SimProcess("boiler_house") as sim:
        sim.fault("H", "delay", seconds=0.5)
        print(sim.address, sim.get_value("Boiler", "Steam pressure"))

``vzsim.pytest_plugin`` gives plants to pytest suites.
"""

from .operations import Operations
from .plantfile import PlantError
from .plantfile import table as read_plant
from .process import SimProcess
from .scenarios import ramp
from .simulator import Simulator

__all__ = ["Operations", "PlantError", "SimProcess", "Simulator", "ramp", "read_plant"]
