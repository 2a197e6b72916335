#!/usr/bin/python3
"""Measures the bridge between two network namespaces of this machine, side by side with the same on one machine, a bare
round trip of the DDS, gRPC over TCP, and relays that only copy bytes, over TCP and over the DDS. Ten minutes.

Everything is measured twice: with one core for each of the two machines, as if each had only that, and with both
machines on all cores, where the kernel moves the threads of one to the core of the other and back.

There are rounds, in each of which everything is measured for a moment, in an order that is drawn anew; what one figure
is divided by is that of the same round. All programs are started anew for every third: on which cores their threads
settle makes a difference. Needs root, and a build with benchmarks:

  cmake --preset release -DTARVO_BUILD_BENCH=ON
  cmake --build build/release -j2 --target tarvo-bridge tarvoctl bench_tarvo bench_tarvo-loop bench_grpc
  cmake --build build/release -j2 --target bench_tcp_floor bench_dds_floor

and an idle machine, for figures that are worth something. figures.json and tables.md go to --output.
"""

import argparse
import array
import json
import os
import pathlib
import random
import statistics
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "bench/bridge"), str(ROOT / "bench/run")]
import figures  # noqa: E402
import machine  # noqa: E402
from machines import GRPC_ENDPOINT, Pair, descriptors, private_kb  # noqa: E402

CALL = ("--kind", "call", "--size")
WINDOW = ("--kind", "window", "--size", "64", "--window", "64")
ONE_WAY = ("--kind", "oneway", "--size", "64", "--window", "500")
# Scenario: the task of a client, and by contestant the program and the server.
THREADS, LOOP, GRPC = ("tarvo", "camera"), ("tarvo-loop", "lidar"), ("grpc", GRPC_ENDPOINT)
SCENARIOS = {
    "call64": ((*CALL, "64"), THREADS, GRPC),
    "call4000": ((*CALL, "4000"), THREADS, GRPC),
    "loop64": ((*CALL, "64"), LOOP, None),
    "callers64": ((*CALL, "64", "--lanes", "64"), THREADS, GRPC),
    "window64": (WINDOW, LOOP, GRPC),
    "oneway64": (ONE_WAY, THREADS, GRPC),
}
# Scenario of the floors: bytes, calls under way, and calls of a second.
FLOOR = {"call64": (64, 1, 12000), "call4000": (4000, 1, 8000), "window64": (64, 64, 150000)}
DDS = {"call64": 64, "call4000": 4000}
# Over the floor over the DDS, between the clients and servers that the bridge has.
ENDS = ("call64", "call4000", "loop64")
SESSIONS = 2000
ROUNDS_OF_A_START = 3
EVERY = [str(core) for core in sorted(os.sched_getaffinity(0))]
# The cores of the machine of the servers, and of that of the clients.
CORES = {"own": (EVERY[0], EVERY[-1]), "shared": (",".join(EVERY),) * 2}


def ask(client):
    """What a client measures in one run of its task."""
    child, file = client
    said = child.ask("run 0")
    samples = array.array("q")
    with open(file, "rb") as source:
        samples.frombytes(source.read())
    operations = said["operations"]
    found = {"rate": operations / (said["end"] - said["begin"]) * 1e9,
             "cpu": (said["own_time"] + said["server_time"]) / operations / 1e3}
    if samples:
        found["p50"] = statistics.median(samples) / 1e3
    return found


def relayed(pair, relay, scenario, seconds):
    size, window, rate = FLOOR[scenario]
    p50, rate, cpu = pair.floor_calls(relay, size, int(rate * seconds), window)
    return {"p50": p50, "rate": rate, "cpu": cpu}


class Bench:
    """All that is measured. Cells: (scenario, contestant) -> a function that measures it once."""

    def __init__(self, arguments, cores):
        self.seconds, self.pairs, self.cells = arguments.seconds, [], {}
        self.build, self.only, self.cores = arguments.build.resolve(), arguments.only, cores
        try:
            self.others = self.add_pair(self.build / "bridge/tarvo-bridge", "bridge")
            if arguments.before:
                self.add_pair(arguments.before.resolve(), "before")
            self.add_others()
        except BaseException:
            self.close()
            raise

    def wants(self, scenario):
        return not self.only or scenario in self.only

    def close(self):
        for pair in self.pairs:
            pair.close()

    def add_pair(self, bridge, name):
        pair = Pair(self.build, bridge, self.cores)
        self.pairs.append(pair)
        pair.serve(*THREADS)
        pair.serve(*LOOP)
        pair.start_bridges(THREADS[1], LOOP[1])
        self.add_clients(pair, pair.rear, name, 1)
        if name == "bridge":
            self.add_clients(pair, pair.front, "here", 1)
        return pair

    def add_clients(self, pair, place, name, column):
        for scenario, columns in SCENARIOS.items():
            if columns[column] and self.wants(scenario):
                client = pair.client(place, *columns[column], *columns[0], "--seconds", self.seconds)
                self.cells[scenario, name] = lambda client=client: ask(client)

    def add_others(self):
        pair = self.others
        if pair.program("grpc").exists():
            pair.serve(*GRPC)
            self.add_clients(pair, pair.rear, "grpc", 2)
        pair.start_floor()
        pair.start_dds_floor()
        pair.start_dds()
        for scenario in filter(self.wants, FLOOR):
            for name, relay in (("floor", "tcp"), ("dds_floor", "dds")):
                self.cells[scenario, name] = lambda one=scenario, of=relay: relayed(pair, of, one, self.seconds)
        for scenario in filter(self.wants, ENDS):
            client = pair.client_of_floor(*SCENARIOS[scenario][1], *SCENARIOS[scenario][0], "--seconds", self.seconds)
            # What it takes of the processor is not known: the copying processes come after the client.
            self.cells[scenario, "dds_ends"] = lambda client=client: {"p50": ask(client)["p50"]}
        for scenario in filter(self.wants, DDS):
            self.cells[scenario, "dds"] = lambda size=DDS[scenario]: {"p50": pair.dds_round_trip(size, 2)}

    def measure(self):
        """One round: {scenario: {contestant: figures}}."""
        found = {}
        for (scenario, name), look in random.sample(sorted(self.cells.items(), key=str), len(self.cells)):
            found.setdefault(scenario, {})[name] = look()
        return found

    def sessions(self, count):
        """What so many clients at once cost: one process opens them, one after the other."""
        pair = self.others
        before = [(private_kb(pid), descriptors(pid)) for pid in pair.bridges]
        begun = time.monotonic()
        pair.client(pair.rear, *LOOP, *CALL, "64", "--pipes", count, "--warm-up", 1)
        took = time.monotonic() - begun
        found = {"sessions": count, "seconds": took}
        for place, pid, (kb, files) in zip(("front", "rear"), pair.bridges, before):
            found[place] = {"private_kb": (private_kb(pid) - kb) / count, "descriptors": descriptors(pid) - files}
        return found


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="default: build/release")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/bench/bridge",
                        help="default: build/bench/bridge")
    parser.add_argument("--rounds", type=int, default=9, help="default: 9")
    parser.add_argument("--seconds", type=float, default=1, help="for each figure in a round; default: 1")
    parser.add_argument("--minutes", type=float, default=7,
                        help="on the same cores, begin no round that ends later; default: 7")
    parser.add_argument("--cores", choices=CORES, action="append",
                        help="one core of its own for each machine, or all cores for both; default: both forms")
    parser.add_argument("--before", type=pathlib.Path, metavar="PROGRAM", help="another tarvo-bridge, beside this one")
    parser.add_argument("--only", type=lambda text: text.split(","), metavar="SCENARIO,...",
                        help=f"of {', '.join(SCENARIOS)}; also leaves out what many sessions cost")
    parser.add_argument("--sessions", type=int, default=SESSIONS,
                        help=f"how many; default: {SESSIONS}; 0: leave it out")
    parser.add_argument("--page", action="store_true",
                        help="put the tables of --output into docs/bridge.md; measures nothing")
    arguments = parser.parse_args()
    arguments.cores = arguments.cores or list(CORES)
    return arguments


def busy_share(seconds=1):
    """Of all processors, before anything is measured. Load averages still tell of what has ended."""
    def ticks():
        user, nice, system, idle, waiting, *others = map(int, pathlib.Path("/proc/stat").read_text().split()[1:9])
        return idle + waiting, user + nice + system + sum(others)
    before = ticks()
    time.sleep(seconds)
    idle, busy = (after - earlier for after, earlier in zip(ticks(), before))
    return busy / max(idle + busy, 1)


def measure(arguments, name, with_sessions):
    """Rounds on some cores; none begins that would end after the limit. What many sessions cost comes last."""
    found = {"cores": name, "rounds": [], "busy_before": busy_share()}
    begun, done, bench = time.monotonic(), found["rounds"], None
    try:
        while len(done) < arguments.rounds:
            passed = time.monotonic() - begun
            if done and passed * (1 + 1 / len(done)) > 60 * arguments.minutes:
                break
            if len(done) % ROUNDS_OF_A_START == 0:
                if bench:
                    bench.close()
                bench = Bench(arguments, CORES[name])
            done.append(bench.measure())
            passed = time.monotonic() - begun
            print(f"{name} cores: round {len(done)} of {arguments.rounds}, {passed:.0f} s", file=sys.stderr)
        if with_sessions:
            found["sessions"] = bench.sessions(arguments.sessions)
    finally:
        if bench:
            bench.close()
    return found


def main():
    arguments = parse()
    if arguments.page:
        figures.write_page(json.loads((arguments.output / "figures.json").read_text(encoding="utf-8")),
                           ROOT / "docs/bridge.md")
        return
    document = {"machine": machine.describe(), "command": " ".join(sys.argv), "runs": []}
    for name in arguments.cores:
        with_sessions = arguments.sessions and not arguments.only and name == arguments.cores[-1]
        document["runs"].append(measure(arguments, name, with_sessions))
    arguments.output.mkdir(parents=True, exist_ok=True)
    (arguments.output / "figures.json").write_text(json.dumps(document, indent=1), encoding="utf-8")
    text = figures.tables(document)
    (arguments.output / "tables.md").write_text(text, encoding="utf-8")
    print(text)


if __name__ == "__main__":
    main()
