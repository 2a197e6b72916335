#!/usr/bin/env python3
"""Talks to programs that use tarvo, without the library: serves a name, calls a server, sends it one-way requests."""

import argparse
import signal
import sys

from tarvo_peer import Pipe, Server

HANDLERS = {
    "echo": lambda payload: payload,
    "upper": lambda payload: payload.upper(),
    "count": lambda payload: str(len(payload)).encode(),
}


def serve(arguments):
    """Answers until it is interrupted."""
    answer = HANDLERS[arguments.answer]

    def on_request(request):
        if arguments.verbose:
            print(f"{request.pipe.remote}: {request.payload!r}", flush=True)
        try:
            request.reply(answer(request.payload))
        except OSError as error:  # the client is gone or does not keep up
            print(f"{request.pipe.remote}: {error.strerror}", file=sys.stderr)

    def on_closed(pipe):
        if arguments.verbose:
            print(f"{pipe.remote} has gone", flush=True)

    # Blocked here and in the threads that begin below, so that none of them takes it and sigwait does.
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
    with Server(arguments.name, on_request, on_closed=on_closed):
        print(f"Serving {arguments.name}. Ctrl-C ends it.", flush=True)
        signal.sigwait({signal.SIGINT, signal.SIGTERM})


def call(arguments):
    """Prints one answer for each call."""
    with Pipe.connect(arguments.name, arguments.own, arguments.timeout) as pipe:
        for _ in range(arguments.repeat):
            answer = pipe.call(arguments.data.encode(), arguments.timeout)
            print(answer.decode(errors="replace"), flush=True)


def send(arguments):
    """Sends and does not wait, but for the proof that the server has read what was sent.

    Frames that are still unread when the sender closes are not delivered, so it ends with a call that the server may
    answer as it likes.
    """
    with Pipe.connect(arguments.name, arguments.own, arguments.timeout) as pipe:
        for number in range(arguments.repeat):
            pipe.send(arguments.data.encode(), number)
        if arguments.wait:
            pipe.call(b"?", arguments.timeout)


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
        arguments.run(arguments)
    except (OSError, ValueError) as error:
        sys.exit(f"peer.py: {getattr(error, 'strerror', None) or error}")


if __name__ == "__main__":
    main()
