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

    boiler = drivers["Boiler"]
    before = boiler.GetTagValue("Pressure setpoint")
    target = 9.5 if before < 9.0 else 7.5
    print("\nThe pressure setpoint goes from %.1f to %.1f bar; SetTagValue gave %d."
          % (before, target, boiler.SetTagValue("Pressure setpoint", target)))
    print("The pressure follows:")
    for _ in range(5):
        time.sleep(0.6)
        setpoint, pressure = boiler.GetTagValue("Pressure setpoint,Steam pressure")
        print("    setpoint %.1f bar, steam pressure %.2f bar" % (setpoint, pressure))

    del db
    try:
        boiler.GetTagValue("Steam pressure")
    except RuntimeError as error:
        print("\nDisconnected. The driver says: %s" % error)


if __name__ == "__main__":
    main(*(sys.argv[1:] if len(sys.argv) == 4 else sys.exit(__doc__)))
