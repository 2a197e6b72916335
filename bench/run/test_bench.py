"""What a run promises about its length. Run by scripts/bench.sh."""
import contextlib
import io
import unittest
from types import SimpleNamespace
from unittest import mock

import bench
from measure import Contestant, Measured
from scenarios import FORMS, LANES, MANY_CLIENTS, ONE_WAY


def contestants(_):
    def one(name, floor=False):
        return Contestant(name, name, {"name": name, "abilities": LANES | ONE_WAY | MANY_CLIENTS, "floor": floor,
                                       "design": "threads", "version": ""})
    return {"tarvo": one("tarvo"), "tarvo-again": Contestant("tarvo-again", "", one("tarvo").described),
            "floor": one("floor", True), "peer": one("peer")}


def options(**changed):
    return SimpleNamespace(**{"form": "quick", "seed": 1, "contestants": None, "scenarios": None, "rounds": None,
                              "seconds": None, "cores": {"one", "all"}, "minutes": None, "no_urgent": False,
                              "output": "", **changed})


class Machine:
    """One whose clock moves only while something is measured, and then as much as each measurement is said to take."""

    def __init__(self, seconds):
        self.now, self.seconds, self.measured, self.stressed_at = 0.0, seconds, [], None

    def measure(self, contestant, scenario, mode, *_, **__):
        self.now += self.seconds
        self.measured.append((scenario.name, mode, contestant.name))
        return Measured([], 2.0, {"rate": 1000.0})

    def stress(self, *_):
        self.stressed_at = len(self.measured)
        self.now += 2 * FORMS["quick"].urgent
        return ["told"]

    def run(self, **changed):
        with mock.patch.multiple(bench, contestants_of=contestants, measure=self.measure, measure_urgent=self.stress,
                                 time=SimpleNamespace(monotonic=lambda: self.now)), \
                contextlib.redirect_stdout(io.StringIO()) as said:
            run = bench.Run(options(**changed))
            run.all()
        self.said = said.getvalue()
        return run


class Limit(unittest.TestCase):
    def test_leaves_nothing_out_of_a_run_that_is_short_enough(self):
        machine = Machine(1)
        run = machine.run()
        self.assertEqual(run.left_out, {})
        self.assertEqual(sum(run.planned.values()), len(machine.measured))
        self.assertEqual(run.urgent, ["told"])
        self.assertEqual(run.document()["left_out"], [])

    def test_ends_a_slow_run_in_time_and_says_what_is_missing(self):
        machine = Machine(30)
        run = machine.run()
        self.assertLess(machine.now, 60 * FORMS["quick"].minutes + 30)
        missing = sum(run.left_out.values())
        self.assertEqual(missing, sum(run.planned.values()) - len(machine.measured))
        self.assertGreater(missing, 0)
        self.assertEqual(sum(one["measurements"] for one in run.document()["left_out"]), missing)

    def test_keeps_the_time_for_calls_under_stress(self):
        self.assertEqual(Machine(30).run().urgent, ["told"])

    def test_takes_the_scenarios_that_matter_most_first(self):
        machine = Machine(30)
        run = machine.run()
        self.assertNotIn(("call64", "one"), {key for key in run.left_out if run.left_out[key] == run.planned[key]})
        self.assertEqual(run.left_out["call3000", "one"], run.planned["call3000", "one"])

    def test_is_the_named_one_and_no_other_where_somebody_chooses(self):
        self.assertEqual(Machine(1).run(rounds=2).limit, float("inf"))
        self.assertEqual(Machine(1).run(rounds=2, minutes=5).limit, 300)
        self.assertEqual(Machine(1).run().limit, 60 * FORMS["quick"].minutes)


class Announcement(unittest.TestCase):
    def test_says_how_long_the_run_and_its_calls_under_stress_take(self):
        machine = Machine(1)
        machine.run()
        self.assertRegex(machine.said, r"^\d+ measurements, about \d+ minutes, 3\.8 of them under stress; nothing more begins "
                                       r"after 37\n")


class Rounds(unittest.TestCase):
    def test_of_others_are_fewer_in_the_quick_form(self):
        machine = Machine(1)
        machine.run()
        count = {name: machine.measured.count(("call64", "one", name)) for name in ("tarvo", "tarvo-again", "floor", "peer")}
        self.assertEqual(count, {"tarvo": 3, "tarvo-again": 3, "floor": 3, "peer": 2})

    def test_measure_the_twin_only_where_the_resolution_is_told(self):
        machine = Machine(1)
        machine.run()
        self.assertEqual({name for name, _, one in machine.measured if one == "tarvo-again"},
                         {"call64", "callers8", "clients16", "oneway64", "call1000", "call4000", "oneway4000", "busy64"})


if __name__ == "__main__":
    unittest.main()
