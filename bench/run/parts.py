"""The parts of the pages that come from a run: titles, plots, texts and tables."""
import math
import statistics

import goals
from scenarios import AGAIN, BEFORE, COUNTED, FAN_IN, OPENS
from tables import by_scenario, cell, number, resolution, table

CORES = {"one": "one", "all": "all"}
ENGINES = {"tarvo": "library", "tarvo-loop": "loop"}
WHOLE = {"threads", "descriptors", "private_kb", "virtual_kb", "wakeups"}  # are counts


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
    return plain(entry, metric) if metric in WHOLE else cell(entry["values"].get(metric)) if entry else ""


def plain(entry, metric):
    value = entry and entry["values"].get(metric)
    if not value:
        return ""
    return f"{value['median']:.0f}" if metric in WHOLE else number(value["median"])


def name_of(document, scenario):
    return document["scenarios"][scenario]["text"]


def counts(document):
    """Whether it is about what keeping statistics takes."""
    return any(name in document["contestants"] for name in COUNTED.values())


def about(document):
    """What the figures were measured on and with."""
    machine = document["machine"]
    versions = [f"{name} {one['version']}" for name, one in document["contestants"].items() if one["version"] and
                name != AGAIN]
    other = " --before ..." if BEFORE in document["contestants"] else " --stats ..." if counts(document) else ""
    return [f"Measured {document['when'][:10]} by `scripts/bench.sh --{document['form']}{other}` at commit "
            f"`{machine['commit']}`: {machine['processor']}, {machine['cores']} cores ({machine['virtual']}), Linux "
            f"{machine['kernel'].split()[0]}, governor {machine['governor']}. {', '.join(sorted(versions))}.", "",
            *missing(document)]


def missing(document):
    """What the run did not get to, and what failed."""
    lines = []
    if document.get("left_out"):
        parts = [f"{name_of(document, one['scenario'])}, {CORES[one['cores']]}: {one['measurements']} of {one['of']}"
                 for one in document["left_out"]]
        lines += [f"The run began nothing more after {document['limit_minutes']:g} minutes. Left out, of the measurements "
                  f"of all contestants and rounds: {'; '.join(parts)}.", ""]
    if document.get("failures"):
        lines += [f"Failed, and not in the figures: {'; '.join(document['failures'])}.", ""]
    return lines


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
        rows.append([name_of(document, scenario), CORES[cores],
                     f"{median(find(entries, floor), main)} ({floor})" if floor else "",
                     *(spread(own["ratios"].get(metric)) for metric in ("p50", "p99", "p999", "rate", "cpu")), calls,
                     f"{apart * 100:.1f} %" if apart is not None else ""])
    return table(["", "cores", "lowest floor, us or a second", "median", "99th", "99.9th", "rate", "processor time",
                  "system calls, own/floor", "resolution"], rows)


def before_and_after(document):
    """The library's figures as a part of those of the other build, in the same rounds."""
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        now, then = find(entries, "tarvo"), find(entries, BEFORE)
        if now and then:
            parts = [spread(goals.quotient(now, then, metric)) if metric in now["values"] and metric in then["values"] else ""
                     for metric in ("p50", "p99", "rate", "cpu", "syscalls")]
            floors = [spread((find(entries, name) or {"ratios": {}})["ratios"].get(document["scenarios"][scenario]["metric"]))
                      for name in (BEFORE, "tarvo")]
            apart = resolution(entries, document["scenarios"][scenario]["metric"])
            rows.append([name_of(document, scenario), CORES[cores], *parts, *floors,
                         f"{apart * 100:.1f} %" if apart is not None else ""])
    return table(["", "cores", "median", "99th", "rate", "processor time", "system calls", "to the floor before",
                  "to the floor after", "resolution"], rows)


def likely(values):
    """The median, and between which two of the values that of infinitely many would be, 19 times of 20."""
    ordered, outside, below = sorted(values), 0.0, 0
    while below < len(ordered) // 2 and outside + math.comb(len(ordered), below) / 2**len(ordered) <= 0.025:
        outside += math.comb(len(ordered), below) / 2**len(ordered)
        below += 1
    median, lowest = f"{statistics.median(ordered):.3f}", max(below - 1, 0)
    return f"{median} [{ordered[lowest]:.3f}-{ordered[-1 - lowest]:.3f}]" if below else median


def counting(document):
    """What an engine takes with its statistics kept as a part of what it takes without, in the same rounds."""
    if not counts(document):
        return []
    rows, rounds = [], 0
    for (scenario, cores), entries in by_scenario(document).items():
        for plain_name, other in (*COUNTED.items(), ("tarvo", AGAIN)):
            found = [find(entries, name) for name in (other, plain_name)]
            if all(found):
                parts = {metric: goals.quotients(*found, metric) for metric in ("cpu", "rate")}
                rounds = max(rounds, len(parts["cpu"]))
                rows.append([name_of(document, scenario), CORES[cores], ENGINES[plain_name] +
                             (", to itself without" if other == AGAIN else ""), *map(likely, parts.values())])
    return [*about(document), f"Medians of the ratios of {rounds} rounds, and the interval in which the median of more rounds "
            "would lie 19 times of 20. The rows \"to itself\" say what chance makes of two that are the same.", "",
            *table(["", "cores", "", "processor time", "rate"], rows)]


def against_peers(document):
    """Medians, or calls a second, of everybody."""
    names = [name for name in document["contestants"] if name != AGAIN]
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        if document["scenarios"][scenario]["group"] not in ("main", "window"):
            continue
        metric = document["scenarios"][scenario]["metric"]
        unit = "us" if metric == "p50" else "a second"
        rows.append([f"{name_of(document, scenario)}, {unit}", CORES[cores],
                     *(median(find(entries, name), metric) for name in names)])
    return table(["", "cores", *names], rows)


def pipes(document):
    """A call on one of many open pipes as a multiple of the cost with one."""
    groups = by_scenario(document)
    rows = []
    for name, engine in ENGINES.items():
        for count in (10, 100, 1000):
            for cores in CORES:
                one = find(groups.get(("pipes1", cores), []), name)
                many = find(groups.get((f"pipes{count}", cores), []), name)
                if one and many:
                    rows.append([engine, str(count), cores,
                                 *(quotient(many, one, metric) for metric in ("p50", "rate", "cpu"))])
    return table(["", "pipes", "cores", "median", "rate", "processor time"], rows)


def quotient(entry, base, metric):
    if not entry or not base or metric not in entry["values"] or metric not in base["values"]:
        return ""
    found = entry["values"][metric]["median"] / base["values"][metric]["median"]
    return f"{found:.2f}" if found >= 0.1 else f"{found:.3f}"


def fan_in(document):
    groups = by_scenario(document)
    rows = []
    for name, engine in ENGINES.items():
        for scenario in FAN_IN:
            for cores in CORES:
                entry = find(groups.get((scenario, cores), []), name)
                if entry:
                    rows.append([engine, scenario[len("clients"):], cores, *(median(entry, metric) for metric in (
                        "rate", "p50", "p99", "p999", "threads", "private_kb", "virtual_kb", "descriptors", "switches"))])
    return table(["", "clients", "cores", "calls a second", "median us", "99th us", "99.9th us", "threads of the server",
                  "private kB", "virtual kB", "descriptors", "switches of the server a call"], rows)


def opens(document):
    groups = by_scenario(document)
    rows = [[scenario[len("opens"):], entry["contestant"],
             f"{sum(one['failures'] for one in entry['rounds'])} of {int(scenario[len('opens'):]) * len(entry['rounds'])}",
             f"{entry['max'] / 1e3:.0f}", median(entry, "rate")]
            for scenario in OPENS for entry in groups.get((scenario, "all"), []) if entry["contestant"] != AGAIN]
    return table(["clients", "", "failures", "slowest ms", "opens a second"], rows)


def urgent(document):
    rows = []
    for one in document.get("urgent", []):
        length = one["call"]["samples"] // 1000  # seconds: one call in a millisecond
        for what, found in (("call", one["call"]), ("from when it was due", one["from_due"]),
                            ("cyclictest meanwhile", one["cyclictest"])):
            figures = (found.get(name) for name in ("p50", "p99", "p999", "max"))
            rows.append([f"{one['pipes']} pipes, {length} s: {what}",
                         *(number(figure) if figure is not None else "" for figure in figures), str(found["samples"])])
    return table(["us", "median", "99th", "99.9th", "slowest", "samples"], rows)


def idle(document):
    entries = by_scenario(document).get(("idle", "all"), [])
    return table(["", "wake-ups in 5 s, both processes"],
                 [[entry["contestant"], f"{entry['values']['wakeups']['median']:.0f}"] for entry in entries
                  if "wakeups" in entry["values"] and entry["contestant"] != AGAIN])


def part_of_peer(document, engine="tarvo"):
    """How long the library takes as a part of what each of the others takes; below 1 is faster."""
    names = [name for name in document["contestants"] if name not in (engine, AGAIN)]
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        own = find(entries, engine)
        about_it = document["scenarios"][scenario]
        if not own or about_it["group"] not in ("main", "more", "window"):
            continue
        metric = about_it["metric"]
        parts = [quotient(own, other, metric) if metric == "p50" else quotient(other, own, metric)
                 for other in (find(entries, name) for name in names)]
        if any(parts):
            rows.append([name_of(document, scenario), CORES[cores], *parts])
    return table(["", "cores", *names], rows)


def kernel(document):
    names = [name for name in document["contestants"] if name != AGAIN]
    rows = []
    for (scenario, cores), entries in by_scenario(document).items():
        if scenario in ("call64", "callers8", "oneway64"):
            parts = [(find(entries, name) or {"values": {}})["values"].get("kernel") for name in names]
            if any(parts):
                rows.append([name_of(document, scenario), CORES[cores],
                             *(f"{part['median']:.0f} %" if part else "" for part in parts)])
    return table(["", "cores", *names], rows)


METRICS = {"p50": "median", "rate": "rate", "syscalls": "system calls"}


def reached(document):
    rows = []
    for goal, cores, against, value, verdict in goals.findings(document):
        what = f"{name_of(document, goal.scenario)}, {METRICS[goal.metric]}" + (f" to that of {goal.against}" if goal.against
                                                                               else "")
        if against and against != goal.against:
            what += f" ({against})"
        aim = f"at most {goal.most:.2f}" if goal.most is not None else (
            f"at least {goal.least:.2f}" if goal.least is not None else "")
        rows.append([ENGINES[goal.name], what, CORES[cores], aim, spread(value), verdict])
    counted = [row for row in document.get("inside", {}).get("rows", []) if row["contestant"] in ENGINES]
    rows += [[ENGINES[row["contestant"]], f"{row['kind']}, instructions outside the kernel (`--inside`)", "", "",
              f"{row['instructions']:.0f}", "told only"] for row in counted]
    return table(["", "", "cores", "aim", "found", ""], rows)


# What is told of both engines side by side: text, the scenario of each, metric, cores.
ROWS = [("call of 64 bytes, median us", "call64", "call64", "p50", "one"),
        ("call of 64 bytes, median us", "call64", "call64", "p50", "all"),
        ("call of 4000 bytes, median us", "call4000", "call4000", "p50", "one"),
        ("system calls a call, both ends", "call64", "call64", "syscalls", "one"),
        ("8 calls outstanding, calls a second (library: 8 threads)", "callers8", "window8", "rate", "one"),
        ("8 calls outstanding, calls a second (library: 8 threads)", "callers8", "window8", "rate", "all"),
        ("64 calls outstanding, calls a second", "", "window64", "rate", "one"),
        ("16 client processes, calls a second", "clients16", "clients16", "rate", "one"),
        ("16 client processes, calls a second", "clients16", "clients16", "rate", "all"),
        ("one-way, 64 bytes, messages a second", "oneway64", "oneway64", "rate", "one"),
        ("one-way, 4000 bytes, messages a second", "oneway4000", "oneway4000", "rate", "one"),
        ("connect and first call, median us", "connect", "connect", "p50", "one"),
        ("threads of a server with 1000 clients", "clients1000", "clients1000", "threads", "all"),
        ("its private memory, kB", "clients1000", "clients1000", "private_kb", "all"),
        ("wake-ups in 5 s without work", "idle", "idle", "wakeups", "all")]


def engines(document):
    """Both side by side, for whoever has to choose."""
    groups = by_scenario(document)
    rows = []
    for text, *scenarios, metric, cores in ROWS:
        found = [plain(find(groups.get((scenario, cores), []), name), metric)
                 for name, scenario in zip(ENGINES, scenarios)]
        if any(found):
            rows.append([text, CORES[cores], *found])
    machine = document["machine"]
    return [f"Side by side on {machine['cores']} cores ({machine['processor']}), in the run that "
            "[PERFORMANCE.md](PERFORMANCE.md) tells:", "", *table(["", "cores", *ENGINES.values()], rows)]


def inside(document):
    """The table of inside.json."""
    rows = [[row["kind"], row["contestant"], f"{row['instructions']:.0f}", f"{row['blocks']:.1f}",
             *(str(row.get(metric, "")) for metric in ("lines", "pages"))] for row in document["rows"]]
    return table(["", "", "instructions outside the kernel", "heap blocks", "cache lines of the client",
                  "pages of the client"], rows)


# What stands in the page: title, plots, text, table.
PARTS = [
    ("Urgent pipes under stress", ["urgent.svg"],
     "A thread with `SCHED_FIFO` calls once in a millisecond, both processes lock their memory, and stress-ng keeps every "
     "core, the memory and the disk busy. \"From when it was due\" adds what the caller's own wake-up was late by. "
     "cyclictest, at a priority above the library's, shows at the same time how late this machine wakes a single thread. "
     "A call has four such wake-ups: what the library adds shows in the 99th percentiles. Where the slowest of both are "
     "alike the machine stood still, as a virtual one does, and no priority helps: measure your own.",
     urgent),
    ("Library and floor", ["ratios.svg", "calls.svg"],
     "The median over the rounds of the ratios to the lowest floor, with the least and the greatest. Below 1.00 is faster "
     "than the floor, except for the rate, where it is slower. Differences up to the resolution, by which the library "
     "differs from itself in a round of the same run, mean nothing.", against_floor),
    ("Before and after", [], "The library's figures as a part of those of an earlier build of it (`--before`), and its median, "
     "or rate, to the lowest floor.", before_and_after),
    ("Loop and its floor", [], "The same for the loop, whose floor is `loop-floor`.",
     lambda document: against_floor(document, "tarvo-loop")),
    ("Against other systems", [], "Median of a call in us, or calls or messages a second.", against_peers),
    ("", [], "The library's time as a part of the other's: below 1.00 the library is faster.", part_of_peer),
    ("", [], "The loop's time as a part of the other's: below 1.00 the loop is faster.",
     lambda document: part_of_peer(document, "tarvo-loop")),
    ("Open load", ["open-load.svg"],
     "Eight callers whose calls are due at fixed moments, at 10 to 95 % of the rate that the same system reaches when "
     "each caller calls as soon as it can; a call that is made late has waited since it was due.", lambda _: []),
    ("Many clients", ["fan-in.svg", "fan-in-server.svg"], "A server and so many client processes.", fan_in),
    ("Many opens at once", [], "So many processes begin to connect at the same moment. The slowest has its connection, and "
     "the answer to its first call, so much later.", opens),
    ("Many pipes", [], "A call on one of so many open pipes, as a multiple of the cost with one.", pipes),
    ("Size of a message", ["payload.svg"], "Calls of 1 to 4000 bytes.", lambda _: []),
    ("Idle", [], "Context switches of server and client together, connected, with nothing to do.", idle),
    ("The kernel's share", [], "How much of the processor time of server and client the kernel takes.", kernel),
    ("Aims", [], "What each engine was to reach, and what this run found: the median of the rounds' ratios, with the least "
     "and the greatest. In ratios of times less is better, in ratios of rates more. What is missed, and why, is told "
     "[below](#what-a-call-costs-and-where).", reached),
]
