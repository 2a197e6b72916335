#!/usr/bin/env python3
"""Checks that the includes of src/ and include/ run downwards only, and what the tools include of them.

A unit may include the units of the folders that stand below its own, and the few single units named here. The map is
the one of docs/ARCHITECTURE.md. Tools use the public header, and of src/ only what defines the wire and the names.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# The units of src/api that stand below everything; the rest of that folder stands on top.
GROUND = {
    "api/Cancellation.h",
    "api/EnvManager.h",
    "api/ForkLock.h",
    "api/HasSymbol.h",
    "api/Mutex.h",
    "api/ProcessObject.h",
    "api/ProcessOwner.h",
    "api/Semaphore.h",
    "api/SharedMutex.h",
    "api/SingletonProtector.h",
    "api/UniqueFd.h",
}

# Folder: the folders below it.
BELOW = {
    "ground": set(),
    "diag": {"ground"},
    "fifo": {"diag", "ground"},
    "worker": {"diag", "ground"},
    "pipe": {"fifo", "diag", "ground"},
    "server": {"pipe", "fifo", "worker", "diag", "ground"},
    "monitor": {"pipe", "worker", "fifo", "diag", "ground"},
    "table": {"monitor", "pipe", "worker", "fifo", "diag", "ground"},
    "api": {"table", "monitor", "server", "pipe", "worker", "fifo", "diag", "ground"},
}

# Folder, or a single unit of it: the single units that it may include besides.
EXTRA = {
    "fifo": {"api/tarvo_internal.h"},
    "pipe": {"worker/TarvoTask.h"},
    "table": {"server/TarvoClientPipe.h"},
    "server/PipeServer": {"api/TableFactory.h", "api/tarvo_internal.h", "table/TarvoTable.h"},
}

# Formats, limits and names that other processes rely on: nothing with a behaviour of its own.
WIRE = {
    "api/EnvManager.h",
    "fifo/security_context.h",
    "pipe/MagicReceiver.h",
    "pipe/Message.h",
    "server/PipeServerMessage.h",
}

PUBLIC = {path.name for path in (ROOT / "include").iterdir()}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def layer_of(unit):
    """The layer of a path below src/: its folder, with the ground set apart."""
    if unit in GROUND or unit.rsplit(".", 1)[0] + ".h" in GROUND:
        return "ground"
    return unit.split("/", 1)[0]


def fault_of(unit, included):
    """Why the file `unit` (a path below src/) may not include `included`, or None."""
    if included in PUBLIC:
        return None
    if not (ROOT / "src" / included).is_file():
        return "no such file below src/; includes are written from there"
    layer, target = layer_of(unit), layer_of(included)
    if target == layer or target in BELOW[layer]:
        return None
    if included in EXTRA.get(layer, set()) | EXTRA.get(unit.rsplit(".", 1)[0], set()):
        return None
    return f"{layer} may not include {target}"


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
        if layer_of(unit) not in BELOW:
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
