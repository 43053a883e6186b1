"""Read tags at an interval, as rows of CSV, until Ctrl-C. A lost connection costs its rows alone.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 06_poll.py SECONDS Boiler Temp Level >>boiler.csv
"""

import csv
import datetime
import os
import sys
import time

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]


def main(seconds: str, driver: str, *tags: str) -> None:
    rows = csv.writer(sys.stdout, lineterminator="\n")
    with vzclient.connect(*SERVER, read_only=True) as plant:
        due = time.monotonic()
        while True:
            try:
                values = plant[driver].read(*tags)
                rows.writerow([datetime.datetime.now().astimezone()] + list(values.values()))
                sys.stdout.flush()
            except (vzclient.ConnectionLost, vzclient.VzTimeoutError) as error:
                print("no values: %s" % error, file=sys.stderr, flush=True)
            # Reckoned from when it was due, so it does not drift. When late, it goes on at once.
            due = max(due + float(seconds), time.monotonic())
            time.sleep(max(0.0, due - time.monotonic()))


if __name__ == "__main__":
    try:
        main(*(sys.argv[1:] if len(sys.argv) > 3 else sys.exit(__doc__)))
    except vzclient.VzError as error:
        sys.exit(str(error))
    except KeyboardInterrupt:
        pass
