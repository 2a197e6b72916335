"""The calls of a link that wait for their answer, each of which ends once."""

from __future__ import annotations

import asyncio
from collections.abc import Callable
from heapq import heapify, heappop, heappush

from .errors import Error, TimedOut

_LAST_ID = 0x7FFFFFFF
ONE_WAY = 0x80000000
"""In the ids of requests that nobody waits for the answer of."""
_FEW_DEADLINES = 1000


class Calls:
    """Which ids are taken, and until when. Owns the futures of the callers."""

    __slots__ = ("_loop", "waiting", "_last", "_deadlines", "_timer", "_timer_at", "_remote")

    def __init__(self, loop: asyncio.AbstractEventLoop, remote: str) -> None:
        self._loop = loop
        self._remote = remote
        self.waiting: dict[int, asyncio.Future[bytes]] = {}
        self._last = 0
        self._deadlines: list[tuple[float, int]] = []
        self._timer: asyncio.TimerHandle | None = None
        self._timer_at = 0.0

    def begin(self, timeout: float | None) -> tuple[int, asyncio.Future[bytes]]:
        """The id of a new call, and what its caller waits for."""
        waiting = self.waiting
        id_ = self._last % _LAST_ID + 1
        while id_ in waiting:
            id_ = id_ % _LAST_ID + 1
        self._last = id_
        future: asyncio.Future[bytes] = self._loop.create_future()
        waiting[id_] = future
        if timeout is not None:
            self._expire_at(self._loop.time() + timeout, id_)
        return id_, future

    def answer(self, id_: int, payload: bytes) -> None:
        """The answer has come. Dropped when nobody waits for it any more."""
        future = self.waiting.pop(id_, None)
        if future is not None and not future.done():
            future.set_result(payload)

    def forget(self, id_: int) -> None:
        """The caller does not wait any more."""
        self.waiting.pop(id_, None)

    def fail(self, id_: int, error: Error) -> None:
        """Ends one call with an error."""
        future = self.waiting.pop(id_, None)
        if future is not None and not future.done():
            future.set_exception(error)

    def end_all(self, make: Callable[[], Error]) -> None:
        """Ends all, each with an error of its own."""
        waiting, self.waiting = self.waiting, {}
        for future in waiting.values():
            if not future.done():
                future.set_exception(make())

    def _expire_at(self, when: float, id_: int) -> None:
        deadlines = self._deadlines
        # Those of calls that have ended stay until they are due, but never outnumber the others for long.
        if len(deadlines) > _FEW_DEADLINES and len(deadlines) > 2 * len(self.waiting):
            deadlines[:] = [entry for entry in deadlines if entry[1] in self.waiting]
            heapify(deadlines)
        heappush(deadlines, (when, id_))
        if self._timer is None or when < self._timer_at:
            self._arm(when)

    def _arm(self, when: float) -> None:
        if self._timer is not None:
            self._timer.cancel()
        self._timer = self._loop.call_at(when, self._on_timer)
        self._timer_at = when

    def _on_timer(self) -> None:
        self._timer = None
        now = self._loop.time()
        deadlines, waiting = self._deadlines, self.waiting
        while deadlines and (deadlines[0][0] <= now or deadlines[0][1] not in waiting):
            self.fail(heappop(deadlines)[1], TimedOut.of("no answer in time", self._remote))
        if deadlines:
            self._arm(deadlines[0][0])

    def close(self) -> None:
        """No timer is left."""
        self._deadlines.clear()
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None
