"""A tour of VzDBAccess: log in to a plant, look around, read, write, follow, and be told.

    python3 tour.py HOST[:PORT] USER PASSWORD

Made for the boiler house of the plant simulator (python3 -m vzsim boiler_house --port 8080).
"""

import sys
import time
import unicodedata

import VzDBAccess

TAGS = {
    "Boiler": ["Steam pressure", "Pressure setpoint", "锅炉水位", "Burner on", "运行状态"],
    "水泵": ["Feed pump 1 running", "Feed pump 1 speed", "循环泵转速", "Selected pump"],
    "Network": ["供水温度", "回水温度", "Heat power", "天气"],
}


def wide(text, width):
    """Pad a text that may hold Chinese characters, which are two columns wide."""
    columns = sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)
    return text + " " * (width - columns)


def show(driver_name, driver, names):
    """Print the values of some tags; one name is asked at a time, so none can be missing."""
    for name in names:
        value = driver.GetTagValue(name)
        text = "%.2f" % value if isinstance(value, float) else str(value)
        print("    %s %s %s" % (wide(driver_name, 9), wide(name, 22), text))


def main(host, user, password):
    db = VzDBAccess.DBCore()
    result = db.Connect(host, user, password)
    if result != 0:
        sys.exit("Connect gave %d" % result)
    print("Connected to %s as %s." % (host, user))

    drivers = {name: db.GetDriver(name) for name in TAGS}
    print("\nValues read:")
    for name, driver in drivers.items():
        show(name, driver, TAGS[name])

    pumps = drivers["水泵"]
    before = pumps.GetTagValue("Feed pump 1 speed setpoint")
    target = 2400 if before > 2600 else 2900
    result = pumps.SetTagValue("Feed pump 1 speed setpoint", target)
    print("\nThe feed pump's speed setpoint goes from %d to %d rpm; SetTagValue gave %d."
          % (before, target, result))
    print("The speed follows:")
    for _ in range(6):
        time.sleep(0.8)
        setpoint, speed = pumps.GetTagValue("Feed pump 1 speed setpoint,Feed pump 1 speed")
        print("    setpoint %d rpm, speed %d rpm" % (setpoint, speed))

    del db
    try:
        pumps.GetTagValue("Feed pump 1 speed")
    except RuntimeError as error:
        print("\nDisconnected. The driver says: %s" % error)


if __name__ == "__main__":
    main(*(sys.argv[1:] if len(sys.argv) == 4 else sys.exit(__doc__)))
