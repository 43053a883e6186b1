"""Counts the instructions of four jobs and holds them to the budget in budget.json.

Times are too noisy to be tested; counts are not. They depend on compiler, C library, interpreter
and what the processor can do, which make the key that a budget is kept under. Under a key that is
not there nothing is expected: the counts are printed.

A function's count is what one operation spends in it and in all that it calls which is not the
module's: the interpreter, the C and C++ libraries. So the counts of a job's functions add up to
those of the job, and what makes a job dearer shows where it is called.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

from servers import ReplayServer

HERE = os.path.dirname(os.path.abspath(__file__))
BUDGET = os.path.join(HERE, "budget.json")
SOURCES = os.path.join(os.path.dirname(HERE), "src") + os.sep
ALLOWED_GROWTH = 1.05
SHOWN = 5  # functions of a job that grew

NAMED = re.compile(r"(?:\((\d+)\))?\s*(.*)")


class Profile:
    """Reads one of callgrind's files: the counts of the module's functions, for all runs together.

    Names are given in full where they are first met, "(7) name", and as "(7)" afterwards; files
    and functions have numbers of their own. names: what was met in the files before.
    """

    def __init__(self, path, names):
        self._names = names
        self._self = {}  # function: instructions of its own
        self._calls = []  # (caller, callee, instructions)
        self._own = set()  # functions with a line of ours, maybe inlined
        with open(path) as lines:
            self._read(lines)

    def _name(self, kind, text):
        number, name = NAMED.fullmatch(text).groups()
        if name:
            self._names[kind, number] = name
        return self._names[kind, number]

    def _read(self, lines):
        function = callee = None
        called = False  # the line that follows tells what a call took
        for line in lines:
            key, _, text = line.strip().partition("=")
            if key in ("fl", "fi", "fe"):
                path = os.path.normpath(self._name("file", text))
                ours = path.startswith(SOURCES)
            elif key in ("cfi", "cfl"):
                self._name("file", text)
            elif key in ("ob", "cob"):
                self._name("object", text)
            elif key == "fn":
                function = self._name("function", text)
            elif key == "cfn":
                callee = self._name("function", text)
            elif key == "calls":
                called = True
            elif function and line[0] in "0123456789+-*":
                count = int(line.split()[1])
                if called:
                    self._calls.append((function, callee, count))
                else:
                    self._self[function] = self._self.get(function, 0) + count
                    if ours:
                        self._own.add(function)
                called = False

    def counts(self):
        counts = {function: self._self[function] for function in self._own}
        for caller, callee, count in self._calls:
            if caller in self._own and callee not in self._own:
                counts[caller] += count
        return counts


def per_run(counts, runs):
    """Counts of one run, without those that are less than an instruction."""
    figures = {function: round(count / runs, 1) for function, count in counts.items()}
    return {function: count for function, count in sorted(figures.items()) if count >= 1}


def count(programs):
    """The key of this machine, and for each job the counts of the module's functions."""
    with ReplayServer(programs) as server, tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        command = ["valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no",
                   "--callgrind-out-file=" + out,
                   os.path.join(programs, "budget"), str(server.port)]
        done = subprocess.run(command, env=dict(os.environ, PYTHONHASHSEED="0"), timeout=120,
                              stdout=subprocess.PIPE, encoding="utf-8")
        if done.returncode != 0:
            sys.exit("budget: valgrind failed")
        key, *jobs = done.stdout.splitlines()
        names = {}
        counts = {}
        for number, job in enumerate(jobs, 1):
            name, runs = job.split(" / ")
            profile = Profile("%s.%d" % (out, number), names)
            counts[name] = per_run(profile.counts(), int(runs))
            if not counts[name]:
                sys.exit("budget: no function of the module is known: built without -g?")
        return key, counts


def total(functions):
    return sum(functions.values())


def compare(counts, budget):
    """What there is to say of each job, and whether all jobs keep to the budget."""
    lines = []
    kept = True
    for job, functions in counts.items():
        line = "%-16s %7.0f instructions" % (job, total(functions))
        known = budget.get(job)
        if known is None:
            lines.append(line)
            continue
        lines.append("%s, budget %7.0f: %+.1f %%" % (
            line, total(known), 100 * (total(functions) / total(known) - 1)))
        if total(functions) <= ALLOWED_GROWTH * total(known):
            continue
        kept = False
        growth = {name: count - known.get(name, 0) for name, count in functions.items()}
        for name in sorted(growth, key=growth.get, reverse=True)[:SHOWN]:
            if growth[name] > 0:
                lines.append("    grew: %s, %.0f after %.0f" % (
                    name, functions[name], known.get(name, 0)))
    return lines, kept


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--programs", required=True, metavar="FOLDER",
                        help="where replay_server and budget are")
    parser.add_argument("--budget", default=BUDGET, metavar="FILE", help="default: %(default)s")
    parser.add_argument("--renew", action="store_true",
                        help="make the counts the budget of their key")
    options = parser.parse_args()
    key, counts = count(options.programs)
    with open(options.budget) as lines:
        budgets = json.load(lines)
    lines, kept = compare(counts, budgets.get(key, {}))
    print(key)
    print("\n".join(lines))
    if options.renew:
        budgets[key] = counts
        with open(options.budget, "w") as out:
            json.dump(budgets, out, indent=1, sort_keys=True)
            out.write("\n")
    elif key not in budgets:
        print("no budget is kept under this key; ./dev bench --budget makes one")
    elif not kept:
        sys.exit("a job takes more than %.0f %% over its budget" % (100 * (ALLOWED_GROWTH - 1)))


if __name__ == "__main__":
    main()
