"""The child's end of harness/script.py: runs code from standard input, one JSON text a line."""

import collections
import gc
import json
import os
import signal
import sys
import threading
import time

# An emulator has threads of its own, which are there before the interpreter runs.
EMULATOR = [int(tid) for tid in os.listdir("/proc/self/task") if int(tid) != os.getpid()]

import VzDBAccess  # noqa: E402


def slots(values):
    """Length of a list, and the objects in it in no order: an empty slot is never touched."""
    return len(values), gc.get_referents(values)


def contents(values):
    """The slots of a list in order, "<empty>" for an empty one; the list is used up."""
    found = []
    while values:
        before = gc.get_referents(values)
        del values[:1]  # takes an empty slot out without touching what is not there
        left = collections.Counter(map(id, gc.get_referents(values)))
        gone = [item for item in before if left.subtract([id(item)]) or left[id(item)] < 0]
        found.append(gone[0] if gone else "<empty>")
    return found


def descriptors():
    """Open descriptors of this process, but for the one that lists them."""
    return len(os.listdir("/proc/self/fd")) - 1


def threads():
    """Threads of this process, the interpreter's and others, but for an emulator's own."""
    return len(os.listdir("/proc/self/task")) - len(EMULATOR)


def _run(code, names):
    try:
        body = compile(code, "<script>", "eval")
    except SyntaxError:
        exec(compile(code, "<script>", "exec"), names)
        return None
    return eval(body, names)


def main():
    # What starts the tests in the background may have left it ignored, and so inherited.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    # Results have the real standard output to themselves; what the script prints goes to error.
    results = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)
    names = {"VzDBAccess": VzDBAccess, "os": os, "sys": sys, "time": time, "gc": gc,
             "threading": threading, "slots": slots, "contents": contents,
             "descriptors": descriptors, "threads": threads}
    for line in sys.stdin:
        try:
            answer = {"value": ascii(_run(json.loads(line), names))}
        except BaseException as error:
            answer = {"error": [type(error).__name__, str(error)]}
        results.write(json.dumps(dict(answer, emulator=EMULATOR)) + "\n")
        results.flush()
    # The script's own objects outlive this function, as a script's globals do.
    sys.modules["__main__"].__dict__.update(names)


main()
