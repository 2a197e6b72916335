#!/usr/bin/env python3
"""Checks that the table of docs/stats.md has each number of tarvo_stats.h, with its cases, and nothing else.

The first column is the number's place in the header, the second its name in tarvoctl's answers, and each case of a
number that has several is named in the third, by what tarvoctl calls it.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
STRUCTURES = {"Pipe": "pipe", "Server": "server", "Pool": "pool", "Header": "header"}
# Of the header, what is no number but describes the file, or tells who writes it.
DESCRIBES = {"magic", "version", "headerSize", "slotSize", "slots", "clock", "folding", "pid", "oneWaysPerTime", "callsPerTime",
             "startedAt", "createdAt", "createdWall", "process"}
# What readers add to the number without it.
NO_NUMBERS = ("reserved", "firstMessages", "firstBytes", "firstBegun", "firstFinished", "firstAnswered")
FIELD = re.compile(r"^\s+(?:u?int\d+_t|char|TarvoStats\w+) (\w+)(?:\[(\w+)\])?;")
ROW = re.compile(r"^\| `((?:pipe|server|pool|header)\.[\w.]+)` \| `(\w+)` \| (.*) \|$", re.MULTILINE)
METRIC = re.compile(r'\{"(\w+)",\s*(?:COUNTER|GAUGE|LEVEL|TIMES),\s*offsetof\(TarvoStats(\w+),\s*([\w.]+)\),'
                    r'((?:\s*"(?:[^"\\]|\\.)*",?)*)\s*(kinds|\{[^}]*\})?')


def numbers_of(header):
    """The place of each number: {"pipe.sent.messages": how many, or None for a single one}."""
    sizes = {name: int(value) for name, value in re.findall(r"^\s+TARVO_STATS_(\w+S) = (\d+),", header, re.MULTILINE)}
    found = {}
    for name, place in STRUCTURES.items():
        body = re.search(rf"^typedef struct TarvoStats{name} {{\n(.*?)^}}", header, re.MULTILINE | re.DOTALL)[1]
        fields = []
        for line in body.splitlines():
            if end := re.match(r"^    } (\w+);", line):
                found.update({f"{place}.{end[1]}.{field}": size for field, size in fields})
                fields = []
            elif match := FIELD.match(line):
                if not match[1].startswith(NO_NUMBERS) and match[1] not in DESCRIBES:
                    fields.append((match[1], sizes[match[2].removeprefix("TARVO_STATS_")] if match[2] else None))
        found.update({f"{place}.{field}": size for field, size in fields})
    return found


def metrics_of(source):
    """What tarvoctl calls them: place to name and cases."""
    kinds = re.findall(r'"(\w+)"', re.search(r"kinds = \{(.*?)\}", source, re.DOTALL)[1])
    return {f"{STRUCTURES[structure]}.{field}": (name, kinds if cases == "kinds" else re.findall(r'"(\w+)"', cases or ""))
            for name, structure, field, _, cases in METRIC.findall(source)}


def faults():
    numbers = numbers_of((ROOT / "include/tarvo_stats.h").read_text())
    metrics = metrics_of((ROOT / "tools/tarvoctl/stats/Metrics.cpp").read_text())
    rows = {place: (name, text) for place, name, text in ROW.findall((ROOT / "docs/stats.md").read_text())}
    if len(numbers) < 20:
        yield f"only {len(numbers)} numbers found in the header"
    for where, known in (("docs/stats.md", rows), ("tarvoctl", metrics)):
        for place in sorted(set(numbers) ^ set(known)):
            yield f"{place}: " + (f"not in {where}" if place in numbers else f"in {where} and not in the header")
    for place in sorted(set(numbers) & set(rows) & set(metrics)):
        name, cases = metrics[place]
        if rows[place][0] != name:
            yield f"{place}: tarvoctl calls it {name}, and the page {rows[place][0]}"
        if len(cases) != (numbers[place] or 0):
            yield f"{place}: {numbers[place]} in the header, and {len(cases)} cases in tarvoctl"
        yield from (f"{place}: the page does not explain {case}" for case in cases if f"`{case}`" not in rows[place][1])


def main():
    found = list(faults())
    print("\n".join(found) or "each number is explained, under its name")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
