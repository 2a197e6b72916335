"""The same without asyncio: for scripts and the interactive prompt.

    with tarvo.blocking.connect("radar", timeout=2) as link:
        print(link.call(b"range?", timeout=0.1))

    with tarvo.blocking.serve("gps", lambda request: b"47.1"):
        input("Enter ends it.")

Links and servers live on one thread that begins with the first of them and lasts as long as the process. Handlers run
on threads of a pool, so that they may wait and use these functions themselves. Everything may be used from any thread.
"""

from __future__ import annotations

import asyncio
import functools
import inspect
import os
import threading
from collections.abc import Awaitable, Callable, Coroutine
from types import TracebackType
from typing import Any, TypeVar

from . import client, files, server
from . import link as links
from .errors import TimedOut
from .frames import Bytes
from .requests import Answer
from .requests import Request as AsyncRequest

_Result = TypeVar("_Result")


class _Engine:
    """The thread with the event loop. Owns both; ends with the process."""

    _lock = threading.Lock()
    _one: _Engine | None = None

    def __init__(self) -> None:
        self.process = os.getpid()
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, name="tarvo", daemon=True)
        self.thread.start()

    @classmethod
    def get(cls) -> _Engine:
        """That of this process."""
        with cls._lock:
            if cls._one is None or cls._one.process != os.getpid():
                cls._one = cls()
            return cls._one

    def run(self, work: Callable[[], Coroutine[Any, Any, _Result]]) -> _Result:
        """Runs it to its end; it is cancelled when this thread is interrupted meanwhile."""
        if threading.current_thread() is self.thread:
            raise RuntimeError("a function of tarvo.blocking would wait for itself on its own thread")
        begun: list[asyncio.Task[Any] | None] = []
        abandoned = False

        async def whole() -> _Result:
            begun.append(asyncio.current_task())
            if abandoned:
                raise asyncio.CancelledError
            return await work()

        def abandon() -> None:
            nonlocal abandoned
            abandoned = True
            for task in begun:
                if task is not None:
                    task.cancel()

        # The interrupt may come at any point, also when the work has been handed over and its future is not known here.
        try:
            return asyncio.run_coroutine_threadsafe(whole(), self.loop).result()
        except BaseException:
            self.loop.call_soon_threadsafe(abandon)
            raise

    def do(self, function: Callable[[], _Result]) -> _Result:
        """Runs a function on the thread."""

        async def work() -> _Result:
            return function()

        return self.run(work)


class Request:
    """A request of the other side."""

    def __init__(self, link: Link, request: AsyncRequest) -> None:
        self._request = request
        self.link = link
        """Over which it has come."""
        self.id = request.id
        """The number that its sender has given it; Link.reply() takes it too."""
        self.payload = request.payload
        """1 to 4000 bytes."""
        self.timeout = request.timeout
        """How many seconds its sender says that it waits; None: it does not wait, or without limit."""

    @property
    def answered(self) -> bool:
        """Whether it has its answer."""
        return self._request.answered

    def reply(self, payload: Bytes) -> None:
        """Answers it, once, now or later; waits for room. NoSuchRequest (ENOENT) the second time."""
        _Engine.get().run(lambda: self._request.reply(payload))


Handler = Callable[[Request], Answer]
"""Gets each request and returns the bytes of its answer, or None for none."""
ClosedHandler = Callable[["Link"], None]
ClientHandler = Callable[["Link"], None]


class Link:
    """One connection, as tarvo.Link. Comes from connect(), arrange() or a server."""

    def __init__(self, link: links.Link) -> None:
        self._link = link

    @property
    def own(self) -> str:
        """The name under which the other side knows this one."""
        return self._link.own

    @property
    def remote(self) -> str:
        """The name of the other side."""
        return self._link.remote

    @property
    def is_open(self) -> bool:
        """Whether something can be sent."""
        return self._link.is_open

    def __repr__(self) -> str:
        return f"<tarvo.blocking.Link {self.own!r} to {self.remote!r}, {self._link.state.value}>"

    def call(self, payload: Bytes, timeout: float | None = None) -> bytes:
        """Sends a request and returns the payload of its answer. `timeout` in seconds. Errors as tarvo.Link.call()."""
        return _Engine.get().run(lambda: self._link.call(payload, timeout))

    def send(self, payload: Bytes, *, id: int | None = None) -> None:  # noqa: A002
        """Sends a one-way request; waits until it is on its way. Errors as tarvo.Link.send()."""
        _Engine.get().run(lambda: self._link.send(payload, id=id))

    def send_nowait(self, payload: Bytes, *, id: int | None = None) -> None:  # noqa: A002
        """The same without waiting: Full (EAGAIN) when there is no room; then nothing is sent."""
        _Engine.get().do(lambda: self._link.send_nowait(payload, id=id))

    def reply(self, request_id: int, payload: Bytes) -> None:
        """Answers the request with this number, now or later. Errors as tarvo.Link.send()."""
        _Engine.get().run(lambda: self._link.reply(request_id, payload))

    def on_request(self, handler: Handler) -> Handler:
        """Has the handler called with each request, on a thread of the pool. Usable as a decorator."""
        _Engine.get().do(lambda: self._link.on_request(_on_pool(handler)))
        return handler

    def on_closed(self, handler: ClosedHandler) -> ClosedHandler:
        """Has the handler called, once, when the other side is gone: after the last of its requests."""
        _Engine.get().do(lambda: self._link.on_closed(_told_on_pool(handler)))
        return handler

    def close(self) -> None:
        """Ends it at once, as tarvo.Link.close(). A handler that runs on the pool goes on; its answer is dropped."""
        _Engine.get().do(self._link.close)

    def wait_closed(self, timeout: float | None = None) -> None:
        """Waits until it has ended, by whichever side. TimedOut (ETIMEDOUT) after `timeout` seconds."""
        _Engine.get().run(lambda: _limited(self._link.wait_closed(), timeout))

    def __enter__(self) -> Link:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


class Server:
    """Serves a name, as tarvo.Server. Comes from serve()."""

    def __init__(self, served: server.Server) -> None:
        self._server = served

    @property
    def name(self) -> str:
        """The name that it serves."""
        return self._server.name

    @property
    def links(self) -> frozenset[Link]:
        """The links of its clients that are open now."""
        return _Engine.get().do(lambda: frozenset(map(_face, self._server.links)))

    def __repr__(self) -> str:
        return f"<tarvo.blocking.Server {self.name!r}>"

    def on_request(self, handler: Handler) -> Handler:
        """Has the handler called with each request of each client, on a thread of the pool. Usable as a decorator."""
        _Engine.get().do(lambda: self._server.on_request(_on_pool(handler)))
        return handler

    def on_client(self, handler: ClientHandler) -> ClientHandler:
        """Has the handler called with the link of each new client, before its first request is handled."""
        _Engine.get().do(lambda: self._server.on_client(_told_on_pool(handler)))
        return handler

    def on_closed(self, handler: ClosedHandler) -> ClosedHandler:
        """Has the handler called with the link of each client that is gone."""
        _Engine.get().do(lambda: self._server.on_closed(_told_on_pool(handler)))
        return handler

    def stop_listening(self) -> None:
        """Gives the name back. Clients whose links are open keep them."""
        _Engine.get().do(self._server.stop_listening)

    def close(self) -> None:
        """Gives the name back and closes the links of all clients."""
        _Engine.get().do(self._server.close)

    def wait_closed(self, timeout: float | None = None) -> None:
        """Waits until another thread, or a handler, has closed it. TimedOut (ETIMEDOUT) after `timeout` seconds."""
        _Engine.get().run(lambda: _limited(self._server.wait_closed(), timeout))

    def __enter__(self) -> Server:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


def connect(
    name: str,
    *,
    own: str | None = None,
    timeout: float | None = client.OPEN_TIMEOUT_S,
    on_request: Handler | None = None,
    concurrent: int = 1,
) -> Link:
    """Opens a link to the server of a name, as tarvo.connect(), and waits for it. Time-outs are in seconds."""
    handler = None if on_request is None else _on_pool(on_request)

    async def work() -> links.Link:
        return await client.connect(name, own=own, timeout=timeout, on_request=handler, concurrent=concurrent)

    return _face(_Engine.get().run(work))


def arrange(
    remote: str,
    *,
    creates: bool,
    own: str | None = None,
    timeout: float | None = client.OPEN_TIMEOUT_S,
    group: int = files.ANY_GROUP,
    on_request: Handler | None = None,
    concurrent: int = 1,
) -> Link:
    """Opens a link between two processes that know each other's name, as tarvo.arrange(), and waits for it."""
    handler = None if on_request is None else _on_pool(on_request)

    async def work() -> links.Link:
        return await client.arrange(
            remote,
            creates=creates,
            own=own,
            timeout=timeout,
            group=group,
            on_request=handler,
            concurrent=concurrent,
        )

    return _face(_Engine.get().run(work))


def serve(
    name: str | None = None,
    handler: Handler | None = None,
    *,
    group: int = files.ANY_GROUP,
    replace: bool = False,
    concurrent: int = 1,
) -> Server:
    """Serves under a name, as tarvo.serve(). It goes on while this thread does something else."""
    answering = None if handler is None else _on_pool(handler)

    async def work() -> server.Server:
        return await server.serve(name, answering, group=group, replace=replace, concurrent=concurrent)

    return Server(_Engine.get().run(work))


def _face(link: links.Link) -> Link:
    """The one object of a link that users see."""
    if not isinstance(link.blocking_face, Link):
        link.blocking_face = Link(link)
    return link.blocking_face


def _on_pool(handler: Handler) -> Callable[[AsyncRequest], Awaitable[Answer]]:
    if inspect.iscoroutinefunction(handler):
        raise TypeError("a handler of tarvo.blocking is an ordinary function")

    async def handle(request: AsyncRequest) -> Answer:
        seen = Request(_face(request.link), request)
        return await asyncio.get_running_loop().run_in_executor(None, handler, seen)

    return handle


def _told_on_pool(handler: Callable[[Link], None]) -> Callable[[links.Link], Awaitable[None]]:
    async def handle(link: links.Link) -> None:
        await asyncio.get_running_loop().run_in_executor(None, functools.partial(handler, _face(link)))

    return handle


async def _limited(work: Awaitable[None], timeout: float | None) -> None:
    try:
        async with asyncio.timeout(timeout):
            await work
    except TimeoutError:
        raise TimedOut.of("not closed in time") from None
