"""Names of processes: which are allowed, and what this process is called."""

from __future__ import annotations

import os

from .errors import InvalidArgument

MAX_NAME = 100
"""Bytes of a name; a client's includes `_` and its process id."""

_FORBIDDEN = ("|", ";", ">", "<", "`", "&", "(", ")", "$", "..", "\0")
_LONGEST_COMM = 16


def check(name: str) -> str:
    """The name, if it may be used. InvalidArgument otherwise."""
    if not isinstance(name, str):
        raise TypeError(f"a name is a str, not {type(name).__name__}")
    size = len(os.fsencode(name))
    if not 1 <= size <= MAX_NAME:
        raise InvalidArgument.of(f"not a valid name: it has {size} bytes, not 1 to {MAX_NAME}", name)
    for part in _FORBIDDEN:
        if part in name:
            raise InvalidArgument.of(f"not a valid name: it holds {part!r}", name)
    return name


def is_valid(name: str) -> bool:
    """Whether the name may be used."""
    try:
        check(name)
    except InvalidArgument:
        return False
    return True


def process_name() -> str:
    """What this process is called if it says nothing else: PROC_NAME, or what the kernel calls it. May be empty."""
    name = os.environ.get("PROC_NAME")
    if name is not None:
        return name if len(os.fsencode(name)) <= MAX_NAME else ""
    try:
        with open(f"/proc/{os.getpid()}/comm", encoding=None, errors="surrogateescape") as comm:
            words = comm.read().split()
    except OSError:
        return ""
    if not words or len(os.fsencode(words[0])) > _LONGEST_COMM:
        return ""
    return "PROCMGR" if words[0] == "process-manager" else words[0]


def unique(own: str) -> str:
    """A client's name: `own`, `_` and the process id, so that every process of a program has files of its own."""
    return check(f"{check(own)}_{os.getpid()}")


def is_patient() -> bool:
    """Whether a debugger holds processes up, so that nobody may lose patience (KELDOR_RUN_MODE)."""
    return os.environ.get("KELDOR_RUN_MODE") == "1"


PATIENT_S = 18_000.0
"""What a time-out is then, in seconds."""


def patient(timeout: float | None) -> float | None:
    """The time-out that holds, in seconds."""
    return PATIENT_S if timeout is not None and is_patient() else timeout
