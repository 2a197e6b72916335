#!/usr/bin/env python3
"""Checks that the includes of src/ and include/ run downwards only, and what the tools include of them.

A unit may include the units of the folders that stand below its own, and the few single units named here. The map is
the one of docs/ARCHITECTURE.md. Tools use the public header, and of src/ only what defines the wire and the names.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Folder: the folders below it. src/base stands on nothing; all others may use it.
BELOW = {
    "base": set(),
    "diag": set(),
    "fifo": {"diag"},
    "worker": {"diag"},
    "pipe": {"fifo", "diag"},
    "server": {"pipe", "fifo", "worker", "diag"},
    "monitor": {"pipe", "worker", "fifo", "diag"},
    "table": {"monitor", "pipe", "worker", "fifo", "diag"},
    "api": {"table", "monitor", "server", "pipe", "worker", "fifo", "diag"},
}

# Single units that may be included from outside of their folder's place: by all, or by a folder or a unit of it.
FOR_ALL = {"api/EnvManager.h"}
EXTRA = {
    "fifo": {"api/tarvo_internal.h"},
    "pipe": {"worker/TarvoTask.h"},
    "table": {"server/TarvoClientPipe.h"},
    "server/PipeServer": {"api/TableFactory.h", "api/tarvo_internal.h", "table/TarvoTable.h"},
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

PUBLIC = {path.name for path in (ROOT / "include").iterdir()}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def folder_of(unit):
    return unit.split("/", 1)[0]


def fault_of(unit, included):
    """Why the file `unit` (a path below src/) may not include `included`, or None."""
    if included in PUBLIC:
        return None
    if not (ROOT / "src" / included).is_file():
        return "no such file below src/; includes are written from there"
    folder, target = folder_of(unit), folder_of(included)
    if target in {folder, "base"} | BELOW[folder]:
        return None
    if folder != "base" and included in FOR_ALL | EXTRA.get(folder, set()) | EXTRA.get(unit.rsplit(".", 1)[0], set()):
        return None
    return f"{folder} may not include {target}"


def public_fault_of(included):
    """Why a public header may not include `included`, or None."""
    return None if included in PUBLIC else "public headers stand alone"


def tool_fault_of(tool, included):
    """Why a file of the tool with the folder `tool` may not include `included`, or None."""
    if included in PUBLIC | WIRE or (tool / included).is_file():
        return None
    return "tools use their own units, the public header and the wire headers"


def check(path, fault):
    """Prints the faulty includes of one file; returns their number."""
    faults = 0
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        reason = fault(match.group(1)) if match else None
        if reason:
            print(f'{path.relative_to(ROOT)}:{number}: "{match.group(1)}": {reason}')
            faults += 1
    return faults


def main():
    faults = 0
    sources = sorted(p for p in (ROOT / "src").rglob("*") if p.suffix in {".h", ".cpp"})
    if not sources:
        sys.exit("no sources found")
    for path in sources:
        unit = path.relative_to(ROOT / "src").as_posix()
        if folder_of(unit) not in BELOW:
            sys.exit(f"src/{unit}: folder unknown to {sys.argv[0]}")
        faults += check(path, lambda included, unit=unit: fault_of(unit, included))
    for path in sorted((ROOT / "include").glob("*.h*")):
        faults += check(path, public_fault_of)
    for tool in sorted(path for path in (ROOT / "tools").glob("*") if path.is_dir()):
        for path in sorted(p for p in tool.rglob("*") if p.suffix in {".h", ".cpp"}):
            faults += check(path, lambda included, tool=tool: tool_fault_of(tool, included))
    if faults:
        sys.exit(f"{faults} include(s) against the direction of docs/ARCHITECTURE.md")


if __name__ == "__main__":
    main()
