#!/usr/bin/env python3
"""Checks that scripts/check-labels.py finds the classes that do not say enough."""

import unittest

import changed_tree

check = changed_tree.load_script("check-labels")

WHOLE = "// Counts.\n// Owns: the count. Threads: any. Locks: none. Ends:\n// any time.\n"


class CheckLabelsTest(changed_tree.ChangedTreeTest):
    def faults_of(self, text):
        return [fault for _, fault in check.faults_of(text)]

    def test_the_tree_as_it_is_has_no_fault(self):
        self.assertEqual([], check.check(self.root))

    def test_a_class_that_lacks_a_label_is_found_with_its_place(self):
        self.write("src/base/Count.h", WHOLE.replace("Locks: none. ", "") + "class Count {\n};\n")
        self.assertEqual(["src/base/Count.h:4: Count does not say: Locks"], check.check(self.root))

    def test_a_class_without_a_comment_lacks_all_of_them(self):
        self.assertEqual(["Count does not say: Owns, Threads, Locks, Ends"],
                         self.faults_of("int count;\nclass Count : public Base {\n};\n"))

    def test_the_comment_of_something_else_does_not_count(self):
        self.assertEqual(1, len(self.faults_of(WHOLE + "\nclass Count {\n};\n")))

    def test_a_label_in_the_middle_of_a_sentence_does_not_count(self):
        self.assertEqual(["Count does not say: Owns"],
                         self.faults_of(WHOLE.replace("Owns: the", "Owns the") + "class Count {\n};\n"))

    def test_labels_may_be_those_of_another_class_and_templates_have_them_above_their_parameters(self):
        self.assertEqual([], self.faults_of(WHOLE + "template <typename T>\nclass Count {\n};\n"))
        self.assertEqual([], self.faults_of("// Owns, Threads, Locks, Ends: as Number.\nclass Count {\n};\n"))

    def test_of_structures_only_those_with_behaviour_need_them(self):
        self.assertEqual([], self.faults_of("struct Count {\n    int number = 0; // (so far)\n};\n"))
        self.assertEqual([], self.faults_of("struct Count {\n    static int Make() {\n        return f(1);\n    }\n};\n"))
        self.assertEqual(1, len(self.faults_of("struct Count {\n    void Add();\n};\n")))

    def test_declarations_and_enumerations_are_no_classes(self):
        self.assertEqual([], self.faults_of("class Count;\nenum class Kind {\n};\n"))


if __name__ == "__main__":
    unittest.main()
