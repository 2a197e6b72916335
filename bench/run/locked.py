#!/usr/bin/python3
"""How much memory a server of 64 clients locks, with each way to lock it. Counts, not times: the machine may be busy.

scripts/bench.sh --locked builds the programs and runs this.
"""
import sys

from measure import discover
from processes import Child, Group, facts
from tables import table

CLIENTS = 64
# What it is called, what the server asks for, its limit of stacks in bytes (empty: as it is).
WAYS = [("not locked", "", ""),
        ("`MCL_CURRENT \\| MCL_FUTURE`, stacks of 8 MiB", "whole", 8 << 20),
        ("`MCL_CURRENT \\| MCL_FUTURE`, stacks of 256 KiB", "whole", 256 << 10),
        ("`MCL_CURRENT \\| MCL_FUTURE \\| MCL_ONFAULT`, stacks of 8 MiB", "onfault", 8 << 20)]


def row(program, number, name, lock, stack):
    endpoint = f"tvl{number}"
    limit = ["prlimit", f"--stack={stack}:"] if stack else []
    with Group() as group:
        options = ["--endpoint", endpoint]
        server = group.add(Child([*limit, program, "server", *options] + (["--lock", lock] if lock else [])))
        pid = server.answer()["processes"][-1]
        for client in range(CLIENTS):
            group.add(Child([program, "client", *options, "--self", f"{endpoint}_{client}"])).answer()
        held = facts(pid)
    return [name, str(held["threads"]), f"{held['locked_kb'] / 1024:.0f}", f"{held['private_kb'] / 1024:.0f}"]


if __name__ == "__main__":
    tarvo = discover(sys.argv[1])["tarvo"].program
    rows = [row(tarvo, number, *way) for number, way in enumerate(WAYS)]
    print("\n".join(table(["a server of 64 clients", "threads", "locked and present MB", "private MB"], rows)))
