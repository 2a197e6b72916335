"""What the library and its loop are to reach, and what a run found."""
import statistics
from dataclasses import dataclass

from tables import by_scenario

FASTEST = "the fastest other system"
LOWEST = "the lowest floor"
SAME_WORKERS = "the lowest floor with a worker for each client"
HIGHER_IS_BETTER = {"rate"}


@dataclass(frozen=True)
class Goal:
    """A figure of one contestant divided by that of another, or as it is, with what it is to be at most or at least."""
    name: str
    scenario: str
    metric: str
    against: str = ""      # a contestant, or one of the three above; empty: nothing
    most: float = None
    least: float = None    # with neither of the two the figure is only told
    cores: tuple = ("one",)


def library(scenario, metric, against=LOWEST, **limit):
    return Goal("tarvo", scenario, metric, against, cores=("one", "all"), **limit)


def loop(scenario, metric, against, cores=("one",), **limit):
    return Goal("tarvo-loop", scenario, metric, against, cores=cores, **limit)


GOALS = [
    library("call64", "p50", most=1.05),
    library("callers8", "rate", least=0.95),
    library("clients16", "rate", SAME_WORKERS, least=0.95),
    *(loop(f"call{size}", "p50", "loop-floor", most=1.10) for size in (64, 1000, 4000)),
    loop("call64", "p50", "tarvo", most=0.45),
    loop("call64", "p50", "tarvo", ("all",), most=0.95),
    loop("call64", "p50", "sd-bus", most=0.60),
    loop("call64", "syscalls", "", most=6),
    loop("oneway64", "rate", "zeromq", least=1.0),
    loop("oneway4000", "rate", "tarvo", least=3.0),
    loop("window8", "rate", FASTEST),
    loop("window64", "rate", FASTEST, least=1.5),
    loop("clients16", "rate", FASTEST, least=1.5),
    loop("connect", "p50", "sd-bus", most=1.0),
]


def base(goal, entries, about):
    """The entry that a goal is divided by: that of the best of several, by their medians."""
    design = about[goal.name]["design"]
    fits = {
        FASTEST: lambda name: about[name]["peer"] and name != "fifo",
        LOWEST: lambda name: about[name]["floor"] and about[name]["design"] == design,
        SAME_WORKERS: lambda name: about[name]["floor"] and about[name]["design"] == design and name != "floor-shared",
    }.get(goal.against, lambda name: name == goal.against)
    found = [entry for entry in entries if fits(entry["contestant"]) and goal.metric in entry["values"]]
    best = max if goal.metric in HIGHER_IS_BETTER else min
    return best(found, key=lambda entry: entry["values"][goal.metric]["median"], default=None)


def quotients(own, other, metric):
    """Of the same rounds."""
    others = {one["round"]: one for one in other["rounds"]}
    return [one[metric] / others[one["round"]][metric] for one in own["rounds"]
            if one.get(metric) and others.get(one["round"], {}).get(metric)]


def quotient(own, other, metric):
    """As the page's other ratios: that of the same rounds, or else, of percentiles of all rounds together, one."""
    found = quotients(own, other, metric)
    if found:
        return {"median": statistics.median(found), "min": min(found), "max": max(found), "rounds": len(found)}
    return {"median": own["values"][metric]["median"] / other["values"][metric]["median"]}


def verdict(goal, value):
    if goal.most is None and goal.least is None:
        return "told only"
    if value is None:
        return "not measured"
    aim = goal.most if goal.most is not None else goal.least
    if goal.metric == "syscalls":
        value = round(value, 1)  # a few of what is counted are the command's own
    by = value / aim - 1
    if by <= 0 if goal.most is not None else by >= 0:
        return "met"
    return f"missed by {abs(by) * 100:.0f} %" if abs(by) >= 0.005 else "missed by less than 1 %"


def findings(document):
    """(goal, cores, by whose figure it was divided, what was found, verdict) for each."""
    groups = by_scenario(document)
    for goal in GOALS:
        for cores in goal.cores:
            entries = groups.get((goal.scenario, cores), [])
            own = next((entry for entry in entries if entry["contestant"] == goal.name
                        and goal.metric in entry["values"]), None)
            other = base(goal, entries, document["contestants"]) if own and goal.against else None
            value = None
            if own and not goal.against:
                value = own["values"][goal.metric]
            elif own and other:
                value = quotient(own, other, goal.metric)
            yield goal, cores, other and other["contestant"], value, verdict(goal, value and value["median"])
