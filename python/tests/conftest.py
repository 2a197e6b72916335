"""What the tests of the package share: the programs of the build, and that nothing is left behind."""

import asyncio
import contextlib
import faulthandler
import gc
import os
import pathlib
import resource
import signal
import subprocess
import sys
import threading

import pytest

import tarvo
from tarvo import files, watch

pytest_plugins = ["tarvo.testing", "pytester"]

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("TARVO_BUILD", ROOT / "build/release"))
LIBRARY_PEER = BUILD / "tests/system/system_peer"
LOOP_PEER = BUILD / "tests/system/system_loop_peer"
PYTHON_PEER = ROOT / "tests/system/python/agent.py"
TARVOCTL = BUILD / "tools/tarvoctl/tarvoctl"
READER_HELPER = BUILD / "tests/python/python_reader_helper"
ENGINES = {"threads": LIBRARY_PEER, "loop": LOOP_PEER, "python": PYTHON_PEER}
LIMIT_S = float(os.environ.get("TARVO_LIMIT", "60"))
os.environ["PYTHONPATH"] = str(ROOT / "python")  # of programs that tests start


def need(program):
    """The program, or the test is skipped where it is not built."""
    if not program.exists():
        pytest.skip(f"{program} is not built")
    return str(program)


@pytest.fixture(autouse=True)
def watchdog(request):
    """No test hangs: what every task and thread does is printed, and the process ends."""

    def end():
        with request.config.pluginmanager.getplugin("capturemanager").global_and_fixture_disabled():
            print(f"\n{request.node.nodeid} hangs", file=sys.stderr)
            for task in [one for one in gc.get_objects() if isinstance(one, asyncio.Task) and not one.done()]:
                task.print_stack(file=sys.stderr)
            sys.stderr.flush()
            faulthandler.dump_traceback(sys.stderr)
            os._exit(1)

    timer = threading.Timer(LIMIT_S, end)
    timer.start()
    yield
    timer.cancel()
    timer.join()


def open_descriptors():
    """What this process has open, by what it is."""
    found = []
    for fd in os.listdir("/proc/self/fd"):
        with contextlib.suppress(OSError):
            found.append(os.readlink(f"/proc/self/fd/{fd}"))
    return sorted(name for name in found if "/proc/" not in name)


def fifo_descriptors():
    """Those of FIFOs."""
    return [name for name in open_descriptors() if name.startswith(files.directory())]


@pytest.fixture
def directory(tarvo_directory):
    """A FIFO directory in which, and a process in which, nothing may be left."""
    before = len(open_descriptors()) - len(watch._spare)
    yield tarvo_directory
    gc.collect()
    if getattr(tarvo_directory, "files_may_stay", False):
        for name in tarvo_directory.files():
            os.unlink(tarvo_directory.path / name)
    assert fifo_descriptors() == []
    assert len(open_descriptors()) - len(watch._spare) <= before + ENGINE_DESCRIPTORS.get(os.getpid(), 0)
    assert tarvo_directory.files() == []


@pytest.fixture
def own_programs(tarvo_directory):
    """Programs that the test starts use its directory, too."""
    tarvo_directory.require_programs()


# Of the thread of tarvo.blocking, which stays: an epoll set and a pair of sockets.
ENGINE_DESCRIPTORS = {}


@pytest.fixture(autouse=True)
def engine_is_known():
    """The thread of tarvo.blocking stays with the process."""
    ENGINE_DESCRIPTORS[os.getpid()] = 0 if any(one.name == "tarvo" for one in threading.enumerate()) else 3
    return


@pytest.fixture
def many_descriptors():
    """As many as the system allows."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


async def eventually(condition, limit=LIMIT_S / 2):
    """Waits until the condition holds, for what tells of itself by no event."""
    end = asyncio.get_running_loop().time() + limit
    while not condition():
        assert asyncio.get_running_loop().time() < end, "it does not come"
        await asyncio.sleep(0.001)


def no_tasks_left():
    """Whether this is the only task of the loop."""
    return asyncio.all_tasks() == {asyncio.current_task()}


def fill(size, seed=0):
    """Bytes of every value, as the peers make them."""
    return bytes((i * 7 + i // 251 + seed * 13) & 0xFF for i in range(size))


class Peer:
    """A program that obeys the line protocol of tests/system/peers/peer.cpp."""

    def __init__(self, engine):
        self.program = need(ENGINES[engine])
        self.events, self.replies = [], asyncio.Queue()
        self.news = asyncio.Event()

    async def __aenter__(self):
        words = [sys.executable, self.program] if self.program.endswith(".py") else [self.program]
        environment = {key: value for key, value in os.environ.items() if not key.startswith("COVERAGE")}
        self.process = await asyncio.create_subprocess_exec(
            *words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment
        )
        self.reader = asyncio.create_task(self.read())
        await self.event("ready")
        return self

    async def __aexit__(self, *_):
        if self.process.returncode is None:
            self.process.stdin.close()
            try:
                async with asyncio.timeout(LIMIT_S / 2):
                    await self.process.wait()
            except TimeoutError:
                self.process.kill()
                raise
        await self.reader
        self.process._transport.close()

    @property
    def pid(self):
        return self.process.pid

    async def read(self):
        while line := await self.process.stdout.readline():
            text = line.decode().rstrip("\n")
            if text.startswith("= "):
                self.replies.put_nowait(text[2:])
            else:
                self.events.append(text[2:])
                self.news.set()

    def tell(self, command):
        self.process.stdin.write(command.encode() + b"\n")

    async def ask(self, command):
        self.tell(command)
        return await self.reply()

    async def reply(self):
        async with asyncio.timeout(LIMIT_S / 2):
            return await self.replies.get()

    async def event(self, start):
        """The rest of the next event that begins so."""
        async with asyncio.timeout(LIMIT_S / 2):
            while True:
                for text in self.events:
                    if text.startswith(start):
                        self.events.remove(text)
                        return text[len(start) :].strip()
                self.news.clear()
                await self.news.wait()

    async def kill(self):
        self.process.kill()
        await self.process.wait()

    def freeze(self):
        self.process.send_signal(signal.SIGSTOP)
        while True:
            with open(f"/proc/{self.pid}/stat") as stat:
                if stat.read().rpartition(")")[2].split()[0] == "T":
                    return

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)


@contextlib.asynccontextmanager
async def served_by(engine, name="served", callback="echo"):
    """A peer that serves."""
    async with Peer(engine) as peer:
        assert await peer.ask(f"serve self={name} callback={callback}") == "0"
        yield peer
    if engine == "threads":
        os.unlink(files.server_path(name))  # it stays, as documented


async def connect_peer(peer, server, name="peer", callback="none"):
    """Its handle of a link to a server of this process."""
    handle = int(await peer.ask(f"client timeout=20000 target={server} self={name} callback={callback}"))
    assert handle > 0
    return handle


__all__ = ["tarvo"]
