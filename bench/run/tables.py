"""The tables of a run, from its JSON file: python3 tables.py figures.json"""
import json
import sys

from scenarios import AGAIN

METRICS = {"p50": "p50 us", "p99": "p99 us", "p999": "p99.9 us", "rate": "per second", "cpu": "cpu us",
           "syscalls": "syscalls", "kernel": "kernel %", "failures": "failures", "wakeups": "wake-ups in 5 s",
           "threads": "threads", "private_kb": "private kB"}


def number(value):
    return f"{value:.2f}" if value < 100 else f"{value:.0f}"


def cell(value):
    """A median with the least and the greatest of the rounds."""
    if value is None:
        return ""
    if value.get("rounds", 1) < 2:
        return number(value["median"])
    return f"{number(value['median'])} [{number(value['min'])}-{number(value['max'])}]"


def table(head, rows):
    """Markdown; nothing for a table without rows."""
    if not rows:
        return []
    return ["| " + " | ".join(head) + " |", "|" + "---|" * len(head),
            *("| " + " | ".join(row) + " |" for row in rows), ""]


def by_scenario(document):
    """(scenario, cores) -> entries, the library first, then the floors, then the peers by name."""
    found = {}
    for entry in document["results"]:
        found.setdefault((entry["scenario"], entry["cores"]), []).append(entry)
    about = document["contestants"]
    for entries in found.values():
        entries.sort(key=lambda entry: (about[entry["contestant"]]["peer"], about[entry["contestant"]]["floor"],
                                        entry["contestant"]))
    return found


def resolution(entries, metric):
    """The library divided by itself, the worst of the rounds: differences up to this mean nothing."""
    return next((entry["resolution"].get(metric) for entry in entries if entry["contestant"] == AGAIN), None)


def text(document):
    """Everything, for a terminal."""
    lines = ["Medians of the rounds [least-greatest]; / ratio to the lowest floor of the same rounds.", ""]
    for (scenario, cores), entries in by_scenario(document).items():
        lines.append(f"{document['scenarios'][scenario]['text']}, {'one core' if cores == 'one' else 'all cores'}")
        metrics = [metric for metric in METRICS if any(metric in entry["values"] for entry in entries)]
        for entry in entries:
            cells = []
            for metric in metrics:
                ratio = entry["ratios"].get(metric)
                cells.append(f"{METRICS[metric]} {cell(entry['values'].get(metric)) or '-'}" +
                             (f" /{ratio['median']:.2f}" if ratio else ""))
            lines.append(f"  {entry['contestant']:13}" + ", ".join(cells))
        apart = metrics if not document["scenarios"][scenario]["load"] else []  # at different rates
        told = [f"{METRICS[metric]} {resolution(entries, metric) * 100:.1f} %" for metric in apart
                if resolution(entries, metric) is not None]
        lines += [f"  resolution (the library against itself): {', '.join(told)}", ""] if told else [""]
    return "\n".join(lines)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        print(text(json.load(source)))
