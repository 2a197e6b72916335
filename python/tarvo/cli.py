"""The command line of python3 -m tarvo. Options, output and exit status are those of tarvoctl."""

from __future__ import annotations

import argparse
import asyncio
import os
import pathlib
import sys
from collections.abc import Callable, Coroutine
from typing import Any

from ._version import __version__
from .cli_client import run_call, run_ping, run_send
from .cli_parts import (
    DONE,
    FAILED,
    FINDINGS,
    INTERRUPTED,
    USAGE,
    Failure,
    Options,
    bytes_of_hex,
    diagnose,
    duration,
    explain,
    number,
    payload_fields,
    put,
    put_json,
)
from .cli_serve import run_serve
from .decoder import Piece, decode
from .errors import Error
from .frames import MAX_PAYLOAD

_EXIT_STATUS = "exit status: 0 done; 1 failed; 2 wrong usage; 3 no such server; 4 no answer in time; 130 interrupted."


async def run_decode(options: Options) -> int:
    """Shows the fields of recorded frames and packets."""
    if options.hex_data is not None:
        data = bytes_of_hex(options.hex_data)
    else:
        try:
            data = sys.stdin.buffer.read() if options.file == "-" else pathlib.Path(options.file).read_bytes()
        except OSError as error:
            raise Failure(f"{options.file}: {error.strerror}", USAGE) from None
    faults = 0
    for piece in decode(data, options.kind):
        faults += bool(piece.fault)
        print_piece(piece, options.json)
    return FINDINGS if faults or not data else DONE


def print_piece(piece: Piece, as_json: bool) -> None:
    """One piece."""
    fields: dict[str, Any] = {
        name: f"{value:#010x}" if name in ("magic", "checksum") else value for name, value in piece.fields.items()
    }
    if as_json:
        value: dict[str, Any] = {"offset": piece.offset, "size": piece.size, "kind": piece.kind}
        if fields:
            value["fields"] = fields
            if piece.kind == "frame":
                value["checksum_right"] = piece.checksum_right
        put_json({**value, "payload": payload_fields(piece.payload), "fault": piece.fault or None})
        return
    put(f"{piece.offset:#x} {piece.kind}, {piece.size} bytes" + (f" -- {piece.fault}" if piece.fault else ""))
    for name, shown in fields.items():
        put(f"  {name:<15} {shown}")
    put(f"  {'payload':<15} {piece.payload!r}")


def _add_client_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("name", metavar="NAME", help="name that the server serves under")
    parser.add_argument("--as", dest="own", default="tarvo", metavar="NAME",
                        help="appear to the server under this name, with _ and the process id added (tarvo)")
    parser.add_argument("--open-timeout", type=duration, default=2.0, metavar="TIME",
                        help="how long the server may take to open its end (2s)")
    parser.add_argument("--json", action="store_true", help="answer in JSON, one value on each line")


def _add_payload_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("data", nargs="?", metavar="DATA", help="the request (default: standard input)")
    parser.add_argument("--file", metavar="FILE", help="take the request from FILE (- is standard input)")
    parser.add_argument("--hex", action="store_true", help="the request, and the answer, in hex digits")
    parser.add_argument("--repeat", type=number(1), default=1, metavar="N", help="how often (1)")
    parser.add_argument("--interval", type=duration, default=0.0, metavar="TIME", help="pause between two (0)")


Command = Callable[[Options], Coroutine[Any, Any, int]]


def parse(words: list[str] | None) -> Options:
    """The command line."""
    parser = argparse.ArgumentParser(prog="python3 -m tarvo", description=__doc__, epilog=_EXIT_STATUS)
    parser.add_argument("--version", action="version", version=f"tarvo {__version__}")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)

    def add(name: str, run: Command) -> argparse.ArgumentParser:
        text = (run.__doc__ or "").strip()
        command = commands.add_parser(name, help=text, description=text, epilog=_EXIT_STATUS)
        command.set_defaults(run=run)
        return command

    command = add("call", run_call)
    _add_client_options(command)
    _add_payload_options(command)
    limits = command.add_mutually_exclusive_group()
    limits.add_argument("--timeout", type=duration, default=1.0, metavar="TIME", help="for the answer (1s)")
    limits.add_argument("--no-timeout", action="store_true", help="wait for as long as the pipe is open")

    command = add("send", run_send)
    _add_client_options(command)
    _add_payload_options(command)
    command.add_argument("--timeout", type=duration, default=1.0, metavar="TIME",
                         help="how long the server may take to make room and to read (1s)")

    command = add("ping", run_ping)
    _add_client_options(command)
    command.add_argument("-c", "--count", type=number(1), default=0, metavar="N", help="end after so many calls")
    command.add_argument("-i", "--interval", type=duration, default=1.0, metavar="TIME", help="pause between two (1s)")
    command.add_argument("-s", "--size", type=number(1, MAX_PAYLOAD), default=64, metavar="BYTES",
                         help="of a request (64)")
    command.add_argument("-W", "--timeout", type=duration, default=1.0, metavar="TIME",
                         help="a call without answer for so long is lost (1s)")
    command.add_argument("--outstanding", type=number(1, 65536), default=1, metavar="N",
                         help="calls under way at the same time (1)")

    command = add("serve", run_serve)
    command.add_argument("names", nargs="+", metavar="NAME", help="name to serve under")
    answers = command.add_mutually_exclusive_group()
    answers.add_argument("--echo", action="store_true", help="answer with the request itself (the default)")
    answers.add_argument("--count", action="store_true", help="answer nothing, and print how much has come")
    command.add_argument("--print", action="store_true", help="print each request")
    command.add_argument("--limit", type=number(1), default=0, metavar="N", help="end after so many requests")
    command.add_argument("--group", metavar="GROUP", help="group that may connect, by name or number")
    command.add_argument("--replace", action="store_true", help="take the name even from a server that has it")
    command.add_argument("--json", action="store_true", help="answer in JSON, one value on each line")

    command = add("decode", run_decode)
    command.add_argument("file", nargs="?", default="-", metavar="FILE", help="recorded bytes (- for standard input)")
    command.add_argument("--data", dest="hex_data", metavar="HEX", help="the bytes themselves, in hex digits")
    command.add_argument("--kind", choices=("any", "frame", "packet"), default="any", help="what they are (any)")
    command.add_argument("--json", action="store_true", help="answer in JSON, one value on each line")
    options, rest = parser.parse_known_args(words)
    if len(rest) == 1 and not rest[0].startswith("-") and getattr(options, "data", rest) is None:
        options.data = rest.pop()  # behind the options
    if rest:
        parser.error(f"unrecognized arguments: {' '.join(rest)}")
    return options


def main(words: list[str] | None = None) -> int:
    """Runs a command; the exit status."""
    options = parse(words)
    run: Command = options.run
    try:
        return asyncio.run(run(options))
    except Failure as error:
        failure = error
    except Error as error:
        failure = explain(error, getattr(options, "name", "?"))
    except KeyboardInterrupt:
        return INTERRUPTED
    except BrokenPipeError:
        # Nobody reads the output any more, nor what is left of it at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FAILED
    diagnose(str(failure))
    return failure.status
