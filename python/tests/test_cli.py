"""python3 -m tarvo."""

import asyncio
import io
import json
import os
import signal
import subprocess
import sys

import pytest
from conftest import LIMIT_S, eventually, fifo_descriptors

import tarvo
from tarvo import cli, cli_parts, cli_serve, frames, packets

pytestmark = pytest.mark.usefixtures("directory")


async def run(*words, stdin=b""):
    """The exit status, output and errors of a command in a process of its own."""
    process = await asyncio.create_subprocess_exec(
        sys.executable,
        "-m",
        "tarvo",
        *words,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    async with asyncio.timeout(LIMIT_S / 2):
        output, errors = await process.communicate(stdin)
    return process.returncode, output, errors.decode()


async def run_here(capfdbinary, *words):
    """The same in this process, on a thread with a loop of its own: quicker."""
    status = await asyncio.to_thread(cli.main, list(words))
    output, errors = capfdbinary.readouterr()
    return status, output, errors.decode()


def echo(request):
    return request.payload


@pytest.mark.usefixtures("own_programs")
async def test_call_passes_the_answer_on_byte_for_byte(tmp_path):
    async with tarvo.serve("s", echo):
        assert await run("call", "s", "hello") == (0, b"hello", "")
        assert await run("call", "s", stdin=b"\x00\xff") == (0, b"\x00\xff", "")
        (tmp_path / "file").write_bytes(b"of a file")
        assert await run("call", "s", "--file", str(tmp_path / "file")) == (0, b"of a file", "")


async def test_call_has_hex_repeats_and_json(capfdbinary):
    async with tarvo.serve("s", echo):
        assert await run_here(capfdbinary, "call", "s", "--hex", "00:ff 41") == (0, b"00ff41\n", "")
        assert await run_here(capfdbinary, "call", "s", "x", "--repeat", "2", "--interval", "1ms") == (0, b"x\nx\n", "")
        status, output, _ = await run_here(capfdbinary, "call", "s", "x", "--json", "--no-timeout")
        answer = json.loads(output)
        assert (status, answer["text"], answer["hex"], answer["size"], answer["server"]) == (0, "x", "78", 1, "s")
        assert answer["time_us"] > 0


async def test_failures_have_a_line_and_a_status(capfdbinary, directory):
    status, output, errors = await run_here(capfdbinary, "call", "nobody", "x")
    assert (status, output) == (3, b"") and "no server runs under the name 'nobody'" in errors
    async with tarvo.serve("s", lambda request: None):
        assert (await run_here(capfdbinary, "call", "s", "x", "--timeout", "10ms"))[::2] == (
            4,
            "tarvo: 's' did not answer in time\n",
        )
        assert (await run_here(capfdbinary, "call", "s", "x" * 4001))[0] == 2
        assert (await run_here(capfdbinary, "call", "s", "xy", "--hex"))[0] == 2
        assert (await run_here(capfdbinary, "call", "s", "--file", "/nowhere"))[0] == 2
        assert (await run_here(capfdbinary, "call", "a|b", "x"))[0] == 2
    async with tarvo.serve("s", lambda request: request.link.close()):
        status, _, errors = await run_here(capfdbinary, "call", "s", "x", "--as", "other")
        assert status == 1 and "has closed the pipe or is gone" in errors
        os.chmod(directory.path / "s", 0)
        assert cli_parts.explain(tarvo.AccessDenied.of("no"), "s").status == 1


@pytest.mark.parametrize(
    "words",
    [
        [],
        ["call"],
        ["call", "s", "x", "--timeout", "soon"],
        ["call", "s", "x", "--repeat", "0"],
        ["ping", "s", "-s", "4001"],
        ["call", "s", "x", "--timeout", "2min", "--no-timeout"],
    ],
)
def test_wrong_usage_is_told(words):
    with pytest.raises(SystemExit) as ended:
        cli.main(words)
    assert ended.value.code == 2


@pytest.mark.parametrize(
    ("text", "seconds"), [("250ms", 0.25), ("1.5s", 1.5), ("7", 0.007), ("5us", 5e-6), ("2min", 120), (".5s", 0.5)]
)
def test_times_have_the_units_of_the_tool(text, seconds):
    assert cli_parts.duration(text) == pytest.approx(seconds)


async def test_send_ends_when_the_server_has_read_it_all(capfdbinary):
    came = []
    async with tarvo.serve("s", lambda request: came.append(request.payload)):
        assert (await run_here(capfdbinary, "send", "s", "x", "--repeat", "300"))[0] == 0
        assert came == [b"x"] * 300
        words = ("send", "s", "x", "--json", "--repeat", "2", "--interval", "1ms")
        status, output, _ = await run_here(capfdbinary, *words)
        assert (status, json.loads(output)) == (0, {"server": "s", "sent": 2, "size": 1, "read": True})


async def test_send_to_a_server_that_does_not_read_says_so(capfdbinary):
    async with tarvo.serve("s") as server:
        server.on_client(lambda link: asyncio.Event().wait())
        status, output, errors = await run_here(capfdbinary, "send", "s", "x", "--timeout", "20ms", "--json")
        assert status == 4 and "has not read all" in errors and json.loads(output)["read"] is False


async def test_ping_tells_times_and_losses(capfdbinary):
    async with tarvo.serve("s", echo):
        status, output, _ = await run_here(capfdbinary, "ping", "s", "-c", "3", "-i", "1ms")
        lines = output.decode().splitlines()
        assert status == 0 and lines[0].startswith("64 bytes to s: seq=1 time=")
        assert "3 calls, 3 answers, 0 lost (0%)" in lines[-2] and lines[-1].startswith("min/mean/p50/p99/max = ")
        words = ("ping", "s", "-c", "50", "-i", "0", "--outstanding", "8", "--json")
        status, output, _ = await run_here(capfdbinary, *words)
        summary = json.loads(output.splitlines()[-1])["summary"]
        assert (summary["calls"], summary["answers"], summary["lost"]) == (50, 50, 0)
        assert json.loads(output.splitlines()[0])["size"] == 64
    async with tarvo.serve("s", lambda request: None):
        status, output, _ = await run_here(capfdbinary, "ping", "s", "-c", "2", "-i", "0", "-W", "5ms")
        assert status == 4 and b"seq=1 lost: 's' did not answer in time" in output
        status, output, _ = await run_here(capfdbinary, "ping", "s", "-c", "1", "-W", "5ms", "--json")
        assert status == 4 and b'"loss_percent": 100.0' in output


@pytest.mark.usefixtures("own_programs")
async def test_ping_comes_back_to_a_server_that_was_gone():
    async with tarvo.serve("s", lambda request: request.link.close() if request.payload else None) as server:
        process = await asyncio.create_subprocess_exec(
            sys.executable, "-m", "tarvo", "ping", "s", "-i", "1ms", stdout=subprocess.PIPE
        )
        assert b"lost: 's' has closed the pipe or is gone" in await process.stdout.readline()
        server.on_request(echo)
        while b"64 bytes" not in await process.stdout.readline():
            pass
        process.send_signal(signal.SIGINT)
        output, _ = await process.communicate()
        assert process.returncode == 0 and b"ping statistics" in output


@pytest.mark.usefixtures("own_programs")
async def test_serve_echoes_counts_and_prints():
    process = await asyncio.create_subprocess_exec(
        sys.executable, "-m", "tarvo", "serve", "one", "two", "--print", "--limit", "3", "--group", str(os.getgid()),
        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
    )  # fmt: skip
    assert b"serving as 'one'" in await process.stderr.readline()
    assert b"serving as 'two'" in await process.stderr.readline()
    for name in ("one", "two", "one"):
        async with tarvo.connect(name) as link:
            assert await link.call(b"to " + name.encode(), 20) == b"to " + name.encode()
    output, errors = await process.communicate()
    assert process.returncode == 0 and output == b"to one\nto two\nto one\n"
    assert b"'one': 2 requests, 12 bytes, 2 answers" in errors and b"connected to 'one'" in errors


@pytest.mark.parametrize("options", [["--print"], ["--print", "--json"], ["--count"], ["--echo", "--replace"]])
async def test_serve_ends_after_as_many_requests_as_are_asked_for(capfdbinary, directory, options):
    serving = asyncio.create_task(run_here(capfdbinary, "serve", "s", "--limit", "2", *options))
    # The file is there a little before somebody reads it.
    await eventually(lambda: len(fifo_descriptors()) == 2)
    async with tarvo.connect("s") as link:
        for _ in range(2):
            await link.send(b"line\n")
        await link.wait_closed()
    status, output, errors = await serving
    assert status == 0
    if "--json" in options:
        kinds = [json.loads(line)["event"] for line in output.splitlines()]
        assert kinds == ["serving", "connected", "request", "request", "ended"]
    else:
        assert output == (b"line\nline\n" if "--print" in options else b"")
        assert "'s': 2 requests, 10 bytes, " in errors


@pytest.mark.usefixtures("own_programs")
async def test_serve_tells_events_in_json_and_ends_on_a_signal():
    process = await asyncio.create_subprocess_exec(
        sys.executable, "-m", "tarvo", "serve", "s", "--count", "--json", "--print", stdout=subprocess.PIPE
    )

    async def event():
        return json.loads(await process.stdout.readline())

    assert (await event())["event"] == "serving"
    async with tarvo.connect("s", own="me") as link:
        assert (await event())["client"] == link.own
        await link.send(b"x", id=7)
        request = await event()
        assert (request["event"], request["id"], request["text"]) == ("request", 7, "x")
        assert (await event()) == {"event": "counts", "clients": 1, "requests": 1, "answers": 0, "bytes": 1}
    assert (await event())["event"] == "closed"
    process.terminate()
    assert (await event())["event"] == "ended"
    assert await process.wait() == 0


@pytest.mark.usefixtures("own_programs")
async def test_serve_refuses_what_cannot_be_served():
    async with tarvo.serve("taken"):
        status, _, errors = await run("serve", "taken")
        assert status == 1 and "cannot serve as 'taken'" in errors
        assert (await run("serve", "a|b"))[0] == 2
        assert (await run("serve", "s", "--group", "no-such-group"))[0] == 2
        assert cli_serve.group_of("root") == 0


def test_decode_shows_frames_and_faults(capsys, monkeypatch, tmp_path):
    data = frames.encode(1, 0, b"ok", written_us=0) + b"?" + packets.connect_packet("abc", 1, 2)
    assert cli.main(["decode", "--data", data.hex()]) == 5
    output = capsys.readouterr().out
    assert "0x0 frame, 34 bytes" in output and "0x22 garbage, 1 bytes -- no magic number" in output
    monkeypatch.setattr(sys, "stdin", io.TextIOWrapper(io.BytesIO(data[:34])))
    assert cli.main(["decode", "--json"]) == 0
    assert json.loads(capsys.readouterr().out)["checksum_right"] is True
    (tmp_path / "recorded").write_bytes(data[35:])
    assert cli.main(["decode", "--kind", "packet", "--json", str(tmp_path / "recorded")]) == 0
    assert json.loads(capsys.readouterr().out)["fields"]["pid"] == 2
    assert cli.main(["decode", str(tmp_path / "nowhere")]) == 2
    assert cli.main(["decode", "--data", "x"]) == 2


def test_interrupt_has_its_status(monkeypatch):
    monkeypatch.setattr(cli.asyncio, "run", lambda work: work.close() or raise_interrupt())
    assert cli.main(["call", "s", "x"]) == 130


def raise_interrupt():
    raise KeyboardInterrupt


def test_durations_read_well():
    assert [cli_parts.duration_text(value) for value in (5e-9, 1.5e-6, 2e-3, 3.0)] == ["5 ns", "1.5 us", "2 ms", "3 s"]


async def test_help_helps():
    status, output, _ = await run("--help")
    assert status == 0 and b"call" in output and b"exit status" in output
    assert (await run("--version"))[1].startswith(b"tarvo 1.")
