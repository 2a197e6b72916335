"""What the table of aims promises. Run by scripts/bench.sh."""
import unittest

from goals import Goal, base, findings, quotient, verdict

ABOUT = {"tarvo": {"peer": False, "floor": False, "design": "threads"},
         "tarvo-loop": {"peer": False, "floor": False, "design": "loop"},
         "floor": {"peer": False, "floor": True, "design": "threads"},
         "floor-shared": {"peer": False, "floor": True, "design": "threads"},
         "loop-floor": {"peer": False, "floor": True, "design": "loop"},
         "fifo": {"peer": True, "floor": False, "design": "threads"},
         "nng": {"peer": True, "floor": False, "design": "threads"},
         "zeromq": {"peer": True, "floor": False, "design": "threads"}}


def entry(name, metric, *rounds, scenario="clients16", cores="one"):
    """One value for each round, None for a round that it did not take part in."""
    present = [value for value in rounds if value is not None]
    return {"contestant": name, "scenario": scenario, "cores": cores, "ratios": {},
            "values": {metric: {"median": sorted(present)[len(present) // 2]}} if present else {},
            "rounds": [{"round": number, metric: value} for number, value in enumerate(rounds) if value is not None]}


class Base(unittest.TestCase):
    def chosen(self, goal, *entries):
        found = base(goal, entries, ABOUT)
        return found and found["contestant"]

    def test_is_the_best_other_system_and_no_floor(self):
        rates = [entry("floor", "rate", 9.0), entry("fifo", "rate", 8.0), entry("nng", "rate", 2.0), entry("zeromq", "rate", 3.0)]
        self.assertEqual(self.chosen(Goal("tarvo-loop", "s", "rate", "the fastest other system"), *rates), "zeromq")

    def test_is_the_best_floor_of_the_same_design(self):
        times = [entry("floor", "p50", 3.0), entry("floor-shared", "p50", 2.0), entry("loop-floor", "p50", 1.0)]
        self.assertEqual(self.chosen(Goal("tarvo", "s", "p50", "the lowest floor"), *times), "floor-shared")
        self.assertEqual(self.chosen(Goal("tarvo", "s", "p50", "the lowest floor with a worker for each client"), *times),
                         "floor")

    def test_is_nobody_when_the_one_was_not_measured(self):
        self.assertIsNone(self.chosen(Goal("tarvo-loop", "s", "p50", "sd-bus"), entry("nng", "p50", 1.0)))
        self.assertIsNone(self.chosen(Goal("tarvo-loop", "s", "p50", "nng"), entry("nng", "p50")))


class Quotient(unittest.TestCase):
    def test_is_that_of_the_same_rounds_when_one_is_missing(self):
        found = quotient(entry("tarvo", "rate", None, 6.0, 20.0), entry("floor", "rate", 1.0, 2.0, 5.0), "rate")
        self.assertEqual(found, {"median": 3.5, "min": 3.0, "max": 4.0, "rounds": 2})

    def test_of_all_rounds_together_is_one(self):
        own, other = entry("tarvo", "p50", 6.0), entry("floor", "p50", 2.0)
        own["rounds"][0]["p50"] = None  # too few samples in the round
        self.assertEqual(quotient(own, other, "p50"), {"median": 3.0})


class Verdict(unittest.TestCase):
    def test_is_met_up_to_the_limit(self):
        self.assertEqual(verdict(Goal("t", "s", "p50", most=1.05), 1.05), "met")
        self.assertEqual(verdict(Goal("t", "s", "rate", least=0.95), 0.95), "met")

    def test_says_by_how_much_it_is_missed(self):
        self.assertEqual(verdict(Goal("t", "s", "p50", most=0.60), 0.72), "missed by 20 %")
        self.assertEqual(verdict(Goal("t", "s", "rate", least=1.50), 1.20), "missed by 20 %")
        self.assertEqual(verdict(Goal("t", "s", "p50", most=1.10), 1.104), "missed by less than 1 %")

    def test_of_system_calls_leaves_out_those_of_the_count_itself(self):
        self.assertEqual(verdict(Goal("t", "s", "syscalls", most=6), 6.02), "met")
        self.assertEqual(verdict(Goal("t", "s", "syscalls", most=6), 6.1), "missed by 2 %")

    def test_is_not_met_when_nothing_was_measured(self):
        self.assertEqual(verdict(Goal("t", "s", "p50", most=1.0), None), "not measured")


class Findings(unittest.TestCase):
    def test_name_every_aim_also_of_a_run_that_measured_nothing(self):
        verdicts = [found[-1] for found in findings({"results": [], "contestants": ABOUT})]
        self.assertGreater(len(verdicts), 15)
        self.assertEqual(set(verdicts), {"not measured", "told only"})

    def test_take_a_figure_without_a_base_as_it_is(self):
        results = [entry("tarvo-loop", "syscalls", 6.0, scenario="call64")]
        found = [(value["median"], said) for goal, _, _, value, said in findings({"results": results, "contestants": ABOUT})
                 if goal.metric == "syscalls"]
        self.assertEqual(found, [(6.0, "met")])


if __name__ == "__main__":
    unittest.main()
