"""A service that logs every change of some tags to an SQLite file until SIGTERM or Ctrl-C.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 07_logger_service.py changes.db Boiler Temp Level     # or 07_logger_service.service
"""
import contextlib
import datetime
import os
import signal
import sqlite3
import sys
import threading

import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]
stopping = threading.Event()


def main(path: str, driver: str, *tags: str) -> None:
    with contextlib.closing(sqlite3.connect(path, timeout=30)) as database, \
            vzclient.connect(*SERVER, read_only=True) as plant, \
            plant[driver].watch(*tags, queue=100000, overflow="oldest") as changes:
        database.execute("CREATE TABLE IF NOT EXISTS changes (driver, tag, value, time, resynced)")
        while not stopping.is_set() or changes.waiting:  # what has come is written before the end
            with contextlib.suppress(vzclient.VzTimeoutError):
                database.execute("INSERT INTO changes VALUES (?, ?, ?, ?, ?)", changes.get(1.0))
            if not changes.waiting:  # in a burst, many rows go to the disk together
                database.commit()


if __name__ == "__main__":
    sqlite3.register_adapter(datetime.datetime, str)
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda number, frame: stopping.set())
    try:
        main(*(sys.argv[1:] if len(sys.argv) > 3 else sys.exit(__doc__)))
    except vzclient.VzError as error:
        sys.exit(str(error))
