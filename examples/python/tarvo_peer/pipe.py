"""A pipe: one connection to another process, in either role."""

import errno
import itertools
import os
import select
import threading
import time
from typing import NamedTuple

from . import fifo, wire


class Request(NamedTuple):
    """A request as a handler gets it."""

    id: int
    payload: bytes
    pipe: "Pipe"

    def reply(self, payload):
        """Answers it: now or later, from any thread."""
        self.pipe.reply(self.id, payload)


class _Call:
    """A call that waits for its answer."""

    def __init__(self):
        self.done = threading.Event()
        self.answer = None


class Pipe:
    """Sends and receives frames. One thread reads; `on_request(Request)` and `on_closed(Pipe)` run on that thread.

    The side with creates=True makes the two FIFOs and removes them when it closes; the other waits for them. Opening
    blocks up to `timeout` seconds on the waiting side; the creating side returns at once, and its write end opens with
    its first message that finds a reader, or in the background.
    """

    def __init__(self, own, remote, creates, timeout, on_request=None, on_closed=None, gid=fifo.NO_GROUP):
        wire.check_name(own, wire.MAX_ANNOUNCED_NAME)
        wire.check_name(remote, wire.MAX_ANNOUNCED_NAME)
        self.own, self.remote, self.creates = own, remote, creates
        self._on_request, self._on_closed = on_request, on_closed
        self._write_path = fifo.pipe_path(own, remote)
        self._read_path = fifo.pipe_path(remote, own)
        self._lock = threading.Lock()  # guards all of the following
        self._calls = {}
        self._ids = itertools.count(1)
        self._closed = False
        self._told = False  # of the remote's end
        self._read_fd = self._write_fd = -1
        self._deadline = time.monotonic() + timeout
        self._wake_reader, self._waker = os.pipe()
        try:
            self._open(gid)
        except BaseException:
            self._close_files()
            raise
        self._reader = threading.Thread(target=self._read_loop, name="tarvo-reader", daemon=True)
        self._reader.start()
        if creates:
            threading.Thread(target=self._open_write_end, name="tarvo-opener", daemon=True).start()

    @classmethod
    def connect(cls, server, own, timeout=10.0, on_request=None, on_closed=None):
        """Announces this process to a server and opens the pipe. ConnectionRefusedError when none serves."""
        wire.check_name(server)
        wire.check_name(own)
        name = f"{own}_{os.getpid()}"  # a file of its own for each process of one program
        packet = wire.connect_packet(name, os.getgid(), os.getpid())
        try:
            fd = fifo.open_writer(fifo.server_path(server))
        except OSError as error:
            if error.errno in (errno.ENOENT, errno.ENXIO):
                raise ConnectionRefusedError(errno.ECONNREFUSED, "nobody serves", server) from None
            raise
        try:
            os.write(fd, packet)
        finally:
            os.close(fd)
        return cls(name, server, False, timeout, on_request, on_closed)

    def send(self, payload, id_=0):
        """A one-way request. BlockingIOError: the remote does not keep up. BrokenPipeError: it is gone."""
        self._write(wire.Frame(id_, wire.REQUEST, payload))

    def call(self, payload, timeout):
        """Sends a request and returns the payload of its answer. TimeoutError after `timeout` seconds; None: never."""
        timeout_ms = wire.NO_TIMEOUT if timeout is None else max(0, int(timeout * 1000))
        call = _Call()
        with self._lock:
            if self._closed:
                raise BrokenPipeError(errno.EPIPE, "the pipe is closed")
            id_ = next(self._ids) & 0xFFFFFFFF
            self._calls[id_] = call  # before it is sent: the answer cannot be too early
        try:
            self._write(wire.Frame(id_, wire.REQUEST, payload, timeout_ms))
            if not call.done.wait(timeout):
                raise TimeoutError(errno.ETIMEDOUT, "no answer in time")
        finally:
            with self._lock:
                self._calls.pop(id_, None)
        if call.answer is None:
            raise BrokenPipeError(errno.EPIPE, "the pipe was closed")
        return call.answer

    def reply(self, id_, payload):
        """Answers the request with this id."""
        self._write(wire.Frame(id_, wire.RESPONSE, payload))

    def close(self):
        """Ends the pipe; callers that wait get BrokenPipeError. Nothing but a wait for that the second time."""
        with self._lock:
            first, self._closed = not self._closed, True
            calls, self._calls = self._calls, {}
        for call in calls.values():
            call.done.set()
        if first:
            os.write(self._waker, b"x")
        if threading.current_thread() is not self._reader:
            self._reader.join()  # it may be closing the pipe itself
        if first:
            self._close_files()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _open(self, gid):
        if self.creates:
            fifo.create(self._write_path, gid)
            fifo.create(self._read_path, gid)
            self._read_fd = fifo.open_reader(self._read_path)
        else:
            self._write_fd = fifo.retry(fifo.open_writer, self._write_path, self._deadline)
            self._read_fd = fifo.retry(fifo.open_reader, self._read_path, self._deadline)

    def _open_write_end(self):
        """The creating side opens its write end once the other side reads; one that never comes is gone."""

        def attempt(_):
            with self._lock:
                return self._write_end()

        try:
            fifo.retry(attempt, self._write_path, self._deadline, lambda: self._closed)
        except OSError:
            self._remote_closed()

    def _write_end(self):
        """The write end, opened on first need. With the lock held."""
        if self._closed:
            raise BrokenPipeError(errno.EPIPE, "the pipe is closed")
        if self._write_fd < 0:
            self._write_fd = fifo.open_writer(self._write_path)
        return self._write_fd

    def _write(self, frame):
        data = wire.encode(frame)
        with self._lock:
            os.write(self._write_end(), data)  # all or nothing, since it is below PIPE_BUF

    def _read_loop(self):
        try:
            self._read_frames()
        finally:
            self.close()  # also when a handler raises: nobody would read any more

    def _read_frames(self):
        poll = select.poll()
        poll.register(self._read_fd, select.POLLIN)  # a hang-up is always reported
        poll.register(self._wake_reader, select.POLLIN)
        while not self._closed:  # a handler may have closed it, on this thread
            if self._wake_reader in dict(poll.poll()):
                return
            # What was written before the hang-up is still there to be read: poll reports both.
            if not self._read_one():
                self._remote_closed()
                return

    def _read_one(self):
        """Reads one frame and sees to it. False at the end of the stream; damaged frames are dropped."""
        data = os.read(self._read_fd, wire.HEAD.size)
        if not data:
            return False
        head = wire.decode_head(data)
        if head is None:
            return True
        try:
            frame = wire.finish(head, os.read(self._read_fd, head.length))
        except BlockingIOError:
            return True  # a head alone
        if frame is not None:
            self._handle(frame)
        return True

    def _handle(self, frame):
        if frame.type == wire.REQUEST and self._on_request:
            self._on_request(Request(frame.id, frame.payload, self))
        elif frame.type == wire.RESPONSE:
            with self._lock:
                call = self._calls.pop(frame.id, None)
            if call:  # otherwise it comes after its time-out
                call.answer = frame.payload
                call.done.set()

    def _remote_closed(self):
        with self._lock:
            if self._closed or self._told:
                return
            self._told = True
        if self._on_closed:
            self._on_closed(self)
        self.close()

    def _close_files(self):
        with self._lock:
            for fd in (self._read_fd, self._write_fd, self._wake_reader, self._waker):
                if fd >= 0:
                    os.close(fd)
            self._read_fd = self._write_fd = -1
        if self.creates:
            fifo.remove(self._read_path)
            fifo.remove(self._write_path)
