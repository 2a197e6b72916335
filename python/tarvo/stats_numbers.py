"""The numbers in statistics files: counters, levels and times, their sums and differences. docs/stats.md explains each.

Every class has `since(before)`, what has come since an earlier reading of the same, and `+`. Counters are of 64 bits
and wrap; that is taken care of. Levels in a difference are those of now, and so are the longest times and `monitors`:
when they were is not known.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, fields, replace
from typing import Any, ClassVar, Self

from .errors import InvalidArgument

BUCKETS = 110
MASK = 0xFFFF_FFFF_FFFF_FFFF
_FIRST_END = 896
_FIRST_EXPONENT = 9
_SKIPPED = 2  # of the quarters of the first power of two, whose third and last are buckets 0 and 1


def bucket_of(time: int) -> int:
    """The bucket of a time in ns."""
    if time < _FIRST_END:
        return 0
    exponent = time.bit_length() - 1
    quarter = (time >> (exponent - 2)) & 3
    return min(4 * (exponent - _FIRST_EXPONENT) + quarter - _SKIPPED, BUCKETS - 1)


def bucket_end(bucket: int) -> int:
    """The first time behind a bucket, in ns; 2**64 - 1 for the last."""
    if bucket >= BUCKETS - 1:
        return MASK
    power, quarter = divmod(bucket + 1 + _SKIPPED, 4)
    return (4 + quarter) << (_FIRST_EXPONENT + power - 2)


_ENDS = [bucket_end(bucket) for bucket in range(BUCKETS)]


def _difference(now: Any, before: Any) -> Any:
    return (now - before) & MASK if isinstance(now, int) else now.since(before)


def _sum(one: Any, other: Any) -> Any:
    return (one + other) & MASK if isinstance(one, int) else one + other


class Numbers:
    """What all of them can do."""

    __slots__ = ()
    __dataclass_fields__: ClassVar[dict[str, Any]]

    def _pairs(self, other: Self) -> Iterator[tuple[Any, Any]]:
        if type(other) is not type(self):
            raise TypeError(f"{type(self).__name__} and {type(other).__name__} have different numbers")
        return ((getattr(self, each.name), getattr(other, each.name)) for each in fields(self))

    def since(self, before: Self) -> Self:
        """What has come since `before`."""
        return type(self)(*(_difference(now, then) for now, then in self._pairs(before)))

    def __add__(self, other: Self) -> Self:
        return type(self)(*(_sum(one, more) for one, more in self._pairs(other)))


class Cases(Numbers):
    """A number that is counted apart for each of several cases."""

    __slots__ = ()

    @property
    def total(self) -> int:
        """Of all cases."""
        values: list[int] = [getattr(self, each.name) for each in fields(self)]
        return sum(values) & MASK


@dataclass(frozen=True, slots=True)
class Kinds(Cases):
    """By what a frame carries."""

    one_way: int = 0
    call: int = 0
    response: int = 0


@dataclass(frozen=True, slots=True)
class Refused(Cases):
    """Sends that were refused."""

    full: int = 0
    """There was no room (EAGAIN)."""
    broken: int = 0
    """Nobody reads (EPIPE)."""
    other: int = 0


@dataclass(frozen=True, slots=True)
class Bad(Cases):
    """Frames that were thrown away, by what was wrong."""

    magic: int = 0
    length: int = 0
    checksum: int = 0
    kind: int = 0
    short: int = 0


@dataclass(frozen=True, slots=True)
class Dropped(Cases):
    """Requests that came whole and got to no callback, by the reason."""

    queue: int = 0
    callbacks: int = 0
    cache: int = 0
    closing: int = 0
    memory: int = 0


@dataclass(frozen=True, slots=True)
class Ends(Cases):
    """Calls by their end."""

    answered: int = 0
    timed_out: int = 0
    broken: int = 0
    canceled: int = 0
    not_sent: int = 0
    other: int = 0


@dataclass(frozen=True, slots=True)
class Opens(Cases):
    """Opens of pipes by their result."""

    ok: int = 0
    timed_out: int = 0
    no_server: int = 0
    refused: int = 0
    other: int = 0


@dataclass(frozen=True, slots=True)
class Level(Numbers):
    """A number that goes up and down. In a sum `most` is of the highest of each, which may be of different times."""

    now: int = 0
    most: int = 0

    def since(self, before: Self) -> Self:
        """The level of now."""
        return self


@dataclass(frozen=True, slots=True)
class Times(Numbers):
    """How long something took, in ns: a histogram whose buckets are at most a quarter wide, from 1 us to 120 s."""

    sum: int = 0
    longest: int = 0
    buckets: tuple[int, ...] = (0,) * BUCKETS
    """How many times fell into each; bucket_end() tells where one ends."""

    @property
    def count(self) -> int:
        """How many times were measured."""
        return sum(self.buckets) & MASK

    @property
    def mean(self) -> float:
        """The mean in ns; 0 when none was measured."""
        count = self.count
        return self.sum / count if count else 0.0

    def percentile(self, percent: float) -> int:
        """The time in ns that so many of a hundred do not exceed, at most a quarter too large: the end of its bucket,

        or the longest where that is less. 0 when none was measured. InvalidArgument (EINVAL) unless it is 0 to 100.
        """
        if not 0 <= percent <= 100:
            raise InvalidArgument.of(f"a percentile is from 0 to 100, not {percent}")
        rank = float(self.count) * percent / 100.0
        below = 0
        for many, end in zip(self.buckets, _ENDS, strict=True):
            below = (below + many) & MASK
            if many and float(below) >= rank:
                # A time of a process that was killed may be counted, and not yet be the longest.
                return min(self.longest or end, end)
        return 0

    def since(self, before: Self) -> Self:
        """What was measured since; the longest is that of now."""
        buckets = tuple([(now - then) & MASK for now, then in zip(self.buckets, before.buckets, strict=True)])
        return replace(self, sum=(self.sum - before.sum) & MASK, buckets=buckets)

    def __add__(self, other: Self) -> Self:
        buckets = tuple([(one + more) & MASK for one, more in zip(self.buckets, other.buckets, strict=True)])
        return type(self)((self.sum + other.sum) & MASK, max(self.longest, other.longest), buckets)


@dataclass(frozen=True, slots=True)
class PipeNumbers(Numbers):
    """Of one pipe, or of several together. Bytes are of payloads."""

    sent_messages: Kinds = Kinds()
    sent_bytes: Kinds = Kinds()
    sends_refused: Refused = Refused()
    sends_lost: int = 0
    received_messages: Kinds = Kinds()
    received_bytes: Kinds = Kinds()
    received_bad: Bad = Bad()
    received_late: int = 0
    received_no_memory: int = 0
    unread_bytes: int = 0
    callbacks_begun: int = 0
    callbacks_finished: int = 0
    requests_dropped: Dropped = Dropped()
    requests_queued: Level = Level()
    callbacks_running: Level = Level()
    calls_begun: int = 0
    calls_ended: Ends = Ends()
    calls_outstanding: Level = Level()
    round_trip: Times = Times()
    in_fifo: Times = Times()
    wait: Times = Times()
    callback: Times = Times()


@dataclass(frozen=True, slots=True)
class ServerNumbers(Numbers):
    """Of one server: its clients."""

    packets: int = 0
    bad_packets: int = 0
    opened: int = 0
    failed: int = 0
    open_time: Times = Times()


@dataclass(frozen=True, slots=True)
class PoolNumbers(Numbers):
    """Of the pool of callback threads."""

    threads: Level = Level()
    taken: Level = Level()
    refused: int = 0
    waited: int = 0
    monitors: int = 0
    """Threads that receive, now."""

    def since(self, before: Self) -> Self:
        """What has come since; how many threads there are is told of now."""
        return replace(
            self, refused=(self.refused - before.refused) & MASK, waited=(self.waited - before.waited) & MASK
        )


@dataclass(frozen=True, slots=True)
class ProcessNumbers(Numbers):
    """Of the process itself."""

    uncounted_pipes: int = 0
    opens: Opens = Opens()
    open_time: Times = Times()
