"""Fixtures for pytest, which finds them by itself where the package is installed.

    def test_range(tarvo_directory, tarvo_server):
        tarvo_server("radar", lambda request: b"12")
        with tarvo.blocking.connect("radar") as link:
            assert link.call(b"range?", timeout=1) == b"12"

`tarvo_directory` gives the test a FIFO directory of its own. Programs over the C++ libraries know one directory only,
so the test session gets a mount namespace, in which every test has its own /dev/shm/velm/tarvo: programs that the test
starts see it, and nothing outside does. That needs root, or a kernel that gives user namespaces to everyone. Elsewhere
only Python in the test's own process has a directory of its own, and `require_programs()` skips the test.

A namespace is that of a thread and of those that it starts: threads that run before the first test do not see it.
"""

from __future__ import annotations

import contextlib
import ctypes
import os
import pathlib
import tempfile
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from . import blocking, files

_CLONE_NEWNS = 0x00020000
_CLONE_NEWUSER = 0x10000000
_MS_REC_PRIVATE = 0x4000 | 0x40000
_MNT_DETACH = 2
_SHM = "/dev/shm"
_libc = ctypes.CDLL(None, use_errno=True)


class FifoDirectory:
    """The FIFO directory of a test."""

    def __init__(self, path: str, reaches_programs: bool) -> None:
        self.path = pathlib.Path(path)
        """Where the files are."""
        self.reaches_programs = reaches_programs
        """Whether programs that the test starts use it too."""

    def files(self) -> list[str]:
        """The names of what is there now, sorted."""
        return sorted(os.listdir(self.path))

    def require_programs(self) -> None:
        """Skips the test where programs would meet in the directory of the machine."""
        if not self.reaches_programs:
            pytest.skip("the kernel gives this user no mount namespace")


def _check(result: int) -> None:
    if result != 0:
        code = ctypes.get_errno()
        raise OSError(code, os.strerror(code))


def _mount(source: str, target: str, kind: str | None, flags: int, data: str | None) -> None:
    words = [None if word is None else word.encode() for word in (source, target, kind)]
    _check(_libc.mount(*words, ctypes.c_ulong(flags), None if data is None else data.encode()))


def _be_oneself(user: int, group: int) -> None:
    """In a new user namespace: this user is himself, and may mount."""
    pathlib.Path("/proc/self/setgroups").write_text("deny")
    pathlib.Path("/proc/self/uid_map").write_text(f"{user} {user} 1")
    pathlib.Path("/proc/self/gid_map").write_text(f"{group} {group} 1")


def enter_namespace() -> bool:
    """Gives this thread, and what it starts, a /dev/shm of its own, for good. False where the kernel refuses."""
    user, group = os.geteuid(), os.getegid()
    try:
        _check(_libc.unshare(_CLONE_NEWNS if user == 0 else _CLONE_NEWNS | _CLONE_NEWUSER))
        if user != 0:
            _be_oneself(user, group)
        _mount("none", "/", None, _MS_REC_PRIVATE, None)
        _mount("tmpfs", _SHM, "tmpfs", 0, "mode=1777")
        os.makedirs(files.DEFAULT_DIRECTORY)
        return True
    except OSError:
        return False


_namespace: bool | None = None


def _has_namespace() -> bool:
    global _namespace
    if _namespace is None:
        _namespace = enter_namespace()
    return _namespace


def pytest_collection_finish(session: pytest.Session) -> None:
    """Before the first test, so that threads of tests begin inside."""
    if any("tarvo_directory" in getattr(item, "fixturenames", ()) for item in session.items):
        _has_namespace()


@contextlib.contextmanager
def own_directory() -> Iterator[FifoDirectory]:
    """A FIFO directory as long as the block lasts."""
    if not _has_namespace():
        with tempfile.TemporaryDirectory(prefix="tarvo-", dir=_SHM) as fallback:
            files.set_directory(fallback)
            try:
                yield FifoDirectory(fallback, False)
            finally:
                files.set_directory(None)
        return
    path = files.DEFAULT_DIRECTORY
    _mount("tmpfs", path, "tmpfs", 0, "mode=1777")
    try:
        yield FifoDirectory(path, True)
    finally:
        _check(_libc.umount2(path.encode(), _MNT_DETACH))


@pytest.fixture
def tarvo_directory() -> Iterator[FifoDirectory]:
    """A FIFO directory of the test's own."""
    with own_directory() as directory:
        yield directory


@pytest.fixture
def tarvo_server(tarvo_directory: FifoDirectory) -> Iterator[Callable[..., blocking.Server]]:
    """Starts servers as tarvo.blocking.serve() does: `tarvo_server(name, handler)`. They are closed after the test."""
    with contextlib.ExitStack() as stack:

        def start(name: str, handler: blocking.Handler | None = None, **options: Any) -> blocking.Server:
            return stack.enter_context(blocking.serve(name, handler, **options))

        yield start
