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

import machine
import page
import plots
import tables
from figures import Results
from measure import Contestant, discover, measure
from processes import Failure, raise_descriptor_limit
from scenarios import FORMS, LANES, LEAST_SAMPLES, SCENARIOS
from urgent import measure_urgent

AGAIN = "tarvo-again"
KNOWN = ["tarvo", "fifo", "floor", "floor-sem", "floor-shared", "zeromq", "nng", "sd-bus", "dbus", "capnproto", "grpc"]
OVERHEAD = 0.4          # seconds that the processes of a measurement take to start and end
START_OF_CLIENT = 0.02  # and each further client


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench.sh", description=__doc__)
    parser.add_argument("--programs", required=True, help="folder of the contestants' programs")
    parser.add_argument("--output", required=True, help="folder for figures.json, tables.md and the plots")
    parser.add_argument("--form", choices=FORMS, default="quick")
    parser.add_argument("--before", help="a folder with another build of the library: measured too, as tarvo-before")
    parser.add_argument("--contestants", type=names, help="only these (and the floors, for the ratios)")
    parser.add_argument("--scenarios", type=names, help="only these, without calls under stress: " +
                        ", ".join(one.name for one in SCENARIOS))
    parser.add_argument("--cores", type=names, default={"one", "all"}, help="only one, or all")
    parser.add_argument("--rounds", type=int, help="instead of the form's")
    parser.add_argument("--seconds", type=float, help="of each measurement at least, instead of the form's")
    parser.add_argument("--seed", type=int, default=None, help="of the order of contestants")
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
            found["tarvo-before"] = Contestant("tarvo-before", tarvo.program, tarvo.described, before)
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
        self.loads = {one.name: one.load for one in SCENARIOS}
        self.begun = time.monotonic()
        self.estimated = 0.0
        self.done = 0.0

    def plan(self):
        """(round, scenario, mode, contestants) in the order in which they are measured."""
        steps = []
        wanted = [scenario for scenario in self.form.scenarios()
                  if not self.options.scenarios or scenario.name in self.options.scenarios]
        most = max((self.rounds(scenario) for scenario in wanted), default=0)
        for number in range(most):
            for scenario in wanted:
                for mode in scenario.modes:
                    if number < self.rounds(scenario) and mode in self.options.cores:
                        chosen = [one for one in self.contestants.values() if self.form.wants(one, scenario)]
                        self.random.shuffle(chosen)
                        steps.append((number, scenario, mode, chosen))
        return steps

    def rounds(self, scenario):
        return self.options.rounds or self.form.rounds(scenario)

    def seconds(self, scenario):
        length = self.form.seconds if self.options.seconds is None else self.options.seconds
        return scenario.seconds if scenario.seconds and length else length or 0.05

    def least(self, scenario):
        """Connecting takes long, so the samples of all rounds count together there."""
        return -(-self.form.least // self.rounds(scenario)) if scenario.kind == "connect" else self.form.least

    def cost(self, scenario):
        """About how many seconds a measurement takes."""
        rate = {"connect": 1500, "open": 15000 * scenario.load}.get(scenario.kind, 15000)
        return (max(self.seconds(scenario), self.least(scenario) / rate) + OVERHEAD +
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
        for contestant in contestants:
            key = (scenario.name, mode, contestant.name)
            try:
                rate = scenario.load * self.capacity(contestant, mode) if scenario.load else 0
                seconds = self.seconds(scenario) * (1.01 if rate else 1)
                measured = measure(contestant, scenario, mode, seconds, self.least(scenario), rate)
                if rate:
                    measured.figures["asked"] = rate
                self.results.add(key, number, measured)
            except Failure as failure:
                self.results.failures.append(f"{contestant.name}, {scenario.name}, {mode}: {failure}")
                print(f"FAILED: {self.results.failures[-1]}", flush=True)
            self.done += self.cost(scenario)

    def all(self):
        steps = self.plan()
        self.estimated = sum(self.cost(scenario) * len(chosen) for _, scenario, _, chosen in steps)
        number = sum(len(chosen) for _, _, _, chosen in steps)
        print(f"{number} measurements, about {self.estimated / 60:.0f} minutes", flush=True)
        for number, scenario, mode, chosen in steps:
            if chosen:
                print(f"[{self.progress()}] round {number + 1}: {scenario.text}, {mode} cores"
                      .replace("one cores", "one core"), flush=True)
                self.step(number, scenario, mode, chosen)

    def urgent(self):
        """The library under stress; [] when that is not asked for."""
        seconds = self.form.urgent
        if not seconds or self.options.no_urgent or self.options.scenarios or "tarvo" not in self.contestants:
            return []
        minutes = 2 * (seconds + 5) / 60
        print(f"calls under stress over urgent and normal pipes, about {minutes:.0f} minutes", flush=True)
        order = [True, False]
        self.random.shuffle(order)
        try:
            return measure_urgent(self.contestants["tarvo"], seconds, order, self.options.output)
        except Failure as failure:
            self.results.failures.append(f"under stress: {failure}")
            print(f"FAILED: {self.results.failures[-1]}", flush=True)
            return []

    def progress(self):
        """How much is done, and how long the rest takes at the pace so far."""
        elapsed = time.monotonic() - self.begun
        left = (elapsed / self.done if self.done else 1) * (self.estimated - self.done)
        return f"{100 * self.done / self.estimated:3.0f} %, {left / 60:.0f} min left"

    def document(self):
        document = {
            "form": self.form.name, "seed": self.seed, "when": datetime.now(timezone.utc).isoformat(timespec="seconds"),
            "command": " ".join(sys.argv[1:]), "minutes": (time.monotonic() - self.begun) / 60,
            "machine": machine.describe(), "failures": self.results.failures,
            "absent": [name for name in KNOWN if name not in self.contestants],
            "contestants": {one.name: {**one.described, "peer": one.peer} for one in self.contestants.values()},
            "scenarios": {one.name: {"text": one.text, "kind": one.kind, "size": one.size, "clients": one.clients,
                                     "group": one.group, "load": one.load} for one in SCENARIOS},
            "least_samples": LEAST_SAMPLES, "results": [],
        }
        for key in self.results.rounds:
            design = self.contestants[key[2]].design
            floors = [one.name for one in self.contestants.values() if one.floor and one.design == design]
            if self.loads[key[0]]:
                floors = []  # each is asked for a part of its own capacity: nothing to divide by
            document["results"].append(self.results.entry(key, floors, "tarvo" if key[2] == AGAIN else None))
        return document


def main():
    options = arguments()
    raise_descriptor_limit()
    os.makedirs(options.output, exist_ok=True)
    run = Run(options)
    run.all()
    urgent = run.urgent()
    absent = [name for name in KNOWN if name not in run.contestants]
    if absent and not options.contestants:
        print(f"not installed when this was built, and left out: {', '.join(absent)}")
        if options.form == "smoke":  # which is to show that each of them works
            run.results.failures.append(f"not built: {', '.join(absent)}")
    document = {**run.document(), "urgent": urgent}
    with open(os.path.join(options.output, "figures.json"), "w", encoding="utf-8") as file:
        json.dump(document, file, indent=1)
    for name, content in (("figures.txt", tables.text(document)), ("tables.md", page.page(document))):
        with open(os.path.join(options.output, name), "w", encoding="utf-8") as file:
            file.write(content + "\n")
    print(tables.text(document))
    plots.draw(document, options.output)
    sys.exit(1 if run.results.failures else 0)


if __name__ == "__main__":
    main()
