"""What the page and its tables promise. Run by scripts/bench.sh."""
import json
import os
import tempfile
import unittest

import page
import parts
from figures import Results
from measure import Measured
from scenarios import SCENARIOS


def document(before=None):
    """A run of two rounds: the library twice, and a floor that takes half its time."""
    results = Results()
    for number in range(2):
        others = [("tarvo-before", before)] if before else []
        for name, cpu in (("tarvo", 4.0 + number), ("tarvo-again", 4.1 + number), ("floor", 2.0), *others):
            results.add(("callers8", "one", name), number, Measured([], 2.0, {"cpu": cpu, "rate": 10 / cpu}))
    about = {"version": "1", "peer": False, "floor": False, "design": "threads"}
    return {"when": "2026-01-02T03:04:05", "form": "quick", "urgent": [],
            "machine": {"commit": "abc", "processor": "P", "cores": 2, "virtual": "kvm", "kernel": "6 x", "governor": "g"},
            "contestants": {"tarvo": about, "tarvo-again": about, "floor": {**about, "floor": True},
                            **({"tarvo-before": about} if before else {})},
            "scenarios": {**{one.name: {"text": one.text, "group": one.group, "kind": one.kind, "load": one.load,
                                        "metric": one.metric} for one in SCENARIOS},
                          "callers8": {"text": "8 callers", "group": "main", "kind": "call", "load": 0, "metric": "rate"}},
            "results": [results.entry(key, ["floor"], "tarvo" if key[2] == "tarvo-again" else None)
                        for key in results.rounds]}


def with_statistics():
    """The same with a third that keeps statistics and takes 8."""
    return json.loads(json.dumps(document(before=8.0)).replace("tarvo-before", "tarvo-counted"))


class Tables(unittest.TestCase):
    def test_give_the_ratio_with_its_spread_the_floor_and_the_resolution(self):
        row = page.page(document()).splitlines()
        row = next(line for line in row if line.startswith("| 8 callers | one |"))
        self.assertIn("5.00 [5.00-5.00] (floor)", row)
        self.assertIn("2.25 [2.00-2.50]", row)
        self.assertIn("2.4 %", row)

    def test_hide_the_twin(self):
        self.assertNotIn("tarvo-again", page.page(document()))

    def test_tell_counts_as_whole_numbers_and_small_parts_with_three_digits(self):
        one = {"values": {"threads": {"median": 2.0}, "rate": {"median": 1.0}}}
        self.assertEqual(parts.median(one, "threads"), "2")
        self.assertEqual(parts.quotient(one, {"values": {"rate": {"median": 64.0}}}, "rate"), "0.016")

    def test_count_the_failures_of_opens_in_all_rounds(self):
        stormed = document()
        stormed["results"].append({"scenario": "opens64", "cores": "all", "contestant": "tarvo", "ratios": {}, "max": 574_000.0,
                                   "values": {"rate": {"median": 200.0}},
                                   "rounds": [{"round": 0, "failures": 2}, {"round": 1, "failures": 1}]})
        self.assertIn("| 64 | tarvo | 3 of 128 | 574 | 200 |", page.page(stormed))

    def test_say_nothing_is_missing_only_when_nothing_is(self):
        self.assertNotIn("Left out", page.page(document()))
        self.assertNotIn("Failed", page.page(document()))
        cut = {**document(), "limit_minutes": 38.0, "failures": ["floor, callers8, one: ended"],
               "left_out": [{"scenario": "callers8", "cores": "one", "measurements": 2, "of": 6}]}
        text = page.page(cut)
        self.assertIn("nothing more after 38 minutes", text)
        self.assertIn("8 callers, one: 2 of 6", text)
        self.assertIn("floor, callers8, one: ended", text)

    def test_tell_what_changed_only_of_a_run_with_another_build(self):
        self.assertNotIn("Before and after", page.page(document()))
        text = page.page(document(before=8.0))
        self.assertIn("| 8 callers | one |  |  | 1.80 [1.60-2.00] | 0.56 [0.50-0.62] |", text[text.index("Before and after"):])

    def test_tell_the_aims_with_what_was_found(self):
        row = next(line for line in page.page(document()).splitlines() if "to that of the lowest floor (floor)" in line)
        self.assertIn("| at least 0.95 | 0.45 [0.40-0.50] | missed by 53 % |", row)

    def test_give_the_median_of_ratios_with_where_it_may_lie(self):
        self.assertEqual(parts.likely([1.0]), "1.000")
        self.assertEqual(parts.likely([3.0, 1.0, 2.0, 4.0, 5.0]), "3.000")  # too few to say more
        self.assertEqual(parts.likely([3.0, 1.0, 2.0, 4.0, 5.0, 6.0]), "3.500 [1.000-6.000]")
        # As in the tables of the sign test.
        self.assertEqual(parts.likely([float(number) for number in range(1, 41)]), "20.500 [14.000-27.000]")

    def test_tell_what_counting_takes_only_of_a_run_that_counted(self):
        self.assertEqual(parts.counting(document()), [])
        self.assertIn("| 8 callers | one | library | 1.800 | 0.562 |", parts.counting(with_statistics()))

    def test_tell_counts_of_calls_as_they_are(self):
        counted = {**document(), "inside": {"rows": [{"kind": "call", "contestant": "tarvo", "instructions": 6785.6}]}}
        self.assertIn("| 6786 | told only |", page.page(counted))


class Page(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.run = os.path.join(folder.name, "run")
        os.mkdir(self.run)
        self.keep("run/figures.json", json.dumps(document()))
        self.keep("run/ratios.svg", "<svg/>")

    def keep(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def text(self, name):
        with open(os.path.join(self.folder, name), encoding="utf-8") as file:
            return file.read()

    def place(self, name):
        begin, end = page.marks(name)
        return f"{begin}\nof before\n{end}\n"

    def test_changes_only_what_stands_between_its_marks(self):
        target = self.keep("PAGE.md", f"before\n{self.place(page.FIGURES)}after\n")
        page.write(self.run, target)
        begin, end = page.marks(page.FIGURES)
        self.assertTrue(self.text("PAGE.md").startswith(f"before\n{begin}\n"))
        self.assertTrue(self.text("PAGE.md").endswith(f"{end}\nafter\n"))
        self.assertNotIn("of before", self.text("PAGE.md"))
        self.assertIn("figures/ratios.svg", self.text("PAGE.md"))
        self.assertTrue(os.path.exists(os.path.join(self.folder, "figures", "ratios.svg")))

    def test_has_places_of_its_own_for_counts_and_for_both_engines(self):
        self.keep("run/inside.json", json.dumps({"rows": [
            {"kind": "call", "contestant": "tarvo", "instructions": 6785.6, "blocks": 5.03, "lines": 403, "pages": 72}]}))
        first = self.keep("PAGE.md", self.place(page.FIGURES) + self.place(page.COUNTS))
        second = self.keep("loop.md", self.place(page.BOTH_ENGINES))
        page.write(self.run, first, second)
        self.assertIn("| call | tarvo | 6786 | 5.0 | 403 | 72 |", self.text("PAGE.md"))
        self.assertIn("| 8 calls outstanding, calls a second (library: 8 threads) | one | 2.25 |  |", self.text("loop.md"))
        self.assertNotIn("of before", self.text("PAGE.md") + self.text("loop.md"))

    def test_keeps_its_counts_when_the_run_has_none(self):
        target = self.keep("PAGE.md", self.place(page.FIGURES) + self.place(page.COUNTS))
        page.write(self.run, target)
        self.assertTrue(self.text("PAGE.md").endswith(self.place(page.COUNTS)))

    def test_of_a_run_that_counted_are_about_that_only(self):
        self.keep("run/figures.json", json.dumps(with_statistics()))
        first, second = self.keep("PAGE.md", self.place(page.FIGURES)), self.keep("stats.md", self.place(page.COUNTING))
        page.write(self.run, first, second)
        self.assertEqual(self.text("PAGE.md"), self.place(page.FIGURES))
        self.assertIn("| 8 callers | one | library |", self.text("stats.md"))
        self.assertFalse(os.path.exists(os.path.join(self.folder, "figures")))

    def test_without_marks_stays_as_it_is_and_so_do_the_others(self):
        first, second = self.keep("PAGE.md", self.place(page.FIGURES)), self.keep("loop.md", "no place\n")
        with self.assertRaises(SystemExit):
            page.write(self.run, first, second)
        self.assertEqual(self.text("PAGE.md"), self.place(page.FIGURES))
        self.assertEqual(self.text("loop.md"), "no place\n")

    def test_with_half_a_pair_of_marks_stays_as_it_is(self):
        whole = self.place(page.FIGURES)
        for text in (whole.replace(page.marks(page.FIGURES)[1], ""), whole.replace(page.marks(page.FIGURES)[0], "")):
            target = self.keep("PAGE.md", text)
            with self.assertRaises(SystemExit):
                page.write(self.run, target)
            self.assertEqual(self.text("PAGE.md"), text)


if __name__ == "__main__":
    unittest.main()
