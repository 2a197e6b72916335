"""Files: how they are made, what stands in their way, and who may take a name."""

import asyncio
import errno
import fcntl
import os
import stat
import subprocess
import sys
import textwrap

import pytest
from conftest import eventually, fifo_descriptors

import tarvo
from tarvo import files, names, opening, packets, watch

pytestmark = pytest.mark.usefixtures("directory")


def path_of(name="fifo"):
    return files.directory() + name


@pytest.fixture
def path():
    yield path_of()
    files.remove(path_of())


def test_new_fifo_has_its_mode_whatever_the_umask(path):
    before = os.umask(0o777)
    try:
        files.create(path)
    finally:
        os.umask(before)
    assert stat.filemode(os.lstat(path).st_mode) == "prw-rw----"
    assert os.listdir(files.directory()) == ["fifo"]


@pytest.mark.skipif(os.geteuid() != 0, reason="only root may give files to any group")
def test_new_fifo_has_its_group(path):
    files.create(path, 12345)
    assert os.lstat(path).st_gid == 12345


def test_group_that_may_not_be_given_is_no_error(path, monkeypatch):
    monkeypatch.setattr(os, "chown", refuse(errno.EPERM))
    files.create(path, 1)
    assert files.is_fifo(path)


def refuse(code):
    def function(*_, **__):
        raise OSError(code, os.strerror(code))

    return function


def test_stale_file_of_any_kind_is_replaced(path):
    for make in (os.mkfifo, lambda name: os.symlink("/dev/null", name), lambda name: open(name, "w").close()):
        make(path)
        made = files.create(path)
        assert files.is_fifo(path)
        files.remove_own(path, made)
        assert not files.exists(path)


def test_folder_in_the_way_is_refused_and_stays(path):
    os.mkdir(path)
    with pytest.raises(tarvo.AccessDenied) as refused:
        files.create(path)
    assert refused.value.errno == errno.EACCES
    os.rmdir(path)
    assert os.listdir(files.directory()) == []


def test_fifo_of_a_faster_process_is_used(path, monkeypatch):
    link = os.link

    def late(source, target):
        os.mkfifo(target)
        link(source, target)

    monkeypatch.setattr(os, "link", late)
    files.create(path)
    assert os.listdir(files.directory()) == ["fifo"]


def test_what_a_faster_process_has_put_there_is_removed_when_it_is_no_fifo(path, monkeypatch):
    link = os.link

    def late(source, target):
        os.symlink("/dev/null", target)
        link(source, target)

    monkeypatch.setattr(os, "link", late)
    with pytest.raises(tarvo.AccessDenied):
        files.create(path)
    assert os.listdir(files.directory()) == []


def test_fifo_of_a_faster_process_may_be_gone_again(path, monkeypatch):
    monkeypatch.setattr(os, "link", refuse(errno.EEXIST))
    with pytest.raises(tarvo.DirectoryMissing):
        files.create(path)
    assert os.listdir(files.directory()) == []


def test_temporary_name_that_is_taken_is_not_used(path, monkeypatch):
    times = iter([7, 8])
    monkeypatch.setattr(files.time, "time_ns", lambda: next(times))
    os.mkfifo(f"{path}7")
    files.create(path)
    os.unlink(f"{path}7")


@pytest.mark.parametrize("call", ["mkfifo", "chmod", "link"])
def test_failed_step_leaves_no_temporary_file(path, monkeypatch, call):
    monkeypatch.setattr(os, call, refuse(errno.ENOSPC))
    with pytest.raises(tarvo.Error) as failed:
        files.create(path)
    assert failed.value.errno == errno.ENOSPC
    assert os.listdir(files.directory()) == []


@pytest.mark.parametrize("flags", [os.O_RDONLY, os.O_WRONLY])
def test_nothing_but_a_fifo_is_opened(path, flags):
    for make in (os.mkdir, lambda name: os.symlink("/dev/null", name), lambda name: open(name, "w").close()):
        make(path)
        with pytest.raises(tarvo.AccessDenied):
            files.open_end(path, flags)
        os.rmdir(path) if os.path.isdir(path) else os.unlink(path)
    with pytest.raises(tarvo.DirectoryMissing):
        files.open_end(path, flags)


def test_what_takes_the_place_of_a_fifo_between_two_looks_is_not_used(path, monkeypatch):
    os.mkfifo(path)
    real = os.lstat(path)
    os.unlink(path)
    with open(path, "w"):
        pass
    monkeypatch.setattr(os, "lstat", lambda _: real)
    with pytest.raises(tarvo.AccessDenied):
        files.open_reader(path)
    os.unlink(path)
    os.symlink("/dev/null", path)
    with pytest.raises(tarvo.AccessDenied):
        files.open_reader(path)
    monkeypatch.undo()
    assert fifo_descriptors() == []


def test_file_of_another_is_not_removed(path):
    made = files.create(path)
    os.unlink(path)
    os.mkfifo(path)
    files.remove_own(path, made)
    assert files.exists(path)
    first, second = files.create(path), files.create(path)
    files.remove_own(path, first)
    assert files.exists(path)
    files.disown(path, second)
    files.remove_own(path, second)
    assert files.exists(path)


async def test_missing_directory_is_told(tmp_path):
    files.set_directory(tmp_path / "nowhere")
    try:
        with pytest.raises(tarvo.DirectoryMissing) as missing:
            await tarvo.serve("s")
        assert missing.value.errno == errno.ENOENT and isinstance(missing.value, FileNotFoundError)
        with pytest.raises(tarvo.NoServer):
            await tarvo.connect("s")
        with pytest.raises(tarvo.DirectoryMissing):
            await tarvo.arrange("s", creates=True)
        with pytest.raises(tarvo.TimedOut):
            await tarvo.arrange("s", creates=False, timeout=0.02)
    finally:
        files.set_directory(None)


async def test_link_into_a_folder_below_is_opened(directory):
    (directory.path / "folder").mkdir()
    (directory.path / "x__to__folder").mkdir()
    maker = tarvo.arrange("x", own="folder/m", creates=True, on_request=lambda request: request.payload)
    opening = asyncio.create_task(maker.__aenter__())
    async with tarvo.arrange("folder/m", own="x", creates=False) as link:
        assert await link.call(b"?", 5) == b"?"
    (await opening).close()
    await maker.link.wait_closed()
    (directory.path / "x__to__folder").rmdir()
    with pytest.raises(tarvo.DirectoryMissing):
        await tarvo.arrange("x", own="folder/m", creates=True)
    (directory.path / "folder").rmdir()


# ------------------------------------------------------------------------------------------------------------- servers


async def test_name_of_a_living_server_is_refused_unless_it_is_replaced():
    async with tarvo.serve("s", lambda request: b"first") as first:
        with pytest.raises(tarvo.NameTaken) as taken:
            await tarvo.serve("s")
        assert taken.value.errno == errno.EADDRINUSE
        async with tarvo.serve("s", lambda request: b"second", replace=True), tarvo.connect("s") as link:
            assert await link.call(b"?", 5) == b"second"
            first.close()
            assert files.exists(path_of("s")), "the file belongs to the second"


async def test_file_that_a_dead_server_has_left_is_taken_over():
    os.mkfifo(path_of("s"))
    async with tarvo.serve("s", lambda request: b"living"), tarvo.connect("s") as link:
        assert await link.call(b"?", 5) == b"living"


async def test_client_finds_nobody_behind_a_stale_file_or_what_is_none():
    for make in (os.mkfifo, lambda name: open(name, "w").close(), lambda name: os.symlink("s2", name)):
        make(path_of("s"))
        with pytest.raises(tarvo.NoServer):
            await tarvo.connect("s")
        os.unlink(path_of("s"))


async def test_of_two_servers_that_start_at_one_moment_the_later_gives_way(monkeypatch):
    os.mkfifo(path_of("s"))
    other = os.open(path_of("s"), os.O_RDONLY | os.O_NONBLOCK)
    fcntl.flock(other, fcntl.LOCK_EX)
    monkeypatch.setattr(files, "create", lambda path, gid: None)  # ends up with the other's file
    with pytest.raises(tarvo.NameTaken):
        await tarvo.serve("s", replace=True)
    os.close(other)
    assert files.exists(path_of("s"))
    os.unlink(path_of("s"))


async def test_server_whose_file_is_replaced_while_it_starts_begins_anew(monkeypatch):
    open_reader, left = files.open_reader, [2]

    def late(path):
        fd = open_reader(path)
        if left[0] > 0:
            left[0] -= 1
            os.unlink(path)
            os.mkfifo(path) if left[0] else None
        return fd

    monkeypatch.setattr(files, "open_reader", late)
    async with tarvo.serve("s", lambda request: b"here"), tarvo.connect("s") as link:
        assert await link.call(b"?", 5) == b"here"


async def test_server_that_may_not_read_its_own_file_leaves_nothing(monkeypatch):
    monkeypatch.setattr(files, "open_reader", lambda path: raise_error(tarvo.AccessDenied.of("no", path)))
    with pytest.raises(tarvo.AccessDenied):
        await tarvo.serve("s")


def raise_error(error):
    raise error


async def test_client_waits_for_the_end_of_its_leftovers(directory):
    async with tarvo.serve("s", lambda request: request.payload):
        own = names.unique("again")
        leftover = files.pipe_path("s", own)
        os.mkfifo(leftover)
        asyncio.get_running_loop().call_later(0.02, os.unlink, leftover)
        async with tarvo.connect("s", own="again") as link:
            assert await link.call(b"?", 5) == b"?"


async def test_leftovers_that_stay_hold_nobody_up_for_ever():
    async with tarvo.serve("s", lambda request: request.payload):
        os.mkfifo(files.pipe_path("s", names.unique("again")))
        async with tarvo.connect("s", own="again") as link:
            assert await link.call(b"?", 5) == b"?"


def counted(function, times):
    """The function, which notes each time that it is called."""

    def call(*arguments):
        times.append(arguments)
        return function(*arguments)

    return call


async def test_server_whose_file_is_full_is_told_of_a_client_when_there_is_room(monkeypatch):
    async with tarvo.serve("s", lambda request: request.payload) as server:
        loop = asyncio.get_running_loop()
        loop.remove_reader(server._file.read_fd)
        with pytest.raises(BlockingIOError):
            while True:
                os.write(server._file.write_fd, b"x" * 4096)
        refused = []
        monkeypatch.setattr(opening, "_open_server", counted(opening._open_server, refused))
        connecting = asyncio.create_task(tarvo.connect("s").__aenter__())
        await eventually(lambda: len(refused) > 2)
        assert not connecting.done()
        loop.add_reader(server._file.read_fd, server._on_packets)
        link = await connecting
        assert await link.call(b"?", 5) == b"?"
        link.close()
        await link.wait_closed()


async def test_client_that_announces_itself_again_has_a_new_link_and_the_end_of_the_old_leaves_its_files(directory):
    async with tarvo.serve("s", lambda request: request.payload) as server:
        link = await tarvo.connect("s")
        assert await link.call(b"?", 5) == b"?"
        ours = files.pipe_path("s", link.own)
        before = os.lstat(ours).st_ino
        with open(path_of("s"), "wb", buffering=0) as fifo:
            for _ in range(2):  # what comes while the link opens changes nothing
                fifo.write(packets.connect_packet(link.own, os.getgid(), os.getpid()))
        await eventually(lambda: len(server._links) == 2 and files.exists(ours) and os.lstat(ours).st_ino != before)
        link.close()
        await eventually(lambda: len(server._links) == 1)
        assert len(directory.files()) == 3
        server.stop_listening()
        await eventually(lambda: not server._links)
    assert directory.files() == []


# ------------------------------------------------------------------------------------------------ watching the folder


async def test_open_needs_no_watch_of_the_folder(monkeypatch):
    monkeypatch.setattr(watch, "_libc", NoInotify())
    watch._forget_parent()
    async with tarvo.serve("s", lambda request: request.payload), tarvo.connect("s") as link:
        assert await link.call(b"?", 5) == b"?"


class NoInotify:
    """A kernel without it."""

    def inotify_init1(self, _):
        return -1


async def test_folder_that_goes_and_comes_back_is_looked_at_again(tmp_path):
    folder = tmp_path / "fifos"
    folder.mkdir()
    files.set_directory(folder)
    try:
        joining = asyncio.create_task(tarvo.arrange("m", own="j", creates=False, timeout=10).__aenter__())
        folder_watch = watch.DirectoryWatch.of(asyncio.get_running_loop())
        await eventually(lambda: folder_watch.is_watching)
        folder.rmdir()
        await eventually(lambda: not folder_watch.is_watching)
        folder.mkdir()
        async with tarvo.arrange("j", own="m", creates=True, timeout=10):
            (await joining).close()
    finally:
        files.set_directory(None)


@pytest.mark.usefixtures("own_programs")
def test_child_of_a_fork_leaves_its_parents_files_and_links_alone():
    program = """
        import asyncio, os, tarvo
        async def main():
            async with tarvo.serve("s", lambda request: request.payload), tarvo.connect("s") as link:
                child = os.fork()
                if child == 0:
                    import atexit
                    atexit._run_exitfuncs()
                    os._exit(0)
                os.waitpid(child, 0)
                assert await link.call(b"?", 5) == b"?"
        asyncio.run(main())
    """
    subprocess.run([sys.executable, "-c", textwrap.dedent(program)], check=True, cwd=os.path.dirname(__file__) + "/..")


@pytest.mark.usefixtures("own_programs")
def test_files_go_with_a_process_that_does_not_close(directory):
    program = """
        import asyncio, os, sys, tarvo, tarvo.files
        async def main():
            await tarvo.serve("s")
            task = asyncio.ensure_future(tarvo.arrange("x", own="m", creates=True).__aenter__())
            while len(os.listdir(tarvo.files.directory())) != 3:
                await asyncio.sleep(0)
            sys.exit(3)
        asyncio.new_event_loop().run_until_complete(main())
    """
    words = [sys.executable, "-W", "ignore", "-c", textwrap.dedent(program)]
    done = subprocess.run(words, check=False, capture_output=True, cwd=os.path.dirname(__file__) + "/..")
    assert done.returncode == 3, done.stderr
    assert directory.files() == []


# --------------------------------------------------------------------------------------------------------------- names


def test_process_is_called_what_its_environment_says(monkeypatch):
    monkeypatch.setenv("PROC_NAME", "radar")
    assert names.process_name() == "radar"
    monkeypatch.setenv("PROC_NAME", "n" * 101)
    assert names.process_name() == ""
    monkeypatch.delenv("PROC_NAME")
    assert names.process_name() == open("/proc/self/comm").read().split()[0]


@pytest.mark.parametrize(
    ("comm", "name"), [("process-manager\n", "PROCMGR"), ("two words\n", "two"), ("\n", ""), ("x" * 17, "")]
)
def test_process_is_called_what_the_kernel_says(monkeypatch, tmp_path, comm, name):
    (tmp_path / "comm").write_text(comm)
    monkeypatch.delenv("PROC_NAME", raising=False)
    real = open
    monkeypatch.setattr("builtins.open", lambda path, *rest, **more: real(tmp_path / "comm", *rest, **more))
    assert names.process_name() == name
    monkeypatch.setattr("builtins.open", refuse(errno.ENOENT))
    assert names.process_name() == ""


def test_client_whose_name_would_be_too_long_is_refused():
    with pytest.raises(tarvo.InvalidArgument):
        names.unique("n" * 99)
    assert not names.is_valid("") and names.is_valid("n" * 100)
