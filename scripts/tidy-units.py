#!/usr/bin/env python3
"""Joins sources into units for clang-tidy, which spends most of its time on what the sources include.

    tidy-units.py DATABASE FOLDER SIZE FILE...
    tidy-units.py --locate

Writes units of up to SIZE sources that are compiled alike, and their compile database, to FOLDER, and prints what
clang-tidy is to be run on: the units, then the sources that cannot share one (a name that is each one's own in two of
them, or an error) and stand alone.

A unit holds the text of its sources and does not include them: the analyzer looks at the functions of a unit itself,
and would have to be told to look at those of all headers, the system's too, for the same findings.

--locate copies standard input to standard output, with the places in units replaced by those in their sources.
"""
import functools
import json
import re
import shlex
import subprocess
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


def misfits(command, unit, sources):
    """The sources of a unit that its compiler complains of; all of them if it complains of none in particular."""
    result = subprocess.run([*command, "-w", "-ferror-limit=0", "-fsyntax-only", str(unit)], capture_output=True, text=True)
    if result.returncode == 0:
        return set()
    complaints = re.findall(r"^.*: (?:fatal )?error:", result.stderr, re.MULTILINE)
    named = {located(complaint).partition(":")[0] for complaint in complaints}
    return named & set(sources) or set(sources)


def join(command, unit, sources):
    """Writes a unit of the sources that can share it. Returns the sources left over."""
    alone = []
    while len(sources) > 1:
        unit.write_text(text(sources))
        origins.cache_clear()
        unfit = misfits(command, unit, sources)
        if not unfit:
            return alone
        alone += sorted(unfit)
        sources = [source for source in sources if source not in unfit]
    unit.unlink(missing_ok=True)
    return alone + sources


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
    units, alone, written = [], [], [entry for entry in entries if entry["file"] in wanted]
    for number, (command, directory, sources) in enumerate(groups(entries, wanted, size)):
        unit = folder / f"unit_{number}.cpp"
        alone += join(command, unit, sources)
        if unit.exists():
            units.append(str(unit))
            written.append({"directory": directory, "file": str(unit), "command": shlex.join([*command, "-c", str(unit)])})
    (folder / "compile_commands.json").write_text(json.dumps(written, indent=1))
    print("\n".join(units + alone))


main()
