"""Write a number, within limits of your own, and make sure that the plant has taken it.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 02_write.py Boiler Setpoint 82.5
"""

import math
import os
import sys
import time

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]
LIMITS = {"Setpoint": (20.0, 95.0)}  # of tags that need some


def main(driver: str, tag: str, text: str) -> None:
    value = float(text)
    low, high = LIMITS.get(tag, (-math.inf, math.inf))
    if not low <= value <= high:
        sys.exit("not written: %g is outside %g to %g" % (value, low, high))
    with vzclient.connect(*SERVER) as plant:
        plant[driver][tag] = value
        for _ in range(10):  # the server does not acknowledge writes, so look what became of it
            present = plant[driver][tag]
            if isinstance(present, (int, float)) and math.isclose(present, value, rel_tol=1e-6):
                return print("%s is %s" % (tag, present))
            time.sleep(0.2)
    sys.exit("written, but %s is still %s" % (tag, present))


if __name__ == "__main__":
    try:
        main(*(sys.argv[1:] if len(sys.argv) == 4 else sys.exit(__doc__)))
    except (vzclient.ConnectionLost, vzclient.VzTimeoutError) as error:
        sys.exit("perhaps written: %s" % error)
    except (vzclient.VzError, ValueError) as error:  # WriteDenied, ValueRejected, UnknownTag, ...
        sys.exit("not written: %s" % error)
