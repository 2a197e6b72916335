"""The commands of python3 -m tarvo that talk to a server: call, send and ping."""

from __future__ import annotations

import asyncio
import sys
import time

from .cli_parts import (
    DONE,
    NO_ANSWER,
    Failure,
    Options,
    diagnose,
    duration_text,
    explain,
    on_signals,
    payload_fields,
    put,
    put_json,
    read_payload,
)
from .client import LinkOpener, connect
from .errors import Error, TimedOut
from .link import Link


def opener(options: Options) -> LinkOpener:
    """The link of a command to its server."""
    return connect(options.name, own=options.own, timeout=options.open_timeout)


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
