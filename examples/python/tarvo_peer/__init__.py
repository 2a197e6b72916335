"""A peer of tarvo in pure Python: no binding, only the bytes of docs/wire-format.md and the standard library.

    from tarvo_peer import Pipe, Server

    with Pipe.connect("hello", "python", timeout=2) as pipe:
        print(pipe.call(b"Ada", timeout=1))
"""

from .pipe import Pipe, Request
from .server import Server
from .wire import MAX_PAYLOAD

__all__ = ["MAX_PAYLOAD", "Pipe", "Request", "Server"]
