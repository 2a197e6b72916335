#!/usr/bin/env python3
"""Joins sources into units for clang-tidy, which spends most of its time on what the sources include.

    tidy-units.py DATABASE FOLDER SIZE FILE...
    tidy-units.py --locate

Writes units of up to SIZE sources that are compiled alike, and their compile database, to FOLDER, and prints what
clang-tidy is to be run on: the units, then the sources that stand alone. Those of scripts/tidy-apart.list share no unit:
they have a name of their own that is also another's. Where a new one does, clang-tidy finds an error in the unit (a
redefinition, an ambiguous name) that is in neither source; it goes into the list, or gets another name.

A unit holds the text of its sources and does not include them: the analyzer looks at the functions of a unit itself,
and would have to be told to look at those of all headers, the system's too, for the same findings.

--locate copies standard input to standard output, with the places in units replaced by those in their sources.
"""
import functools
import json
import re
import shlex
import sys
from pathlib import Path


def arguments(entry):
    """The compile command without its input and outputs."""
    words = shlex.split(entry["command"])
    kept = []
    while words:
        word = words.pop(0)
        if word in ("-o", "-c", "-MF", "-MT"):
            words.pop(0)
        elif word != "-MD" and not word.startswith("-W"):
            kept.append(word)
    return kept


APART = Path(__file__).with_name("tidy-apart.list")
BEGIN = "// From line 1 of "


def text(sources):
    """The sources one after another. Most have a LOG_TAG of their own, and those of programs a main function."""
    return "".join(
        f"#define LOG_TAG LOG_TAG_{number}\n#define main main_{number}\n"
        f"{BEGIN}{source}\n{Path(source).read_text()}\n#undef main\n#undef LOG_TAG\n"
        for number, source in enumerate(sources)
    )


@functools.lru_cache(maxsize=None)
def origins(unit):
    """For each line of a unit its source and line there."""
    source, line, found = unit, 0, []
    for content in Path(unit).read_text().split("\n"):
        found.append((source, line))
        line += 1
        if content.startswith(BEGIN):
            source, line = content[len(BEGIN) :], 1
    return found


def located(message):
    def origin(match):
        source, line = origins(match[1])[int(match[2]) - 1]
        return f"{source}:{line}"

    return re.sub(r"(/\S*/unit_\d+\.cpp):(\d+)", origin, message)


def groups(database, wanted, size):
    """Sources that are compiled alike, in groups of about equal size."""
    alike = {}
    for entry in database:
        if entry["file"] in wanted:
            alike.setdefault((tuple(arguments(entry)), entry["directory"]), []).append(entry["file"])
    for (command, directory), sources in alike.items():
        count = -(-len(sources) // size)
        for index in range(count):
            chosen = sorted(sources)[index::count]
            beside = sorted({f"-iquote{Path(source).parent}" for source in chosen})
            yield [*command, *beside], directory, chosen


def main():
    if sys.argv[1:] == ["--locate"]:
        for line in sys.stdin:
            print(located(line), end="", flush=True)
        return
    database, folder, size = Path(sys.argv[1]), Path(sys.argv[2]).resolve(), int(sys.argv[3])
    wanted = {str(Path(name).resolve()) for name in sys.argv[4:]}
    entries = json.loads((database / "compile_commands.json").read_text())
    missing = wanted - {entry["file"] for entry in entries}
    if missing:
        sys.exit(f"tidy-units.py: not compiled by {database}: {' '.join(sorted(missing))}")
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("unit_*.cpp"):
        old.unlink()
    apart = {str(Path(name).resolve()) for name in APART.read_text().split() if not name.startswith("#")}
    if apart - {entry["file"] for entry in entries}:
        sys.exit(f"tidy-units.py: {APART} names what is not compiled by {database}")
    units, written = [], [entry for entry in entries if entry["file"] in wanted]
    alone = sorted(file for file in wanted if file in apart or not file.endswith(".cpp"))
    for number, (command, directory, sources) in enumerate(groups(entries, wanted - set(alone), size)):
        unit = folder / f"unit_{number}.cpp"
        unit.write_text(text(sources))
        units.append(str(unit))
        written.append({"directory": directory, "file": str(unit), "command": shlex.join([*command, "-c", str(unit)])})
    (folder / "compile_commands.json").write_text(json.dumps(written, indent=1))
    print("\n".join(units + alone))


main()
