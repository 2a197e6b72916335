"""How a link comes to its two ends: the steps to an open link, of which none blocks."""

from __future__ import annotations

import asyncio
import errno
import os
import select
from dataclasses import dataclass

from . import files
from .errors import Error, NoServer, RemoteClosed, TimedOut
from .packets import connect_packet
from .watch import Waiter

# How long until the next look, in seconds: at first just after what else there is to do, then less and less often.
_FIRST_LOOKS = (0.0, 0.0, 0.0)
_FIRST_WAIT = 0.0005
_LONGEST_WAIT = 0.02
_LONGEST_LEFTOVER_WAIT = 0.002
# How long the files of an earlier link may keep the next one of the same names waiting.
_LEFTOVER_LIMIT = 0.1


@dataclass(frozen=True)
class Plan:
    """What is to be opened, and how."""

    own: str
    remote: str
    makes_files: bool
    announces: bool
    gid: int
    timeout: float | None
    """Seconds for the whole of it."""

    @property
    def read_path(self) -> str:
        """The FIFO that this side reads."""
        return files.pipe_path(self.remote, self.own)

    @property
    def write_path(self) -> str:
        """The FIFO that this side writes."""
        return files.pipe_path(self.own, self.remote)


class Opening:
    """One attempt. Owns what it has opened and made until run() returns it."""

    def __init__(self, plan: Plan) -> None:
        self._plan = plan
        self._loop = asyncio.get_running_loop()
        self._read_path, self._write_path = plan.read_path, plan.write_path
        self._deadline = None if plan.timeout is None else self._loop.time() + plan.timeout
        self._waiter = Waiter(self._loop, tuple(map(os.path.basename, (self._read_path, self._write_path))))
        self._looks = 0
        self._watched_end = -1
        self.read_fd = self.write_fd = -1
        self.made_read: files.Made | None = None
        self.made_write: files.Made | None = None

    async def run(self) -> tuple[int, int]:
        """The read end and the write end. The latter is -1 when the remote has sent something and is gone already.

        The Error of what failed, or TimedOut; then nothing is left of the attempt, nor when it is cancelled.
        """
        try:
            if self._plan.makes_files:
                await self._make()
            else:
                with self._waiter:
                    await self._join()
            self._unwatch_end()
            return self.read_fd, self.write_fd
        except BaseException:
            self._undo()
            raise

    def _undo(self) -> None:
        self._unwatch_end()
        files.remove_own(self._read_path, self.made_read)
        files.remove_own(self._write_path, self.made_write)
        files.close(self.read_fd)
        files.close(self.write_fd)

    async def _make(self) -> None:
        self.made_write = files.create(self._write_path, self._plan.gid)
        self.made_read = files.create(self._read_path, self._plan.gid)  # the remote waits for the second
        self.read_fd = files.open_reader(self._read_path)
        await self._open_write_end()

    async def _join(self) -> None:
        if self._plan.announces:
            await self._await_end_of_leftovers()
            await self._announce()
            if files.exists(self._read_path):
                await self._wait(_FIRST_WAIT)  # for the server to replace what has stayed
        await self._open_read_end()
        await self._open_write_end()

    async def _await_end_of_leftovers(self) -> None:
        """The server removes the files of an earlier link of the same names as the last step of its close."""
        limit = self._loop.time() + _LEFTOVER_LIMIT
        _demand_server(files.server_path(self._plan.remote), self._plan.remote)
        while files.exists(self._read_path) and self._loop.time() < limit:
            await self._look_later(_LONGEST_LEFTOVER_WAIT)
        self._looks = 0

    async def _announce(self) -> None:
        packet = connect_packet(self._plan.own, os.getgid(), os.getpid())
        while True:
            fd = _open_server(files.server_path(self._plan.remote), self._plan.remote)
            try:
                os.write(fd, packet)
                return
            except BlockingIOError:
                pass
            finally:
                os.close(fd)
            await self._look_later(_LONGEST_WAIT)

    async def _open_read_end(self) -> None:
        while True:
            if files.exists(self._write_path) and files.exists(self._read_path):
                try:
                    self.read_fd = files.open_reader(self._read_path)
                    self._looks = 0
                    return
                except Error as error:
                    if error.errno != errno.ENOENT:
                        raise
                await self._look_later(_LONGEST_WAIT)
            elif self._waiter.is_watched and files.is_in_directory(self._read_path):
                await self._wait(None)
            else:
                await self._look_later(_LONGEST_WAIT)

    async def _open_write_end(self) -> None:
        while True:
            try:
                self.write_fd = files.open_writer(self._write_path)
                break
            except Error as error:
                if error.errno not in (errno.ENXIO, errno.ENOENT):
                    raise
            if self._remote_came_and_went():
                return
            await self._look_later(_LONGEST_WAIT)
        if not self._plan.makes_files and not files.stands_under(self.read_fd, self._read_path):
            # What it holds is the file of an earlier remote, which this one has replaced before it made the other.
            self._unwatch_end()
            old, self.read_fd = self.read_fd, -1
            os.close(old)
            self.read_fd = files.open_reader(self._read_path)

    def _remote_came_and_went(self) -> bool:
        """Whether what the remote has sent is all that will come of it. RemoteClosed when it has sent nothing."""
        if self._watched_end < 0:
            self._loop.add_reader(self.read_fd, self._on_read_end)
            self._watched_end = self.read_fd
        poll = select.poll()
        poll.register(self.read_fd, select.POLLIN)
        events = dict(poll.poll(0)).get(self.read_fd, 0)
        if not events & select.POLLHUP:
            return False
        if events & select.POLLIN:
            return True
        raise RemoteClosed.of("the other side is gone already", self._plan.remote)

    def _on_read_end(self) -> None:
        # What there is to read stays until the link is open, and would be told of all the time.
        self._loop.remove_reader(self.read_fd)
        self._waiter.notify()

    def _unwatch_end(self) -> None:
        if self._watched_end >= 0:
            self._loop.remove_reader(self._watched_end)
            self._watched_end = -1

    async def _look_later(self, longest: float) -> None:
        look = self._looks
        self._looks += 1
        if look < len(_FIRST_LOOKS):
            await self._wait(_FIRST_LOOKS[look])
        else:
            await self._wait(min(_FIRST_WAIT * 2.0 ** min(look - len(_FIRST_LOOKS), 10), longest))

    async def _wait(self, seconds: float | None) -> None:
        if self._deadline is not None:
            left = self._deadline - self._loop.time()
            if left <= 0:
                raise TimedOut.of("the other side did not come in time", self._plan.remote)
            seconds = left if seconds is None else min(seconds, left)
        if seconds == 0.0:
            await asyncio.sleep(0)
        else:
            await self._waiter.wait(seconds)


def _demand_server(path: str, name: str) -> None:
    if not files.is_fifo(path):
        raise NoServer.of("nobody serves under this name", name)


def _open_server(path: str, name: str) -> int:
    """The write end of the server's FIFO. NoServer when nobody reads it."""
    _demand_server(path, name)
    try:
        return files.open_writer(path)
    except Error as error:
        if error.errno in (errno.ENOENT, errno.ENXIO):
            raise NoServer.of("nobody serves under this name", name) from None
        raise
