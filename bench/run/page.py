"""The tables of docs/PERFORMANCE.md, from the JSON file of one run: python3 page.py figures.json"""
import json
import sys

from scenarios import FAN_IN
from tables import AGAIN, by_scenario, number, resolution

CORES = {"one": "one", "all": "all"}


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
        calls = "/".join(filter(None, (median(own, "syscalls"), median(find(entries, floor), "syscalls"))))
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
    if metric not in entry["values"] or metric not in base["values"]:
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


def page(document):
    parts = {"Machine": about, "Library and floor": against_floor, "Against other systems": against_peers,
             "Many pipes": pipes, "Fan-in": fan_in, "Urgent pipes under stress": urgent, "Idle": idle}
    lines = []
    for title, part in parts.items():
        lines += [f"### {title}", "", *part(document)]
    if "tarvo-loop" in document["contestants"]:
        lines += ["### Loop and its floor", "", *against_floor(document, "tarvo-loop")]
    return "\n".join(lines)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        print(page(json.load(source)))
