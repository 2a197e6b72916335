#!/usr/bin/env python3
"""Compares the lines of src/ that a run of the tests has not reached with tests/unreached.list, which has the reasons.

Usage: scripts/unreached.py [--tolerate N] LCOV

LCOV is what "llvm-cov export --format=lcov" has written; scripts/coverage.sh does both. The list has groups. Each begins
with a line "never: REASON", for lines that no test reaches, or "sometimes: REASON", for lines that some runs reach and
some do not. Its entries follow, one a line, separated by tabulators: a file, the line of code before the first one that is
not reached (or several, where one stands in more than one place), and those that are not reached, with " / " between lines.
Closing brackets that follow are not named.

--tolerate N only prints up to N such places: threads meet in one run, and do not in the next.

Exit code 1 when a line is neither reached nor listed, when a line that is never reached was, or when an entry does not
mean exactly one place of the sources. What is missing is printed as the list has it.
"""
import argparse
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIST = "tests/unreached.list"
BETWEEN = " / "
CLOSING = re.compile(r"[])};, ]+")


class Entry:
    """Lines that are not reached: of which file, after which ones, and whether some runs reach them."""

    def __init__(self, file, before, lines, sometimes):
        self.file, self.before, self.lines, self.sometimes = file, before, lines, sometimes

    def __str__(self):
        return "\t".join((self.file, BETWEEN.join(self.before), BETWEEN.join(self.lines)))


def read_list(text):
    """The entries, and what is wrong with the list itself."""
    entries, faults, sometimes = [], [], None
    for number, line in enumerate(text.splitlines(), 1):
        group = re.match(r"(never|sometimes): \S", line)
        if group:
            sometimes = group.group(1) == "sometimes"
        elif line.strip() and not line.startswith("#"):
            parts = line.split("\t")
            if len(parts) != 3 or sometimes is None or not all(parts):
                faults.append(f"{LIST}:{number}: no entry of a group: {line}")
                continue
            entries.append(Entry(parts[0], parts[1].split(BETWEEN), parts[2].split(BETWEEN), sometimes))
    return entries, faults


def code_of(text):
    """The lines with code on them: number and text, without indentation."""
    stripped = enumerate((line.strip() for line in text.split("\n")), 1)
    return [(number, line) for number, line in stripped if line and not line.startswith("//")]


def closings_after(code, index):
    """How many lines from there on hold closing brackets only."""
    end = index
    while end < len(code) and CLOSING.fullmatch(code[end][1]):
        end += 1
    return end - index


def places_of(entry, code):
    """The places of an entry: the numbers of its lines, and those of the brackets behind them."""
    wanted = [*entry.before, *entry.lines]
    places = []
    for start in range(len(code) - len(wanted) + 1):
        if [line for _, line in code[start:start + len(wanted)]] == wanted:
            end = start + len(wanted)
            lines = code[start + len(entry.before):end], code[end:end + closings_after(code, end)]
            places.append(tuple([number for number, _ in part] for part in lines))
    return places


def read_counts(text):
    """How often each line was reached, by file."""
    counts, file = {}, ""
    for line in text.splitlines():
        if line.startswith("SF:"):
            file = line[3:]
        elif line.startswith("DA:"):
            number, count = line[3:].split(",")[:2]
            counts.setdefault(file, {})[int(number)] = int(count)
    return counts


def gap_at(file, code, gap):
    """The entry of lines that follow each other, by as many lines before them as tell the place from others."""
    lines = [code[index][1] for index in gap]
    while len(lines) > 1 and CLOSING.fullmatch(lines[-1]):
        lines.pop()
    for start in range(gap[0] - 1, -1, -1):
        entry = Entry(file, [line for _, line in code[start:gap[0]]], lines, False)
        if len(places_of(entry, code)) == 1:
            return entry
    return Entry(file, [], lines, False)


def gaps_of(file, code, unreached):
    """Entries for lines that are not listed: those that follow each other in one."""
    gap, gaps = [], []
    for index, (number, _) in enumerate(code):
        if number in unreached:
            gap.append(index)
        if gap and (number not in unreached or index == len(code) - 1):
            gaps.append(gap_at(file, code, gap))
            gap = []
    return gaps


def compare(file, code, counts, entries):
    """What is wrong with the entries of one file, and what they lack."""
    faults, listed = [], set()
    for entry in entries:
        places = places_of(entry, code)
        if len(places) != 1:
            faults.append(f"{LIST}: {len(places)} places of the sources are meant by: {entry}")
            continue
        lines, brackets = places[0]
        reached = [number for number in lines if counts.get(number, 0) > 0]
        if reached and not entry.sometimes:
            faults.append(f"{file}:{reached[0]}: is reached, and {LIST} says never: {entry}")
        listed.update(lines, brackets)
    unreached = {number for number, count in counts.items() if count == 0} - listed
    for gap in gaps_of(file, code, unreached):
        faults.append(f"{file}: neither reached nor in {LIST}:\n{gap}")
    return faults, len(unreached)


def check(root, lcov, listing):
    """The faults of a whole run, and its sum."""
    entries, faults = read_list(listing)
    counts = {str(pathlib.Path(file).relative_to(root)): lines for file, lines in read_counts(lcov).items()}
    missing = 0
    for file in sorted({*counts, *(entry.file for entry in entries)}):
        path = root / file
        text = path.read_text(encoding="utf-8") if path.is_file() else ""
        more, lacking = compare(file, code_of(text), counts.get(file, {}), [e for e in entries if e.file == file])
        faults += more
        missing += lacking
    zeros = sum(count == 0 for lines in counts.values() for count in lines.values())
    total = sum(map(len, counts.values()))
    return faults, f"{zeros} of {total} lines are not reached, {zeros - missing} of them are listed"


def main():
    """Prints the faults and the sum."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tolerate", metavar="N", type=int, default=0)
    parser.add_argument("lcov", metavar="LCOV", type=pathlib.Path)
    options = parser.parse_args()
    faults, summary = check(ROOT, options.lcov.read_text(encoding="utf-8"),
                            (ROOT / LIST).read_text(encoding="utf-8"))
    for fault in faults:
        print(fault, file=sys.stderr)
    print(summary)
    return 1 if len(faults) > options.tolerate else 0


if __name__ == "__main__":
    sys.exit(main())
