"""The files: names, creation and opening of FIFOs."""

import errno
import os
import stat
import time

DIRECTORY = "/dev/shm/velm/tarvo/"
MODE = 0o660
NO_GROUP = 0xFFFFFFFF
MAX_PATH = 254

# How often a file or a reader that is not there yet is looked for.
FIRST_WAIT_S = 40e-6
LONGEST_WAIT_S = 20e-3


def pipe_path(writer, reader):
    """The FIFO that `writer` writes and `reader` reads."""
    path = f"{DIRECTORY}{writer}__to__{reader}"
    if len(path.encode()) > MAX_PATH:
        raise ValueError(f"path too long: {path}")
    return path


def server_path(name):
    """The FIFO in which the server `name` takes connect packets."""
    return DIRECTORY + name


def remove(path):
    """Removes a file; one that is gone already is no error."""
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass


def create(path, gid=NO_GROUP):
    """Makes the FIFO, in place of whatever is there.

    It gets its mode and group under a temporary name and is published by a hard link, so that nobody opens it half
    made. When another process publishes the same name in between, that FIFO is used.
    """
    remove(path)
    while True:
        temporary = f"{path}{time.time_ns() % 1_000_000_000}"
        try:
            os.mkfifo(temporary, MODE)
            break
        except FileExistsError:
            continue
    try:
        os.chmod(temporary, MODE)  # mkfifo is subject to the umask
        change_group(temporary, gid)
        os.link(temporary, path)
    except FileExistsError:
        if not stat.S_ISFIFO(os.lstat(path).st_mode):
            raise
        change_group(path, gid)
    finally:
        remove(temporary)


def change_group(path, gid):
    """Gives the file to a group. Failing is no error: the group must then be right by itself."""
    if gid == NO_GROUP:
        return
    try:
        os.chown(path, -1, gid)
    except OSError:
        pass


def open_reader(path):
    """Opens for reading at once, whether anybody writes or not: fifo(7)."""
    return os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)


def open_writer(path):
    """Opens for writing; OSError with ENXIO when nobody reads."""
    return os.open(path, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)


def retry(opening, path, deadline, given_up=lambda: False):
    """Opens as soon as the file exists and has a reader; TimeoutError after `deadline` (time.monotonic())."""
    wait = FIRST_WAIT_S
    while True:
        try:
            return opening(path)
        except OSError as error:
            if error.errno not in (errno.ENOENT, errno.ENXIO):
                raise
        if given_up():
            raise BrokenPipeError(errno.EPIPE, "closed while it was opened", path)
        if time.monotonic() >= deadline:
            raise TimeoutError(errno.ETIMEDOUT, "the other side did not come", path)
        time.sleep(min(wait, max(0.0, deadline - time.monotonic())))
        wait = min(wait * 2, LONGEST_WAIT_S)
