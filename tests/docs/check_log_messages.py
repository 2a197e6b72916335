#!/usr/bin/env python3
"""Checks that docs/troubleshooting.md explains each line that the library can write to the log, and no other.

The library writes levels 3 to 5 (error, warning, notice). In src/ a line is a use of one of the TARVO_LOG macros; on
the page it is a table row that begins with the message in backticks and the level, behind which stands "limited" when
the line is restrained, at least at one of its places.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs/troubleshooting.md"
LEVELS = {"LOG_ERR": 3, "LOG_WARNING": 4, "LOG_NOTICE": 5, "LOG_INFO": 6, "LOG_DEBUG": 7}
WRITTEN = 5
MACRO = r"^(?!#define)[^/\n]*?\bTARVO_LOG(?:_RESTRAINED|_AS)?\("
USE = re.compile(MACRO, re.M)
CALL = re.compile(MACRO + r"([^\"]*?)((?:\"(?:[^\"\\]|\\.)*\"\s*)+)[,)]", re.M)
ROW = re.compile(r"^\| `(.+?)` \| ([3-5])(, limited)? \| (\S.*?) \| (\S.*?) \|$", re.M)


def messages_in(text):
    """(message, level, limited) of each line in one source, in order; levels that are never written included."""
    for call in CALL.finditer(text):
        levels = [LEVELS[name] for name in re.findall(r"\bLOG_[A-Z]+\b", call[1]) if name in LEVELS]
        message = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', call[2]))
        yield message.strip(), min(levels), "RESTRAINED" in call[0]


def written_by_the_library():
    """Every (message, level, limited) that can reach the log, with the sources that write it."""
    places = {}
    limited = set()
    for path in sorted((ROOT / "src").rglob("*.[ch]*")):
        text = path.read_text(encoding="utf-8")
        messages = list(messages_in(text))
        if len(messages) != len(USE.findall(text)):
            sys.exit(f"{path.relative_to(ROOT)}: a log line that this check cannot read")
        for message, level, restrained in messages:
            if level <= WRITTEN:
                places.setdefault((message, level), []).append(path.stem)
                limited.update({(message, level)} if restrained else ())
    return {(*line, line in limited): files for line, files in places.items()}


def main():
    """Exit code 0 when page and sources agree; --list prints the sources' lines."""
    found = written_by_the_library()
    if "--list" in sys.argv:
        for (message, level, limited), files in found.items():
            print(f"{level}{', limited' if limited else ''}", ",".join(sorted(set(files))), message, sep="\t")
        return
    rows = [(row[1], int(row[2]), row[3] is not None) for row in ROW.finditer(PAGE.read_text(encoding="utf-8"))]
    missing = found.keys() - set(rows)
    stale = set(rows) - found.keys()
    twice = {row for row in rows if rows.count(row) > 1}
    for what, entries in (("missing", missing), ("stale", stale), ("twice", twice)):
        for message, level, limited in sorted(entries):
            print(f"{what}: level {level}{', limited' if limited else ''}: {message}")
    print(f"{len(found)} lines in src/, {len(rows)} on the page")
    sys.exit(1 if missing or stale or twice or not found else 0)


if __name__ == "__main__":
    main()
