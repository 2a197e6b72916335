"""A server: takes connect packets under a name and opens a pipe for each client."""

import fcntl
import os
import select
import threading

from . import fifo, wire
from .pipe import Pipe

OPEN_TIMEOUT_S = 2.0


class Server:
    """Serves under `name` until close(). The callbacks run on the threads of the pipes, `on_client(Pipe)` on the
    server's. A server that another process starts later under the same name takes the name over.
    """

    def __init__(self, name, on_request, on_client=None, on_closed=None, gid=fifo.NO_GROUP):
        wire.check_name(name)
        self.name = name
        self._on_request, self._on_client, self._on_closed = on_request, on_client, on_closed
        self._pipes = set()
        self._lock = threading.Lock()
        self._path = fifo.server_path(name)
        fifo.create(self._path, gid)
        self._read_fd = fifo.open_reader(self._path)
        # A writer of its own keeps the FIFO from reporting a hang-up whenever the last client closes.
        self._write_fd = fifo.open_writer(self._path)
        try:
            # Two servers of one name that start in the same moment may end up with one file: the later one gives way.
            fcntl.flock(self._read_fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            os.close(self._read_fd)
            os.close(self._write_fd)
            raise
        self._wake_reader, self._waker = os.pipe()
        self._thread = threading.Thread(target=self._serve, name="tarvo-server", daemon=True)
        self._thread.start()

    def close(self):
        """Stops serving and closes all pipes. The file is removed if it is still this server's."""
        os.write(self._waker, b"x")
        self._thread.join()
        with self._lock:
            pipes = list(self._pipes)
        for pipe in pipes:
            pipe.close()
        if self._is_own_file():
            fifo.remove(self._path)
        for fd in (self._read_fd, self._write_fd, self._wake_reader, self._waker):
            os.close(fd)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _is_own_file(self):
        try:
            return os.path.samestat(os.stat(self._path), os.fstat(self._read_fd))
        except FileNotFoundError:
            return False

    def _serve(self):
        poll = select.poll()
        poll.register(self._read_fd, select.POLLIN)
        poll.register(self._wake_reader, select.POLLIN)
        while self._wake_reader not in dict(poll.poll()):
            for name, gid, _pid in wire.connect_packets(self._read_all()):
                self._accept(name, gid)

    def _read_all(self):
        """Everything that is in the FIFO, so that no packet is cut in two."""
        data = b""
        try:
            while True:
                data += os.read(self._read_fd, 65536)
        except BlockingIOError:
            return data

    def _accept(self, client, gid):
        """Opens the pipe for a client. One that names itself badly, or comes again, changes nothing."""
        try:
            wire.check_name(client, wire.MAX_ANNOUNCED_NAME)
            if "/" in client:  # would name a file in another directory
                return
            # Under the lock also while it is made: a client that goes at once is not forgotten before it is known.
            with self._lock:
                if any(pipe.remote == client for pipe in self._pipes):
                    return
                pipe = Pipe(self.name, client, True, OPEN_TIMEOUT_S, self._on_request, self._closed, gid)
                self._pipes.add(pipe)
        except (OSError, ValueError):
            return
        if self._on_client:
            self._on_client(pipe)

    def _closed(self, pipe):
        if self._on_closed:
            self._on_closed(pipe)
        # Known until its files are gone: the end of the server waits for that.
        pipe.close()
        with self._lock:
            self._pipes.discard(pipe)
