"""Statistics files: how they are opened, and read while their processes write."""

from __future__ import annotations

import errno
import fcntl
import os
import stat
import struct
import time
from types import TracebackType
from typing import Self

from .errors import Error, InvalidArgument, from_os
from .stats_layout import (
    FOLDING_AT,
    HEADER,
    HEADER_SIZE,
    MAGIC,
    MAX_SLOTS,
    SLOT_SIZE,
    VERSION,
    WORD,
    Header,
    Slots,
    process_numbers,
    text,
)
from .stats_process import Process

# l_type, l_whence, l_start, l_len, l_pid of struct flock with 64 bits of file offset, as fcntl() wants it.
_LOCK = struct.Struct("@hhqqi0q")

# A change of an identity takes a microsecond, unless its thread was held up in it, or killed.
_SLOT_ATTEMPTS = 100
_FILE_ATTEMPTS = 8
# In one reading: so long a hostile file can keep it busy.
_PATIENCE = 2000
# Not the link but a file, no FIFO whose other end could make this wait, and no terminal of ours.
_FLAGS = os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC


class NoStatistics(Error):
    """EBADMSG: it is no statistics file, or not yet one, or a damaged one."""

    CODE = errno.EBADMSG


class OtherVersion(Error):
    """EPROTONOSUPPORT: the file is of another version than this reader."""

    CODE = errno.EPROTONOSUPPORT


class FileMissing(Error, FileNotFoundError):
    """ENOENT: there is no such file."""

    CODE = errno.ENOENT


class StatsFile:
    """A statistics file that is open for reading. For one thread at a time; a context manager.

    Errors: FileMissing (ENOENT), AccessDenied (EACCES), NoStatistics (EBADMSG), OtherVersion (EPROTONOSUPPORT), and
    tarvo.Error with another errno, such as ELOOP for a symbolic link, which is not followed.
    """

    def __init__(self, path: str | os.PathLike[str], *, dir_fd: int | None = None) -> None:
        """With `dir_fd` it is a name without slashes in that directory; otherwise InvalidArgument (EINVAL)."""
        self.path = os.fspath(path)
        self._fd = -1
        self._patience = 0
        if "\0" in self.path or (dir_fd is not None and (not self.path or "/" in self.path)):
            raise InvalidArgument.of("this is no name of a file", self.path)
        try:
            self._fd = os.open(self.path, _FLAGS, dir_fd=dir_fd)
        except OSError as error:
            raise self._told(error) from None
        try:
            self._owner = self._accept()
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Self:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, at: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Gives back the descriptor. Once is enough."""
        fd, self._fd = self._fd, -1
        if fd >= 0:
            os.close(fd)

    def alive(self) -> bool:
        """Whether the file's process lives: asked of a lock that the kernel takes from it at its end."""
        # Only a lock for writing keeps one for reading out, and only who may write to the file can take it. Whoever may
        # merely read the file cannot make a dead process look alive.
        asked = _LOCK.pack(fcntl.F_RDLCK, os.SEEK_SET, 0, 0, 0)
        try:
            answer = fcntl.fcntl(self._fd, fcntl.F_OFD_GETLK, asked)
        except OSError as error:
            raise self._told(error) from None
        return bool(_LOCK.unpack(answer)[0] == fcntl.F_WRLCK)

    def read(self) -> Process:
        """Reads all of it, again and again for the few times that it is being changed meanwhile.

        Whether the process lives is asked first: the numbers of one that does not are final. NoStatistics (EBADMSG):
        the file has become another, or shorter. Slots that cannot be read are left out, and told as `unreadable`.
        """
        alive = self.alive()
        # Of one that was killed in the middle nothing moves any more.
        self._patience = _PATIENCE if alive else 0
        for attempt in range(_FILE_ATTEMPTS if alive else 1):
            if attempt > 0:
                os.sched_yield()
            header = self._header()
            found = self._slots(header.slots)
            inexact = header.folding % 2 != 0 or self._word(FOLDING_AT) != header.folding
            if not inexact:
                break
        return self._process(alive, header, found, inexact)

    def _process(self, alive: bool, header: Header, found: Slots, inexact: bool) -> Process:
        return Process(
            file=self.path,
            name=text(header.process),
            pid=header.pid,
            alive=alive,
            owner=self._owner,
            started_at_ticks=header.started_at,
            created_at_ns=header.created_at,
            created_unix_ns=header.created_wall,
            read_at_ns=time.monotonic_ns(),
            one_ways_per_time=header.one_ways_per_time,
            calls_per_time=header.calls_per_time,
            inexact=inexact,
            unreadable=tuple(found.unreadable),
            numbers=process_numbers(header.words),
            gone=found.gone,
            pipes=tuple(found.pipes),
            servers=tuple(found.servers),
            pools=tuple(found.pools),
        )

    def _accept(self) -> int:
        """Its owner, if it is what it should be."""
        state = os.fstat(self._fd)
        if not stat.S_ISREG(state.st_mode):
            raise self._no_statistics()
        self._header()
        return state.st_uid

    def _header(self) -> Header:
        """What it says of the file's size is true."""
        values = HEADER.unpack(self._data(HEADER.size, 0))
        header = Header._make((*values[:15], values[15:]))
        if header.magic != MAGIC:
            raise self._no_statistics()
        if header.version != VERSION:
            raise OtherVersion.of("of another version than this reader", self.path)
        # After the header: a file that grows is never shorter than what its header says.
        size = os.fstat(self._fd).st_size
        sizes = (header.header_size, header.slot_size) == (HEADER_SIZE, SLOT_SIZE) and header.slots <= MAX_SLOTS
        if not sizes or size < HEADER_SIZE + header.slots * SLOT_SIZE:
            raise self._no_statistics()
        if b"\0" not in header.process or header.clock != time.CLOCK_MONOTONIC:
            raise self._no_statistics()
        return header

    def _slots(self, slots: int) -> Slots:
        found = Slots()
        for index in range(slots):
            data = self._slot(index)
            if data is None:
                found.unreadable.append(index)
            elif data:
                found.add(index, data)
        return found

    def _slot(self, index: int) -> bytes | None:
        """Its bytes, or none if it was never used; None when it is being changed all the while."""
        offset = HEADER_SIZE + index * SLOT_SIZE
        for _ in range(_SLOT_ATTEMPTS):
            # Between two reads the interpreter gives up its lock and takes it again: they happen in this order.
            before = self._word(offset)
            if before == 0:
                return b""
            if before % 2 == 0:
                data = self._data(SLOT_SIZE, offset)
                if self._word(offset) == before:
                    return WORD.pack(before) + data[WORD.size :]
            self._patience -= 1
            if self._patience <= 0:
                break
            os.sched_yield()  # to the thread that was held up
        return None

    def _word(self, offset: int) -> int:
        return int(WORD.unpack(self._data(WORD.size, offset))[0])

    def _data(self, size: int, offset: int) -> bytes:
        """Exactly so many bytes. Not from a mapping, in which a file that is cut off meanwhile would raise SIGBUS."""
        try:
            data = os.pread(self._fd, size, offset)
            while 0 < len(data) < size and (more := os.pread(self._fd, size - len(data), offset + len(data))):
                data += more
        except OSError as error:
            raise self._told(error) from None
        if len(data) < size:
            raise self._no_statistics()
        return data

    def _no_statistics(self) -> NoStatistics:
        return NoStatistics.of("no statistics file, or a damaged one", self.path)

    def _told(self, error: OSError) -> Error:
        if error.errno == errno.ENOENT:
            return FileMissing.of("there is no such file", self.path)
        return from_os(OSError(error.errno, error.strerror, self.path))
