"""What the commands of python3 -m tarvo share: how they read words, print, and tell what is wrong."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import json
import os
import re
import signal
import sys
from collections.abc import Callable
from typing import Any

from . import files
from .errors import InvalidArgument, NoServer, RemoteClosed, TimedOut
from .frames import MAX_PAYLOAD

DONE, FAILED, USAGE, NO_SERVER, NO_ANSWER, FINDINGS, INTERRUPTED = 0, 1, 2, 3, 4, 5, 130
_UNITS = {"": 1e-3, "us": 1e-6, "ms": 1e-3, "s": 1.0, "min": 60.0}
_DAY_S = 86400.0

Options = argparse.Namespace


class Failure(Exception):
    """Ends the command: what to say, and the exit status."""

    def __init__(self, text: str, status: int) -> None:
        super().__init__(text)
        self.status = status


def diagnose(text: str) -> None:
    """A line on standard error."""
    print(f"tarvo: {text}", file=sys.stderr, flush=True)


def put(text: str) -> None:
    """A line on standard output."""
    print(text, flush=True)


def put_json(value: dict[str, Any]) -> None:
    """A value on a line of its own."""
    put(json.dumps(value, sort_keys=True, ensure_ascii=False))


def duration(text: str) -> float:
    """Seconds in a TIME: a number with us, ms, s or min; a number alone is milliseconds."""
    match = re.fullmatch(r"(\d+\.?\d*|\.\d+)(us|ms|s|min|)", text)
    if match is None or float(match[1]) * _UNITS[match[2]] > _DAY_S:
        raise argparse.ArgumentTypeError(f"'{text}' is no TIME such as 250ms or 1.5s, a day at most")
    return float(match[1]) * _UNITS[match[2]]


def number(lowest: int, highest: int | None = None) -> Callable[[str], int]:
    """Reads numbers of a range."""

    def read(text: str) -> int:
        if not text.isdecimal() or int(text) < lowest or (highest is not None and int(text) > highest):
            limits = f"at least {lowest}" if highest is None else f"{lowest} to {highest}"
            raise argparse.ArgumentTypeError(f"'{text}' is not a number, {limits}")
        return int(text)

    return read


def payload_fields(data: bytes) -> dict[str, Any]:
    """How JSON has bytes."""
    fields: dict[str, Any] = {"size": len(data), "hex": data.hex()}
    with contextlib.suppress(UnicodeDecodeError):
        fields["text"] = data.decode()
    return fields


def bytes_of_hex(text: str) -> bytes:
    """The bytes that hex digits stand for; blanks, line ends and colons between them are skipped."""
    try:
        return bytes.fromhex(text.replace(":", " "))
    except ValueError:
        raise Failure("the data is not made of pairs of hex digits", USAGE) from None


def read_payload(options: Options) -> bytes:
    """What is to be sent: DATA, else the file, else standard input."""
    if options.data is not None:
        data = os.fsencode(options.data)
    elif options.file in (None, "-"):
        if options.file is None and sys.stdin.isatty():
            diagnose("reading the request from standard input; Ctrl-D ends it")
        data = sys.stdin.buffer.read(16 * MAX_PAYLOAD)
    else:
        try:
            with open(options.file, "rb") as file:
                data = file.read(16 * MAX_PAYLOAD)
        except OSError as error:
            raise Failure(f"{options.file}: {error.strerror}", USAGE) from None
    if options.hex:
        data = bytes_of_hex(data.decode("ascii", "replace"))
    if not 1 <= len(data) <= MAX_PAYLOAD:
        raise Failure(f"a request has 1 to {MAX_PAYLOAD} bytes, not {len(data)}", USAGE)
    return data


def explain(error: OSError, server: str) -> Failure:
    """A failure of the library, as the user of a server sees it."""
    if isinstance(error, NoServer):
        missing = f": {files.directory()} is missing" if not os.path.isdir(files.directory()) else ""
        return Failure(f"no server runs under the name '{server}'{missing}", NO_SERVER)
    if isinstance(error, TimedOut):
        return Failure(f"'{server}' did not answer in time", NO_ANSWER)
    if isinstance(error, RemoteClosed):
        return Failure(f"'{server}' has closed the pipe or is gone", FAILED)
    if isinstance(error, InvalidArgument):
        return Failure(f"{error.strerror}", USAGE)
    return Failure(f"'{server}': {error.strerror}", FAILED)


def on_signals(stop: Callable[[], None]) -> None:
    """Has Ctrl-C and the like end a command cleanly."""
    with contextlib.suppress(ValueError, RuntimeError):  # on the main thread only
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            asyncio.get_running_loop().add_signal_handler(number, stop)


def duration_text(seconds: float) -> str:
    """As people read it."""
    for unit, length in (("ns", 1e-9), ("us", 1e-6), ("ms", 1e-3)):
        if seconds < length * 1000:
            return f"{seconds / length:.4g} {unit}"
    return f"{seconds:.4g} s"
