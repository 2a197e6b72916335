"""The library with its statistics kept (TARVO_STATS_DIRECTORY in include/tarvo_stats.h), beside itself without."""
import contextlib
import dataclasses
import os
import shutil
import sys

from scenarios import COUNTED

DIRECTORY = "/dev/shm/velm/tarvo-stats"


def add_to(contestants):
    """Each engine once more, as one that counts. The others do not: the directory must not be there."""
    if os.path.lexists(DIRECTORY):
        sys.exit(f"{DIRECTORY} is there: what is measured without it would count too; remove it for the run")
    for name, counted in COUNTED.items():
        if name in contestants:
            contestants[counted] = dataclasses.replace(contestants[name], name=counted, counted=True)


@contextlib.contextmanager
def directory_for(contestant):
    """Whether a process counts is decided when it first opens a pipe: the directory is there as long as it runs."""
    if not contestant.counted:
        yield
        return
    os.mkdir(DIRECTORY, 0o770)
    try:
        yield
    finally:
        shutil.rmtree(DIRECTORY)
