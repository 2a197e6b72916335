#!/usr/bin/env python3
"""The peer program of the system tests once more, over the pure Python peer of examples/python.

It obeys the line protocol of tests/system/peers/peer.cpp: one command a line in, one "= " reply for each and "! "
events out, with the results that a program over the library would give.
"""

import errno
import itertools
import os
import pathlib
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "examples/python"))

from tarvo_peer import Pipe, Server  # noqa: E402

pipes = {}
numbers = itertools.count(2)
servers = []
threads = []
lock = threading.Lock()


def say(line):
    """One write, so that lines of several threads do not mix."""
    os.write(1, line.encode() + b"\n")


def handle_of(pipe):
    """The number of a pipe; a new one for a pipe that is seen for the first time."""
    with lock:
        for number, known in pipes.items():
            if known is pipe:
                return number
        number = next(numbers)
        pipes[number] = pipe
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


def code_of(error):
    """The result of the library that says the same."""
    if isinstance(error, ConnectionRefusedError):
        return -errno.ENXIO
    if isinstance(error, OSError):
        return -error.errno
    return {ValueError: -errno.EINVAL, KeyError: -errno.ENOENT}[type(error)]


def on_request(callback):
    """What is done with requests."""

    def handle(request):
        if callback == "echo":
            try:
                request.reply(request.payload)
            except OSError as error:
                say(f"! unanswered fd={handle_of(request.pipe)} result={code_of(error)}")
        else:
            say(f"! request fd={handle_of(request.pipe)} id={request.id} {digest(request.payload)}")

    return None if callback == "none" else handle


def on_closed(pipe):
    """The remote is gone; the pipe is gone after this."""
    number = handle_of(pipe)
    pipe.close()  # before it is forgotten: the end of the process waits for those that it knows
    with lock:
        del pipes[number]
    say(f"! gone fd={number}")


def serve(words):
    """Starts the server."""
    servers.append(
        Server(
            words["self"],
            on_request(words.get("callback", "none")),
            on_client=lambda pipe: say(f"! client fd={handle_of(pipe)} name={pipe.remote}"),
            on_closed=on_closed,
        )
    )
    return 0


def seconds(words, otherwise=None):
    """The time-out, in the unit that Python likes."""
    return int(words["timeout"]) / 1000 if "timeout" in words else otherwise


def client(words):
    """Connects to a server."""
    handler = on_request(words.get("callback", "none"))
    return handle_of(Pipe.connect(words["target"], words["self"], seconds(words, 10), handler, on_closed))


def open_pipe(words):
    """Opens a pipe by arrangement."""
    handler = on_request(words.get("callback", "none"))
    creates = words["mode"] == "1"
    return handle_of(Pipe(words["self"], words["target"], creates, seconds(words, 10), handler, on_closed))


def pipe_of(words):
    """The pipe of a command."""
    with lock:
        return pipes[int(words["fd"])]


def send(words):
    """One-way requests with ids that count up."""
    for i in range(int(words.get("times", 1))):
        pipe_of(words).send(payload_of(words), (int(words.get("id", 0)) + i) & 0xFFFFFFFF)
    return 0


def fillup(words):
    """Sends until it is refused."""
    for count in range(100000):
        try:
            pipe_of(words).send(payload_of(words), count)
        except OSError as error:
            return f"{count} {code_of(error)}"
    return "100000 0"


def respond(words):
    """Answers a request."""
    pipe_of(words).reply(int(words["id"]), payload_of(words))
    return 0


def call(words):
    """The result, and what came back."""
    try:
        answer = pipe_of(words).call(payload_of(words), seconds(words))
    except (OSError, ValueError, KeyError) as error:
        return str(code_of(error))
    return "0 " + (answer.decode() if "text" in words else digest(answer))


def start(words):
    """A call on a thread of its own."""
    tag = words["tag"]
    threads.append(threading.Thread(target=lambda: say(f"! called tag={tag} result={call(words)}"), daemon=True))
    threads[-1].start()
    return 0


def close(words):
    """Closes a pipe, if there is one."""
    with lock:
        pipe = pipes.pop(int(words["fd"]), None)
    if pipe:
        pipe.close()
    return 0


COMMANDS = {
    "serve": serve,
    "client": client,
    "open": open_pipe,
    "send": send,
    "fillup": fillup,
    "respond": respond,
    "call": call,
    "start": start,
    "close": close,
}


def obey(line):
    """The reply to a command."""
    word, *rest = line.split()
    words = dict(part.partition("=")[::2] for part in rest)
    try:
        return str(COMMANDS[word](words)) if word in COMMANDS else "usage"
    except (OSError, ValueError, KeyError) as error:
        return str(code_of(error))


def main():
    """Obeys until its input ends, and leaves no file."""
    say("! ready")
    for line in sys.stdin:
        say("= " + obey(line))
    for thread in threads:
        thread.join()
    for server in servers:
        server.close()
    for pipe in list(pipes.values()):
        pipe.close()


if __name__ == "__main__":
    main()
