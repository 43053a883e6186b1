"""Show every change of some tags until Ctrl-C, through lost connections.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 03_watch.py Boiler Temp Level
"""

import os
import sys

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]


def main(driver: str, *tags: str) -> None:
    with vzclient.connect(*SERVER, read_only=True) as plant:
        with plant[driver].watch(*tags) as changes:  # begins with the present values
            for change in changes:
                note = "  (read anew, the connection was lost)" if change.resynced else ""
                print("%s  %s = %s%s" % (change.time.strftime("%H:%M:%S.%f")[:-3], change.tag,
                                         change.value, note), flush=True)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except vzclient.VzError as error:
        sys.exit(str(error))
    except KeyboardInterrupt:
        pass
