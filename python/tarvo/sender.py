"""Writes the frames of a link: small ones together, and those for which there is no room when there is."""

from __future__ import annotations

import asyncio
import fcntl
import os
import termios
from array import array
from collections import deque
from collections.abc import Callable

from . import files
from .errors import Cancelled, Error, Full, RemoteClosed

PIPE_BUF = 4096


class Pending:
    """A frame that waits for room. `sent` is for who wants to know; `frame` is empty once nobody wants it sent."""

    __slots__ = ("frame", "call", "sent")

    def __init__(self, frame: bytes, call: int, sent: asyncio.Future[None] | None) -> None:
        self.frame = frame
        self.call = call
        self.sent = sent

    def end(self, error: Error | None) -> None:
        """Tells whoever waits."""
        if self.sent is not None and not self.sent.done():
            if error is None:
                self.sent.set_result(None)
            else:
                self.sent.set_exception(error)


class Sender:
    """The write end of a link. Owns the descriptor, a batch of at most PIPE_BUF bytes, and what waits for room.

    A batch goes out in one write, which is whole or not at all (pipe(7)), as receivers expect of frames.
    """

    __slots__ = ("_loop", "_fd", "_remote", "_batch", "_size", "_calls", "_scheduled", "_blocked", "_waiting",
                 "_broken", "_fail_call")

    def __init__(self, loop: asyncio.AbstractEventLoop, fd: int, remote: str, fail_call: Callable[[int, Error], None]):
        self._loop = loop
        self._fd = fd
        self._remote = remote
        self._batch: list[bytes] = []
        self._size = 0
        self._calls: list[int] = []  # those whose frames are in the batch
        self._scheduled = False
        self._blocked = False
        self._waiting: deque[Pending] = deque()
        self._broken = fd < 0
        self._fail_call = fail_call

    @property
    def fd(self) -> int:
        """The descriptor; -1 after close()."""
        return self._fd

    @property
    def waits(self) -> bool:
        """Whether there is no room, so that another frame would have to wait."""
        return self._blocked

    @property
    def in_round(self) -> bool:
        """Whether the loop will flush what is gathered before it sleeps."""
        return self._scheduled

    def is_read(self) -> bool:
        """Whether nothing is left, here or in the FIFO."""
        if not self.flush() or self._waiting:
            return False
        unread = array("i", [0])
        fcntl.ioctl(self._fd, termios.FIONREAD, unread)
        return unread[0] == 0

    def put(self, frame: bytes, gather: bool, call: int = 0) -> bool:
        """Takes a frame: into the FIFO, or into the batch if others of this round may follow. False: no room.

        RemoteClosed when nobody reads any more.
        """
        if self._broken:
            raise self._gone()
        if self._waiting or self._blocked:
            return False
        if not gather and not self._batch:
            return self._write(frame)
        if self._size + len(frame) > PIPE_BUF and not self.flush():
            return False
        self._batch.append(frame)
        self._size += len(frame)
        if call:
            self._calls.append(call)
        if not gather:
            self.flush()
        elif not self._scheduled:
            self.start_round()
        return True

    def start_round(self) -> None:
        """Has what is gathered from now on go out together, before the loop sleeps."""
        if not self._scheduled:
            self._scheduled = True
            self._loop.call_soon(self._end_round)

    def _end_round(self) -> None:
        self._scheduled = False
        self.flush()

    def wait_for_room(self, frame: bytes, call: int = 0, sent: asyncio.Future[None] | None = None) -> Pending:
        """Has the frame sent after all that wait already, as soon as there is room."""
        pending = Pending(frame, call, sent)
        self._waiting.append(pending)
        self._block()
        return pending

    def drop(self, pending: Pending) -> bool:
        """Nobody wants it sent any more. False: it has been."""
        try:
            self._waiting.remove(pending)
            return True
        except ValueError:
            return False

    def flush(self) -> bool:
        """Writes the batch. False: no room, or nobody reads any more; then it stays, or is lost."""
        if not self._batch:
            return not self._blocked
        if self._blocked or self._fd < 0:
            return False
        data = self._batch[0] if len(self._batch) == 1 else b"".join(self._batch)
        try:
            if not self._write(data):
                return False
        except RemoteClosed:
            return False
        self._empty_batch()
        return True

    def _empty_batch(self) -> None:
        self._batch.clear()
        self._calls.clear()
        self._size = 0

    def _write(self, data: bytes) -> bool:
        if self._blocked:
            return False
        try:
            os.write(self._fd, data)
            return True
        except BlockingIOError:
            self._block()
            return False
        except OSError:
            self._break()
            raise self._gone() from None

    def _block(self) -> None:
        if not self._blocked and self._fd >= 0:
            self._blocked = True
            self._loop.add_writer(self._fd, self._on_room)

    def _on_room(self) -> None:
        self._loop.remove_writer(self._fd)
        self._blocked = False
        if not self.flush():
            return
        try:
            while self._waiting:
                if not self._write(self._waiting[0].frame):
                    return
                self._waiting.popleft().end(None)
        except RemoteClosed:
            pass  # everybody has been told

    def _break(self) -> None:
        """Nobody reads any more, nor will."""
        self._broken = True
        for call in self._calls:
            self._fail_call(call, self._gone())
        self._empty_batch()
        self._end_waiting(self._gone)

    def _end_waiting(self, make: Callable[[], Error]) -> None:
        waiting, self._waiting = self._waiting, deque()
        for pending in waiting:
            pending.end(make())
            if pending.call:
                self._fail_call(pending.call, make())

    def _gone(self) -> RemoteClosed:
        return RemoteClosed.of("the other side is gone", self._remote)

    def _closed(self) -> Cancelled:
        return Cancelled.of("the link was closed", self._remote)

    def full(self) -> Full:
        """What is raised where a frame cannot wait for room."""
        return Full.of("no room: the other side does not keep up", self._remote)

    def close(self, by_remote: bool) -> None:
        """Writes what the batch holds, if there is room, and gives the descriptor back."""
        if not self._broken:
            self.flush()
        self._broken = True
        fd, self._fd = self._fd, -1
        if fd >= 0:
            if not self._loop.is_closed():
                self._loop.remove_writer(fd)
            files.close(fd)
        self._end_waiting(self._gone if by_remote else self._closed)
