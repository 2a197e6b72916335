"""What the figures promise. Run by scripts/bench.sh --smoke."""
import unittest

import numpy

from figures import Results, histogram, percentile
from measure import Measured


def measured(latencies, seconds=2.0, **figures):
    return Measured(numpy.array(latencies), seconds, figures)


class Percentile(unittest.TestCase):
    def test_is_the_least_sample_that_so_many_do_not_exceed(self):
        self.assertEqual(percentile(numpy.arange(1, 100_001) * 1000, 2, 0.5), 50_000)
        self.assertEqual(percentile(numpy.arange(1, 100_001) * 1000, 2, 0.999), 99_900)

    def test_of_too_few_samples_or_too_short_a_time_is_left_out(self):
        self.assertIsNone(percentile(numpy.ones(19_999), 2, 0.5))
        self.assertIsNone(percentile(numpy.ones(20_000), 1.99, 0.5))
        self.assertIsNotNone(percentile(numpy.ones(20_000), 2, 0.5))

    def test_needs_a_hundred_samples_above_it(self):
        self.assertIsNone(percentile(numpy.ones(99_000), 2, 0.999))
        self.assertIsNotNone(percentile(numpy.ones(100_000), 2, 0.999))


class Rounds(unittest.TestCase):
    def test_that_are_too_short_count_together(self):
        results = Results()
        for number in range(2):
            results.add(("s", "one", "tarvo"), number, measured(numpy.full(10_000, 3000), 1.0))
        self.assertEqual(results.value(("s", "one", "tarvo"), "p50"), {"median": 3.0, "pooled": True})
        self.assertIsNone(results.value(("s", "one", "tarvo"), "p999"))

    def test_give_their_median_least_and_greatest(self):
        results = Results()
        for number, rate in enumerate((5.0, 1.0, 2.0)):
            results.add(("s", "one", "tarvo"), number, measured([], rate=rate))
        self.assertEqual(results.value(("s", "one", "tarvo"), "rate"),
                         {"median": 2.0, "min": 1.0, "max": 5.0, "rounds": 3})

    def test_are_divided_by_the_same_round(self):
        results = Results()
        for number, (own, floor) in enumerate(((2.0, 1.0), (20.0, 10.0), (33.0, 11.0))):
            results.add(("s", "one", "tarvo"), number, measured([], cpu=own))
            results.add(("s", "one", "floor"), number, measured([], cpu=floor))
        self.assertEqual(results.ratio(("s", "one", "tarvo"), ("s", "one", "floor"), "cpu")["median"], 2.0)

    def test_of_one_that_failed_divide_nothing_else(self):
        results = Results()
        results.add(("s", "one", "tarvo"), 1, measured([], cpu=4.0))
        results.add(("s", "one", "floor"), 0, measured([], cpu=1.0))
        self.assertIsNone(results.ratio(("s", "one", "tarvo"), ("s", "one", "floor"), "cpu"))


class Resolution(unittest.TestCase):
    def test_is_the_widest_gap_of_two_that_are_the_same(self):
        results = Results()
        for number, (first, second) in enumerate(((1.0, 1.02), (1.0, 0.95), (1.0, 1.0))):
            results.add(("s", "one", "tarvo"), number, measured([], cpu=first))
            results.add(("s", "one", "tarvo-again"), number, measured([], cpu=second))
        found = results.resolution(("s", "one", "tarvo-again"), ("s", "one", "tarvo"))
        self.assertEqual(list(found), ["cpu"])
        self.assertAlmostEqual(found["cpu"], 0.05)


class LowestFloor(unittest.TestCase):
    def test_is_the_cheapest_and_of_rates_the_highest(self):
        results = Results()
        results.add(("s", "one", "floor"), 0, measured([], cpu=2.0, rate=10.0))
        results.add(("s", "one", "floor-sem"), 0, measured([], cpu=1.0, rate=20.0))
        floors = ["floor", "floor-sem", "floor-shared"]
        self.assertEqual(results.lowest_floor("s", "one", "cpu", floors), "floor-sem")
        self.assertEqual(results.lowest_floor("s", "one", "rate", floors), "floor-sem")
        self.assertIsNone(results.lowest_floor("t", "one", "rate", floors))


class Histogram(unittest.TestCase):
    def test_keeps_every_sample(self):
        samples = numpy.array([150, 1000, 1001, 50_000, 7_000_000_000])
        self.assertEqual(sum(count for _, count in histogram(samples)), len(samples))


if __name__ == "__main__":
    unittest.main()
