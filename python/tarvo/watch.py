"""Tells who waits for a file when it has come: inotify where there is one, and looking again from time to time."""

from __future__ import annotations

import asyncio
import ctypes
import logging
import os
import struct
import weakref
from types import TracebackType

from . import files

_IN_CREATE = 0x100
_IN_MOVED_TO = 0x80
_IN_IGNORED = 0x8000
_IN_ONLYDIR = 0x01000000
_EVENT = struct.Struct("=iIII")
_READ_SIZE = 65536
_log = logging.getLogger("tarvo.watch")
_libc = ctypes.CDLL(None, use_errno=True)

# A set that is not in use. Closing one would wait for all processors: many milliseconds. One is kept for the next wait.
_spare: list[int] = []


def _take_spare() -> int:
    """A set that nobody uses; -1: there is none. Loops of several threads may ask."""
    try:
        return _spare.pop()
    except IndexError:
        return -1


def _forget_parent() -> None:
    """A child shares the sets of its parent, whose events are not for it."""
    while _spare:
        files.close(_spare.pop())


os.register_at_fork(after_in_child=_forget_parent)


class Waiter:
    """Something to look at again, after a while or when there is news. Belongs to the task that waits."""

    __slots__ = ("_loop", "_news", "_future", "_watch", "names")

    def __init__(self, loop: asyncio.AbstractEventLoop, names: tuple[str, ...] = ()) -> None:
        self._loop = loop
        self._news = False
        self._future: asyncio.Future[None] | None = None
        self._watch: DirectoryWatch | None = None
        self.names = names
        """Of the files that are news, without their folder."""

    @property
    def is_watched(self) -> bool:
        """Whether files that come are told, so that nobody has to look for them."""
        return self._watch is not None and self._watch.is_watching

    def notify(self) -> None:
        """There is news."""
        self._news = True
        if self._future is not None and not self._future.done():
            self._future.set_result(None)

    async def wait(self, seconds: float | None) -> None:
        """Returns when there is news, or after so long at the latest (None: only then)."""
        if not self._news:
            self._future = self._loop.create_future()
            timer = None if seconds is None else self._loop.call_later(seconds, self.notify)
            try:
                await self._future
            finally:
                self._future = None
                if timer is not None:
                    timer.cancel()
        self._news = False

    def __enter__(self) -> Waiter:
        self._watch = DirectoryWatch.of(self._loop)
        self._watch.add(self)
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._watch is not None:
            self._watch.remove(self)
            self._watch = None


class DirectoryWatch:
    """The watch of one event loop over the folder of the FIFOs, as long as somebody waits for a file."""

    _all: weakref.WeakKeyDictionary[asyncio.AbstractEventLoop, DirectoryWatch] = weakref.WeakKeyDictionary()

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        # Weakly, since the loop is the key under which this object lives.
        self._loop = weakref.ref(loop)
        self._waiters: set[Waiter] = set()
        self._fd = -1
        self._watched = -1
        self._path = ""

    @classmethod
    def of(cls, loop: asyncio.AbstractEventLoop) -> DirectoryWatch:
        """The watch of a loop."""
        watch = cls._all.get(loop)
        if watch is None:
            watch = cls._all[loop] = cls(loop)
        return watch

    @property
    def is_watching(self) -> bool:
        """Whether the folder that counts now is watched."""
        return self._watched >= 0 and self._path == files.directory()

    def add(self, waiter: Waiter) -> None:
        """From now on it is notified of its files. What has come before is for it to look for."""
        self._waiters.add(waiter)
        if self._watched < 0:
            self._begin()

    def remove(self, waiter: Waiter) -> None:
        """It is not notified any more."""
        self._waiters.discard(waiter)
        if not self._waiters:
            self._end()

    def _begin(self) -> None:
        loop = self._loop()
        self._fd = _take_spare()
        if self._fd < 0:
            self._fd = _libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self._fd >= 0 and loop is not None:
            _drain(self._fd)
            self._path = files.directory()
            changes = _IN_CREATE | _IN_MOVED_TO | _IN_ONLYDIR
            self._watched = _libc.inotify_add_watch(self._fd, os.fsencode(self._path), changes)
        if self._watched < 0 or loop is None:
            _log.info("no watch of %s: looking from time to time", files.directory())
            self._end()
            return
        loop.add_reader(self._fd, self._on_events)

    def _end(self) -> None:
        fd, watched, self._fd, self._watched = self._fd, self._watched, -1, -1
        if fd < 0:
            return
        loop = self._loop()
        if loop is not None and not loop.is_closed():
            loop.remove_reader(fd)
        if watched >= 0:
            _libc.inotify_rm_watch(fd, watched)
        if _spare:
            files.close(fd)
        else:
            _spare.append(fd)

    def _on_events(self) -> None:
        try:
            data = os.read(self._fd, _READ_SIZE)
        except BlockingIOError:
            return
        changed: set[str] = set()
        at = 0
        while at < len(data):
            watched, mask, _, size = _EVENT.unpack_from(data, at)
            at += _EVENT.size
            # An overflow has no name, and concerns everybody; so does the end of the folder.
            changed.add(os.fsdecode(data[at : at + size].rstrip(b"\0")))
            at += size
            if mask & _IN_IGNORED and watched == self._watched:
                self._watched = -1
        for waiter in list(self._waiters):
            if "" in changed or not changed.isdisjoint(waiter.names):
                waiter.notify()
        if self._watched < 0:
            self._end()


def _drain(fd: int) -> None:
    """Drops what came after the end of an earlier watch, and of its end."""
    try:
        while os.read(fd, _READ_SIZE):
            pass
    except BlockingIOError:
        pass
