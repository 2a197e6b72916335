"""The command line of python3 -m tarvo. Options, output and exit status are those of tarvoctl."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import grp
import json
import os
import pathlib
import re
import signal
import sys
import time
from collections.abc import Callable, Coroutine
from typing import Any

from . import files
from ._version import __version__
from .client import LinkOpener, connect
from .decoder import Piece, decode
from .errors import Error, InvalidArgument, NoServer, RemoteClosed, TimedOut
from .frames import MAX_PAYLOAD
from .link import Link
from .requests import Request
from .server import serve

DONE, FAILED, USAGE, NO_SERVER, NO_ANSWER, FINDINGS, INTERRUPTED = 0, 1, 2, 3, 4, 5, 130
_EXIT_STATUS = "exit status: 0 done; 1 failed; 2 wrong usage; 3 no such server; 4 no answer in time; 130 interrupted."
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


def opener(options: Options) -> LinkOpener:
    """The link of a command to its server."""
    return connect(options.name, own=options.own, timeout=options.open_timeout)


# ----------------------------------------------------------------------------------------------------------- commands


async def run_call(options: Options) -> int:
    """Sends a request and prints the answer."""
    request, status = read_payload(options), DONE
    timeout = None if options.no_timeout else options.timeout
    async with opener(options) as link:
        for i in range(options.repeat):
            if i > 0:
                await asyncio.sleep(options.interval)
            begin = time.perf_counter()
            try:
                answer = await link.call(request, timeout)
            except TimedOut as error:
                failure = explain(error, options.name)
                diagnose(str(failure))
                status = failure.status
                continue
            print_answer(options, answer, time.perf_counter() - begin)
    return status


def print_answer(options: Options, answer: bytes, took: float) -> None:
    """One answer alone is passed on byte for byte, so that it can go into a file; several stand on lines each."""
    if options.json:
        put_json({"server": options.name, "time_us": took * 1e6, **payload_fields(answer)})
        return
    text = answer.hex().encode() if options.hex else answer
    line = options.hex or options.repeat != 1 or sys.stdout.isatty()
    sys.stdout.buffer.write(text + (b"\n" if line and not text.endswith(b"\n") else b""))
    sys.stdout.buffer.flush()


async def run_send(options: Options) -> int:
    """Sends one-way requests and ends when the server's process has read them all."""
    request, sent = read_payload(options), 0
    async with opener(options) as link:
        try:
            for sent in range(options.repeat):
                if sent > 0:
                    await asyncio.sleep(options.interval)
                async with asyncio.timeout(options.timeout):
                    await link.send(request)
            sent = options.repeat
            async with asyncio.timeout(options.timeout):
                await link.wait_read()
            read = True
        except TimeoutError:
            read = False
    if options.json:
        put_json({"server": options.name, "sent": sent, "size": len(request), "read": read})
    if not read:
        raise Failure(f"'{options.name}' has not read all of the {sent} requests in time", NO_ANSWER)
    return DONE


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


def duration_text(seconds: float) -> str:
    """As people read it."""
    for unit, length in (("ns", 1e-9), ("us", 1e-6), ("ms", 1e-3)):
        if seconds < length * 1000:
            return f"{seconds / length:.4g} {unit}"
    return f"{seconds:.4g} s"


class Pings:
    """The lines and the statistics of `ping`."""

    def __init__(self, options: Options) -> None:
        self.options = options
        self.begun = 0
        self.times: list[float] = []
        self.lost = 0

    def answer(self, sequence: int, took: float) -> None:
        """A call was answered."""
        self.times.append(took)
        if self.options.json:
            put_json({"seq": sequence, "size": self.options.size, "time_us": took * 1e6})
        else:
            put(f"{self.options.size} bytes to {self.options.name}: seq={sequence} time={duration_text(took)}")

    def loss(self, sequence: int, text: str) -> None:
        """A call was not."""
        self.lost += 1
        if self.options.json:
            put_json({"seq": sequence, "size": self.options.size, "error": text})
        else:
            put(f"seq={sequence} lost: {text}")

    def finish(self, total: float) -> int:
        """The statistics, and the exit status."""
        times, calls = sorted(self.times), len(self.times) + self.lost
        summary = {"calls": calls, "answers": len(times), "lost": self.lost}
        loss = 100.0 * self.lost / calls if calls else 0.0
        points: dict[str, float] = {}
        if times:
            points = {
                "min": times[0],
                "mean": sum(times) / len(times),
                "p50": times[len(times) // 2],
                "p99": times[len(times) * 99 // 100],
                "max": times[-1],
            }
        if self.options.json:
            values = {f"{name}_us": value * 1e6 for name, value in points.items()}
            put_json({"summary": {"server": self.options.name, **summary, "loss_percent": loss, **values}})
        else:
            put(f"\n--- {self.options.name} ping statistics ---")
            put(f"{calls} calls, {len(times)} answers, {self.lost} lost ({loss:.4g}%), time {duration_text(total)}")
            if points:
                put("/".join(points) + " = " + " / ".join(map(duration_text, points.values())))
        return DONE if times else NO_ANSWER


async def run_ping(options: Options) -> int:
    """Calls a server again and again and times the answers."""
    pings = Pings(options)
    begin = time.perf_counter()
    request = b"p" * options.size
    async with opener(options) as link:
        stopped = asyncio.Event()
        on_signals(stopped.set)
        lanes = [asyncio.create_task(_ping_lane(options, link, request, pings)) for _ in range(options.outstanding)]
        stop = asyncio.create_task(stopped.wait())
        ended = asyncio.create_task(_all(lanes))
        await asyncio.wait([stop, ended], return_when="FIRST_COMPLETED")
        for task in (*lanes, stop):
            task.cancel()
        await asyncio.gather(*lanes, stop, ended, return_exceptions=True)
    return pings.finish(time.perf_counter() - begin)


async def _all(lanes: list[asyncio.Task[None]]) -> bool:
    await asyncio.gather(*lanes)
    return True


async def _ping_lane(options: Options, first: Link, request: bytes, pings: Pings) -> None:
    """One call after another. A server that goes away and comes back is called again."""
    while options.count == 0 or pings.begun < options.count:
        pings.begun += 1
        sequence, begin = pings.begun, time.perf_counter()
        try:
            await (await _come_back(options, first)).call(request, options.timeout)
            pings.answer(sequence, time.perf_counter() - begin)
        except Error as error:
            pings.loss(sequence, str(explain(error, options.name)))
        if options.count == 0 or pings.begun < options.count:
            await asyncio.sleep(options.interval)


_again: dict[int, Link] = {}


async def _come_back(options: Options, first: Link) -> Link:
    link = _again.get(id(first), first)
    if not link.is_open:
        link = _again[id(first)] = await opener(options)
    return link


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


# ---------------------------------------------------------------------------------------------------- the command line


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
