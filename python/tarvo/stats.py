"""Reads what processes count: their statistics files, where the directory for them is there (docs/stats.md).

    from tarvo import stats

    for process in stats.processes():
        calls = process.sum().round_trip
        print(process.name, calls.count, calls.percentile(99) / 1e6, "ms")

Nothing here blocks a writer, nothing is mapped, and nothing outside of a file is read, whatever is in it; what a file
says of itself is its owner's word. Times are in ns.
"""

from __future__ import annotations

import errno
import logging
import os
from collections.abc import Callable

from .errors import DirectoryMissing, Error, from_os
from .stats_file import FileMissing, NoStatistics, OtherVersion, StatsFile
from .stats_numbers import (
    BUCKETS,
    Bad,
    Dropped,
    Ends,
    Kinds,
    Level,
    Opens,
    PipeNumbers,
    PoolNumbers,
    ProcessNumbers,
    Refused,
    ServerNumbers,
    Times,
    bucket_end,
    bucket_of,
)
from .stats_process import Engine, Pipe, Pool, Process, Server, State

__all__ = [
    "BUCKETS",
    "DIRECTORY",
    "Bad",
    "Dropped",
    "Ends",
    "Engine",
    "FileMissing",
    "Kinds",
    "Level",
    "NoStatistics",
    "Opens",
    "OtherVersion",
    "Pipe",
    "PipeNumbers",
    "Pool",
    "PoolNumbers",
    "Process",
    "ProcessNumbers",
    "Refused",
    "Server",
    "ServerNumbers",
    "State",
    "StatsFile",
    "Times",
    "bucket_end",
    "bucket_of",
    "names",
    "processes",
    "read",
]

DIRECTORY = "/dev/shm/velm/tarvo-stats"
_log = logging.getLogger("tarvo.stats")


def read(path: str | os.PathLike[str]) -> Process:
    """Reads one file. Errors as those of StatsFile."""
    with StatsFile(path) as file:
        return file.read()


def _open_directory(directory: str | os.PathLike[str]) -> int:
    try:
        return os.open(directory, os.O_RDONLY | os.O_DIRECTORY | os.O_NONBLOCK | os.O_CLOEXEC)
    except OSError as error:
        if error.errno == errno.ENOENT:
            raise DirectoryMissing.of("nothing is counted here", os.fspath(directory)) from None
        raise from_os(error) from None


def _names(fd: int) -> list[str]:
    return sorted(name for name in os.listdir(fd) if not name.startswith("."))


def names(directory: str | os.PathLike[str] = DIRECTORY) -> list[str]:
    """The names of the files, sorted, without those that begin with a dot.

    DirectoryMissing (ENOENT): nothing is counted here; AccessDenied (EACCES); tarvo.Error with ENOTDIR and others.
    """
    fd = _open_directory(directory)
    try:
        return _names(fd)
    finally:
        os.close(fd)


def processes(
    directory: str | os.PathLike[str] = DIRECTORY, on_error: Callable[[Error], None] | None = None
) -> list[Process]:
    """Reads each file, in the order of their names; those that are removed meanwhile are left out.

    `on_error` is called with what is wrong with a file, whose `filename` tells which; otherwise it is logged as a
    warning. Errors of the directory as those of names().
    """
    fd = _open_directory(directory)
    found: list[Process] = []
    try:
        for name in _names(fd):
            try:
                with StatsFile(name, dir_fd=fd) as file:
                    file.path = os.path.join(directory, name)
                    found.append(file.read())
            except FileMissing:
                continue
            except Error as error:
                error.filename = os.path.join(directory, name)
                (on_error or _log_problem)(error)
    finally:
        os.close(fd)
    return found


def _log_problem(error: Error) -> None:
    _log.warning("%s: %s", error.filename, error.strerror)
