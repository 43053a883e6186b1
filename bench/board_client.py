"""What runs on the board's interpreter while bench/board.py measures.

    python3 board_client.py rss|heap|count HOST:PORT

After each step it prints a line and waits for one: the name of the step, with "heap" also the bytes
in use of the C library's heap. It imports nothing that the module would not bring itself; "heap"
alone needs ctypes, so resident memory is measured without.
"""
import sys

BATCH = 500
READS = {1: 200, 100: 50}  # tags in one read: number of reads
CHANGES = 2000


def heap_in_use():
    import ctypes

    class Info(ctypes.Structure):
        _fields_ = [(name, ctypes.c_size_t) for name in (
            "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks",
            "fordblks", "keepcost")]

    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = Info
    info = mallinfo2()
    return info.uordblks + info.hblkhd


def tell(*words):
    print(*words, flush=True)
    sys.stdin.readline()


def names(first, count):
    return ",".join(["measuring_%05d" % n for n in range(first, first + count)])


def subscribe(db, driver_name, count):
    driver = db.GetDriver(driver_name)
    for first in range(0, count, BATCH):
        driver.ConnectTag(names(first, BATCH))
    assert driver.GetTagValue(names(0, 3)) == [0, 1, 2]
    return driver


def grow(step, host):
    """Import, connect, subscribe: a step after each."""
    step("bare")
    import VzDBAccess
    step("import")
    db = VzDBAccess.DBCore()
    assert db.Connect(host, "operator", "password") == 0
    step("connect")
    kept = [subscribe(db, "small", 1000)]
    step("1000")
    kept.append(subscribe(db, "large", 10000))
    step("10000")


def mark():
    """Has the emulator print the instructions so far."""
    import os
    try:
        os.close(-4711)
    except OSError:
        pass


def count(host):
    """Marks before and after some reads and twice as many, then some changes and twice as many."""
    import threading
    import VzDBAccess
    db = VzDBAccess.DBCore()
    assert db.Connect(host, "operator", "password") == 0
    driver = db.GetDriver("small")
    for tags, reads in READS.items():
        asked = names(0, tags)
        driver.GetTagValue(asked)
        mark()
        for _ in range(reads):
            driver.GetTagValue(asked)
        mark()
        for _ in range(2 * reads):
            driver.GetTagValue(asked)
        mark()
    done = threading.Semaphore(0)

    def on_change(driver, tag, value):
        if value < 0:
            done.release()

    driver.SetTagNotify(on_change)
    for changes in (CHANGES, CHANGES, 2 * CHANGES):  # the first ones warm up
        tell(changes)
        done.acquire()
        mark()


def main(kind, host):
    if kind == "count":
        count(host)
    elif kind == "heap":
        heap_in_use()
        grow(lambda name: tell(name, heap_in_use()), host)
    else:
        grow(tell, host)


if __name__ == "__main__":
    main(*sys.argv[1:])
