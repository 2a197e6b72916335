"""What a link does with its two FIFOs: how it opens, receives, sends and ends."""

from __future__ import annotations

import asyncio
import enum
import logging
import os
import weakref
from typing import Any

from . import files
from .calls import Calls
from .errors import AlreadyOpen, Cancelled, Error, NotOpen, RemoteClosed
from .frames import RESPONSE, Bytes, FrameReader, encode
from .opening import Opening, Plan
from .requests import MANY, MOST, Requests
from .sender import Sender

_READ_SIZE = 65536
_SENDS_A_TURN = 128
_log = logging.getLogger("tarvo")


class State(enum.Enum):
    """How far a link has come."""

    OPENING = "opening"
    OPEN = "open"
    GONE = "the other side is gone"
    CLOSED = "closed"


# The links of this process by the file that they read, so that no two of the same names take each other's frames.
_links: weakref.WeakValueDictionary[str, Connection] = weakref.WeakValueDictionary()


class Connection:
    """The part of a link that its users do not see. Owns both descriptors, the files if it has made them, and its name.

    State: opening, then open; then gone (the other side has ended) or closed (this side has), which are final.
    """

    _requests: Requests
    """Set by the link, whose handlers they are for."""

    def __init__(self, plan: Plan) -> None:
        self._plan = plan
        self._loop = asyncio.get_running_loop()
        self._state = State.OPENING
        self._read_fd = -1
        self._read_path, self._write_path = plan.read_path, plan.write_path
        self._sender = Sender(self._loop, -1, plan.remote, self._fail_call)
        self._calls = Calls(self._loop, plan.remote)
        self._reader = FrameReader(plan.remote)
        self._reading = False
        self._heard = False
        self._lost = False
        self._made_read: files.Made | None = None
        self._made_write: files.Made | None = None
        self._sends = 0
        self._ended: asyncio.Future[None] = self._loop.create_future()
        self._ending: asyncio.Task[None] | None = None
        self._opener: asyncio.Task[Any] | None = None
        self._closed_while_opening = False

    @property
    def own(self) -> str:
        """The name under which the other side knows this one."""
        return self._plan.own

    @property
    def remote(self) -> str:
        """The name of the other side."""
        return self._plan.remote

    @property
    def state(self) -> State:
        """How far it has come."""
        return self._state

    @property
    def is_open(self) -> bool:
        """Whether something can be sent."""
        return self._state is State.OPEN

    @property
    def is_full(self) -> bool:
        """Whether there is no room, so that send() waits and send_nowait() is refused."""
        return self._sender.waits

    # -------------------------------------------------------------------------------------------------- opening

    async def _open(self) -> None:
        try:
            self._register()
            opening = Opening(self._plan)
            read_fd, write_fd = await opening.run()
        except BaseException:
            self._forget_name()
            self._state = State.CLOSED
            self._end_now()
            raise
        self._read_fd = read_fd
        self._made_read, self._made_write = opening.made_read, opening.made_write
        self._sender = Sender(self._loop, write_fd, self.remote, self._fail_call)
        self._state = State.OPEN
        if write_fd >= 0:
            # Of itself it tells only that nobody reads any more: until the remote has had a write end, the read end
            # tells nothing of its death.
            self._loop.add_reader(write_fd, self._on_write_end)

    def _register(self) -> None:
        known = _links.get(self._read_path)
        if known is not None and known is not self:
            if known._loop.is_closed():
                known._release(by_remote=False)  # nobody can close it any more
                _links[self._read_path] = self
                return
            raise AlreadyOpen.of(f"this process has a link of {self.own!r} to this name", self.remote)
        _links[self._read_path] = self

    @classmethod
    def of_names(cls, plan: Plan) -> Connection | None:
        """The link of this process with these names, if there is one."""
        return _links.get(plan.read_path)

    def leave_names(self) -> None:
        """Another link takes the names: this one ends without touching the files."""
        files.disown(self._read_path, self._made_read)
        files.disown(self._write_path, self._made_write)
        self._forget_name()

    def _forget_name(self) -> None:
        if _links.get(self._read_path) is self:
            del _links[self._read_path]

    # ------------------------------------------------------------------------------------------------ receiving

    def _take_request(self, id_: int, payload: bytes, timeout_ms: int) -> None:
        """A request has come."""
        raise NotImplementedError

    async def _tell_closed(self) -> None:
        """The other side is gone, and the last of its requests handled."""
        raise NotImplementedError

    def _resume_reading(self) -> None:
        if not self._reading and self._read_fd >= 0:
            self._reading = True
            self._loop.add_reader(self._read_fd, self._on_readable)
            if self._lost and not self._heard:
                self._loop.call_soon(self._look_for_end)

    def _look_for_end(self) -> None:
        if self._reading:
            self._on_readable()

    def _pause_reading(self) -> None:
        if self._reading:
            self._reading = False
            self._loop.remove_reader(self._read_fd)

    def _on_readable(self) -> None:
        try:
            data = os.read(self._read_fd, _READ_SIZE)
        except (BlockingIOError, InterruptedError):
            return
        except OSError as error:
            _log.warning("reading from %s has failed: %s", self.remote, error)
            data = b""
        if not data:
            self._on_remote_gone()
            return
        if not self._heard:
            self._on_first_bytes()
        frames = self._reader.feed(data)
        if len(frames) > 1:
            self._sender.start_round()
        for id_, type_, payload, timeout_ms in frames:
            if type_ == RESPONSE:
                self._calls.answer(id_, payload)
            else:
                self._take_request(id_, payload, timeout_ms)
        if self._requests.count >= MANY:
            self._check_crowd()

    def _on_first_bytes(self) -> None:
        self._heard = True
        if self._sender.fd >= 0:
            self._loop.remove_reader(self._sender.fd)

    def _check_crowd(self) -> None:
        # Answers come the same way as requests: while calls wait for them, it has to be read.
        if self._requests.count >= (MOST if self._calls.waiting else MANY):
            if self._requests.handler is not None:
                self._pause_reading()

    def on_request_taken(self) -> None:
        """A request has left the queue."""
        if not self._reading and self._state is State.OPEN and self._requests.count < MANY:
            self._resume_reading()

    def _on_write_end(self) -> None:
        """Nobody reads what is written here. Who has never written either is gone; what it has sent comes first."""
        self._loop.remove_reader(self._sender.fd)
        self._lost = True
        if self._reading:
            self._on_readable()

    def _on_remote_gone(self) -> None:
        if self._state is not State.OPEN:
            return
        self._state = State.GONE
        if self._reader.pending:
            _log.warning("%s has ended in the middle of a frame", self.remote)
        self._release(by_remote=True)
        self._requests.end()
        self._ending = self._loop.create_task(self._end_after_requests(), name=f"tarvo end of {self.remote}")

    async def _end_after_requests(self) -> None:
        try:
            await self._requests.join()
            await self._tell_closed()
        except Exception:
            _log.exception("the handler of the end of %s has failed", self.remote)
        finally:
            self._end_now()

    # --------------------------------------------------------------------------------------------------- sending

    def _put(self, frame: bytes) -> bool:
        if self._state is not State.OPEN:
            raise self._refusal()
        sender = self._sender
        if sender.in_round:
            return sender.put(frame, True)
        # The first of a round goes at once, so that the other side can begin.
        sent = sender.put(frame, False)
        sender.start_round()
        return sent

    async def _send(self, frame: bytes) -> None:
        if self._put(frame):
            self._sends += 1
            if self._sends % _SENDS_A_TURN == 0:
                await asyncio.sleep(0)  # others want to run too
            return
        await self._send_later(frame)

    async def _send_later(self, frame: bytes) -> None:
        sent: asyncio.Future[None] = self._loop.create_future()
        pending = self._sender.wait_for_room(frame, 0, sent)
        try:
            await sent
        except asyncio.CancelledError:
            self._sender.drop(pending)
            raise

    async def answer(self, request_id: int, payload: Bytes, more: bool) -> None:
        """reply() for handlers. `more`: another answer may follow in this round."""
        if self._state is not State.OPEN:
            raise self._refusal()
        frame = encode(request_id, RESPONSE, payload)
        if not self._sender.put(frame, more or self._sender.in_round):
            await self._send_later(frame)

    def _refusal(self) -> Error:
        if self._state is State.OPENING:
            return NotOpen.of("the link is not open yet", self.remote)
        if self._state is State.GONE:
            return RemoteClosed.of("the other side is gone", self.remote)
        return Cancelled.of("the link is closed", self.remote)

    def _fail_call(self, id_: int, error: Error) -> None:
        self._calls.fail(id_, error)

    # --------------------------------------------------------------------------------------------------- closing

    def close(self) -> None:
        """Ends it at once, at any moment. Calls and sends that wait end with Cancelled (ECANCELED).

        Handlers are cancelled; wait_closed() waits for their end. What other processes see is gone when this returns.
        The second time nothing happens. What the other side has not read yet may be lost, if it uses the threads of the
        C++ library: end with a call where that matters.
        """
        if self._state is State.CLOSED:
            return
        if self._state is State.GONE:
            self._requests.cancel()  # of what had come before the end
            return
        was_opening = self._state is State.OPENING
        self._state = State.CLOSED
        if self._opener is not None and self._opener is not asyncio.current_task():
            self._closed_while_opening = True
            self._opener.cancel()
        if was_opening:
            if self._opener is None:
                self._end_now()
            return
        self._release(by_remote=False)
        if self._loop.is_closed():
            return  # and with it all tasks
        self._requests.cancel()
        self._ending = self._loop.create_task(self._end_after_close(), name=f"tarvo end of {self.remote}")

    async def _end_after_close(self) -> None:
        await self._requests.join()
        self._end_now()

    def _release(self, by_remote: bool) -> None:
        """Gives back all that others see of it."""
        self._pause_reading()
        if self._sender.fd >= 0 and not self._loop.is_closed():
            self._loop.remove_reader(self._sender.fd)
        self._sender.close(by_remote)
        # In this order: whoever opens a link of the same names next waits for the second.
        files.remove_own(self._read_path, self._made_read)
        files.remove_own(self._write_path, self._made_write)
        read_fd, self._read_fd = self._read_fd, -1
        files.close(read_fd)
        self._forget_name()
        remote = self.remote
        if by_remote:
            self._calls.end_all(lambda: RemoteClosed.of("the other side is gone", remote))
        else:
            self._calls.end_all(lambda: Cancelled.of("the link was closed", remote))
        self._calls.close()

    def _end_now(self) -> None:
        if not self._ended.done():
            self._ended.set_result(None)

    async def wait_closed(self) -> None:
        """Waits until it has ended, by whichever side, and no handler runs any more, unless one of them asks."""
        if self.runs_handler_in(asyncio.current_task()):
            return  # it would wait for itself
        await asyncio.shield(self._ended)

    def runs_handler_in(self, task: asyncio.Task[Any] | None) -> bool:
        """Whether the task is that of one of its handlers."""
        return task is self._ending or self._requests.runs_in(task)
