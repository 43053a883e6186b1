"""Watch a plant: print tag changes and alarms as they come.

    python3 watch.py HOST[:PORT] USER PASSWORD DRIVER TAG[,TAG...] [SECONDS]

Runs until Ctrl-C, the given seconds, or the end of the connection.
"""

import sys
import time

import VzDBAccess


def on_change(driver, tag, value):
    """A subscribed tag has a new value. Runs on the library's own thread, so it returns soon."""
    text = "%.2f" % value if isinstance(value, float) else value
    print("%s  %s.%s = %s" % (time.strftime("%H:%M:%S"), driver, tag, text), flush=True)


def on_alarm(time_, event_time, tag, has_event_time, kind, group, level, value, limit, status):
    """An alarm was raised or cleared, or was active when the script subscribed."""
    print("%s  ALARM %s: %s, group %s, level %d, value %.2f, limit %.2f, status %d"
          % (time_.strftime("%H:%M:%S"), tag, kind, group, level, value, limit, status),
          flush=True)


def main(host, user, password, driver_name, tags, seconds="inf"):
    db = VzDBAccess.DBCore()
    result = db.Connect(host, user, password)
    if result != 0:
        sys.exit("Connect gave %d" % result)
    # The module borrows both functions: they are this script's own, so they live long enough.
    db.SetRtAlarmNotify(on_alarm, 1)
    driver = db.GetDriver(driver_name)
    driver.SetTagNotify(on_change)
    if not driver.ConnectTag(tags):
        sys.exit("ConnectTag failed")

    first = tags.split(",")[0]
    end = time.monotonic() + float(seconds)
    try:
        while time.monotonic() < end:
            time.sleep(0.5)
            driver.GetTagValue(first)  # from memory; raises when the connection is lost
    except RuntimeError:
        sys.exit("The server closed the connection.")
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main(*(sys.argv[1:] if len(sys.argv) in (6, 7) else sys.exit(__doc__)))
