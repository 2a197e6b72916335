#!/usr/bin/env python3
"""What CTest's closing lines leave out is told, and a report that no test has heard of fails the run."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).resolve().parents[2] / "scripts/test-log.py"
REPORT = "WARNING: ThreadSanitizer: data race (pid=7)\n  #0 here\nSUMMARY: ThreadSanitizer: data race\n"


def entry(name, output, verdict="Passed"):
    """What CTest keeps of one test."""
    return f"1/9 Testing: {name}\n1/9 Test: {name}\nOutput:\n{output}Test {verdict}.\n"


def read(*entries):
    """The exit code and the output of the script."""
    with tempfile.NamedTemporaryFile("w") as log:
        log.write("".join(entries))
        log.flush()
        done = subprocess.run([sys.executable, SCRIPT, log.name], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout + done.stderr


class TestLogTest(unittest.TestCase):
    def test_nothing_is_said_when_all_have_run(self):
        self.assertEqual(read(entry("a", ""), entry("b", "[ RUN      ] S.T\n")), (0, ""))

    def test_skipped_tests_are_named_with_their_reasons(self):
        self.assertEqual(
            read(entry("a.S.T", "[ RUN      ] S.T\nx.cpp:3: Skipped\nno root\n", "Failed"), entry("b", "Skipped: no b\n")),
            (0, "Skipped a.S.T: no root\nSkipped b: no b\n"),
        )

    def test_forked_tests_are_counted_and_named(self):
        self.assertEqual(
            read(
                entry("a", "[ RUN      ] S.T\nx.cpp:3: Skipped\nno root\nTests forked: 3, failed: 0\n"),
                entry("b", "Tests forked: 4, failed: 0\n"),
            ),
            (0, "Skipped a.S.T: no root\nTests forked: 7, of 2 programs\n"),
        )

    def test_report_in_a_test_that_has_passed_fails(self):
        code, output = read(entry("a.S.T", REPORT + "more\n" + REPORT))
        self.assertEqual(code, 1)
        self.assertEqual(
            output,
            "Passed a.S.T, but with a report:\nWARNING: ThreadSanitizer: data race (pid=7)\n  #0 here\n",
        )
        self.assertEqual(read(entry("a", "x.cpp:3:4: runtime error: shift\n"))[0], 1)
        self.assertEqual(read(entry("a", "==1==ERROR: AddressSanitizer: heap-use-after-free\n"))[0], 1)

    def test_report_of_a_forked_test_has_its_name(self):
        code, output = read(entry("a", f"[ RUN      ] S.T\n{REPORT}[       OK ] S.T\n"))
        self.assertEqual(code, 1)
        self.assertIn("Passed a.S.T, but with a report", output)

    def test_report_in_a_test_that_has_failed_is_that_ones(self):
        self.assertEqual(read(entry("a", REPORT, "Failed"), entry("b", "")), (0, ""))


if __name__ == "__main__":
    unittest.main()
