#!/usr/bin/env python3
"""Talks to programs that use tarvo, with the Python package: serves a name, calls a server, sends it one-way requests."""

import argparse
import asyncio
import pathlib
import signal
import sys

# In a checkout the package stands beside the examples; installed, it is where Python looks by itself.
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))

import tarvo  # noqa: E402

HANDLERS = {
    "echo": lambda payload: payload,
    "upper": lambda payload: payload.upper(),
    "count": lambda payload: str(len(payload)).encode(),
}


async def serve(arguments):
    """Answers until it is interrupted."""
    answer = HANDLERS[arguments.answer]
    async with tarvo.serve(arguments.name) as server:

        @server.on_request
        def handle(request):
            if arguments.verbose:
                print(f"{request.link.remote}: {request.payload!r}", flush=True)
            return answer(request.payload)

        if arguments.verbose:
            server.on_closed(lambda link: print(f"{link.remote} has gone", flush=True))
        for number in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(number, server.close)
        print(f"Serving {arguments.name}. Ctrl-C ends it.", flush=True)
        await server.serve_forever()


async def call(arguments):
    """Prints one answer for each call."""
    async with tarvo.connect(arguments.name, own=arguments.own, timeout=arguments.timeout) as link:
        for _ in range(arguments.repeat):
            answer = await link.call(arguments.data.encode(), arguments.timeout)
            print(answer.decode(errors="replace"), flush=True)


async def send(arguments):
    """Sends and does not wait, but for the proof that the server has read what was sent.

    A server over the threads of the C++ library does not read what is left when the sender closes, so it ends with a
    call that the server may answer as it likes.
    """
    async with tarvo.connect(arguments.name, own=arguments.own, timeout=arguments.timeout) as link:
        for _ in range(arguments.repeat):
            await link.send(arguments.data.encode())
        if arguments.wait:
            await link.call(b"?", arguments.timeout)


def parse(words):
    """The command line."""
    parser = argparse.ArgumentParser(description=__doc__)
    commands = parser.add_subparsers(dest="command", required=True)

    command = commands.add_parser("serve", help="serve under a name", description=serve.__doc__)
    command.add_argument("name")
    command.add_argument("--answer", choices=sorted(HANDLERS), default="echo", help="what clients get (default: echo)")
    command.add_argument("--verbose", action="store_true", help="print requests and clients that go")
    command.set_defaults(run=serve)

    for name, run, text in (("call", call, "call a server"), ("send", send, "send one-way requests to a server")):
        command = commands.add_parser(name, help=text, description=run.__doc__)
        command.add_argument("name", help="the server's name")
        command.add_argument("data", help="1 to 4000 bytes of text")
        command.add_argument("--own", default="python", metavar="NAME", help="own name (default: python)")
        command.add_argument("--timeout", type=float, default=5.0, metavar="SECONDS", help="for opening and each call")
        command.add_argument("--repeat", type=int, default=1, metavar="TIMES")
        command.set_defaults(run=run)
        if name == "send":
            command.add_argument("--wait", action="store_true", help="end with a call, as proof of delivery")
    return parser.parse_args(words)


def main():
    """Exit code 0, or 1 with a line on standard error."""
    arguments = parse(sys.argv[1:])
    try:
        asyncio.run(arguments.run(arguments))
    except tarvo.Error as error:
        sys.exit(f"peer.py: {error.strerror}")


if __name__ == "__main__":
    main()
