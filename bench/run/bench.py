#!/usr/bin/python3
"""Measures the contestants that were built, each with its server and its clients in processes of their own.

scripts/bench.sh builds them and runs this.
"""
import argparse
import json
import os
import random
import sys
import time
from datetime import datetime, timezone

import counted
import machine
import page
import tables
from figures import Results
from measure import Contestant, discover, measure
from processes import Failure, raise_descriptor_limit
from scenarios import AGAIN, BEFORE, COUNTED, FORMS, LANES, LEAST_SAMPLES, SCENARIOS, TOLD_TWICE
from urgent import measure_urgent

OWN = ["tarvo", "tarvo-loop", "fifo", "floor", "floor-sem", "floor-shared", "loop-floor"]
PEERS = ["zeromq", "nng", "sd-bus", "dbus", "capnproto", "grpc"]
KNOWN = OWN + PEERS
# For the estimate: calls and connections a second that the slowest reach, the seconds that the processes of a
# measurement take to start and end, and each further client.
CALLS, CONNECTS = {True: 15_000, False: 40_000}, 1500
OVERHEAD, START_OF_CLIENT = 0.25, 0.005
AROUND_STRESS = 5  # seconds before and after each measurement under stress


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench.sh", description=__doc__)
    parser.add_argument("--programs", required=True, help="folder of the contestants' programs")
    parser.add_argument("--output", required=True, help="folder for figures.json, tables.md and the plots")
    parser.add_argument("--form", choices=FORMS, default="quick")
    parser.add_argument("--before", help=f"a folder with another build of the library: measured too, as {BEFORE}")
    parser.add_argument("--stats", action="store_true", help="each engine with its statistics kept, too, as " +
                        " and ".join(COUNTED.values()))
    parser.add_argument("--contestants", type=names, help="only these (and the floors, for the ratios)")
    parser.add_argument("--scenarios", type=names, help="only these, without calls under stress: " +
                        ", ".join(one.name for one in SCENARIOS))
    parser.add_argument("--cores", type=names, default={"one", "all"}, help="only one, or all")
    parser.add_argument("--rounds", type=int, help="instead of the form's")
    parser.add_argument("--seconds", type=float, help="of each measurement at least, instead of the form's")
    parser.add_argument("--minutes", type=float, help="begin nothing after so long, and say in the tables what is missing "
                        "then (default: the form's, unless one of the five options above chooses)")
    parser.add_argument("--seed", type=int, default=None, help="of the order of contestants")
    parser.add_argument("--no-peers", action="store_true", help="without the other messaging systems")
    parser.add_argument("--no-plots", action="store_true", help="draw none, and do without matplotlib")
    parser.add_argument("--no-urgent", action="store_true", help="without the calls under stress")
    return parser.parse_args()


def names(text):
    return set(text.split(","))


def contestants_of(options):
    """Those that take part, with the library twice: how far the two differ is what the run can tell apart."""
    found = discover(options.programs)
    if "tarvo" in found:
        tarvo = found["tarvo"]
        found[AGAIN] = Contestant(AGAIN, tarvo.program, tarvo.described)
        if options.before:
            before = {"LD_LIBRARY_PATH": os.path.abspath(options.before)}
            found[BEFORE] = Contestant(BEFORE, tarvo.program, tarvo.described, before)
    if options.stats:
        counted.add_to(found)
    if options.contestants:
        unknown = options.contestants - set(found)
        if unknown:
            sys.exit(f"bench.py: no such contestant here: {', '.join(sorted(unknown))}")
        found = {name: one for name, one in found.items()
                 if name in options.contestants or one.floor or name == AGAIN and "tarvo" in options.contestants}
    return found


class Run:
    """One run: what is to be measured, and what came of it."""

    def __init__(self, options):
        self.options = options
        self.form = FORMS[options.form]
        self.contestants = contestants_of(options)
        self.seed = options.seed if options.seed is not None else random.randrange(1 << 32)
        self.random = random.Random(self.seed)
        self.results = Results()
        self.urgent = []
        self.begun = time.monotonic()
        self.estimated = 0.0
        self.done = 0.0
        self.limit = self.limit_in_seconds()
        self.planned = {}   # (scenario, cores) -> measurements
        self.left_out = {}  # the same, for those that came after the limit

    def limit_in_seconds(self):
        """After which nothing more begins. The form's holds for what the form chooses."""
        one = self.options
        chosen = one.contestants or one.scenarios or one.rounds or one.seconds is not None or len(one.cores) < 2
        minutes = one.minutes if one.minutes is not None else 0 if chosen else self.form.minutes
        return minutes * 60 if minutes else float("inf")

    def plan(self):
        """(round, scenario, mode, contestants) in the order in which they are measured."""
        steps = []
        wanted = [scenario for scenario in self.form.scenarios()
                  if not self.options.scenarios or scenario.name in self.options.scenarios]
        for number in range(max((self.rounds(scenario) for scenario in wanted), default=0)):
            for scenario in wanted:
                chosen = [one for one in self.contestants.values() if self.wants(one, scenario)
                          and number < self.rounds(scenario, one.peer)]
                for mode in scenario.modes:
                    if chosen and mode in self.options.cores:
                        shuffled = self.random.sample(chosen, len(chosen))
                        steps.append((number, scenario, mode, shuffled))
        return steps

    def wants(self, contestant, scenario):
        told_twice = contestant.name not in (AGAIN, BEFORE, *COUNTED.values()) or scenario.group in TOLD_TWICE or self.options.scenarios
        return told_twice and self.form.wants(contestant, scenario)

    def rounds(self, scenario, peer=False):
        return self.options.rounds or self.form.rounds(scenario, peer)

    def seconds(self, scenario):
        length = self.form.seconds if self.options.seconds is None else self.options.seconds
        return scenario.seconds if scenario.seconds and length else length or 0.05

    def least(self, scenario, peer):
        """Connecting takes long, so the samples of all rounds count together there."""
        rounds = self.rounds(scenario, peer) if scenario.kind == "connect" else 1
        return -(-self.form.least // rounds)

    def cost(self, scenario, contestant):
        """About how many seconds a measurement takes."""
        if scenario.kind == "opens":
            return OVERHEAD + START_OF_CLIENT * scenario.clients + 1
        rate = CONNECTS if scenario.kind == "connect" else CALLS[contestant.peer] * (scenario.load or 1)
        return (max(self.seconds(scenario), self.least(scenario, contestant.peer) / rate) + OVERHEAD +
                START_OF_CLIENT * scenario.clients)

    def capacity(self, contestant, mode):
        """Calls a second that its 8 callers make when each calls as soon as it can; or one with 8 calls outstanding."""
        name = "callers8" if contestant.abilities & LANES else "window8"
        key = (name, mode, contestant.name)
        value = self.results.value(key, "rate")
        if value is None:
            scenario = next(one for one in SCENARIOS if one.name == name)
            self.results.add(key, 0, measure(contestant, scenario, mode, self.seconds(scenario), self.form.least))
            value = self.results.value(key, "rate")
        return value["median"]

    def step(self, number, scenario, mode, contestants):
        text = f"round {number + 1}: {scenario.text}, {'one core' if mode == 'one' else 'all cores'}"
        if any(self.in_time(number, scenario, one) for one in contestants):
            print(f"[{self.progress()}] {text}", flush=True)
        for contestant in contestants:
            if self.in_time(number, scenario, contestant):
                self.one(number, scenario, mode, contestant)
            else:
                self.left_out[scenario.name, mode] = self.left_out.get((scenario.name, mode), 0) + 1
            self.done += self.cost(scenario, contestant)

    def in_time(self, number, scenario, contestant):
        """The first round leaves room for the calls under stress, which come after it."""
        reserved = self.cost_of_urgent() if number == 0 else 0
        return time.monotonic() - self.begun + self.cost(scenario, contestant) + reserved <= self.limit

    def one(self, number, scenario, mode, contestant):
        key = (scenario.name, mode, contestant.name)
        try:
            rate = scenario.load * self.capacity(contestant, mode) if scenario.load else 0
            seconds = self.seconds(scenario) * (1.01 if rate else 1)
            measured = measure(contestant, scenario, mode, seconds, self.least(scenario, contestant.peer), rate)
            if rate:
                measured.figures["asked"] = rate
            self.results.add(key, number, measured)
        except Failure as failure:
            self.failed(f"{contestant.name}, {scenario.name}, {mode}: {failure}")

    def failed(self, text):
        self.results.failures.append(text)
        print(f"FAILED: {text}", flush=True)

    def all(self):
        steps = self.plan()
        for _, scenario, mode, chosen in steps:
            self.estimated += sum(self.cost(scenario, one) for one in chosen)
            self.planned[scenario.name, mode] = self.planned.get((scenario.name, mode), 0) + len(chosen)
        self.estimated += self.cost_of_urgent()
        self.announce(sum(self.planned.values()))
        for number in range(max((step[0] for step in steps), default=0) + 1):
            for _, scenario, mode, chosen in (step for step in steps if step[0] == number):
                self.step(number, scenario, mode, chosen)
            if number == 0:
                self.measure_urgent()

    def announce(self, measurements):
        text = f"{measurements} measurements, about {self.estimated / 60:.0f} minutes"
        if self.cost_of_urgent():
            text += f", {self.cost_of_urgent() / 60:.1f} of them under stress"
        if self.limit < float("inf"):
            text += f"; nothing more begins after {self.limit / 60:g}"
        print(text, flush=True)

    def cost_of_urgent(self):
        """0 when calls under stress are not asked for."""
        one = self.options
        asked = self.form.urgent and not one.no_urgent and not one.scenarios and "tarvo" in self.contestants
        return 2 * (self.form.urgent + AROUND_STRESS) if asked else 0

    def measure_urgent(self):
        """The library under stress."""
        if not self.cost_of_urgent():
            return
        print(f"[{self.progress()}] calls under stress, {self.form.urgent:g} s over urgent pipes and as long over normal ones",
              flush=True)
        order = [True, False]
        self.random.shuffle(order)
        try:
            self.urgent = measure_urgent(self.contestants["tarvo"], self.form.urgent, order, self.options.output)
        except Failure as failure:
            self.failed(f"under stress: {failure}")
        self.done += self.cost_of_urgent()

    def progress(self):
        """How much is done, and how long the rest takes at the pace so far."""
        elapsed = time.monotonic() - self.begun
        left = (elapsed / self.done if self.done else 1) * (self.estimated - self.done)
        return (f"{100 * self.done / self.estimated:3.0f} %, {elapsed / 60:.1f} min, "
                f"{min(left, max(self.limit - elapsed, 0)) / 60:.0f} min left")

    def document(self):
        document = {
            "form": self.form.name, "seed": self.seed, "when": datetime.now(timezone.utc).isoformat(timespec="seconds"),
            "command": " ".join(sys.argv[1:]), "minutes": (time.monotonic() - self.begun) / 60,
            "machine": machine.describe(), "failures": self.results.failures,
            "absent": [name for name in KNOWN if name not in self.contestants],
            "contestants": {one.name: {**one.described, "peer": one.peer} for one in self.contestants.values()},
            "scenarios": {one.name: {"text": one.text, "kind": one.kind, "size": one.size, "clients": one.clients,
                                     "group": one.group, "load": one.load, "metric": one.metric} for one in SCENARIOS},
            "least_samples": LEAST_SAMPLES, "urgent": self.urgent, "results": [],
            "limit_minutes": self.limit / 60 if self.limit < float("inf") else None,
            "left_out": [{"scenario": name, "cores": mode, "measurements": number, "of": self.planned[name, mode]}
                         for (name, mode), number in self.left_out.items()],
        }
        for key in self.results.rounds:
            design = self.contestants[key[2]].design
            floors = [one.name for one in self.contestants.values() if one.floor and one.design == design]
            if document["scenarios"][key[0]]["load"]:
                floors = []  # each is asked for a part of its own capacity: nothing to divide by
            document["results"].append(self.results.entry(key, floors, "tarvo" if key[2] == AGAIN else None))
        return document


def main():
    options = arguments()
    raise_descriptor_limit()
    os.makedirs(options.output, exist_ok=True)
    run = Run(options)
    run.all()
    absent = [name for name in (OWN if options.no_peers else KNOWN) if name not in run.contestants]
    if absent and not options.contestants:
        print(f"not installed when this was built, and left out: {', '.join(absent)}")
        if options.form == "smoke":  # which is to show that each of them works
            run.results.failures.append(f"not built: {', '.join(absent)}")
    document = run.document()
    with open(os.path.join(options.output, "figures.json"), "w", encoding="utf-8") as file:
        json.dump(document, file, indent=1)
    for name, content in (("figures.txt", tables.text(document)), ("tables.md", page.page(document))):
        with open(os.path.join(options.output, name), "w", encoding="utf-8") as file:
            file.write(content + "\n")
    print(tables.text(document))
    if not options.no_plots:
        # Only here: what it draws with is not installed for those who want no plots.
        import plots  # pylint: disable=import-outside-toplevel

        plots.draw(document, options.output)
    sys.exit(1 if run.results.failures else 0)


if __name__ == "__main__":
    main()
