"""Messaging between the processes of one Linux machine, for asyncio.

    async with tarvo.connect("radar", timeout=2) as link:
        answer = await link.call(b"range?", timeout=0.1)
        await link.send(b"log this")

    async with tarvo.serve("gps") as server:
        @server.on_request
        async def handle(request):
            return b"47.1"

tarvo.blocking has the same without asyncio.
"""

from ._version import __version__
from .client import LinkOpener, arrange, connect
from .errors import (
    AccessDenied,
    AlreadyOpen,
    Cancelled,
    DirectoryMissing,
    Error,
    Full,
    InvalidArgument,
    NameTaken,
    NoServer,
    NoSuchRequest,
    NotOpen,
    RemoteClosed,
    TimedOut,
)
from .files import ANY_GROUP
from .frames import MAX_PAYLOAD
from .connection import State
from .link import Link
from .names import MAX_NAME
from .requests import Request
from .server import Server, ServerOpener, serve

__all__ = [
    "ANY_GROUP",
    "MAX_NAME",
    "MAX_PAYLOAD",
    "AccessDenied",
    "AlreadyOpen",
    "Cancelled",
    "DirectoryMissing",
    "Error",
    "Full",
    "InvalidArgument",
    "Link",
    "LinkOpener",
    "NameTaken",
    "NoServer",
    "NoSuchRequest",
    "NotOpen",
    "RemoteClosed",
    "Request",
    "Server",
    "ServerOpener",
    "State",
    "TimedOut",
    "__version__",
    "arrange",
    "connect",
    "serve",
]
