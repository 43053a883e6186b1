"""Measures the module beside what it could be at best, and beside what else a script could use.

Each job is done by several sides in alternating rounds: the module; the floor, which is what a
hand-written extension needs to move the same bytes and build the same objects; plain Python
sockets; other systems' clients with their own servers. What is measured is the CPU time, user and
system, of the client's process, which is pinned to one core where the system lets it be. Ratios are
formed within a round, so what else the machine does meets all sides alike.
"""
import argparse
import itertools
import json
import os
import platform

import deliveries
import many_tags
import package
import round_trips
import sessions
from clients import Floor
from peers import NoPeers, Peers
from report import print_report
from servers import ReplayServer, pin_to_one_core


def cpu_model():
    try:
        with open("/proc/cpuinfo") as lines:
            for line in lines:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor()


def measure(options, core, server_core):
    jobs = {}
    with ReplayServer(options.programs) as server, \
            (Peers(options.programs) if options.peers else NoPeers()) as peers:
        for job in itertools.chain(round_trips.jobs(server, peers),
                                   deliveries.jobs(options.programs, server_core, peers),
                                   sessions.jobs(server),
                                   package.jobs(server, options.programs, server_core)):
            job.measure(options.rounds, options.seconds)
            jobs[job.name] = job.result()
        per_tag = many_tags.measure(server, Floor(server.port), options.programs, server_core,
                                    options.rounds, options.sizes)
    return {
        "machine": {"cpu": cpu_model(), "cores": os.cpu_count(), "arch": platform.machine(),
                    "kernel": platform.release(), "python": platform.python_version()},
        "core": core,
        "rounds": options.rounds,
        "jobs": jobs,
        "per_tag": per_tag,
    }


def main():
    parser = argparse.ArgumentParser(description="Measures the module beside its floor and others.")
    parser.add_argument("--programs", required=True, metavar="FOLDER",
                        help="where the programs of this folder are built")
    parser.add_argument("--json", required=True, metavar="FILE", help="gets the figures")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--seconds", type=float, default=0.1,
                        help="of one round of one side (default: %(default)s)")
    parser.add_argument("--sizes", type=int, nargs="+", default=many_tags.SIZES,
                        help="numbers of tags (default: 1 to 65535)")
    parser.add_argument("--peers", action="store_true", help="measure other systems' clients too")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("at least one round")
    core, server_core = pin_to_one_core()
    results = measure(options, core, server_core)
    print_report(results)
    with open(options.json, "w") as out:
        json.dump(results, out, indent=1)
        out.write("\n")


if __name__ == "__main__":
    main()
