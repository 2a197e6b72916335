"""The plots of a run, from its JSON file: python3 plots.py figures.json FOLDER"""
import json
import os
import sys

import matplotlib

matplotlib.use("Agg")
# pylint: disable=wrong-import-position
from matplotlib import pyplot

from scenarios import FAN_IN, PAYLOADS

matplotlib.rcParams.update({"svg.hashsalt": "tarvo", "svg.fonttype": "none", "font.size": 9, "axes.grid": True,
                            "grid.alpha": 0.3, "axes.spines.top": False, "axes.spines.right": False,
                            "legend.frameon": False})
HIDDEN = {"tarvo-again"}  # the same as tarvo; told in the tables
CORES = {"one": "one core", "all": "all cores"}


class Document:
    """The entries of a JSON file by scenario, cores and contestant."""

    def __init__(self, document):
        self.document = document
        self.entries = {(entry["scenario"], entry["cores"], entry["contestant"]): entry
                        for entry in document["results"]}
        self.names = [name for name in document["contestants"] if name not in HIDDEN]
        # The library first, then floors, then peers, each with the same colour in every plot.
        about = document["contestants"]
        self.names.sort(key=lambda name: (not name.startswith("tarvo"), about[name]["peer"], name))
        self.colours = {name: f"C{index}" if index < 10 else matplotlib.colormaps["Dark2"](index - 10)
                        for index, name in enumerate(self.names)}

    def value(self, scenario, cores, name, metric):
        entry = self.entries.get((scenario, cores, name))
        found = entry and entry["values"].get(metric)
        return found["median"] if found else None

    def modes(self, scenarios, least=1):
        """One core and all, as far as so many of the scenarios were measured there."""
        return [mode for mode in CORES
                if len({scenario for scenario, cores, _ in self.entries if scenario in scenarios and cores == mode})
                >= least]

    def style(self, name):
        own = name.startswith("tarvo")
        return {"color": self.colours[name], "label": name, "linewidth": 2.2 if own else 1.1,
                "zorder": 3 if own else 2, "linestyle": "--" if self.document["contestants"][name]["floor"] else "-"}


def save(figure, folder, name):
    handles = {label: handle for axes in figure.axes for handle, label in zip(*axes.get_legend_handles_labels())}
    height = 0.35 * (1 + len(handles) // 6) / figure.get_figheight() if handles else 0
    if handles:
        figure.legend(handles.values(), handles.keys(), loc="lower center", ncol=6, fontsize=8)
    figure.tight_layout(rect=(0, height, 1, 1))
    figure.savefig(os.path.join(folder, name), metadata={"Date": None})
    pyplot.close(figure)
    print(f"wrote {os.path.join(folder, name)}")


def tail(axes, bins, **style):
    """How large a part of the calls took longer."""
    total = sum(count for _, count in bins)
    left, parts = total, []
    for _, count in bins:
        parts.append(left / total)
        left -= count
    axes.step([edge for edge, _ in bins], parts, where="post", **style)
    axes.set(xscale="log", yscale="log", xlabel="us", ylabel="part of the calls that took longer")


def by(document, folder, name, scenarios, xs, metrics, xlabel, xscale):
    """A row of panels for each mode, a panel for each metric, a line for each contestant."""
    modes = document.modes(scenarios, least=2)
    if not modes:
        return
    figure, grid = pyplot.subplots(len(modes), len(metrics), figsize=(4.2 * len(metrics), 3.2 * len(modes)),
                                   squeeze=False)
    for row, mode in zip(grid, modes):
        for axes, (metric, label) in zip(row, metrics.items()):
            for contestant in document.names:
                points = [(x, document.value(scenario, mode, contestant, metric)) for scenario, x in zip(scenarios, xs)]
                points = [(x, value) for x, value in points if value is not None]
                if points:
                    axes.plot(*zip(*points), marker=".", **document.style(contestant))
            axes.set(xlabel=xlabel, xscale=xscale, title=f"{label}, {CORES[mode]}", yscale="log")
    save(figure, folder, name)


def calls(document, folder):
    """The whole distribution of a call of 64 bytes."""
    modes = document.modes(["call64"])
    if not modes:
        return
    figure, row = pyplot.subplots(1, len(modes), figsize=(5 * len(modes), 3.8), squeeze=False)
    for axes, mode in zip(row[0], modes):
        for name in document.names:
            entry = document.entries.get(("call64", mode, name))
            if entry and entry.get("histogram_us"):
                tail(axes, entry["histogram_us"], **document.style(name))
        axes.set_title(f"call of 64 bytes, {CORES[mode]}")
    save(figure, folder, "calls.svg")


def ratios(document, folder):
    """Bars: time of a call as a multiple of the lowest floor's, or of a message, from the rate."""
    chosen = [name for name, about in document.document["scenarios"].items()
              if about["group"] == "main" and document.modes([name])]
    modes = document.modes(chosen)
    if not modes:
        return
    figure, grid = pyplot.subplots(len(chosen), len(modes), figsize=(5 * len(modes), 2.1 * len(chosen)), squeeze=False)
    for row, scenario in zip(grid, chosen):
        metric = document.document["scenarios"][scenario]["metric"]
        for axes, mode in zip(row, modes):
            bars = []
            for name in reversed(document.names):
                ratio = document.entries.get((scenario, mode, name), {}).get("ratios", {}).get(metric)
                if ratio:
                    bars.append((name, ratio["median"] if metric == "p50" else 1 / ratio["median"]))
            if bars:
                axes.barh(*zip(*bars), color=[document.colours[name] for name, _ in bars])
                axes.bar_label(axes.containers[0], fmt="%.2f", fontsize=7)
            axes.set_visible(bool(bars))
            axes.axvline(1, color="black", linewidth=0.8)
            axes.set_title(f"{document.document['scenarios'][scenario]['text']}, {CORES[mode]}", fontsize=9)
            axes.tick_params(labelsize=7)
    figure.suptitle("times the lowest floor; for the loop, its own")
    save(figure, folder, "ratios.svg")


def open_load(document, folder):
    """Latency against the rate at which calls were due."""
    scenarios = [name for name, about in document.document["scenarios"].items() if about["kind"] == "open"]
    modes = document.modes(scenarios)
    if not modes:
        return
    metrics = {"p50": "median", "p99": "99th percentile", "max": "slowest"}
    figure, grid = pyplot.subplots(len(modes), len(metrics), figsize=(12.6, 3.4 * len(modes)), squeeze=False)
    for row, mode in zip(grid, modes):
        for axes, (metric, label) in zip(row, metrics.items()):
            for name in document.names:
                points = []
                for scenario in scenarios:
                    entry = document.entries.get((scenario, mode, name), {})
                    value = entry.get("max") if metric == "max" else document.value(scenario, mode, name, metric)
                    if value is not None:
                        points.append((document.value(scenario, mode, name, "asked"), value))
                if points:
                    axes.plot(*zip(*points), marker=".", **document.style(name))
            axes.set(xlabel="calls a second that were due", ylabel="us", yscale="log",
                     title=f"{label}, 8 callers, {CORES[mode]}")
    save(figure, folder, "open-load.svg")


def urgent(document, folder):
    """Calls at 1 kHz under stress, with what the machine added."""
    found = document.document.get("urgent", [])
    if not found:
        return
    figure, axes = pyplot.subplots(figsize=(7, 4.2))
    for one, colour in zip(sorted(found, key=lambda one: one["pipes"] != "urgent"), ("C0", "C3")):
        pipes = one["pipes"]
        tail(axes, one["call"]["histogram_us"], color=colour, label=f"call over {pipes} pipes")
        tail(axes, one["from_due"]["histogram_us"], color=colour, linestyle="--",
             label=f"from when it was due, {pipes} pipes")
        tail(axes, [bin for bin in one["cyclictest"]["histogram_us"] if bin[0] > 0], color=colour, linestyle=":",
             label=f"cyclictest beside {pipes} pipes")
    axes.set_title("64 bytes at 1 kHz from a real-time thread, under stress")
    save(figure, folder, "urgent.svg")


def draw(figures, folder):
    document = Document(figures)
    ratios(document, folder)
    calls(document, folder)
    sizes = [int(name[len("call"):]) for name in PAYLOADS]
    numbers = [int(name[len("clients"):]) for name in FAN_IN]
    by(document, folder, "payload.svg", PAYLOADS, sizes, {"p50": "median us", "cpu": "processor us a call"}, "bytes",
       "linear")
    by(document, folder, "fan-in.svg", FAN_IN, numbers,
       {"rate": "calls a second", "p50": "median us", "p99": "99th percentile us"}, "client processes", "log")
    by(document, folder, "fan-in-server.svg", FAN_IN, numbers,
       {"threads": "threads of the server", "private_kb": "its private memory kB", "descriptors": "its descriptors"},
       "client processes", "log")
    open_load(document, folder)
    urgent(document, folder)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        draw(json.load(source), sys.argv[2])
