"""Requests that have come, and the tasks that handle them."""

from __future__ import annotations

import asyncio
import inspect
import logging
from collections import deque
from collections.abc import Awaitable, Callable
from typing import TYPE_CHECKING, Any

from .errors import Error, NoSuchRequest
from .frames import Bytes

if TYPE_CHECKING:
    from .link import Link

_log = logging.getLogger("tarvo")

Answer = Bytes | None
Handler = Callable[["Request"], Answer | Awaitable[Answer]]
"""Gets each request and returns the bytes of its answer, or None for none. A function, or a coroutine function."""

KEPT_WITHOUT_HANDLER = 1000
MANY = 1000
"""Requests that may wait for their handler before the link stops reading."""
MOST = 65536
"""The same while calls of this side wait for answers, which come the same way. What comes then is dropped."""


class Request:
    """A request of the other side."""

    __slots__ = ("link", "id", "payload", "timeout", "answered")

    def __init__(self, link: Link, id_: int, payload: bytes, timeout_ms: int) -> None:
        self.link = link
        """Over which it has come."""
        self.id = id_
        """The number that its sender has given it; Link.reply() takes it too."""
        self.payload = payload
        """1 to 4000 bytes."""
        self.timeout = None if timeout_ms < 0 else timeout_ms / 1000
        """How many seconds its sender says that it waits; None: it does not wait, or without limit."""
        self.answered = False
        """Whether it has its answer."""

    async def reply(self, payload: Bytes) -> None:
        """Answers it, once, now or later; waits for room. NoSuchRequest (ENOENT) the second time."""
        self._take()
        try:
            await self.link.reply(self.id, payload)
        except BaseException:
            self.answered = False
            raise

    def reply_nowait(self, payload: Bytes) -> None:
        """The same without waiting: Full (EAGAIN) when there is no room; then it can be answered again."""
        self._take()
        try:
            self.link.reply_nowait(self.id, payload)
        except BaseException:
            self.answered = False
            raise

    def _take(self) -> None:
        if self.answered:
            raise NoSuchRequest.of("this request has been answered", self.link.remote)
        self.answered = True

    def __repr__(self) -> str:
        return f"<tarvo.Request {self.id} of {self.link.remote!r}, {len(self.payload)} bytes>"


class Requests:
    """What waits for the handler of a link, and the tasks that run it: at most `concurrent` at a time.

    Owns the tasks. They end when the link has ended and nothing waits any more, or when they are cancelled.
    """

    __slots__ = ("_link", "_loop", "_handler", "_concurrent", "_queue", "_tasks", "_idle", "_ended", "_quick")

    def __init__(self, link: Link, loop: asyncio.AbstractEventLoop, concurrent: int) -> None:
        self._link = link
        self._loop = loop
        self._handler: Handler | None = None
        self._quick = False
        self._concurrent = concurrent
        self._queue: deque[Request] = deque()
        self._tasks: set[asyncio.Task[None]] = set()
        self._idle: list[asyncio.Future[None]] = []
        self._ended = False

    @property
    def handler(self) -> Handler | None:
        """What handles them; None: nothing yet, and some are kept for what may come."""
        return self._handler

    @handler.setter
    def handler(self, handler: Handler | None) -> None:
        self._handler = handler
        # A function that does not wait needs no task.
        self._quick = handler is not None and not _is_coroutine_function(handler)
        if handler is not None and self._queue:
            self._wake()

    @property
    def count(self) -> int:
        """Of those that wait."""
        return len(self._queue)

    def add(self, request: Request) -> None:
        """One has come. The handler runs now if it does not wait, otherwise in a task."""
        if self._ended:
            return  # the handler of one before it has closed the link
        if self._quick and not self._queue and not self._link.is_full and not self._tasks:
            self._handle_now(request)
            return
        if len(self._queue) >= (KEPT_WITHOUT_HANDLER if self._handler is None else MOST):
            _log.error("dropped a request of %s: too many wait", self._link.remote)
            return
        self._queue.append(request)
        if self._handler is not None:
            self._wake()

    def _handle_now(self, request: Request) -> None:
        assert self._handler is not None
        try:
            answer: Any = self._handler(request)
        except Exception:
            _log.exception("the handler of %s has failed", self._link.remote)
            return
        if inspect.isawaitable(answer):
            self._start(self._finish(request, answer))
            self._quick = False
        elif answer is not None and not request.answered:
            try:
                request.reply_nowait(answer)
            except BlockingIOError:
                self._start(self._finish(request, _value(answer)))
            except Error as error:
                _log.debug("no answer for %s: %s", self._link.remote, error)
            except (TypeError, ValueError):
                _log.exception("the handler of %s has returned what is no answer", self._link.remote)

    def _wake(self) -> None:
        idle = self._idle
        while idle:
            waiter = idle.pop()
            if not waiter.done():
                waiter.set_result(None)
                return
        if len(self._tasks) < self._concurrent:
            self._start(self._work())

    def _start(self, work: Any) -> None:
        task = self._loop.create_task(work, name=f"tarvo requests of {self._link.remote}")
        self._tasks.add(task)
        task.add_done_callback(self._on_task_done)

    def _on_task_done(self, task: asyncio.Task[None]) -> None:
        self._tasks.discard(task)
        if self._queue and self._handler is not None and not self._ended:
            self._wake()

    async def _work(self) -> None:
        queue = self._queue
        while True:
            while queue:
                request = queue.popleft()
                self._link.on_request_taken()
                handler = self._handler
                if handler is not None:
                    await self._handle(handler, request)
            if self._ended or self._quick:
                return
            waiter: asyncio.Future[None] = self._loop.create_future()
            self._idle.append(waiter)
            await waiter

    async def _handle(self, handler: Handler, request: Request) -> None:
        try:
            answer: Any = handler(request)
            if answer is not None and type(answer) is not bytes and inspect.isawaitable(answer):
                answer = await answer
            if answer is not None and not request.answered:
                request.answered = True
                await self._link.answer(request.id, answer, bool(self._queue))
        except Error as error:
            _log.debug("no answer for %s: %s", self._link.remote, error)
        except Exception:
            _log.exception("the handler of %s has failed", self._link.remote)

    async def _finish(self, request: Request, answer: Awaitable[Answer]) -> None:
        await self._handle(lambda _: answer, request)

    def end(self) -> None:
        """No more will come. The tasks end when they have handled what waits."""
        self._ended = True
        if self._handler is None:
            self._queue.clear()
        for waiter in self._idle:
            if not waiter.done():
                waiter.set_result(None)
        self._idle.clear()

    def cancel(self) -> None:
        """Drops what waits and ends the tasks, but for the one that asks."""
        self._queue.clear()
        self.end()
        current = asyncio.current_task() if asyncio.get_running_loop() is self._loop else None
        for task in self._tasks:
            if task is not current:
                task.cancel()

    def runs_in(self, task: asyncio.Task[Any] | None) -> bool:
        """Whether the task is one of a handler."""
        return task in self._tasks

    async def join(self) -> None:
        """Waits until the tasks have ended, but for the one that asks."""
        current = asyncio.current_task()
        while others := [task for task in self._tasks if task is not current]:
            await asyncio.wait(others)


async def _value(answer: Answer) -> Answer:
    return answer


def _is_coroutine_function(handler: Handler) -> bool:
    return inspect.iscoroutinefunction(handler) or inspect.iscoroutinefunction(getattr(handler, "__call__", None))
