"""A server: takes the packets of clients under a name, and opens a link for each."""

from __future__ import annotations

import asyncio
import inspect
import logging
import os
import warnings
from collections.abc import Awaitable, Callable, Generator
from types import TracebackType
from typing import Any, TypeVar

from . import files, names
from .errors import Error, InvalidArgument
from .connection import State
from .link import ClosedHandler, Link
from .opening import Plan
from .packets import TERMINATE, Packet, PacketReader
from .requests import Handler

_READ_SIZE = 65536
_OPEN_TIMEOUT_S = 2.0
_log = logging.getLogger("tarvo")
ClientHandler = Callable[[Link], Awaitable[None] | None]
_HandlerType = TypeVar("_HandlerType", bound=Handler)
_ClosedType = TypeVar("_ClosedType", bound=ClosedHandler)
_ClientType = TypeVar("_ClientType", bound=ClientHandler)


class Server:
    """Serves a name. Comes from serve(), and belongs to the event loop it was made on. A process may have several.

    Owns its file and the links of its clients, and closes them all when it is closed.
    """

    def __init__(
        self, name: str, handler: Handler | None, *, gid: int, replace: bool, concurrent: int
    ) -> None:
        self._name = names.check(name)
        if concurrent < 1:
            raise InvalidArgument.of(f"at least one handler at a time, not {concurrent}")
        self._loop = asyncio.get_running_loop()
        self._gid, self._replace, self._concurrent = gid, replace, concurrent
        self._handler = handler
        self._on_client: ClientHandler | None = None
        self._on_closed: ClosedHandler | None = None
        self._file = files.ServerFile(files.server_path(name))
        self._packets = PacketReader()
        self._links: set[Link] = set()
        self._tasks: set[asyncio.Task[None]] = set()
        self._listens = False
        self._ended: asyncio.Future[None] = self._loop.create_future()

    @property
    def name(self) -> str:
        """The name that it serves."""
        return self._name

    @property
    def is_listening(self) -> bool:
        """Whether clients can come."""
        return self._listens

    @property
    def links(self) -> frozenset[Link]:
        """The links of its clients that are open now."""
        return frozenset(link for link in self._links if link.is_open)

    def __repr__(self) -> str:
        return f"<tarvo.Server {self._name!r}, {len(self.links)} clients>"

    def on_request(self, handler: _HandlerType) -> _HandlerType:
        """Has the handler called with each request of each client. Usable as a decorator; see Link.on_request()."""
        self._handler = handler
        for link in self._links:
            link.on_request(handler)
        return handler

    def on_client(self, handler: _ClientType) -> _ClientType:
        """Has the handler called with the link of each new client. No request of it is handled before that returns."""
        self._on_client = handler
        return handler

    def on_closed(self, handler: _ClosedType) -> _ClosedType:
        """Has the handler called with the link of each client that is gone, after the last of its requests."""
        self._on_closed = handler
        for link in self._links:
            link.on_closed(handler)
        return handler

    def start(self) -> Server:
        """Takes the name. Done once, by whoever has made the server; serve() does it.

        NameTaken (EADDRINUSE): a living server has it. DirectoryMissing (ENOENT), and what the files refuse.
        """
        self._file.open(self._gid, self._replace)
        self._listens = True
        self._loop.add_reader(self._file.read_fd, self._on_packets)
        return self

    def _on_packets(self) -> None:
        try:
            data = os.read(self._file.read_fd, _READ_SIZE)
        except (BlockingIOError, InterruptedError):
            return
        for packet in self._packets.feed(data):
            if packet.type == TERMINATE:
                _log.info("%s was told to end", self._name)
                self._stop_listening(removes=False)
                return
            self._welcome(packet)
        if len(data) < _READ_SIZE:
            self._packets.end_of_read()

    def _welcome(self, packet: Packet) -> None:
        # A name with a slash leads to another folder, where strangers have nothing to make.
        if not names.is_valid(packet.name) or "/" in packet.name:
            _log.warning("%s: a client calls itself %r", self._name, packet.name)
            return
        timeout = names.patient(_OPEN_TIMEOUT_S)
        plan = Plan(self._name, packet.name, makes_files=True, announces=False, gid=packet.gid, timeout=timeout)
        try:
            known = Link.of_names(plan)
            if known is not None:
                if known.state is State.OPENING:
                    return
                known.leave_names()
            link = Link(plan, self._concurrent)
        except Error as error:
            _log.warning("%s: no link to %s: %s", self._name, packet.name, error)
            return
        self._links.add(link)
        task = self._loop.create_task(self._serve(link), name=f"tarvo client {packet.name} of {self._name}")
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _serve(self, link: Link) -> None:
        """The life of a client's link."""
        try:
            if self._handler is not None:
                link.on_request(self._handler)
            if self._on_closed is not None:
                link.on_closed(self._on_closed)
            await link.open(self._tell if self._on_client is not None else None)
            await link.wait_closed()
        except (Error, asyncio.CancelledError) as error:
            _log.info("%s: the link to %s did not open: %s", self._name, link.remote, error)
        except Exception:
            _log.exception("%s: the handler of a client has failed", self._name)
        finally:
            link.close()
            self._links.discard(link)

    async def _tell(self, link: Link) -> None:
        if self._on_client is not None:
            result = self._on_client(link)
            if inspect.isawaitable(result):
                await result

    def stop_listening(self) -> None:
        """Gives the name back. Clients whose links are open keep them; those that are being opened are dropped."""
        self._stop_listening(removes=True)
        for link in list(self._links):
            if link.state is State.OPENING:
                link.close()

    def _stop_listening(self, removes: bool) -> None:
        if not self._listens:
            return
        self._listens = False
        if not self._loop.is_closed():
            self._loop.remove_reader(self._file.read_fd)
        if removes:
            self._file.close()
        else:
            self._file.leave()

    def close(self) -> None:
        """Gives the name back and closes the links of all clients, at once. The second time nothing happens."""
        self._stop_listening(removes=True)
        for link in list(self._links):
            link.close()
        if not self._ended.done():
            self._ended.set_result(None)

    async def wait_closed(self) -> None:
        """Waits until it has been closed, and none of its handlers runs any more, unless one of them asks."""
        current = asyncio.current_task()
        if any(link.runs_handler_in(current) for link in self._links):
            return  # it would wait for itself
        await asyncio.shield(self._ended)
        while others := [task for task in self._tasks if task is not current]:
            await asyncio.wait(others)

    async def serve_forever(self) -> None:
        """Returns when close() is called; closes the server when the task is cancelled."""
        try:
            await self.wait_closed()
        finally:
            self.close()

    async def __aenter__(self) -> Server:
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()
        await self.wait_closed()

    def __del__(self) -> None:
        if getattr(self, "_listens", False):
            warnings.warn(f"{self!r} was never closed", ResourceWarning, source=self, stacklevel=2)
            self._stop_listening(removes=True)


class ServerOpener:
    """What serve() returns: `await` it for the server, or use it with `async with`, which closes the server."""

    def __init__(self, make: Callable[[], Server]) -> None:
        self._make = make
        self._server: Server | None = None

    async def _start(self) -> Server:
        self._server = self._make()
        return self._server.start()

    def __await__(self) -> Generator[Any, None, Server]:
        return self._start().__await__()

    async def __aenter__(self) -> Server:
        return await self._start()

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._server is not None:
            await self._server.__aexit__(kind, error, trace)


def serve(
    name: str | None = None,
    handler: Handler | None = None,
    *,
    group: int = files.ANY_GROUP,
    replace: bool = False,
    concurrent: int = 1,
) -> ServerOpener:
    """Serves under a name: `async with serve("gps") as server`, or `server = await serve("gps")`.

    `name`: 1 to 100 bytes; None: the name of this process. `handler`: see Server.on_request(), which may come later.
    `group`: the id of the group whose members may connect. `replace`: take the name even from a living server.
    `concurrent`: how many requests of one client are handled at the same time, where handlers wait.

    InvalidArgument (EINVAL), NameTaken (EADDRINUSE), DirectoryMissing (ENOENT), and what the files refuse.
    """

    def make() -> Server:
        served = names.process_name() if name is None else name
        return Server(served, handler, gid=group, replace=replace, concurrent=concurrent)

    return ServerOpener(make)
