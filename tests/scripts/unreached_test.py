#!/usr/bin/env python3
"""Checks that scripts/unreached.py finds the lines that no test reaches and nobody has explained, and no others."""

import unittest

import changed_tree

unreached = changed_tree.load_script("unreached")

SOURCE = """int Twice(int number) {
    // Of a whole number.
    if (number > LIMIT) {
        Complain();
        return -1;
    }
    if (number < 0) {
        return -1;
    }
    return 2 * number;
}
"""
COUNTS = {1: 5, 3: 5, 4: 0, 5: 0, 6: 0, 7: 5, 8: 0, 9: 0, 10: 5, 11: 5}
FIRST = "src/twice.cpp\tif (number > LIMIT) {\tComplain(); / return -1;\n"
SECOND = "src/twice.cpp\tif (number < 0) {\treturn -1;\n"


class UnreachedTest(changed_tree.ChangedTreeTest):
    def faults(self, listing, **changed):
        self.write("src/twice.cpp", SOURCE)
        counts = {**COUNTS, **{int(line[4:]): count for line, count in changed.items()}}
        lcov = f"SF:{self.root}/src/twice.cpp\n" + "".join(f"DA:{n},{c}\n" for n, c in counts.items())
        return unreached.check(self.root, lcov + "end_of_record\n", listing)[0]

    def test_what_is_listed_with_a_reason_is_no_fault(self):
        self.assertEqual([], self.faults("# why\n\nnever: nobody has so much\n" + FIRST + SECOND))

    def test_what_is_not_listed_is_found_and_printed_as_the_list_has_it(self):
        self.assertEqual(["src/twice.cpp: neither reached nor in tests/unreached.list:\n" + FIRST.strip()],
                         self.faults("never: positive\n" + SECOND))

    def test_a_line_more_in_a_listed_place_is_found(self):
        faults = self.faults("never: huge\n" + FIRST.replace(" / return -1;", "") + SECOND)
        self.assertEqual(["src/twice.cpp: neither reached nor in tests/unreached.list:\n"
                          "src/twice.cpp\tComplain();\treturn -1;"], faults)

    def test_a_listed_line_that_is_reached_is_found_unless_some_runs_reach_it(self):
        never = "never: huge\n" + FIRST + "never: negative\n" + SECOND
        sometimes = never.replace("never: negative", "sometimes: negative")
        self.assertEqual(1, len(self.faults(never, line8=1)))
        self.assertEqual([], self.faults(sometimes, line8=1))
        self.assertEqual([], self.faults(sometimes))

    def test_an_entry_whose_place_is_gone_or_not_the_only_one_is_found(self):
        listing = "never: any\n" + FIRST + SECOND
        self.assertEqual(1, len(self.faults(listing + SECOND.replace("< 0", "< 1"))))
        self.assertEqual(1, len(self.faults(listing + "src/gone.cpp\tif (x) {\treturn;\n")))
        code = [(1, "if (a) {"), (2, "{"), (3, "return -1;"), (4, "{"), (5, "return -1;")]
        twice = unreached.Entry("src/twice.cpp", ["{"], ["return -1;"], False)
        self.assertEqual(2, len(unreached.places_of(twice, code)))
        once = unreached.Entry("src/twice.cpp", ["if (a) {", "{"], ["return -1;"], False)
        self.assertEqual([([3], [])], unreached.places_of(once, code))

    def test_what_is_printed_names_as_much_before_it_as_tells_one_place_from_another(self):
        code = [(1, "if (a) {"), (2, "return -1;"), (3, "}"), (4, "if (b) {"), (5, "if (a) {"), (6, "return -1;"), (7, "}")]
        self.assertEqual(["f\tif (b) { / if (a) {\treturn -1;"],
                         [str(entry) for entry in unreached.gaps_of("f", code, {6, 7})])

    def test_an_entry_without_a_reason_is_found(self):
        for listing in FIRST + "never: any\n" + SECOND, "never: any\n" + FIRST + SECOND + "src/twice.cpp\tx\n":
            self.assertEqual(1, len([fault for fault in self.faults(listing) if "no entry" in fault]))


if __name__ == "__main__":
    unittest.main()
