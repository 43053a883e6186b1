"""Starts the plant simulator on a free port, takes the tour there, and stops everything."""

import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def main():
    env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "build", "python"),
               PYTHONIOENCODING="utf-8")
    plant = subprocess.Popen([sys.executable, "-m", "vzsim", "boiler_house", "--port", "0"],
                             env=env, stdout=subprocess.PIPE, encoding="utf-8")
    try:
        ready = plant.stdout.readline().strip()
        print(ready)
        host = ready.rsplit(" ", 1)[-1]
        tour = [sys.executable, os.path.join(HERE, "tour.py"), host, "operator", "password"]
        print("$ python3 examples/tour.py %s operator password\n" % host, flush=True)
        return subprocess.call(tour, env=env)
    finally:
        plant.terminate()
        plant.wait()


if __name__ == "__main__":
    sys.exit(main())
