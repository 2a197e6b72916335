#!/usr/bin/env python3
"""Reads what CTest has kept of a run of tests, and prints what its closing lines leave out.

    test-log.py build/PRESET/Testing/Temporary/LastTest.log

Each test that did not run, and why; how many tests were forked by their programs, which CTest counts as one each; and
each report of a sanitizer in a test that has passed all the same: it was in a process that the test kills, say, and does
not ask for its status. Fails if there is such a report.
"""
import re
import sys
from pathlib import Path

HEAD = re.compile(r"\d+/\d+ Testing: (\S+)")
RUN = re.compile(r"\[ RUN +\] (\S+)")
SKIPPED = re.compile(r"[Ss]kipped: (.+)")
FORKED = re.compile(r"Tests forked: (\d+)")
REPORT = re.compile(r"(WARNING|ERROR): [A-Za-z]+Sanitizer: |: runtime error: ")
REPORT_ENDS = re.compile(r"SUMMARY: |Test (Passed|Failed)\.|\[ ")
LONGEST_REPORT = 100


class Reader:
    """Goes through the lines of a log."""

    def __init__(self, lines):
        self.lines = lines
        self.name = self.program = ""
        self.skipped, self.forked, self.reports = [], [], []
        self.unsettled = []  # reports of a test of CTest's whose verdict comes further down

    def read(self):
        for number, line in enumerate(self.lines):
            if match := HEAD.match(line):
                self.name = self.program = match[1]
                self.unsettled = []
            elif (match := RUN.match(line)) and "." not in self.program:
                self.name = f"{self.program}.{match[1]}"
            elif match := SKIPPED.match(line):
                self.skipped.append((self.name, match[1]))
            elif line.endswith(": Skipped"):
                self.skipped.append((self.name, self.lines[number + 1]))
            elif match := FORKED.match(line):
                self.forked.append(int(match[1]))
            elif REPORT.search(line) and self.name not in dict(self.unsettled):
                self.unsettled.append((self.name, self.report_from(number)))
            elif line.startswith("Test Passed."):
                self.reports += self.unsettled

    def report_from(self, number):
        """The first report of a test."""
        report = []
        for line in self.lines[number : number + LONGEST_REPORT]:
            if REPORT_ENDS.match(line) and report:
                break
            report.append(line)
        return "\n".join(report)


def main():
    reader = Reader(Path(sys.argv[1]).read_text(errors="replace").split("\n"))
    reader.read()
    for name, reason in reader.skipped:
        print(f"Skipped {name}: {reason}")
    if reader.forked:
        print(f"Tests forked: {sum(reader.forked)}, of {len(reader.forked)} programs")
    for name, report in reader.reports:
        print(f"Passed {name}, but with a report:\n{report}")
    sys.exit(1 if reader.reports else 0)


main()
