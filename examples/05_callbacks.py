"""Have functions called: for changes, for errors in them, for the state of the connection.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 05_callbacks.py Boiler Temp Setpoint
"""

import os
import sys
import threading

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]
UNITS = {"Temp": "°C", "Setpoint": "°C", "Level": "%"}


def on_change(change: vzclient.Change) -> None:
    """Runs on a thread that all functions of the plant share: keep it short."""
    print("%s %s %s" % (change.tag, change.value, UNITS[change.tag]), flush=True)


def on_error(error: BaseException) -> None:  # told what on_change raised; calls go on
    print("on_change failed: %r" % error, flush=True)


def on_state(state: vzclient.State) -> None:
    print("state:", state, flush=True)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    try:
        with vzclient.connect(*SERVER, read_only=True, on_state=on_state) as plant:
            plant[sys.argv[1]].on_change(on_change, *sys.argv[2:], on_error=on_error)
            threading.Event().wait()  # until Ctrl-C; a script has other work to do here
    except vzclient.VzError as error:
        sys.exit(str(error))
    except KeyboardInterrupt:
        pass
