"""The FIFO files: paths, creation, opening, removal. Nothing here waits."""

from __future__ import annotations

import atexit
import contextlib
import errno
import fcntl
import logging
import os
import stat
import time

from .errors import AccessDenied, Error, InvalidArgument, NameTaken, from_os

DEFAULT_DIRECTORY = "/dev/shm/velm/tarvo/"
MODE = 0o660
ANY_GROUP = 0xFFFFFFFF
"""Leaves the files in the group that they are created with."""
MAX_PATH = 254
_STARTS_OVER = 3
_log = logging.getLogger("tarvo.files")

Made = tuple[int, int, int]
"""A file that this process has made: device, inode, process."""
_directory = DEFAULT_DIRECTORY
# What this process has to remove at its end, by path.
_made: dict[str, Made] = {}


def directory() -> str:
    """The folder of all FIFOs, with a slash at its end."""
    return _directory


def set_directory(path: str | os.PathLike[str] | None) -> None:
    """Has this process use another folder from now on; None: that of the library.

    Programs over the C++ libraries always use that one: a folder of their own too comes from a mount namespace.
    """
    global _directory
    _directory = DEFAULT_DIRECTORY if path is None else os.path.join(os.fspath(path), "")


def pipe_path(writer: str, reader: str) -> str:
    """The FIFO that `writer` writes and `reader` reads. InvalidArgument when the path is too long."""
    path = f"{_directory}{writer}__to__{reader}"
    if len(os.fsencode(path)) > MAX_PATH:
        raise InvalidArgument.of(f"the path of a FIFO has at most {MAX_PATH} bytes", path)
    return path


def server_path(name: str) -> str:
    """The FIFO in which the server `name` takes packets."""
    return _directory + name


def is_in_directory(path: str) -> bool:
    """Whether the file stands in the folder itself: names may lead into folders below it."""
    return os.path.dirname(path) + "/" == _directory


def exists(path: str) -> bool:
    """Whether something stands under the name, of whatever kind."""
    return os.access(path, os.F_OK)


def is_fifo(path: str) -> bool:
    """Whether a FIFO itself stands under the name, and no link to one."""
    try:
        return stat.S_ISFIFO(os.lstat(path).st_mode)
    except OSError:
        return False


def remove(path: str) -> None:
    """Removes a file; one that is gone already, or is another user's, is no error."""
    with contextlib.suppress(OSError):
        os.unlink(path)


def _identity(state: os.stat_result) -> tuple[int, int]:
    return state.st_dev, state.st_ino


def stands_under(fd: int, path: str) -> bool:
    """Whether the open file is the one that has the name now."""
    try:
        return fd >= 0 and _identity(os.fstat(fd)) == _identity(os.lstat(path))
    except OSError:
        return False


def create(path: str, gid: int = ANY_GROUP) -> Made:
    """Makes the FIFO, in place of whatever has the name; returns what remove_own() wants. The Error of what failed.

    It gets its mode and group under a temporary name and is published by a hard link, so that nobody opens it half
    made. When another process publishes the same name in between, that FIFO is used.
    """
    try:
        remove(path)
        temporary = _make_temporary(path)
        try:
            os.chmod(temporary, MODE)  # mkfifo is subject to the umask
            _change_group(temporary, gid)
            _publish(temporary, path)
        finally:
            remove(temporary)
        _change_group(path, gid)  # once more, for one that another process has made
        return _claim(path, os.lstat(path))
    except Error:
        raise
    except OSError as error:
        raise from_os(error) from None


def _make_temporary(path: str) -> str:
    while True:
        temporary = f"{path}{time.time_ns() % 1_000_000_000}"
        try:
            os.mkfifo(temporary, MODE)
            return temporary
        except FileExistsError:
            continue


def _publish(temporary: str, path: str) -> None:
    try:
        os.link(temporary, path)
    except FileExistsError:
        try:
            if stat.S_ISFIFO(os.lstat(path).st_mode):
                return
        except FileNotFoundError:
            return  # gone again: who opens it will see
        remove(path)
        raise AccessDenied.of("exists and is no FIFO", path) from None


def _change_group(path: str, gid: int) -> None:
    """Gives the file to a group. Failing is no error: a FIFO of another group still serves its owner's processes."""
    if gid != ANY_GROUP:
        try:
            os.chown(path, -1, gid, follow_symlinks=False)
        except OSError as error:
            _log.info("group %d for %s: %s", gid, path, error)


def open_end(path: str, flags: int) -> int:
    """Opens one end at once, of a FIFO and of nothing else. The Error of what failed; ENXIO when nobody reads."""
    try:
        # The opening of a device may have consequences, and that of a file is seen by others.
        _demand_fifo(os.lstat(path), path)
        fd = os.open(path, flags | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOFOLLOW)
    except Error:
        raise
    except OSError as error:
        if error.errno in (errno.ELOOP, errno.EISDIR):
            raise AccessDenied.of("exists and is no FIFO", path) from None
        raise from_os(error) from None
    try:
        _demand_fifo(os.fstat(fd), path)  # something else may have taken its place meanwhile
    except BaseException:
        os.close(fd)
        raise
    return fd


def _demand_fifo(state: os.stat_result, path: str) -> None:
    if not stat.S_ISFIFO(state.st_mode):
        raise AccessDenied.of("exists and is no FIFO", path)


def open_reader(path: str) -> int:
    """The read end, whether anybody writes or not: fifo(7)."""
    return open_end(path, os.O_RDONLY)


def open_writer(path: str) -> int:
    """The write end; ENXIO when nobody reads."""
    return open_end(path, os.O_WRONLY)


def close(fd: int) -> None:
    """Closes a descriptor, if it is one."""
    if fd >= 0:
        os.close(fd)


def _claim(path: str, state: os.stat_result) -> Made:
    made = _made[path] = (*_identity(state), os.getpid())
    return made


def disown(path: str, made: Made | None) -> None:
    """Leaves a file that this process has made to whoever uses the name now."""
    if made is not None and _made.get(path) == made:
        del _made[path]


def remove_own(path: str, made: Made | None) -> None:
    """Removes a file that this process has made, unless another has taken its name since. Once."""
    if made is None or _made.get(path) != made or made[2] != os.getpid():
        return  # gone, or another's, or that of the process that this one was forked from
    del _made[path]
    with contextlib.suppress(OSError):
        if _identity(os.lstat(path)) == made[:2]:
            os.unlink(path)


@atexit.register
def remove_all_own() -> None:
    """At the end of the process: its files go, as they do when their links are closed."""
    for path, made in list(_made.items()):
        remove_own(path, made)


class ServerFile:
    """The FIFO of a server. Owns both ends and the file."""

    __slots__ = ("_made", "path", "read_fd", "write_fd")

    def __init__(self, path: str) -> None:
        self.path = path
        self._made: Made | None = None
        self.read_fd = self.write_fd = -1

    def open(self, gid: int, replace: bool) -> None:
        """Takes the name. NameTaken when a living server has it (unless it is to be replaced), or was faster."""
        for _ in range(_STARTS_OVER + 1):
            if not replace and self._is_served():
                raise NameTaken.of("a server has this name", self.path)
            self._publish(gid)
            if stands_under(self.read_fd, self.path) and stands_under(self.write_fd, self.path):
                # Two that start at the same moment may end up with one file: the lock leaves it to one of them.
                if self._lock():
                    self._made = _claim(self.path, os.fstat(self.read_fd))
                    return
                break
            self.close_ends()  # another server has started meanwhile and put its file there
        self.leave()
        raise NameTaken.of("another server was faster", self.path)

    def _is_served(self) -> bool:
        try:
            close(open_writer(self.path))
            return True
        except OSError:
            return False

    def _publish(self, gid: int) -> None:
        self._made = create(self.path, gid)
        try:
            self.read_fd = open_reader(self.path)
            # A writer of its own keeps the FIFO from reporting a hang-up whenever the last client closes.
            self.write_fd = open_writer(self.path)
        except Error as error:
            # Gone, or without a reader: what was found is not the one whose read end we have.
            if error.errno not in (errno.ENOENT, errno.ENXIO):
                self.close()
                raise

    def _lock(self) -> bool:
        try:
            fcntl.flock(self.read_fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return True
        except BlockingIOError:
            return False

    def close_ends(self) -> None:
        """Gives back the descriptors; the file stays."""
        read_fd, write_fd, self.read_fd, self.write_fd = self.read_fd, self.write_fd, -1, -1
        close(write_fd)
        close(read_fd)

    def leave(self) -> None:
        """Gives back the descriptors; the file stays, also at the end of the process."""
        disown(self.path, self._made)
        self.close_ends()

    def close(self) -> None:
        """Gives back the descriptors, and removes the file if it is still this server's."""
        remove_own(self.path, self._made)
        self.close_ends()
