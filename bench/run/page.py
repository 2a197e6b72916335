"""The tables of docs/PERFORMANCE.md, from the JSON file of one run.

python3 page.py FIGURES.JSON      prints them
python3 page.py FOLDER PAGE.MD    puts them between the two marks of the page, and the plots into figures/ beside it
"""
import json
import os
import shutil
import sys

from scenarios import FAN_IN
from tables import AGAIN, by_scenario, cell, number, resolution

CORES = {"one": "one", "all": "all"}
BEGIN, END = "<!-- figures of one run -->", "<!-- end of the figures -->"


def table(head, rows):
    """Markdown; nothing for a table without rows."""
    if not rows:
        return []
    return ["| " + " | ".join(head) + " |", "|" + "---|" * len(head),
            *("| " + " | ".join(row) + " |" for row in rows), ""]


def spread(value):
    """A ratio with the least and the greatest of the rounds."""
    if not value:
        return ""
    if value.get("rounds", 1) < 2:
        return f"{value['median']:.2f}"
    return f"{value['median']:.2f} [{value['min']:.2f}-{value['max']:.2f}]"


def find(entries, name):
    return next((entry for entry in entries if entry["contestant"] == name), None)


def median(entry, metric):
    """With the least and the greatest of the rounds."""
    return cell(entry["values"].get(metric)) if entry else ""


def plain(entry, metric):
    value = entry and entry["values"].get(metric)
    return number(value["median"]) if value else ""


def name_of(document, scenario):
    return document["scenarios"][scenario]["text"]


def about(document):
    """What the figures were measured on and with."""
    machine = document["machine"]
    versions = [f"{name} {one['version']}" for name, one in document["contestants"].items() if one["version"] and
                name != AGAIN]
    return [f"Measured {document['when'][:10]} by `scripts/bench.sh --{document['form']}` at commit "
            f"`{machine['commit']}`: {machine['processor']}, {machine['cores']} cores ({machine['virtual']}), Linux "
            f"{machine['kernel'].split()[0]}, governor {machine['governor']}. {', '.join(sorted(versions))}.", ""]


def against_floor(document, name="tarvo"):
    """One contestant's ratios to the lowest floor of the same rounds, with what the run can tell apart."""
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        own = find(entries, name)
        if not own or not own["ratios"] or document["scenarios"][scenario]["group"] not in ("main", "more"):
            continue
        main = "p50" if "p50" in own["ratios"] else "rate"
        floor = own["ratios"].get(main, {}).get("floor")
        calls = "/".join(filter(None, (plain(own, "syscalls"), plain(find(entries, floor), "syscalls"))))
        apart = resolution(entries, main) if name == "tarvo" else None
        rows.append([name_of(document, scenario), CORES[cores], f"{median(find(entries, floor), main)} ({floor})",
                     *(spread(own["ratios"].get(metric)) for metric in ("p50", "p99", "p999", "rate", "cpu")), calls,
                     f"{apart * 100:.1f} %" if apart is not None else ""])
    return table(["", "cores", "lowest floor, us or a second", "median", "99th", "99.9th", "rate", "processor time",
                  "system calls, own/floor", "resolution"], rows)


def against_peers(document):
    """Medians, or calls a second, of everybody."""
    names = [name for name in document["contestants"] if name != AGAIN]
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        if document["scenarios"][scenario]["group"] not in ("main", "window"):
            continue
        metric = "p50" if scenario in ("call64", "connect") else "rate"
        unit = "us" if metric == "p50" else "a second"
        rows.append([f"{name_of(document, scenario)}, {unit}", CORES[cores],
                     *(median(find(entries, name), metric) for name in names)])
    return table(["", "cores", *names], rows)


def pipes(document):
    """A call on one of many open pipes as a multiple of the cost with one."""
    groups = by_scenario(document)
    rows = []
    for count in (10, 100, 1000):
        for cores in CORES:
            one = find(groups.get(("pipes1", cores), []), "tarvo")
            many = find(groups.get((f"pipes{count}", cores), []), "tarvo")
            if one and many:
                rows.append([str(count), cores, *(quotient(many, one, metric) for metric in ("p50", "rate", "cpu"))])
    return table(["pipes", "cores", "median", "rate", "processor time"], rows)


def quotient(entry, base, metric):
    if not entry or not base or metric not in entry["values"] or metric not in base["values"]:
        return ""
    return f"{entry['values'][metric]['median'] / base['values'][metric]['median']:.2f}"


def fan_in(document):
    groups = by_scenario(document)
    rows = []
    for scenario in FAN_IN:
        for cores in CORES:
            entry = find(groups.get((scenario, cores), []), "tarvo")
            if entry:
                rows.append([scenario[len("clients"):], cores, *(median(entry, metric) for metric in (
                    "rate", "p50", "p99", "p999", "threads", "private_kb", "virtual_kb", "descriptors", "switches"))])
    return table(["clients", "cores", "calls a second", "median us", "99th us", "99.9th us", "threads of the server",
                  "private kB", "virtual kB", "descriptors", "switches of the server a call"], rows)


def urgent(document):
    rows = []
    for one in document.get("urgent", []):
        for what, found in (("call", one["call"]), ("from when it was due", one["from_due"]),
                            ("cyclictest meanwhile", one["cyclictest"])):
            rows.append([f"{one['pipes']} pipes: {what}", *(number(found[name]) if found.get(name) is not None else ""
                                                            for name in ("p50", "p99", "p999", "max")),
                         str(found["samples"])])
    return table(["us", "median", "99th", "99.9th", "slowest", "samples"], rows)


def idle(document):
    entries = by_scenario(document).get(("idle", "all"), [])
    return table(["", "wake-ups in 5 s, both processes"],
                 [[entry["contestant"], f"{entry['values']['wakeups']['median']:.0f}"] for entry in entries
                  if "wakeups" in entry["values"] and entry["contestant"] != AGAIN])


def part_of_peer(document):
    """How long the library takes as a part of what each of the others takes; below 1 is faster."""
    names = [name for name in document["contestants"] if name not in ("tarvo", AGAIN)]
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        own = find(entries, "tarvo")
        if not own or document["scenarios"][scenario]["group"] not in ("main", "more"):
            continue
        metric = "p50" if scenario.startswith(("call", "connect")) and scenario != "callers8" else "rate"
        rows.append([name_of(document, scenario), CORES[cores],
                     *(quotient(own, other, metric) if metric == "p50" else quotient(other, own, metric)
                       for other in (find(entries, name) for name in names))])
    return table(["", "cores", *names], rows)


# What stands in the page: title, plots, text, table.
PARTS = [
    ("Urgent pipes under stress", ["urgent.svg"],
     "A thread with `SCHED_FIFO` calls once in a millisecond, both processes lock their memory, and stress-ng keeps every "
     "core, the memory and the disk busy. \"From when it was due\" adds what the caller's own wake-up was late by. "
     "cyclictest, at a priority above the library's, shows at the same time how late this machine wakes a single thread. "
     "A call has four such wake-ups. How slow the slowest can be is a property of the machine: measure your own.",
     urgent),
    ("Library and floor", ["ratios.svg", "calls.svg"],
     "The median over the rounds of the ratios to the lowest floor, with the least and the greatest. Below 1.00 is faster "
     "than the floor, except for the rate, where it is slower. Differences up to the resolution, by which the library "
     "differs from itself in a round of the same run, mean nothing.", against_floor),
    ("Against other systems", [], "Median of a call in us, or calls or messages a second.", against_peers),
    ("", [], "The library's time as a part of the other's: below 1.00 the library is faster.", part_of_peer),
    ("Open load", ["open-load.svg"],
     "Eight callers whose calls are due at fixed moments, at 10 to 95 % of the rate that the same system reaches when "
     "each caller calls as soon as it can; a call that is made late has waited since it was due.", lambda _: []),
    ("Many clients", ["fan-in.svg", "fan-in-server.svg"], "The library's server and so many client processes.", fan_in),
    ("Many pipes", [], "A call on one of so many open pipes, as a multiple of the cost with one.", pipes),
    ("Size of a message", ["payload.svg"], "Calls of 1 to 4000 bytes.", lambda _: []),
    ("Idle", [], "Context switches of server and client together, connected, with nothing to do.", idle),
]


def page(document, plots=()):
    """Everything between the two marks of the page."""
    lines = about(document)
    for title, pictures, text, part in PARTS:
        found, shown = part(document), [name for name in pictures if name in plots]
        if found or shown:
            lines += ([f"### {title}", ""] if title else []) + [text, ""]
            for name in shown:
                lines += [f"![{title}](figures/{name})", ""]
            lines += found
    if "tarvo-loop" in document["contestants"]:
        lines += ["### Loop and its floor", "", *against_floor(document, "tarvo-loop")]
    return "\n".join(lines)


def write(folder, target):
    """Puts the figures of a run's folder into the page, and its plots beside it."""
    with open(os.path.join(folder, "figures.json"), encoding="utf-8") as source:
        document = json.load(source)
    with open(target, encoding="utf-8") as file:
        before, found, rest = file.read().partition(BEGIN)
    _, ended, after = rest.partition(END)
    if not found or not ended:
        sys.exit(f"page.py: {target} has no place for figures")
    plots = sorted(name for name in os.listdir(folder) if name.endswith(".svg"))
    pictures = os.path.join(os.path.dirname(target), "figures")
    os.makedirs(pictures, exist_ok=True)
    for name in plots:
        shutil.copy(os.path.join(folder, name), pictures)
    text = page(document, plots).rstrip()  # before the page is opened: a failure leaves it as it is
    with open(target, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n\n{text}\n\n{END}{after}")


if __name__ == "__main__":
    if len(sys.argv) == 3:
        write(sys.argv[1], sys.argv[2])
    else:
        with open(sys.argv[1], encoding="utf-8") as given:
            print(page(json.load(given)))
