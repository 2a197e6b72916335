"""The tables of a run of scripts/bench-bridge.py, from its JSON."""
import statistics
import sys

from tables import table

BEGIN, END = "<!-- figures of one run -->", "<!-- end of figures of one run -->"
TEXTS = {"call64": "a call of 64 bytes", "call4000": "a call of 4000 bytes",
         "loop64": "a call of 64 bytes, the loop at both ends", "callers64": "64 threads that call, 64 bytes",
         "window64": "64 calls under way from one thread, 64 bytes", "oneway64": "one-way messages of 64 bytes"}
NAMES = {"here": "on one machine", "bridge": "**through the bridge**", "before": "through the bridge of before",
         "grpc": "gRPC over TCP", "floor": "relay over TCP, the floor",
         "dds_floor": "relay over the DDS, its floor", "dds_ends": "that floor between the same client and server",
         "dds": "round trip of the DDS alone"}
METRICS = {"p50": "median, us", "rate": "a second", "cpu": "processor time of each, us"}
# Of what a call through the bridge may take 1.25 times: a scenario on one machine, and the DDS in that of its size.
SUMS = (("call64", "call64"), ("call4000", "call4000"), ("loop64", "call64"))
RATES = ("callers64", "window64", "oneway64")
CORES = {"own": "One core for each of the two machines", "shared": "All cores for both machines"}


def values(run, scenario, name, metric):
    """Of all rounds; a number, or none."""
    return [one.get(scenario, {}).get(name, {}).get(metric) for one in run["rounds"]]


def spread(found, digits=1):
    """The median with the least and the greatest, of those that are there."""
    found = [value for value in found if value is not None]
    if not found:
        return ""
    text = f"{statistics.median(found):,.{digits}f}"
    return f"{text} [{min(found):,.{digits}f}-{max(found):,.{digits}f}]" if len(found) > 1 else text


def quotients(above, *below):
    """Round by round, the first by the sum of the others."""
    return [None if None in row else row[0] / sum(row[1:]) for row in zip(above, *below)]


def overview(run):
    rows = []
    for scenario, text in TEXTS.items():
        metrics = ("rate", "cpu") if scenario in RATES else ("p50", "cpu")
        for name, shown in NAMES.items():
            first = spread(values(run, scenario, name, metrics[0]), 0 if metrics[0] == "rate" else 1)
            if first:
                rows.append([text, shown, first + (" a second" if metrics[0] == "rate" else " us"),
                             spread(values(run, scenario, name, "cpu"))])
                text = ""
    return table(["", "", "median", "processor time of each, us"], rows)


def goals(run):
    """What is asked for: text, quotients, limit, whether it is the least."""
    def of(scenario, name, metric="p50"):
        return values(run, scenario, name, metric)
    found = []
    for scenario, dds in SUMS:
        found.append((f"{TEXTS[scenario]}, by the sum of that on one machine and a round trip of the DDS",
                      quotients(of(scenario, "bridge"), of(scenario, "here"), of(dds, "dds")), 1.25, False))
    for scenario, dds in SUMS:
        found.append((f"{TEXTS[scenario]}, over the floor over the DDS, by the same sum",
                      quotients(of(scenario, "dds_ends"), of(scenario, "here"), of(dds, "dds")), None, False))
    # The server and the client of a floor do as little as those of the loop.
    for name, text in (("floor", "the floor"), ("dds_floor", "the floor over the DDS")):
        found.append((f"{text}, 64 bytes, by the same sum with the loop",
                      quotients(of("call64", name), of("loop64", "here"), of("call64", "dds")), None, False))
    for scenario in ("call64", "call4000"):
        found.append((f"{TEXTS[scenario]}, by gRPC's", quotients(of(scenario, "bridge"), of(scenario, "grpc")), 0.8,
                      False))
    for scenario in ("callers64", "window64"):
        found.append((f"{TEXTS[scenario]}, by the rate of gRPC",
                      quotients(of(scenario, "bridge", "rate"), of(scenario, "grpc", "rate")), 1.5, True))
    for scenario in ("call64", "call4000"):
        for name, text in (("floor", "the floor's"), ("dds_floor", "that of the floor over the DDS")):
            found.append((f"{TEXTS[scenario]}, by {text}", quotients(of(scenario, "bridge"), of(scenario, name)), None,
                          False))
    for scenario in ("call64", "call4000", "loop64"):
        found.append((f"{TEXTS[scenario]}, by that over the floor over the DDS",
                      quotients(of(scenario, "bridge"), of(scenario, "dds_ends")), None, False))
    for scenario in TEXTS:
        metric = "rate" if scenario in RATES else "p50"
        what = "the rate" if metric == "rate" else "that"
        found.append((f"{TEXTS[scenario]}, by {what} of before",
                      quotients(of(scenario, "bridge", metric), of(scenario, "before", metric)), None, False))
    return found


def goal_table(run):
    rows = []
    for text, found, limit, least in goals(run):
        found = [value for value in found if value is not None]
        if not found:
            continue
        met = limit is None or (statistics.median(found) >= limit if least else statistics.median(found) <= limit)
        asked = "" if limit is None else f"at {'least' if least else 'most'} {limit}"
        rows.append([text, spread(found, 2), asked, "" if limit is None else "yes" if met else "**no**"])
    return table(["", "measured", "goal", "reached"], rows)


def session_lines(run):
    found = run.get("sessions")
    if not found:
        return []
    front, rear, each = found["front"], found["rear"], found["seconds"] / found["sessions"] * 1e3
    return [f"{found['sessions']:,} clients of one server, opened one after the other, all open at the same time: "
            f"{found['seconds']:.1f} s to open all, {each:.2f} ms each. Memory of each session "
            f"{front['private_kb']:.1f} kB in the bridge of the server and {rear['private_kb']:.1f} kB in that of the "
            f"clients; descriptors {front['descriptors']:,} and {rear['descriptors']:,}.", ""]


def about(document):
    """What it was measured on."""
    machine = document["machine"]
    busy = max(run["busy_before"] for run in document["runs"]) > 0.1
    return [f"Medians of the rounds [least-greatest], made from {machine['commit']} on {machine['processor']}, "
            f"{machine['cores']} cores ({machine['virtual']}), Linux {machine['kernel'].split()[0]}. " +
            ("**Others were at work on the machine**, so that only the quotients, of figures of the same round, say "
             "something." if busy else "Nothing else was at work."), ""]


def part(run):
    """The tables of what was measured on the same cores."""
    return [f"#### {CORES[run['cores']]}", "",
            f"{len(run['rounds'])} rounds.", "", *goal_table(run), *overview(run), *session_lines(run)]


def tables(document):
    return "\n".join([*about(document), *(line for run in document["runs"] for line in part(run))])


def write_page(document, page):
    before, found, rest = page.read_text(encoding="utf-8").partition(BEGIN)
    _, ended, after = rest.partition(END)
    if not found or not ended:
        sys.exit(f"bench-bridge.py: {page} has no place for figures")
    page.write_text(f"{before}{BEGIN}\n\n{tables(document).rstrip()}\n\n{END}{after}", encoding="utf-8")
