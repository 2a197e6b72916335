"""The command of python3 -m tarvo that serves."""

from __future__ import annotations

import asyncio
import contextlib
import grp
import os
import sys
from collections.abc import Callable
from typing import Any

from . import files
from .cli_parts import DONE, FAILED, USAGE, Failure, Options, diagnose, on_signals, payload_fields, put_json
from .errors import Error, InvalidArgument
from .link import Link
from .requests import Request
from .server import serve


class Served:
    """What `serve` counts and prints for one name."""

    def __init__(self, options: Options, name: str, several: bool) -> None:
        self.options, self.name, self.several = options, name, several
        self.clients = self.requests = self.answers = self.bytes = 0

    def tell(self, event: str, text: str | None, /, **fields: Any) -> None:
        """An event, on standard output in JSON and otherwise on standard error."""
        if self.options.json:
            put_json({"event": event, **({"name": self.name} if self.several else {}), **fields})
        elif text is not None:
            diagnose(text)

    def on_client(self, link: Link) -> None:
        """A client has come."""
        self.clients += 1
        where = f" to '{self.name}'" if self.several else ""
        self.tell("connected", f"{link.remote} connected{where}", client=link.remote)

    def on_closed(self, link: Link) -> None:
        """A client is gone."""
        self.tell("closed", f"{link.remote} closed", client=link.remote)

    def on_request(self, request: Request) -> bytes | None:
        """Answers a request, or only counts it."""
        self.requests += 1
        self.bytes += len(request.payload)
        if self.options.print and self.options.json:
            self.tell("request", None, client=request.link.remote, id=request.id, **payload_fields(request.payload))
        elif self.options.print:
            end = b"" if request.payload.endswith(b"\n") else b"\n"
            sys.stdout.buffer.write(request.payload + end)
            sys.stdout.buffer.flush()
        if self.options.count:
            return None
        self.answers += 1
        return request.payload

    def counts(self, event: str) -> None:
        """How much has come."""
        text = f"'{self.name}': {self.requests} requests, {self.bytes} bytes, {self.answers} answers"
        self.tell(event, text, clients=self.clients, requests=self.requests, answers=self.answers, bytes=self.bytes)


def group_of(text: str | None) -> int:
    """The id of a group, by name or number."""
    if text is None:
        return files.ANY_GROUP
    if text.isdecimal():
        return int(text)
    try:
        return grp.getgrnam(text).gr_gid
    except KeyError:
        raise Failure(f"there is no group '{text}'", USAGE) from None


async def run_serve(options: Options) -> int:
    """Serves under a name, or several, until it is interrupted."""
    stopped = asyncio.Event()
    on_signals(stopped.set)
    group, several = group_of(options.group), len(options.names) > 1
    all_served = [Served(options, name, several) for name in options.names]
    async with contextlib.AsyncExitStack() as stack:
        for served in all_served:
            try:
                server = await stack.enter_async_context(serve(served.name, group=group, replace=options.replace))
            except InvalidArgument as error:
                raise Failure(f"'{served.name}': {error.strerror}", USAGE) from None
            except Error as error:
                raise Failure(f"cannot serve as '{served.name}': {error.strerror}", FAILED) from None
            server.on_client(served.on_client)
            server.on_closed(served.on_closed)
            server.on_request(_limited(served, all_served, options.limit, stopped))
        for served in all_served:
            served.tell("serving", f"serving as '{served.name}'; Ctrl-C ends it", name=served.name, pid=os.getpid())
        await _wait(options, all_served, stopped)
    for served in all_served:
        served.counts("ended")
    return DONE


def _limited(
    served: Served, all_served: list[Served], limit: int, stopped: asyncio.Event
) -> Callable[[Request], bytes | None]:
    def handle(request: Request) -> bytes | None:
        answer = served.on_request(request)
        if limit and sum(one.requests for one in all_served) >= limit:
            asyncio.get_running_loop().call_soon(stopped.set)  # after the answer
        return answer

    return handle


async def _wait(options: Options, all_served: list[Served], stopped: asyncio.Event) -> None:
    printed = [0] * len(all_served)
    while not stopped.is_set():
        try:
            async with asyncio.timeout(1.0 if options.count else None):
                await stopped.wait()
        except TimeoutError:
            for i, served in enumerate(all_served):
                if served.requests != printed[i]:
                    printed[i] = served.requests
                    served.counts("counts")
