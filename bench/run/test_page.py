"""What the page and its tables promise. Run by scripts/bench.sh."""
import json
import os
import tempfile
import unittest

import page
from figures import Results
from measure import Measured


def document():
    """A run of two rounds: the library twice, and a floor that takes half its time."""
    results = Results()
    for number in range(2):
        for name, cpu in (("tarvo", 4.0 + number), ("tarvo-again", 4.1 + number), ("floor", 2.0)):
            results.add(("callers8", "one", name), number, Measured([], 2.0, {"cpu": cpu, "rate": 10 / cpu}))
    about = {"version": "1", "peer": False, "floor": False}
    return {"when": "2026-01-02T03:04:05", "form": "quick", "urgent": [],
            "machine": {"commit": "abc", "processor": "P", "cores": 2, "virtual": "kvm", "kernel": "6 x", "governor": "g"},
            "contestants": {"tarvo": about, "tarvo-again": about, "floor": {**about, "floor": True}},
            "scenarios": {"callers8": {"text": "8 callers", "group": "main", "kind": "call", "load": 0}},
            "results": [results.entry(key, ["floor"], "tarvo" if key[2] == "tarvo-again" else None)
                        for key in results.rounds]}


class Tables(unittest.TestCase):
    def test_give_the_ratio_with_its_spread_the_floor_and_the_resolution(self):
        row = page.page(document()).splitlines()
        row = next(line for line in row if line.startswith("| 8 callers | one |"))
        self.assertIn("5.00 [5.00-5.00] (floor)", row)
        self.assertIn("2.25 [2.00-2.50]", row)
        self.assertIn("2.4 %", row)

    def test_hide_the_twin(self):
        self.assertNotIn("tarvo-again", page.page(document()))


class Page(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.run = os.path.join(folder.name, "run")
        os.mkdir(self.run)
        with open(os.path.join(self.run, "figures.json"), "w", encoding="utf-8") as file:
            json.dump(document(), file)
        with open(os.path.join(self.run, "ratios.svg"), "w", encoding="utf-8") as file:
            file.write("<svg/>")
        self.page = os.path.join(folder.name, "PAGE.md")

    def write(self, text):
        with open(self.page, "w", encoding="utf-8") as file:
            file.write(text)

    def test_changes_only_what_stands_between_its_marks(self):
        self.write(f"before\n{page.BEGIN}\nold\n{page.END}\nafter\n")
        page.write(self.run, self.page)
        with open(self.page, encoding="utf-8") as file:
            text = file.read()
        self.assertTrue(text.startswith(f"before\n{page.BEGIN}\n"))
        self.assertTrue(text.endswith(f"{page.END}\nafter\n"))
        self.assertNotIn("old", text)
        self.assertIn("figures/ratios.svg", text)
        self.assertTrue(os.path.exists(os.path.join(os.path.dirname(self.page), "figures", "ratios.svg")))

    def test_without_marks_stays_as_it_is(self):
        self.write("no place\n")
        with self.assertRaises(SystemExit):
            page.write(self.run, self.page)
        with open(self.page, encoding="utf-8") as file:
            self.assertEqual(file.read(), "no place\n")


if __name__ == "__main__":
    unittest.main()
