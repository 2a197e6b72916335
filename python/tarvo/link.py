"""A link: one connection to another process, over which both sides send requests."""

from __future__ import annotations

import asyncio
import inspect
import warnings
from collections.abc import Awaitable, Callable
from types import TracebackType
from typing import TypeVar

from .calls import ONE_WAY
from .connection import Connection, State
from .errors import AlreadyOpen, Cancelled, InvalidArgument
from .frames import REQUEST, RESPONSE, Bytes, encode, milliseconds
from .names import PATIENT_S, is_patient
from .opening import Plan
from .requests import Handler, Request, Requests

_FIRST_LOOK_S, _LONGEST_LOOK_S = 0.0005, 0.01
_HandlerType = TypeVar("_HandlerType", bound=Handler)
ClosedHandler = Callable[["Link"], Awaitable[None] | None]
_ClosedType = TypeVar("_ClosedType", bound=ClosedHandler)


class Link(Connection):
    """One connection. Comes from connect(), arrange() or a server, and belongs to the event loop it was made on.

    Ends when close() is called or the other side is gone, whichever comes first; wait_closed() tells.
    """

    def __init__(self, plan: Plan, concurrent: int = 1) -> None:
        if concurrent < 1:
            raise InvalidArgument.of(f"at least one handler at a time, not {concurrent}")
        super().__init__(plan)
        self._requests = Requests(self, self._loop, concurrent)
        self._on_closed: ClosedHandler | None = None
        self._one_way = 0
        self._is_patient = is_patient()
        self.blocking_face: object = None
        """The same link for tarvo.blocking."""

    def __repr__(self) -> str:
        return f"<tarvo.Link {self.own!r} to {self.remote!r}, {self._state.value}>"

    async def call(self, payload: Bytes, timeout: float | None = None) -> bytes:
        """Sends a request and returns the payload of its answer.

        `payload`: 1 to 4000 bytes. `timeout`: seconds for all of it, with the wait for room; None: without limit.

        InvalidArgument (EINVAL), NotOpen (ENOTCONN), TimedOut (ETIMEDOUT), RemoteClosed (EPIPE), Cancelled (ECANCELED:
        this side has closed the link). When the task is cancelled, an answer that comes later is dropped.
        """
        if self._state is not State.OPEN:
            raise self._refusal()
        if timeout is not None and self._is_patient:
            timeout = PATIENT_S
        id_, answer = self._calls.begin(timeout)
        pending = None
        try:
            frame = encode(id_, REQUEST, payload, milliseconds(timeout))
            if not self._sender.put(frame, len(self._calls.waiting) > 1, id_):
                pending = self._sender.wait_for_room(frame, id_)
            if not self._reading:
                self._resume_reading()
            return await answer
        except BaseException:
            self._calls.forget(id_)
            if pending is not None:
                self._sender.drop(pending)
            if answer.done() and not answer.cancelled():
                answer.exception()  # seen, also where the task was cancelled at the same moment
            raise

    async def send(self, payload: Bytes, *, id: int | None = None) -> None:  # noqa: A002
        """Sends a one-way request; waits until it is on its way, as long as there is no room.

        `payload`: 1 to 4000 bytes. `id`: what its receiver sees as its number, 0 to 2**32 - 1; by itself each has
        another. When the task is cancelled while it waits, nothing is sent.

        InvalidArgument (EINVAL), NotOpen (ENOTCONN), RemoteClosed (EPIPE), Cancelled (ECANCELED).
        """
        await self._send(self._one_way_frame(payload, id))

    def send_nowait(self, payload: Bytes, *, id: int | None = None) -> None:  # noqa: A002
        """The same without waiting: Full (EAGAIN) when there is no room; then nothing is sent."""
        frame = self._one_way_frame(payload, id)
        if not self._put(frame):
            raise self._sender.full()

    async def reply(self, request_id: int, payload: Bytes) -> None:
        """Answers the request with this number, now or later, and waits for room. Raises what send() does."""
        await self._send(self._answer_frame(request_id, payload))

    def reply_nowait(self, request_id: int, payload: Bytes) -> None:
        """The same without waiting: Full (EAGAIN) when there is no room; then nothing is sent."""
        frame = self._answer_frame(request_id, payload)
        if not self._put(frame):
            raise self._sender.full()

    async def wait_read(self) -> None:
        """Waits until the other process has read all that was sent. What it makes of it, only an answer could tell.

        RemoteClosed (EPIPE) or Cancelled (ECANCELED) when the link ends before.
        """
        wait = _FIRST_LOOK_S
        while self._state is State.OPEN and not self._sender.is_read():
            await asyncio.sleep(wait)  # nothing tells of it
            wait = min(2 * wait, _LONGEST_LOOK_S)
        if self._state is not State.OPEN:
            raise self._refusal()

    def on_request(self, handler: _HandlerType) -> _HandlerType:
        """Has the handler called with each request of the other side; also those that have come before (1000 at most).

        Usable as a decorator. Requests are handled in the order in which they come, `concurrent` of them at a time.
        """
        self._requests.handler = handler
        return handler

    def on_closed(self, handler: _ClosedType) -> _ClosedType:
        """Has the handler called with the link, once, when the other side is gone: after the last of its requests."""
        self._on_closed = handler
        return handler

    async def open(self, before_reading: Callable[[Link], Awaitable[None]] | None = None) -> Link:
        """Opens it. Done once, by whoever has made the link; connect() and the like do it.

        NoServer (ENXIO), TimedOut (ETIMEDOUT), AlreadyOpen (EEXIST), and what the files refuse. Nothing is left then.
        """
        if self._state is not State.OPENING or self._opener is not None:
            again = AlreadyOpen.of("the link is being opened", self.remote)
            raise again if self._state is State.OPENING else self._refusal()
        self._opener = asyncio.current_task()
        try:
            await self._open()
            if before_reading is not None:
                await before_reading(self)
        except asyncio.CancelledError:
            if self._opener is not None and self._closed_while_opening:
                self._opener.uncancel()
                raise Cancelled.of("the link was closed", self.remote) from None
            raise
        finally:
            self._opener = None
        self._resume_reading()
        return self

    def _take_request(self, id_: int, payload: bytes, timeout_ms: int) -> None:
        self._requests.add(Request(self, id_, payload, timeout_ms))

    async def _tell_closed(self) -> None:
        if self._on_closed is not None:
            result = self._on_closed(self)
            if inspect.isawaitable(result):
                await result

    def _one_way_frame(self, payload: Bytes, id_: int | None) -> bytes:
        if id_ is None:
            self._one_way = id_ = ONE_WAY | (self._one_way + 1 & (ONE_WAY - 1))
        return encode(_checked_id(id_), REQUEST, payload)

    def _answer_frame(self, request_id: int, payload: Bytes) -> bytes:
        return encode(_checked_id(request_id), RESPONSE, payload)

    async def __aenter__(self) -> Link:
        if self._state is State.OPENING:
            await self.open()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()
        await self.wait_closed()

    def __del__(self) -> None:
        if getattr(self, "_read_fd", -1) >= 0:
            warnings.warn(f"{self!r} was never closed", ResourceWarning, source=self, stacklevel=2)
            self._reading = False  # its loop is gone, or nobody would have forgotten it
            self._release(by_remote=False)


def _checked_id(id_: int) -> int:
    if not 0 <= id_ <= 0xFFFFFFFF:
        raise InvalidArgument.of(f"the number of a request has 32 bits, not {id_}")
    return id_
