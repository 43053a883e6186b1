"""Show the alarms that are active, then every alarm that is raised or cleared, until Ctrl-C.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 04_alarms.py [LOWEST_LEVEL]
"""

import os
import sys

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]


def main(lowest: str = "0") -> None:
    with vzclient.connect(*SERVER, read_only=True) as plant:
        with plant.alarms() as alarms:
            for alarm in alarms:
                if alarm.level >= int(lowest):
                    print("%s  level %d  %s: %s %s, value %g, limit %g" % (
                        alarm.time.strftime("%Y-%m-%d %H:%M:%S"), alarm.level, alarm.tag,
                        alarm.kind, "raised" if alarm.status else "cleared", alarm.value,
                        alarm.limit), flush=True)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except vzclient.VzError as error:
        sys.exit(str(error))
    except KeyboardInterrupt:
        pass
