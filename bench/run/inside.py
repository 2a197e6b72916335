#!/usr/bin/python3
"""What a call executes: instructions, heap blocks and places in memory, and the kernel's share of its time.

scripts/bench.sh --inside builds the programs and runs this. The counts are valgrind's and those of single calls, from the
difference between a run with many calls and one with few; a busy machine does not change them. The kernel's share does
need an idle machine.
"""
import os
import re
import subprocess
import sys
import tempfile

from measure import discover
from page import table
from processes import Child, Group

FEW, MANY = 500, 1500
SECONDS = 10  # of the calls whose time is divided
CONTESTANTS = ["tarvo", "floor", "floor-sem"]
KINDS = {"call of 64 bytes": ["--kind", "call"], "one-way, 64 bytes": ["--kind", "oneway", "--window", "500"]}
LINE, PAGE = 6, 12  # bits of an address

_number = 0


def run(program, task, command, before_server=(), before_client=()):
    """A server and a client, each perhaps below another program; gives the processes to `command`."""
    global _number
    _number += 1
    common = ["--endpoint", f"tvi{os.getpid()}_{_number}"]
    with Group() as group:
        server = group.add(Child([*before_server, program, "server", *common]))
        server.answer(60)
        client = group.add(Child([*before_client, program, "client", *common, "--self", common[1] + "c", *task]))
        client.answer(60)
        return command(server, client)


def below_valgrind(tool, log, *options):
    return ["valgrind", f"--tool={tool}", f"--log-file={log}", *options]


def per_call(program, task, tool, pattern, *options):
    """How much of what valgrind counts an operation takes, both processes together."""
    totals = []
    for calls in (FEW, MANY):
        with tempfile.TemporaryDirectory() as folder:
            logs = [os.path.join(folder, name) for name in ("server", "client")]
            run(program, task, lambda _, client: client.ask(f"count {calls}"),
                *(below_valgrind(tool, log, f"--callgrind-out-file={log}.out" if tool == "callgrind" else "-v")
                  for log in logs))
            totals.append(0)
            for log in logs:
                with open(log, encoding="utf-8") as file:
                    found = re.findall(pattern, file.read())
                totals[-1] += int(found[-1].replace(",", ""))
    return (totals[1] - totals[0]) / (MANY - FEW)


def touched(program, task):
    """Cache lines and pages that the client touches in a call: those of 50 calls in a row before the last 20."""
    lengths, traces = [], []
    with tempfile.TemporaryDirectory() as folder:
        for calls in (200, 1000):
            log = os.path.join(folder, str(calls))
            run(program, task, lambda _, client: client.ask(f"count {calls}"),
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


def times(pid):
    """User and system time of a process in ticks."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        fields = file.read().rpartition(")")[2].split()
    return int(fields[11]), int(fields[12])


def kernel_share(program, task):
    def command(server, client):
        pids = (server.pid, client.pid)
        before = [times(pid) for pid in pids]
        client.tell("run 0")
        client.answer(SECONDS)
        used = [(after[0] - start[0], after[1] - start[1]) for start, after in zip(before, map(times, pids))]
        user, system = map(sum, zip(*used))
        return system / (user + system)

    return run(program, [*task, "--one-core", "--seconds", str(SECONDS)], command,
               before_server=["taskset", "-c", str(max(os.sched_getaffinity(0)))])


def main():
    contestants = discover(sys.argv[1])
    subprocess.run(["valgrind", "--version"], check=True, stdout=subprocess.DEVNULL)
    rows = []
    for kind, task in KINDS.items():
        for name in CONTESTANTS:
            program = contestants[name].program
            instructions = per_call(program, task, "callgrind", r"Collected : (\d+)")
            blocks = per_call(program, task, "memcheck", r"total heap usage: ([\d,]+) allocs")
            lines, pages = touched(program, task) if "call" in kind else ("", "")
            rows.append([kind, name, f"{instructions:.0f}", f"{blocks:.1f}", str(lines), str(pages),
                         f"{100 * kernel_share(program, task):.0f} %"])
            print(rows[-1], file=sys.stderr, flush=True)
    print("\n".join(table(["", "", "instructions outside the kernel", "heap blocks", "cache lines of the client",
                           "pages of the client", "kernel's share of the time"], rows)))


if __name__ == "__main__":
    main()
