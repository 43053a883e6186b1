"""Read tags once and show their values.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 01_read.py Boiler Temp Level Valve
"""

import os
import sys

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]


def main(driver: str, *tags: str) -> None:
    with vzclient.connect(*SERVER, read_only=True) as plant:
        for tag, value in plant[driver].read(*tags).items():  # one request, however many tags
            print("%-20s %s" % (tag, value))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except vzclient.VzError as error:
        sys.exit(str(error))
