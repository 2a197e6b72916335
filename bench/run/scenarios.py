"""What is measured, and in which form of a run."""
from dataclasses import dataclass, replace

# As in bench/process/Contestant.h.
LANES, ONE_WAY, WINDOW, CONNECTS, MANY_CLIENTS, MANY_PIPES, URGENT = (1 << bit for bit in range(7))

# A percentile is printed when it comes from so much at least.
LEAST_SECONDS, LEAST_SAMPLES, LEAST_ABOVE = 2.0, 20_000, 100
LENGTH = LEAST_SECONDS * 1.02  # of a measurement: a little is lost before its first call


@dataclass(frozen=True)
class Scenario:
    """One row of figures for each contestant; its name always means the same, whatever the form of the run."""
    name: str
    text: str
    kind: str = "call"
    size: int = 64
    lanes: int = 1
    pipes: int = 1
    window: int = 1
    clients: int = 1
    busy: int = 0       # processes that use a core, beside it
    needs: int = 0      # abilities of a contestant that takes part
    either: int = 0     # abilities of which one is enough
    group: str = "main"  # which plot and which of a form's lists it belongs to
    load: float = 0     # "open": the part of the capacity that is asked for
    seconds: float = 0  # instead of the form's
    modes: tuple = ("one", "all")


def plural(number, one, ending="s"):
    return f"{number} {one}{ending if number > 1 else ''}"


def calls(size, group):
    return Scenario(f"call{size}", f"call of {plural(size, 'byte')}", size=size, group=group)


def clients(number):
    return Scenario(f"clients{number}", f"{plural(number, 'client process', 'es')}, 64 bytes", clients=number,
                    needs=MANY_CLIENTS, group="main" if number == 16 else "fan-in")


def pipes(number, busy=0):
    text = f"call of 64 bytes, {plural(number, 'pipe')} open" + (", two busy foreign processes" if busy else "")
    return Scenario(f"pipes{number}" + ("busy" if busy else ""), text, pipes=number, needs=MANY_PIPES, busy=busy,
                    group="pipes")


def open_load(percent):
    return Scenario(f"open{percent}", f"calls of 8 callers due at {percent} % of the rate that they can reach",
                    kind="open", lanes=8, either=LANES | WINDOW, group="open", load=percent / 100)


SCENARIOS = [
    calls(64, "main"),
    Scenario("callers8", "8 callers on one pipe, 64 bytes", lanes=8, needs=LANES),
    clients(16),
    Scenario("oneway64", "one-way messages of 64 bytes", kind="oneway", window=500, needs=ONE_WAY),
    Scenario("connect", "connect and first call", kind="connect", needs=CONNECTS),
    calls(1000, "more"),
    calls(4000, "more"),
    Scenario("oneway4000", "one-way messages of 4000 bytes", kind="oneway", size=4000, window=500, needs=ONE_WAY,
             group="more"),
    Scenario("busy64", "call of 64 bytes, two busy foreign processes", busy=2, group="more"),
    Scenario("window8", "8 calls outstanding from one thread, 64 bytes", kind="window", window=8, needs=WINDOW,
             group="window"),
    Scenario("window64", "64 calls outstanding from one thread, 64 bytes", kind="window", window=64, needs=WINDOW,
             group="window"),
    pipes(1), pipes(10), pipes(100), pipes(1000), pipes(1000, busy=2),
    *(calls(size, "payload") for size in (1, 16, 256, 2000, 3000)),
    *(clients(number) for number in (1, 4, 64, 256, 1000)),
    *(open_load(percent) for percent in (10, 30, 50, 70, 80, 90, 95)),
    Scenario("idle", "wake-ups while nothing happens", kind="idle", group="idle", seconds=5, modes=("all",)),
]
PAYLOADS = ["call1", "call16", "call64", "call256", "call1000", "call2000", "call3000", "call4000"]
FAN_IN = ["clients1", "clients4", "clients16", "clients64", "clients256", "clients1000"]


@dataclass(frozen=True)
class Form:
    """How much a run does: for each group of scenarios, how many rounds, with which contestants, on which cores."""
    name: str
    seconds: float
    least: int
    groups: dict
    urgent: float      # seconds of each measurement of urgent calls; 0: none
    most_clients: dict  # by kind of contestant: "own" (the library and the floors) or "peer"

    def scenarios(self):
        return [replace(scenario, modes=tuple(mode for mode in scenario.modes if mode in modes))
                for scenario in SCENARIOS
                for _, _, modes in [self.groups[scenario.group]]]

    def rounds(self, scenario):
        return self.groups[scenario.group][0]

    def wants(self, contestant, scenario):
        peer = contestant.peer
        if contestant.name == "floor-shared" and scenario.clients == 1:
            return False  # one worker is what the others have then
        if scenario.either and not scenario.either & contestant.abilities:
            return False
        if scenario.needs & ~contestant.abilities or scenario.clients > self.most_clients["peer" if peer else "own"]:
            return False
        return self.groups[scenario.group][1] == "every" or not peer


BOTH, ALL = ("one", "all"), ("all",)
GROUPS = ("main", "more", "window", "pipes", "payload", "fan-in", "open", "idle")
FORMS = {
    # Every scenario, and each contestant in everything that it can do, as short as can be: shows that all of it works,
    # and gives no figures.
    "smoke": Form("smoke", 0.0, 10, {group: (1, "every" if group in ("main", "window", "idle") else "own", ALL)
                                     for group in GROUPS}, 1, {"own": 64, "peer": 16}),
    "quick": Form("quick", LENGTH, LEAST_SAMPLES,
                  {"main": (3, "every", BOTH), "more": (3, "own", BOTH), "window": (1, "every", BOTH),
                   "pipes": (1, "own", BOTH), "payload": (1, "own", BOTH), "fan-in": (1, "own", ALL),
                   "open": (1, "every", ALL), "idle": (1, "every", ALL)}, 110, {"own": 1000, "peer": 16}),
    "whole": Form("whole", LENGTH, LEAST_SAMPLES,
                  {"main": (7, "every", BOTH), "more": (5, "every", BOTH), "window": (5, "every", BOTH),
                   "pipes": (5, "own", BOTH), "payload": (3, "every", BOTH), "fan-in": (3, "every", BOTH),
                   "open": (3, "every", BOTH), "idle": (1, "every", ALL)}, 600, {"own": 1000, "peer": 256}),
}
