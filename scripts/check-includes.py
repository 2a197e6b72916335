#!/usr/bin/env python3
"""Checks that src/ and include/ stand on what is below them only, and what the tools use of them.

A unit may include the units of the folders that stand below its own, and the few single units named here. The map is
the one of docs/ARCHITECTURE.md. A call that goes up through a public header needs no include that would tell: a unit
may name a function of one only if a folder below its own defines it, with the few exceptions named here. Tools use the
public headers, and of src/ only what defines the wire and the names.

Checks also, by scripts/check-labels.py, what each class says of itself.
"""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Folder: the folders below it. src/base stands on nothing; all others may use it. Nothing stands on src/loop and
# src/stats_reader, which are libraries of their own.
BELOW = {
    "base": set(),
    "diag": set(),
    "stats": {"diag"},
    "fifo": {"diag"},
    "worker": {"stats", "diag"},
    "pipe": {"fifo", "stats", "diag"},
    "server": {"pipe", "fifo", "worker", "stats", "diag"},
    "monitor": {"pipe", "worker", "fifo", "stats", "diag"},
    "table": {"monitor", "pipe", "worker", "fifo", "stats", "diag"},
    "api": {"table", "monitor", "server", "pipe", "worker", "fifo", "stats", "diag"},
    "loop": {"fifo", "stats", "diag"},
    "stats_reader": set(),
}
# Those of them that a tree may be without.
OPTIONAL = {"loop", "stats_reader"}

# Single units that may be included from outside of their folder's place: by all, or by a folder or a unit of it.
FOR_ALL = {"api/EnvManager.h"}
EXTRA = {
    "pipe": {"worker/TarvoTask.h"},
    "table": {"server/TarvoClientPipe.h"},
    "server/PipeServer": {"api/TableFactory.h", "table/TarvoTable.h"},
    "loop": {"api/tarvo_check.h", "pipe/MagicReceiver.h", "pipe/Message.h", "server/PipeServerMessage.h"},
}

# Formats, limits and names that other processes rely on: nothing with a behaviour of its own. And the one owner of a
# descriptor.
WIRE = {
    "api/EnvManager.h",
    "base/UniqueFd.h",
    "fifo/security_context.h",
    "pipe/MagicReceiver.h",
    "pipe/Message.h",
    "server/PipeServerMessage.h",
}

DOMAIN = "tells domains apart by the build alone; it is exported, and has to be that of a program which replaces it"
# Folder: the functions of the public headers that it may call although they are defined above it, each with the reason.
UPWARDS = {
    "fifo": {"IsOrlaDomainPipe": DOMAIN},
    "pipe": {
        "GetCurrDomain": DOMAIN,
        "IsCrossDomainPipe": DOMAIN,
        "IsOrlaDomainPipe": DOMAIN,
        "TarvoClosePipe": "a pipe whose callback has been told of the remote close ends as by a user's close, from the "
                          "table on, and whether there still is a table",
    },
    "server": {
        "GetCurrDomain": DOMAIN,
        "TarvoPipeTypeOpen": "the name comes from another process: a server's pipe is opened with all checks, as a "
                             "user's is",
    },
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')
# Comments, and strings that are no paths of includes.
UNREAD = re.compile(r'//[^\n]*|/\*.*?\*/|(?<!include )"(?:[^"\\\n]|\\.)*"', re.DOTALL)
# A function declared or, when a body follows, defined at the start of a line, where only what is global stands.
DECLARED = re.compile(r"^[A-Za-z][\w ]*[ *&](\w+)\([^;{}]*\);", re.MULTILINE)
DEFINED = re.compile(r"^[A-Za-z][\w ]*[ *&](\w+)\([^;{}]*\)\s*\{", re.MULTILINE)
# A member of that name is another function.
NAMED = re.compile(r"(?<![\w.])(?<!->)(?<!\w::)(\w+)")


def folder_of(unit):
    return unit.split("/", 1)[0]


def stem_of(unit):
    return unit.rsplit(".", 1)[0]


def blank(match):
    """White space of as many lines as a match has."""
    return re.sub(r"[^\n]", " ", match.group())


class Tree:
    """The sources below one root, and what is wrong with them."""

    def __init__(self, root):
        self.root = root
        self.headers = sorted((root / "include").glob("*.h*"))
        self.public = {path.name for path in self.headers}
        self.sources = sorted(p for p in (root / "src").rglob("*") if p.suffix in {".h", ".c", ".cpp"})
        self.texts = {path: UNREAD.sub(blank, path.read_text(encoding="utf-8")) for path in self.sources + self.headers}
        self.definers = self.find_definers()

    def unit(self, path):
        return path.relative_to(self.root / "src").as_posix()

    def find_definers(self):
        """The functions that the public C headers declare, each with the folder that defines it, or None."""
        declared = {name for path in self.headers if path.suffix == ".h"
                    for name in DECLARED.findall(self.texts[path])}
        definers = dict.fromkeys(declared)
        for path in self.sources:
            for name in DEFINED.findall(self.texts[path]):
                if name in declared:
                    definers[name] = folder_of(self.unit(path))
        return definers

    def faults(self):
        if not self.sources or not self.headers:
            return ["no sources found"]
        unknown = sorted({folder_of(self.unit(path)) for path in self.sources} - set(BELOW))
        if unknown:
            return [f"src/{folder}: folder unknown to {pathlib.Path(__file__).name}" for folder in unknown]
        return [*self.table_faults(), *self.include_faults(), *self.call_faults()]

    # ---- The tables above ----

    def table_faults(self):
        """What the tables allow must be there, or they would allow it to whatever comes under that name."""
        folders = {folder_of(self.unit(path)) for path in self.sources}
        units = {stem_of(self.unit(path)) for path in self.sources}
        for folder in sorted(set(BELOW) - folders - OPTIONAL):
            yield f"src/{folder}: no such folder, but a place in the map"
        for header in sorted(FOR_ALL | WIRE | set().union(*EXTRA.values())):
            if not (self.root / "src" / header).is_file():
                yield f"src/{header}: no such header, but a permit to include it"
        for unit in sorted(set(EXTRA) - set(BELOW) - units):
            yield f"src/{unit}: no such unit, but a permit to include others"
        for folder, functions in UPWARDS.items():
            for name in sorted(functions):
                if not self.goes_up(folder, name) or not any(self.names(path, name) for path in self.in_folder(folder)):
                    yield f"src/{folder}: has a permit to call {name}, which it does not need"

    # ---- Includes ----

    def include_faults(self):
        for path in self.sources:
            yield from self.check_file(path, lambda included, unit=self.unit(path): self.fault_of(unit, included))
        for path in self.headers:
            yield from self.check_file(
                path, lambda included: None if included in self.public else "public headers stand alone")
        for tool in sorted(path for path in (self.root / "tools").glob("*") if path.is_dir()):
            for path in sorted(p for p in tool.rglob("*") if p.suffix in {".h", ".cpp"}):
                yield from self.check_file(path, lambda included, tool=tool: self.tool_fault_of(tool, included))

    def check_file(self, path, fault):
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            reason = fault(match.group(1)) if match else None
            if reason:
                yield f'{path.relative_to(self.root)}:{number}: "{match.group(1)}": {reason}'

    def fault_of(self, unit, included):
        """Why the file `unit` (a path below src/) may not include `included`, or None."""
        if included in self.public:
            return None
        if not (self.root / "src" / included).is_file():
            return "no such file below src/; includes are written from there"
        folder, target = folder_of(unit), folder_of(included)
        if target in {folder, "base"} | BELOW[folder]:
            return None
        if folder != "base" and included in FOR_ALL | EXTRA.get(folder, set()) | EXTRA.get(stem_of(unit), set()):
            return None
        return f"{folder} may not include {target}"

    def tool_fault_of(self, tool, included):
        """Why a file of the tool with the folder `tool` may not include `included`, or None."""
        if included in self.public | WIRE or (tool / included).is_file():
            return None
        return "tools use their own units, the public headers and the wire headers"

    # ---- Calls ----

    def in_folder(self, folder):
        return [path for path in self.sources if folder_of(self.unit(path)) == folder]

    def names(self, path, name):
        return any(found == name for found in NAMED.findall(self.texts[path]))

    def goes_up(self, folder, name):
        """Whether the function of a public header is defined where `folder` may not reach."""
        return name in self.definers and self.definers[name] not in {folder, "base"} | BELOW[folder]

    def call_faults(self):
        for path in self.sources:
            folder = folder_of(self.unit(path))
            for match in NAMED.finditer(self.texts[path]):
                name = match.group(1)
                if self.goes_up(folder, name) and name not in UPWARDS.get(folder, {}):
                    line = self.texts[path].count("\n", 0, match.start()) + 1
                    definer = self.definers[name] or "no folder of src/"
                    yield f"{path.relative_to(self.root)}:{line}: {name}: {folder} may not call {definer}"


def main():
    faults = Tree(ROOT).faults()
    print("\n".join(faults), end="\n" if faults else "", flush=True)
    labels = subprocess.run([ROOT / "scripts/check-labels.py"], check=False).returncode
    if faults:
        sys.exit(f"{len(faults)} fault(s) against the direction of docs/ARCHITECTURE.md")
    sys.exit(labels)


if __name__ == "__main__":
    main()
