"""Starts the plant simulator on a free port, takes the tour there, watches it for a moment, and
stops everything."""

import os
import shlex
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def show(example, arguments, env):
    """Run an example before the reader's eyes; returns its exit code."""
    print("\n$ python3 examples/%s %s\n" % (example, " ".join(map(shlex.quote, arguments))),
          flush=True)
    return subprocess.call([sys.executable, os.path.join(HERE, example)] + arguments, env=env)


def main():
    env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "build", "python"),
               PYTHONIOENCODING="utf-8")
    plant = subprocess.Popen([sys.executable, "-m", "vzsim", "boiler_house", "--port", "0"],
                             env=env, stdout=subprocess.PIPE, encoding="utf-8")
    try:
        ready = plant.stdout.readline().strip()
        print(ready)
        host = ready.rsplit(" ", 1)[-1]
        login = [host, "operator", "password"]
        return show("tour.py", login, env) or show(
            "watch.py", login + ["Boiler", "Steam pressure,锅炉水位,Burner load", "5"], env)
    finally:
        plant.terminate()
        plant.wait()


if __name__ == "__main__":
    sys.exit(main())
