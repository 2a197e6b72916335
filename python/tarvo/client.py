"""Links that this side asks for: to a server, or by arrangement."""

from __future__ import annotations

from collections.abc import Callable, Generator
from types import TracebackType
from typing import Any

from . import files, names
from .link import Link
from .opening import Plan
from .requests import Handler

OPEN_TIMEOUT_S = 10.0


class LinkOpener:
    """What connect() and arrange() return: `await` it for the link, or use it with `async with`, which closes it."""

    def __init__(self, make: Callable[[], Link]) -> None:
        self._make = make
        self._link: Link | None = None

    @property
    def link(self) -> Link:
        """The link, also while it is not open. Inside a running event loop."""
        if self._link is None:
            self._link = self._make()
        return self._link

    def __await__(self) -> Generator[Any, None, Link]:
        return self.link.open().__await__()

    async def __aenter__(self) -> Link:
        return await self.link.open()

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        await self.link.__aexit__(kind, error, trace)


def connect(
    name: str,
    *,
    own: str | None = None,
    timeout: float | None = OPEN_TIMEOUT_S,
    on_request: Handler | None = None,
    concurrent: int = 1,
) -> LinkOpener:
    """Opens a link to the server of a name: `async with connect("radar") as link`, or `link = await connect("radar")`.

    `own`: how this side appears there, with `_` and the process id behind it; None: the name of this process. Two
    links of one process to one server need different ones. `timeout`: seconds for the open; None: no limit.
    `on_request`: gets the requests of the server, see Link.on_request(). `concurrent`: how many of those are handled
    at the same time.

    InvalidArgument (EINVAL), NoServer (ENXIO), TimedOut (ETIMEDOUT), AlreadyOpen (EEXIST), AccessDenied (EACCES).
    """

    def make() -> Link:
        mine = names.unique(names.process_name() if own is None else own)
        plan = Plan(mine, names.check(name), False, True, files.ANY_GROUP, timeout)
        return _link(plan, on_request, concurrent)

    return LinkOpener(make)


def arrange(
    remote: str,
    *,
    creates: bool,
    own: str | None = None,
    timeout: float | None = OPEN_TIMEOUT_S,
    group: int = files.ANY_GROUP,
    on_request: Handler | None = None,
    concurrent: int = 1,
) -> LinkOpener:
    """Opens a link between two processes that know each other's name, without a server.

    `creates`: whether this side makes the files; exactly one side does. `own`: the name of this side as the other knows
    it; None: the name of this process. `group`: of the files, where this side makes them. The rest is as for connect().
    """

    def make() -> Link:
        mine = names.check(names.process_name() if own is None else own)
        plan = Plan(mine, names.check(remote), creates, False, group, timeout)
        return _link(plan, on_request, concurrent)

    return LinkOpener(make)


def _link(plan: Plan, on_request: Handler | None, concurrent: int) -> Link:
    link = Link(plan, concurrent)
    if on_request is not None:
        link.on_request(on_request)
    return link
