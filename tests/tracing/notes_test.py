#!/usr/bin/env python3
"""Holds the trace points of a built library against the page that documents them: names and numbers of arguments."""

import argparse
import pathlib
import re
import subprocess
import sys

ROW = re.compile(r"^\| `(\w+)` \| ([\w, ]+) \|", re.MULTILINE)
NOTE = re.compile(r"Provider: tarvo\n\s+Name: (\w+)\n.*\n\s+Arguments: (.*)")
ARGUMENT = re.compile(r"\d@")  # its size, and where it is: on some processors in several words


def documented(page):
    return {name: len(arguments.split(", ")) for name, arguments in ROW.findall(page.read_text())}


def built(library):
    notes = subprocess.run(["readelf", "--notes", library], check=True, capture_output=True, text=True).stdout
    return [(name, len(ARGUMENT.findall(arguments))) for name, arguments in NOTE.findall(notes)]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("page", type=pathlib.Path)
    parser.add_argument("libraries", nargs="+")
    options = parser.parse_args()
    promised = documented(options.page)
    if len(promised) < 12:
        sys.exit(f"{options.page} documents {len(promised)} trace points only")
    wrong = []
    for library in options.libraries:
        there = built(library)
        wrong += [f"{library}: no {name}" for name in promised if name not in dict(there)]
        wrong += [f"{library}: {name} with {count} arguments" for name, count in there if promised.get(name) != count]
    if wrong:
        sys.exit("\n".join(wrong))


if __name__ == "__main__":
    main()
