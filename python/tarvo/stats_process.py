"""What a reading of a statistics file says: a process, its pipes, servers and pool of callback threads."""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from dataclasses import dataclass, replace
from functools import reduce
from typing import Literal, TypeVar

from .errors import InvalidArgument
from .stats_numbers import PipeNumbers, PoolNumbers, ProcessNumbers, ServerNumbers

Engine = Literal["threads", "loop"]
State = Literal["closed", "opening", "open", "remote closed"]


@dataclass(frozen=True, slots=True)
class Pipe:
    """One pipe of the process."""

    slot: int
    """Its place in the file."""
    sequence: int
    """With the place it says which pipe it is: places are used again."""
    engine: Engine
    name: str
    """Of this process."""
    remote: str
    """Of the other one."""
    state: State
    """A closed one stays in the file until its place is needed."""
    handle: int
    """Of a pipe of the threads; otherwise 0."""
    opened_at_ns: int | None
    """By CLOCK_MONOTONIC, as time.monotonic_ns(); None: not yet."""
    closed_at_ns: int | None
    numbers: PipeNumbers


@dataclass(frozen=True, slots=True)
class Server:
    """One server of the process."""

    slot: int
    sequence: int
    engine: Engine
    name: str
    """That which is served."""
    numbers: ServerNumbers


@dataclass(frozen=True, slots=True)
class Pool:
    """The pool of callback threads."""

    slot: int
    sequence: int
    engine: Engine
    numbers: PoolNumbers


_Place = TypeVar("_Place", Pipe, Server, Pool)


def _since(now: Iterable[_Place], before: Iterable[_Place]) -> Iterator[_Place]:
    """Each with what has come since `before`, or with all where it was not there."""
    then = {(one.slot, one.sequence): one for one in before}
    for one in now:
        former = then.get((one.slot, one.sequence))
        yield one if former is None else replace(one, numbers=one.numbers.since(former.numbers))


@dataclass(frozen=True, slots=True)
class Process:
    """What one reading of a process's file found."""

    file: str
    """The path it was read from."""
    name: str
    """As the kernel has it."""
    pid: int
    """In the process's own namespace."""
    alive: bool
    """Whether it lives; otherwise these are its last numbers."""
    owner: int
    """The user whose file it is."""
    started_at_ticks: int
    """When the process started, in clock ticks since boot: field 22 of /proc/PID/stat."""
    created_at_ns: int
    """When its file was made, by CLOCK_MONOTONIC."""
    created_unix_ns: int
    """The same since 1970."""
    read_at_ns: int
    """When this was read, by CLOCK_MONOTONIC."""
    one_ways_per_time: int
    """Of so many one-way requests one is timed."""
    calls_per_time: int
    """Of so many calls one is timed."""
    inexact: bool
    """Numbers of a pipe moved within the file all the while: sums may have them twice or not at all."""
    unreadable: tuple[int, ...]
    """Places that were being changed all the while, or hold what no process writes. They are left out."""
    numbers: ProcessNumbers
    gone: PipeNumbers
    """The sums of closed pipes whose places others have taken."""
    pipes: tuple[Pipe, ...]
    servers: tuple[Server, ...]
    pools: tuple[Pool, ...]

    @property
    def left_open(self) -> int:
        """How many pipes a process that has ended did not close: more than 0 when it was killed or has crashed."""
        return 0 if self.alive else sum(pipe.state != "closed" for pipe in self.pipes)

    def sum(self) -> PipeNumbers:
        """All its pipes together, also those gone."""
        return reduce(PipeNumbers.__add__, (pipe.numbers for pipe in self.pipes), self.gone)

    def since(self, before: Process) -> Process:
        """This reading with the numbers that have come since `before`; (read_at_ns - before.read_at_ns) tells the time.

        Pipes and servers that are new have all of theirs. InvalidArgument (EINVAL): they are of different processes.
        """
        if (self.pid, self.created_at_ns) != (before.pid, before.created_at_ns):
            raise InvalidArgument.of("these are readings of two processes", self.file)
        return replace(
            self,
            numbers=self.numbers.since(before.numbers),
            gone=self._gone_since(before),
            pipes=tuple(_since(self.pipes, before.pipes)),
            servers=tuple(_since(self.servers, before.servers)),
            pools=tuple(_since(self.pools, before.pools)),
        )

    def _gone_since(self, before: Process) -> PipeNumbers:
        """Without what pipes that have gone since had before. Where sums are not exact it is not known, and nothing."""
        if self.inexact or before.inexact:
            return PipeNumbers()
        there = {(pipe.slot, pipe.sequence) for pipe in self.pipes}
        left = [
            pipe.numbers
            for pipe in before.pipes
            if (pipe.slot, pipe.sequence) not in there and pipe.slot not in self.unreadable
        ]
        return self.gone.since(reduce(PipeNumbers.__add__, left, before.gone))
