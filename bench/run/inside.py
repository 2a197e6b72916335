#!/usr/bin/python3
"""What a call executes outside the kernel: instructions, heap blocks and places in memory.

scripts/bench.sh --inside builds the programs and runs this. The counts are valgrind's and those of single calls, from the
difference between a run with many calls and one with few; a busy machine does not change them.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

import counted as statistics
import machine
from counted import directory_for
from measure import Contestant, discover
from parts import inside
from processes import Child, Group
from scenarios import BEFORE, COUNTED

FEW, MANY = 500, 1500
CONTESTANTS = [BEFORE, *COUNTED.values(), "tarvo", "floor", "floor-sem", "tarvo-loop", "loop-floor"]
KINDS = {"call of 64 bytes": ["--kind", "call"], "one-way, 64 bytes": ["--kind", "oneway", "--window", "500"]}
LINE, PAGE = 6, 12  # bits of an address

_number = 0


def run(contestant, task, command, before_server=(), before_client=()):
    """A server and a client, each perhaps below another program; `command` tells the client what to do."""
    global _number
    _number += 1
    common = ["--endpoint", f"tvi{os.getpid()}_{_number}"]
    with directory_for(contestant), Group() as group:
        server = group.add(Child([*before_server, contestant.program, "server", *common], contestant.environment))
        server.answer(60)
        client = group.add(Child([*before_client, contestant.program, "client", *common, "--self", common[1] + "c", *task],
                                 contestant.environment))
        client.answer(60)
        client.ask(command)


def below_valgrind(tool, log, *options):
    return ["valgrind", f"--tool={tool}", f"--log-file={log}", *options]


def per_call(contestant, task, tool, pattern):
    """How much of what valgrind counts an operation takes, both processes together."""
    totals = []
    for calls in (FEW, MANY):
        with tempfile.TemporaryDirectory() as folder:
            logs = [os.path.join(folder, name) for name in ("server", "client")]
            run(contestant, task, f"count {calls}",
                *(below_valgrind(tool, log, f"--callgrind-out-file={log}.out" if tool == "callgrind" else "-v")
                  for log in logs))
            totals.append(0)
            for log in logs:
                with open(log, encoding="utf-8") as file:
                    found = re.findall(pattern, file.read())
                totals[-1] += int(found[-1].replace(",", ""))
    return (totals[1] - totals[0]) / (MANY - FEW)


def touched(contestant, task):
    """Cache lines and pages that the client touches in a call: those of 50 calls in a row before the last 20."""
    lengths, traces = [], []
    with tempfile.TemporaryDirectory() as folder:
        for calls in (200, 1000):
            log = os.path.join(folder, str(calls))
            run(contestant, task, f"count {calls}",
                before_client=below_valgrind("lackey", log, "--trace-mem=yes"))
            traces.append(log)
            with open(log, "rb") as file:
                lengths.append(sum(1 for _ in file))
        call = (lengths[1] - lengths[0]) // 800
        lines, pages = set(), set()
        with open(traces[1], encoding="utf-8", errors="replace") as file:
            for number, text in enumerate(file):
                if not lengths[1] - 70 * call <= number < lengths[1] - 20 * call:
                    continue
                access = re.match(r"(?:I | S| L| M)\s+([0-9a-f]+),", text)
                if access:
                    address = int(access[1], 16)
                    lines.add(address >> LINE)
                    pages.add(address >> PAGE)
    if not lines:
        sys.exit("inside.py: the traces of lackey do not grow with the calls")
    return len(lines), len(pages)


def counted(contestant, kind, task):
    found = {"kind": kind, "contestant": contestant.name,
             "instructions": per_call(contestant, task, "callgrind", r"Collected : (\d+)"),
             "blocks": per_call(contestant, task, "memcheck", r"total heap usage: ([\d,]+) allocs")}
    if "call" in kind:
        found["lines"], found["pages"] = touched(contestant, task)
    return found


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench.sh --inside", description=__doc__)
    parser.add_argument("--programs", required=True, help="folder of the contestants' programs")
    parser.add_argument("--output", required=True, help="folder for inside.json")
    parser.add_argument("--before", help="a folder with another build of the library: counted too, as tarvo-before")
    parser.add_argument("--stats", action="store_true", help="each engine with its statistics kept, too")
    parser.add_argument("--contestants", type=lambda text: text.split(","), default=CONTESTANTS)
    return parser.parse_args()


def main():
    options = arguments()
    contestants = discover(options.programs)
    if options.before:
        tarvo = contestants["tarvo"]
        contestants[BEFORE] = Contestant(BEFORE, tarvo.program, tarvo.described,
                                         {"LD_LIBRARY_PATH": os.path.abspath(options.before)})
    if options.stats:
        statistics.add_to(contestants)
    subprocess.run(["valgrind", "--version"], check=True, stdout=subprocess.DEVNULL)
    rows = []
    for kind, task in KINDS.items():
        for name in options.contestants:
            if name in contestants:
                rows.append(counted(contestants[name], kind, task))
                print(rows[-1], file=sys.stderr, flush=True)
    document = {"commit": machine.describe()["commit"], "rows": rows}
    os.makedirs(options.output, exist_ok=True)
    with open(os.path.join(options.output, "inside.json"), "w", encoding="utf-8") as file:
        json.dump(document, file, indent=1)
    print("\n".join(inside(document)))


if __name__ == "__main__":
    main()
