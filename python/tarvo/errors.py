"""What can go wrong: one family below OSError, each with the errno that the C functions return (there negated)."""

from __future__ import annotations

import errno
import os
from typing import ClassVar, TypeVar

_Kind = TypeVar("_Kind", bound="Error")


class Error(OSError):
    """A failure of tarvo. `errno` says which, `strerror` in words, `filename` about which name or file."""

    CODE: ClassVar[int] = errno.EIO

    @classmethod
    def of(cls: type[_Kind], text: str, about: str | None = None) -> _Kind:
        """An error of this kind, with the errno that belongs to it."""
        return cls(cls.CODE, text) if about is None else cls(cls.CODE, text, about)


class InvalidArgument(Error, ValueError):
    """EINVAL: a name or payload against the rules."""

    CODE = errno.EINVAL


class NoServer(Error, ConnectionRefusedError):
    """ENXIO: nobody serves under this name."""

    CODE = errno.ENXIO


class TimedOut(Error, TimeoutError):
    """ETIMEDOUT: the answer, or the other side, did not come in time."""

    CODE = errno.ETIMEDOUT


class RemoteClosed(Error, BrokenPipeError):
    """EPIPE: the other side has closed, or has died."""

    CODE = errno.EPIPE


class Cancelled(Error):
    """ECANCELED: this side has closed the link meanwhile."""

    CODE = errno.ECANCELED


class Full(Error, BlockingIOError):
    """EAGAIN: there is no room, since the other side does not keep up."""

    CODE = errno.EAGAIN


class NotOpen(Error):
    """ENOTCONN: the link is not open yet, or its open has failed."""

    CODE = errno.ENOTCONN


class AlreadyOpen(Error, FileExistsError):
    """EEXIST: this process has a link of the same two names."""

    CODE = errno.EEXIST


class NameTaken(Error):
    """EADDRINUSE: a living server has this name."""

    CODE = errno.EADDRINUSE


class NoSuchRequest(Error, LookupError):
    """ENOENT: the request has been answered already."""

    CODE = errno.ENOENT


class DirectoryMissing(Error, FileNotFoundError):
    """ENOENT: the directory of the FIFOs, or the folder that a name leads to, is not there."""

    CODE = errno.ENOENT


class AccessDenied(Error, PermissionError):
    """EACCES: what stands under the name is no FIFO, or not for this user."""

    CODE = errno.EACCES


_KINDS: dict[int, type[Error]] = {
    kind.CODE: kind for kind in (TimedOut, RemoteClosed, Full, AlreadyOpen, DirectoryMissing, AccessDenied)
}


def from_os(error: OSError) -> Error:
    """The member of the family that says what a system call has said."""
    code = error.errno or errno.EIO
    about = None if error.filename is None else os.fsdecode(error.filename)
    text = error.strerror or os.strerror(code)
    kind = _KINDS.get(code, Error)
    return kind(code, text) if about is None else kind(code, text, about)
