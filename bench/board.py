"""Measures what the module costs the board: size, memory, threads, instructions.

The board's interpreter runs under the emulator, with the module built for the board; the plant
simulator runs beside it on this machine's own interpreter.

Resident memory is that of the emulated process alone. The emulator gets a fixed place for the
program's address space, and only mappings in there are counted: neither its own memory nor its
translations. They have this machine's pages, of 4 KB as the board's are.
"""
import argparse
import contextlib
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "python"))

from board_client import CHANGES, READS  # noqa: E402
from vzsim import SimProcess  # noqa: E402

PROGRAM_BASE = 0x200000000  # where the emulator places the program's 4 GB
PROGRAM_END = PROGRAM_BASE + (1 << 32)
STEPS = {
    "bare": "bare interpreter",
    "import": "after import",
    "connect": "after Connect",
    "1000": "with 1,000 tags subscribed",
    "10000": "with 10,000 more",
}
PLANT = {
    "name": "board", "project": "board", "tick": 0,
    "users": [{"name": "operator", "password": "password", "rights": 8}],
    "drivers": [
        {"name": name, "id": number, "tags": [
            {"name": "measuring_%05d" % n, "type": "i4", "value": n} for n in range(count)]}
        for number, (name, count) in enumerate((("small", 1000), ("large", 10000)))],
}


@contextlib.contextmanager
def simulated_plant():
    with SimProcess(PLANT) as plant:
        yield plant
        shutil.rmtree("/tmp/vzbrowser/%s_%d" % (plant.host, plant.port), ignore_errors=True)


class Client:
    """The script of the board, under the emulator. Steps are read with ``next``."""

    def __init__(self, options, kind, plant, *emulator_options):
        self._errors = tempfile.TemporaryFile("w+")
        self._process = subprocess.Popen(
            ["qemu-arm", "-B", hex(PROGRAM_BASE), "-L", options.sysroot] + list(emulator_options) +
            [os.path.join(options.sysroot, "usr/bin/python3.11"),
             os.path.join(HERE, "board_client.py"), kind, "%s:%d" % (plant.host, plant.port)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors,
            env=dict(os.environ, PYTHONPATH=options.import_path), encoding="utf-8")

    def __iter__(self):
        """The words of each step; the step ends when the next is asked for."""
        for line in self._process.stdout:
            yield line.split()
            self._process.stdin.write("\n")
            self._process.stdin.flush()

    def end(self):
        """Waits for the end; returns what stands on standard error."""
        self._process.stdin.close()
        code = self._process.wait(timeout=60)
        self._errors.seek(0)
        errors = self._errors.read()
        if code:
            sys.exit("the board's script failed: %s\n%s" % (code, errors))
        return errors

    def threads(self):
        return len(os.listdir("/proc/%d/task" % self._process.pid))

    def resident(self):
        """Bytes resident in the program's mappings, and those of them that it has written."""
        resident = written = 0
        counts = False
        with open("/proc/%d/smaps" % self._process.pid) as stream:
            for line in stream:
                place = re.match(r"([0-9a-f]+)-[0-9a-f]+ ", line)
                if place:
                    counts = PROGRAM_BASE <= int(place.group(1), 16) < PROGRAM_END
                elif counts and line.startswith("Rss:"):
                    resident += int(line.split()[1]) * 1024
                elif counts and line.startswith("Private_Dirty:"):
                    written += int(line.split()[1]) * 1024
        return resident, written


def module_bytes(options):
    """Size of the module without symbols."""
    folder = options.import_path
    module, = [name for name in os.listdir(folder) if re.match(r"VzDBAccess.*\.so$", name)]
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped.name,
                        os.path.join(folder, module)], check=True)
        return os.path.getsize(stripped.name)


def measure_memory(options):
    """Per step: resident bytes, written ones, threads, heap bytes."""
    found = {}
    with simulated_plant() as plant:
        client = Client(options, "rss", plant)
        for name, in client:
            found[name] = client.resident() + (client.threads(),)
        client.end()
        client = Client(options, "heap", plant)
        for name, heap in client:
            found[name] += (int(heap),)
        client.end()
    return found


def measure_instructions(options):
    """Instructions of one read, by the number of its tags, and of one delivered change."""
    with simulated_plant() as plant:
        client = Client(options, "count", plant, "-plugin", options.plugin)
        for count, in client:
            plant.push_series("small", "measuring_00000", int(count) - 1)
            plant.push_series("small", "measuring_00000", 1, first=-1)
        marks = [int(n) for n in re.findall(r"^instructions (\d+)$", client.end(), re.MULTILINE)]
    reads = {}
    for tags, number in READS.items():
        start, once, twice, *marks = marks
        reads[tags] = ((twice - once) - (once - start)) / number
    start, once, twice = marks
    return reads, ((twice - once) - (once - start)) / CHANGES


def main():
    parser = argparse.ArgumentParser(description="Measures what the module costs the board.")
    parser.add_argument("--sysroot", required=True, help="the board's root")
    parser.add_argument("--import-path", required=True, help="folder with the board's module")
    parser.add_argument("--plugin", required=True, help="the emulator's plugin that counts")
    options = parser.parse_args()

    print("%-40s %12d bytes" % ("module, stripped", module_bytes(options)))
    memory = measure_memory(options)
    print("\n%-30s %12s %10s %12s %10s %8s" % (
        "memory, KB", "resident", "added", "of it written", "heap added", "threads"))
    before = memory["bare"]
    for name, text in STEPS.items():
        now = memory[name]
        print("%-30s %12d %10d %12d %10.1f %8d" % (
            text, now[0] / 1024, (now[0] - before[0]) / 1024, (now[1] - before[1]) / 1024,
            (now[3] - before[3]) / 1024, now[2] - memory["bare"][2] + 1))
        before = now
    for name, last in (("1000", "connect"), ("10000", "1000")):
        print("%-40s %12.1f bytes" % (
            "heap for each of %s tags" % name, (memory[name][3] - memory[last][3]) / int(name)))
    reads, change = measure_instructions(options)
    print()
    for tags, instructions in reads.items():
        print("%-40s %12d instructions" % ("read of %d" % tags, instructions))
    print("%-40s %12d instructions" % ("change delivered", change))


if __name__ == "__main__":
    main()
