#!/usr/bin/python3
"""Compares calls and one-way requests of asyncio programs: this package, zmq, grpc.aio and dbus-next, side by side.

Each contestant has its server and its client in processes of their own. Every round measures all of them in an order
that is shuffled anew; the figures are medians over the rounds.
"""

import argparse
import asyncio
import json
import os
import platform
import random
import statistics
import subprocess
import sys
import time

import peers

WARM_UP = 200


async def measure_call(client, seconds, size):
    """Median and 99th percentile of a call, in us."""
    payload = bytes([peers.ECHO]) + bytes(size - 1)
    for _ in range(WARM_UP):
        await client.call(payload)
    times, end = [], time.perf_counter() + seconds
    while (begin := time.perf_counter()) < end:
        if await client.call(payload) != payload:
            raise RuntimeError("a wrong answer")
        times.append(time.perf_counter() - begin)
    times.sort()
    return {"median_us": times[len(times) // 2] * 1e6, "p99_us": times[len(times) * 99 // 100] * 1e6}


async def measure_outstanding(client, seconds, size, outstanding=64):
    """Calls a second with so many under way."""
    payload = bytes([peers.ECHO]) + bytes(size - 1)
    done = 0

    async def lane(end):
        nonlocal done
        while time.perf_counter() < end:
            await client.call(payload)
            done += 1

    async def all_lanes(length):
        end = time.perf_counter() + length
        await asyncio.gather(*(lane(end) for _ in range(outstanding)))

    await all_lanes(min(0.2, seconds))
    done, begin = 0, time.perf_counter()
    await all_lanes(seconds)
    return {"rate": done / (time.perf_counter() - begin)}


async def measure_one_way(client, seconds, size):
    """Requests a second that the server has handled when an answer after the last of them has come."""
    payload, question = bytes([peers.ONE_WAY]) + bytes(size - 1), bytes([peers.COUNT])
    before = int(await client.call(question))
    begin = time.perf_counter()
    sent = 0
    while time.perf_counter() - begin < seconds:
        for _ in range(100):
            await client.send(payload)
        sent += 100
        if sent % 5000 == 0:  # no contestant may pile up what it has not yet sent
            await client.call(question)
    count = int(await client.call(question))
    calls = sent // 5000
    took = time.perf_counter() - begin
    if count - before - calls - 1 != sent:
        raise RuntimeError(f"{sent} were sent and {count - before - calls - 1} handled")
    return {"rate": sent / took}


SCENARIOS = {"call": measure_call, "outstanding64": measure_outstanding, "oneway": measure_one_way}


async def run_client(contestant, scenario, seconds, size):
    """One measurement, of a server that is there already."""
    await contestant.connect()
    try:
        return await SCENARIOS[scenario](contestant, seconds, size)
    finally:
        await contestant.close()


def role(words):
    """What the processes of a measurement do: `--role server|client NAME PLACE [SCENARIO SECONDS SIZE]`."""
    part, name, place, *rest = words
    contestant = peers.CONTESTANTS[name](place)
    if part == "server":
        asyncio.run(contestant.serve(lambda: print("ready", flush=True)))
    else:
        print(json.dumps(asyncio.run(run_client(contestant, rest[0], float(rest[1]), int(rest[2])))))


def measure(name, scenario, seconds, size):
    """One measurement in processes of its own."""
    place = peers.place()
    command = [sys.executable, __file__, "--role"]
    kind = peers.CONTESTANTS[name]
    broker = kind.broker(place) if hasattr(kind, "broker") else None
    server = subprocess.Popen([*command, "server", name, place], stdout=subprocess.PIPE, text=True)
    try:
        if server.stdout.readline() != "ready\n":
            raise RuntimeError(f"the server of {name} does not start")
        words = [*command, "client", name, place, scenario, str(seconds), str(size)]
        return json.loads(subprocess.run(words, stdout=subprocess.PIPE, check=True, timeout=60 + 5 * seconds).stdout)
    finally:
        for process in (server, broker):
            if process is not None:
                process.kill()
                process.wait()
        server.stdout.close()
        peers.remove(place)


def run(options):
    """All rounds; name -> scenario -> field -> values."""
    chance = random.Random(options.seed)
    found = {}
    for number in range(options.rounds):
        for scenario in options.scenarios:
            for name in chance.sample(options.contestants, len(options.contestants)):
                result = measure(name, scenario, options.seconds, options.size)
                print(f"round {number + 1}: {scenario} of {name}: {result}", file=sys.stderr)
                for field, value in result.items():
                    found.setdefault(name, {}).setdefault(f"{scenario} {field}", []).append(value)
    return {name: {key: statistics.median(values) for key, values in one.items()} for name, one in found.items()}


COLUMNS = {
    "call median_us": "call, median us",
    "call p99_us": "call, p99 us",
    "outstanding64 rate": "64 outstanding, calls/s",
    "oneway rate": "one-way, requests/s",
}


def table(figures, options):
    """The figures as Markdown, and how this package compares with the best of the others."""
    keys = [key for key in COLUMNS if any(key in one for one in figures.values())]
    lines = [f"{platform.machine()}, {os.cpu_count()} cores, Python {platform.python_version()}, {options.size} bytes, "
             f"median of {options.rounds} rounds of {options.seconds:g} s", "",
             "| |" + "|".join(COLUMNS[key] for key in keys) + "|", "|---" * (len(keys) + 1) + "|"]
    for name, one in figures.items():
        lines.append(f"|{name}|" + "|".join(f"{one[key]:.0f}" if key in one else "" for key in keys) + "|")
    others = [one for name, one in figures.items() if name != "tarvo"]
    if "tarvo" in figures and others:
        ratios = []
        for key in keys:
            best = (min if key.endswith("us") else max)(one[key] for one in others)
            ratios.append(f"{figures['tarvo'][key] / best:.2f}")
        lines.append("|tarvo / best of the others|" + "|".join(ratios) + "|")
    return "\n".join(lines)


def arguments():
    """The command line."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=1.0, help="of each measurement (default: 1)")
    parser.add_argument("--size", type=int, default=64, help="bytes of a request (default: 64)")
    parser.add_argument("--seed", type=int, default=None, help="of the order")
    parser.add_argument("--contestants", type=lambda text: text.split(","), default=list(peers.CONTESTANTS))
    parser.add_argument("--scenarios", type=lambda text: text.split(","), default=list(SCENARIOS))
    parser.add_argument("--json", action="store_true", help="figures alone, in JSON")
    return parser.parse_args()


def main():
    """Measures, or plays one part of a measurement."""
    if sys.argv[1:2] == ["--role"]:
        role(sys.argv[2:])
        return
    options = arguments()
    figures = run(options)
    print(json.dumps(figures) if options.json else table(figures, options))


if __name__ == "__main__":
    main()
