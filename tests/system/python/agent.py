#!/usr/bin/env python3
"""The peer program of the system tests once more, over the Python package.

It obeys the line protocol of tests/system/peers/peer.cpp: one command a line in, one "= " reply for each and "! "
events out, with the results that a program over the library would give.
"""

import asyncio
import errno
import itertools
import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "python"))

import tarvo  # noqa: E402

links = {}
openings = {}  # of links that are not waited for, until they are used
numbers = itertools.count(2)
servers = []
tasks = set()


def say(line):
    """One write, so that lines of several origins do not mix."""
    os.write(1, line.encode() + b"\n")


def number_of(link):
    """The number of a link; a new one for a link that is seen for the first time."""
    for number, known in links.items():
        if known is link:
            return number
    number = next(numbers)
    links[number] = link
    return number


def digest(payload):
    """Length and 64-bit FNV-1a."""
    value = 0xCBF29CE484222325
    for byte in payload:
        value = ((value ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return f"{len(payload)}:{value:016x}"


def fill(size, seed):
    """Bytes of every value."""
    return bytes((i * 7 + i // 251 + seed * 13) & 0xFF for i in range(size))


def payload_of(words):
    """data=TEXT, or fill=SIZE with seed=NUMBER."""
    if "fill" in words:
        return fill(int(words["fill"]), int(words.get("seed", 0)))
    return words.get("data", "").encode()


def on_request(callback):
    """What is done with requests."""

    async def echo(request):
        try:
            await request.reply(request.payload)
        except OSError as error:
            say(f"! unanswered fd={number_of(request.link)} result={-error.errno}")

    def report(request):
        say(f"! request fd={number_of(request.link)} id={request.id} {digest(request.payload)}")

    return {"none": None, "echo": echo}.get(callback, report)


def on_closed(link):
    """The remote is gone."""
    number = number_of(link)
    del links[number]
    say(f"! gone fd={number}")


async def serve(words):
    """Starts a server."""
    server = await tarvo.serve(words["self"], on_request(words.get("callback", "none")))
    server.on_client(lambda link: say(f"! client fd={number_of(link)} name={link.remote}"))
    server.on_closed(on_closed)
    servers.append(server)
    return 0


def seconds(words, otherwise=None):
    """The time-out, in the unit that Python likes."""
    return int(words["timeout"]) / 1000 if "timeout" in words else otherwise


async def opened(opener, waits=True):
    """The number of a link."""
    opener.link.on_closed(on_closed)
    if waits:
        await opener
        return number_of(opener.link)
    number = number_of(opener.link)
    openings[number] = begin(opener.link.open())
    return number


async def client(words):
    """Connects to a server."""
    handler = on_request(words.get("callback", "none"))
    return await opened(
        tarvo.connect(words["target"], own=words["self"], timeout=seconds(words, 10), on_request=handler)
    )


async def open_link(words):
    """Opens a link by arrangement. The side that creates the files does not wait for the other."""
    handler = on_request(words.get("callback", "none"))
    creates = words["mode"] == "1"
    arranged = tarvo.arrange(
        words["target"], creates=creates, own=words["self"], timeout=seconds(words, 10), on_request=handler
    )
    return await opened(arranged, waits=not creates)


async def link_of(words):
    """The link of a command, once it is open."""
    number = int(words["fd"])
    if number in openings:
        await openings.pop(number)
    return links[number]


async def send(words):
    """One-way requests with ids that count up."""
    link = await link_of(words)
    for i in range(int(words.get("times", 1))):
        link.send_nowait(payload_of(words), id=(int(words.get("id", 0)) + i) & 0xFFFFFFFF)
    return 0


async def fillup(words):
    """Sends until it is refused."""
    link = await link_of(words)
    for count in range(100000):
        try:
            link.send_nowait(payload_of(words), id=count)
        except OSError as error:
            return f"{count} {-error.errno}"
    return "100000 0"


async def respond(words):
    """Answers a request."""
    (await link_of(words)).reply_nowait(int(words["id"]), payload_of(words))
    return 0


async def call(words):
    """The result, and what came back."""
    try:
        answer = await (await link_of(words)).call(payload_of(words), seconds(words))
    except KeyError:
        return str(-errno.ENOENT)
    except OSError as error:
        return str(-error.errno)
    return "0 " + (answer.decode() if "text" in words else digest(answer))


async def start(words):
    """A call that is not waited for."""

    async def tell():
        say(f"! called tag={words['tag']} result={await call(words)}")

    begin(tell())
    return 0


def begin(work):
    """A task that is not forgotten."""
    task = asyncio.get_running_loop().create_task(work)
    tasks.add(task)
    task.add_done_callback(tasks.discard)
    return task


async def close(words):
    """Closes a link, if there is one."""
    link = links.pop(int(words["fd"]), None)
    if link:
        link.close()
    return 0


COMMANDS = {
    "serve": serve,
    "client": client,
    "open": open_link,
    "send": send,
    "fillup": fillup,
    "respond": respond,
    "call": call,
    "start": start,
    "close": close,
}


async def obey(line):
    """The reply to a command."""
    word, *rest = line.split()
    words = dict(part.partition("=")[::2] for part in rest)
    try:
        return str(await COMMANDS[word](words)) if word in COMMANDS else "usage"
    except KeyError:
        return str(-errno.ENOENT)
    except OSError as error:
        return str(-error.errno)


async def main():
    """Obeys until its input ends, and leaves no file."""
    loop = asyncio.get_running_loop()
    lines = asyncio.StreamReader()
    await loop.connect_read_pipe(lambda: asyncio.StreamReaderProtocol(lines), sys.stdin)
    say("! ready")
    while line := await lines.readline():
        say("= " + await obey(line.decode()))
    for server in servers:
        server.close()
    for link in list(links.values()):
        link.close()
    await asyncio.gather(*tasks, return_exceptions=True)


if __name__ == "__main__":
    asyncio.run(main())
