#!/usr/bin/env python3
"""Checks which faults scripts/mutations.py draws, and that each is known again as long as its function stays as it is."""

import unittest

import changed_tree

mutations = changed_tree.load_script("mutations")

SOURCE = """int First(int number) {
    MutexLock lock(mutex);
    Prepare();
    Count(number);
    return number > 7 ? 1 : 0;
}

int Second(int number) {
    if (number < 3) {
        return -1;
    }
    return 0;
}
"""


class MutationsTest(changed_tree.ChangedTreeTest):
    def setUp(self):
        super().setUp()
        self.alone = self.root / "alone"
        (self.alone / "src").mkdir(parents=True)

    def faults(self, source=SOURCE):
        self.write("alone/src/source.cpp", source)
        return {fault["key"]: mutations.describe(fault) for fault in mutations.faults_below(self.alone)}

    def drawn(self, source=SOURCE):
        """Sorted by kind: the kinds take turns."""
        self.write("alone/src/source.cpp", source)
        drawn = sorted(mutations.draw(self.alone, 1), key=lambda fault: fault["kind"])
        return [fault["key"] for fault in drawn]

    def test_each_kind_of_fault_is_found(self):
        texts = "\n".join(self.faults().values())
        for wanted in ("line left out: Prepare();  ->  (nothing)", "order swapped: Prepare(); / Count(number);",
                       "number off by one: return number > 7 ? 1 : 0;  ->  return number > 8 ? 1 : 0;",
                       "limit off by one: if (number < 3) {  ->  if (number <= 3) {",
                       "condition negated: if (number < 3) {  ->  if (!(number < 3)) {"):
            self.assertIn(wanted, texts)

    def test_a_lock_is_left_to_the_analysis(self):
        self.assertNotIn("line left out: MutexLock", "\n".join(self.faults().values()))

    def test_a_change_of_one_function_leaves_the_faults_of_the_others_and_their_order(self):
        before, drawn = self.faults(), self.drawn()
        changed = "// New.\n" + SOURCE.replace("    Prepare();\n", "    Prepare();\n    Look();\n")
        after = self.faults(changed)
        kept = [key for key in drawn if key in after]
        second = {key for key, text in before.items() if "number <" in text or "return -1" in text or "return 0" in text}
        self.assertEqual(second, set(kept))
        self.assertEqual(kept, [key for key in self.drawn(changed) if key in before])

    def test_no_two_faults_are_taken_for_the_same(self):
        keys = [fault["key"] for fault in mutations.faults_below(self.root)]
        self.assertEqual(len(keys), len(set(keys)))


if __name__ == "__main__":
    unittest.main()
