"""What is measured, and in which form of a run."""
from dataclasses import dataclass, replace

# As in bench/process/Contestant.h.
LANES, ONE_WAY, WINDOW, CONNECTS, MANY_CLIENTS, MANY_PIPES, URGENT = (1 << bit for bit in range(7))

AGAIN, BEFORE = "tarvo-again", "tarvo-before"  # the library a second time, and another build of it
COUNTED = {"tarvo": "tarvo-counted", "tarvo-loop": "tarvo-loop-counted"}  # each engine with its statistics kept
TOLD_TWICE = {"main", "more"}  # the groups in which the two take part, unless scenarios are named

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

    @property
    def metric(self):
        """The one that it is about."""
        if self.kind == "idle":
            return "wakeups"
        return "p50" if self.kind in ("call", "connect") and self.lanes == self.clients == 1 else "rate"


def plural(number, one, ending="s"):
    return f"{number} {one}{ending if number > 1 else ''}"


def calls(size, group):
    return Scenario(f"call{size}", f"call of {plural(size, 'byte')}", size=size, group=group)


def clients(number):
    return Scenario(f"clients{number}", f"{plural(number, 'client process', 'es')}, 64 bytes", clients=number,
                    needs=MANY_CLIENTS, group="main" if number == 16 else "fan-in")


def opens(number):
    return Scenario(f"opens{number}", f"{number} clients that open a connection at the same moment", kind="opens",
                    clients=number, needs=CONNECTS | MANY_CLIENTS, group="opens", modes=("all",))


def pipes(number, busy=0):
    text = f"call of 64 bytes, {plural(number, 'pipe')} open" + (", two busy foreign processes" if busy else "")
    return Scenario(f"pipes{number}" + ("busy" if busy else ""), text, pipes=number, needs=MANY_PIPES, busy=busy,
                    group="pipes")


def open_load(percent):
    return Scenario(f"open{percent}", f"calls of 8 callers due at {percent} % of the rate that they can reach",
                    kind="open", lanes=8, either=LANES | WINDOW, group="open", load=percent / 100)


# What matters most comes first, since a run with a limit may leave out the last.
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
    Scenario("idle", "wake-ups while nothing happens", kind="idle", group="idle", seconds=5, modes=("all",)),
    opens(64), opens(1000),
    *(clients(number) for number in (1, 4, 64, 256, 1000)),
    *(open_load(percent) for percent in (10, 30, 50, 70, 80, 90, 95)),
    *(calls(size, "payload") for size in (1, 16, 256, 2000, 3000)),
    pipes(1), pipes(10), pipes(100), pipes(1000), pipes(1000, busy=2),
]
PAYLOADS = ["call1", "call16", "call64", "call256", "call1000", "call2000", "call3000", "call4000"]
FAN_IN = ["clients1", "clients4", "clients16", "clients64", "clients256", "clients1000"]
OPENS = ["opens64", "opens1000"]


@dataclass(frozen=True)
class Part:
    """How much of a group of scenarios a form measures."""
    rounds: int
    who: str  # "every", "own" (the library, its loop and the floors) or "engines" (without the floors)
    modes: tuple
    peer_rounds: int = 0  # when others than the rounds of the own ones


@dataclass(frozen=True)
class Form:
    """How much a run does."""
    name: str
    seconds: float
    least: int
    groups: dict         # of a Part for each
    urgent: float        # seconds of each measurement of urgent calls; 0: none
    most_clients: dict   # by kind of contestant: "own" or "peer"
    minutes: float = 0   # after which it begins nothing more; 0: no limit
    only: tuple = ()     # the names of its scenarios; empty: all

    def scenarios(self):
        return [replace(scenario, modes=tuple(mode for mode in scenario.modes if mode in self.groups[scenario.group].modes))
                for scenario in SCENARIOS if not self.only or scenario.name in self.only]

    def rounds(self, scenario, peer=False):
        part = self.groups[scenario.group]
        return peer and part.peer_rounds or part.rounds

    def wants(self, contestant, scenario):
        who = self.groups[scenario.group].who
        if contestant.name == "floor-shared" and scenario.clients == 1:
            return False  # one worker is what the others have then
        if scenario.either and not scenario.either & contestant.abilities:
            return False
        if scenario.needs & ~contestant.abilities:
            return False
        if scenario.clients > self.most_clients["peer" if contestant.peer else "own"]:
            return False
        return who == "every" or not contestant.peer and (who == "own" or not contestant.floor)


BOTH, ALL = ("one", "all"), ("all",)
FORMS = {
    # Each contestant in each kind of scenario that it can do, as short as can be: shows that all of it works, and gives no
    # figures.
    "smoke": Form("smoke", 0.0, 10,
                  {**{group: Part(1, "every", ALL) for group in ("main", "window", "fan-in")},
                   **{group: Part(1, "engines", ALL) for group in ("more", "pipes", "payload", "open", "opens", "idle")}},
                  1, {"own": 64, "peer": 4},
                  only=("call64", "callers8", "clients4", "oneway64", "connect", "call4000", "busy64", "window8", "idle",
                        "opens64", "open50", "open95", "pipes10")),
    "quick": Form("quick", LENGTH, LEAST_SAMPLES,
                  {"main": Part(3, "every", BOTH, peer_rounds=2), "more": Part(3, "own", BOTH),
                   "window": Part(1, "every", BOTH), "idle": Part(1, "every", ALL), "opens": Part(1, "own", ALL),
                   "fan-in": Part(1, "own", ALL), "open": Part(1, "every", ALL), "payload": Part(1, "own", BOTH),
                   "pipes": Part(1, "engines", BOTH)}, 110, {"own": 1000, "peer": 16}, minutes=37),
    "whole": Form("whole", LENGTH, LEAST_SAMPLES,
                  {"main": Part(5, "every", BOTH, peer_rounds=3), "more": Part(3, "every", BOTH, peer_rounds=2),
                   "window": Part(2, "every", BOTH), "idle": Part(1, "every", ALL), "opens": Part(2, "own", ALL),
                   "fan-in": Part(2, "every", BOTH, peer_rounds=1), "open": Part(2, "every", BOTH, peer_rounds=1),
                   "payload": Part(2, "every", BOTH, peer_rounds=1), "pipes": Part(2, "own", BOTH)},
                  600, {"own": 1000, "peer": 256}),
}
