"""How a statistics file lies: that of tarvo_stats.h, in host byte order."""

from __future__ import annotations

import os
import struct
from collections.abc import Sequence
from typing import NamedTuple

from .stats_numbers import (
    BUCKETS,
    MASK,
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
)
from .stats_process import Engine, Pipe, Pool, Server, State

MAGIC = 0x5354415453565254
VERSION = 2
HEADER_SIZE = 4096
SLOT_SIZE = 4608
MAX_SLOTS = 65536
NAME_SIZE = 104
FREE, GONE, PIPE, SERVER, POOL = range(5)
_ENGINES: tuple[Engine, ...] = ("threads", "loop")
_STATES: tuple[State, ...] = ("closed", "opening", "open", "remote closed")

_TIMES_WORDS = 2 + BUCKETS
# Of a pipe's words those that a thread has of its own, and what they belong to: messages and bytes sent, callbacks
# begun and finished, calls begun and answered.
_FIRST = (*((at, at + 10) for at in range(6)), (32, 44), (33, 45), (48, 58), (49, 59))
PIPE_WORDS = 64 + 4 * _TIMES_WORDS
SERVER_WORDS = 8 + _TIMES_WORDS
POOL_WORDS = 8
PROCESS_WORDS = 6 + _TIMES_WORDS
HEADER = struct.Struct(f"=QIIIIIIiIIIQQQ{NAME_SIZE}s{PROCESS_WORDS}Q")
FOLDING_AT = 28
SLOT = struct.Struct(f"=IIIIqQQ{NAME_SIZE}s{NAME_SIZE}sQ")
WORD = struct.Struct("=I")
_PIPE, _SERVER, _POOL = (struct.Struct(f"={words}Q") for words in (PIPE_WORDS, SERVER_WORDS, POOL_WORDS))


class Header(NamedTuple):
    """The begin of the file."""

    magic: int
    version: int
    header_size: int
    slot_size: int
    slots: int
    clock: int
    folding: int
    pid: int
    one_ways_per_time: int
    calls_per_time: int
    reserved: int
    started_at: int
    created_at: int
    created_wall: int
    process: bytes
    words: tuple[int, ...]


class Slots:
    """What one pass over the slots has found."""

    def __init__(self) -> None:
        self.gone = PipeNumbers()
        self.pipes: list[Pipe] = []
        self.servers: list[Server] = []
        self.pools: list[Pool] = []
        self.unreadable: list[int] = []

    def add(self, index: int, data: bytes) -> None:
        """One slot, if it is what a process writes."""
        sequence, kind, engine, state, handle, opened, closed, name, remote, _ = SLOT.unpack_from(data)
        if kind > POOL or engine >= len(_ENGINES) or state >= len(_STATES) or b"\0" not in name or b"\0" not in remote:
            self.unreadable.append(index)
            return
        known = (index, sequence, _ENGINES[engine])
        if kind == GONE:
            self.gone += pipe_numbers(_PIPE.unpack_from(data, SLOT.size))
        elif kind == PIPE:
            numbers = pipe_numbers(_PIPE.unpack_from(data, SLOT.size))
            times = (opened or None, closed or None)
            self.pipes.append(Pipe(*known, text(name), text(remote), _STATES[state], handle, *times, numbers))
        elif kind == SERVER:
            self.servers.append(Server(*known, text(name), server_numbers(_SERVER.unpack_from(data, SLOT.size))))
        elif kind == POOL:
            self.pools.append(Pool(*known, pool_numbers(_POOL.unpack_from(data, SLOT.size))))


def text(name: bytes) -> str:
    """A name, up to its NUL."""
    return os.fsdecode(name[: name.index(0)])


def _times(words: Sequence[int], at: int) -> Times:
    return Times(words[at], words[at + 1], tuple(words[at + 2 : at + _TIMES_WORDS]))


def _level(most: int, come: int, gone: int) -> Level:
    """What has come and not gone yet. Counters that were written at different moments may have more that has gone."""
    now = (come - gone) & MASK
    now = 0 if now >> 63 else now
    return Level(now, max(now, most))


def _with_first(words: Sequence[int]) -> Sequence[int]:
    added = list(words)
    for sum_at, first_at in _FIRST:
        added[sum_at] = (added[sum_at] + added[first_at]) & MASK
    return added


def pipe_numbers(w: Sequence[int]) -> PipeNumbers:
    """Of PIPE_WORDS words. A file has no levels of pipes: they are worked out of the counters. Where several threads
    count the same, the first of them has words of its own, which are added to those of the others."""
    w = _with_first(w)
    received, dropped, ended = Kinds(*w[16:19]), Dropped(*w[34:39]), Ends(*w[49:55])
    begun, finished, calls = w[32], w[33], w[48]
    return PipeNumbers(
        sent_messages=Kinds(*w[0:3]),
        sent_bytes=Kinds(*w[3:6]),
        sends_refused=Refused(*w[6:9]),
        sends_lost=w[9],
        received_messages=received,
        received_bytes=Kinds(*w[19:22]),
        received_bad=Bad(*w[22:27]),
        received_late=w[27],
        received_no_memory=w[28],
        unread_bytes=w[29],
        callbacks_begun=begun,
        callbacks_finished=finished,
        requests_dropped=dropped,
        requests_queued=_level(w[41], received.one_way + received.call, begun + dropped.total),
        callbacks_running=_level(w[43], begun, finished),
        calls_begun=calls,
        calls_ended=ended,
        calls_outstanding=_level(w[57], calls, ended.total),
        round_trip=_times(w, 64),
        in_fifo=_times(w, 64 + _TIMES_WORDS),
        wait=_times(w, 64 + 2 * _TIMES_WORDS),
        callback=_times(w, 64 + 3 * _TIMES_WORDS),
    )


def server_numbers(w: Sequence[int]) -> ServerNumbers:
    """Of SERVER_WORDS words."""
    return ServerNumbers(w[0], w[1], w[2], w[3], _times(w, 8))


def pool_numbers(w: Sequence[int]) -> PoolNumbers:
    """Of POOL_WORDS words."""
    return PoolNumbers(Level(w[0], w[1]), Level(w[2], w[3]), w[4], w[5], w[6])


def process_numbers(w: Sequence[int]) -> ProcessNumbers:
    """Of PROCESS_WORDS words."""
    return ProcessNumbers(w[0], Opens(*w[1:6]), _times(w, 6))
