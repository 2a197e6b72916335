"""The package with programs over both engines of the library, and with itself in another process."""

import asyncio
import errno
import os
import random
import struct

import pytest
from conftest import ENGINES, TARVOCTL, Peer, connect_peer, eventually, fill, need, no_tasks_left, served_by

import tarvo
from tarvo import frames, packets

pytestmark = pytest.mark.usefixtures("own_programs", "directory")
CALLS = int(os.environ.get("TARVO_CALLS", "10000"))
KILLS = int(os.environ.get("TARVO_KILLS", "6"))
every_engine = pytest.mark.parametrize("engine", ENGINES)


@pytest.fixture
def files_may_stay(tarvo_directory):
    """Of processes that are killed."""
    tarvo_directory.files_may_stay = True


async def echo(request):
    return request.payload


@every_engine
async def test_10000_calls_are_answered(engine):
    async with served_by(engine), tarvo.connect("served") as link:
        lanes = [call_many(link, lane, CALLS // 50) for lane in range(50)]
        assert sum(await asyncio.gather(*lanes)) == CALLS // 50 * 50


async def call_many(link, lane, count):
    for i in range(count):
        payload = struct.pack("=II", lane, i) * (1 + i % 7)
        assert await link.call(payload, 30) == payload
    return count


@every_engine
async def test_calls_of_every_size_are_answered_in_both_directions(engine):
    async with tarvo.serve("here", echo) as server, Peer(engine) as peer:
        handle = await connect_peer(peer, "here", callback="echo")
        await eventually(lambda: server.links)
        (link,) = server.links
        for size in (1, 31, 32, 33, 255, 256, 257, 2016, 3999, 4000):
            assert await link.call(fill(size, 5), 20) == fill(size, 5)
            assert (await peer.ask(f"call timeout=20000 fill={size} seed=5 fd={handle}")).startswith(f"0 {size}:")


@every_engine
async def test_end_of_the_peer_is_told_whoever_serves(engine):
    async with Peer(engine) as peer:
        async with tarvo.serve("here", lambda request: None) as server:
            await connect_peer(peer, "here")
            await eventually(lambda: server.links)
            (link,) = server.links
            call = asyncio.create_task(link.call(b"?"))
            await asyncio.sleep(0)
            peer.process.stdin.close()
            with pytest.raises(tarvo.RemoteClosed):
                await call
            await link.wait_closed()


@every_engine
async def test_killed_server_ends_calls_at_once(engine, files_may_stay):
    async with served_by(engine, callback="report") as peer, tarvo.connect("served") as link:
        # The server's write end opens in the background: only from then on its death is a hang-up of the read end.
        call = asyncio.create_task(link.call(b"?"))
        await peer.event("request")
        await peer.kill()
        with pytest.raises(tarvo.RemoteClosed):
            await call
        await link.wait_closed()
        with pytest.raises(tarvo.NoServer):
            await tarvo.connect("served", own="again")
    assert no_tasks_left()


@every_engine
async def test_killed_client_is_noticed_and_the_next_served(engine):
    async with tarvo.serve("here", echo) as server:
        closed = []
        server.on_closed(lambda link: closed.append(link.remote))
        async with Peer(engine) as peer:
            await connect_peer(peer, "here")
            await eventually(lambda: server.links)
            await peer.kill()
        await eventually(lambda: closed)
        async with Peer(engine) as peer:
            handle = await connect_peer(peer, "here")
            assert await peer.ask(f"call text timeout=20000 data=again fd={handle}") == "0 again"


@every_engine
async def test_server_that_dies_before_it_has_written_is_noticed(engine, files_may_stay):
    """Its read end is gone; of its write end, which it never had, nothing tells."""
    async with Peer(engine) as peer:
        peer.tell("open mode=1 timeout=20000 self=maker target=joiner")
        async with tarvo.arrange("maker", own="joiner", creates=False) as link:
            await peer.reply()
            call = asyncio.create_task(link.call(b"?"))
            await asyncio.sleep(0)
            await peer.kill()
            with pytest.raises(tarvo.RemoteClosed):
                await call


@every_engine
async def test_client_that_dies_while_its_link_opens_is_forgotten(engine, directory):
    """It has announced itself and never comes: its link and files go after the time for that."""
    async with tarvo.serve("here", echo) as server:
        with open(directory.path / "here", "wb", buffering=0) as fifo:
            fifo.write(packets.connect_packet("ghost", os.getgid(), 1))
        await eventually(lambda: len(directory.files()) == 3)
        async with Peer(engine) as peer:
            handle = await connect_peer(peer, "here")
            assert await peer.ask(f"call text timeout=20000 data=meanwhile fd={handle}") == "0 meanwhile"
        server.stop_listening()
        await eventually(lambda: directory.files() == [])


@every_engine
async def test_full_fifo_of_a_stopped_peer_holds_up_and_then_goes_on(engine):
    async with served_by(engine) as peer, tarvo.connect("served") as link:
        assert await link.call(b"?", 20) == b"?"
        peer.freeze()
        sent = 0
        with pytest.raises(tarvo.Full):
            while True:
                link.send_nowait(fill(4000, sent))
                sent += 1
        with pytest.raises(tarvo.TimedOut):
            await link.call(b"stopped", 0.05)
        waiting = asyncio.create_task(link.call(b"goes on", 20))
        await asyncio.sleep(0)
        peer.thaw()
        assert await waiting == b"goes on"


@every_engine
async def test_links_by_arrangement_with_either_side_as_maker(engine):
    async with Peer(engine) as peer:
        for creates in (True, False):
            mode = 0 if creates else 1
            peer.tell(f"open mode={mode} timeout=20000 callback=echo self=peer{mode} target=here{mode}")
            async with tarvo.arrange(f"peer{mode}", own=f"here{mode}", creates=creates, on_request=echo) as link:
                handle = int(await peer.reply())
                assert await link.call(b"there", 20) == b"there"
                assert await peer.ask(f"call text timeout=20000 data=back fd={handle}") == "0 back"
            assert await peer.event("gone") == f"fd={handle}"


@every_engine
async def test_client_that_connects_again_at_once_is_served(engine):
    async with served_by(engine):
        for i in range(30):
            async with tarvo.connect("served") as link:
                assert await link.call(b"%d" % i, 20) == b"%d" % i


@every_engine
async def test_garbage_of_the_other_side_is_dropped_and_the_next_call_served(engine, directory):
    async with served_by(engine), tarvo.connect("served") as link:
        assert await link.call(b"before", 20) == b"before"
        ours = os.open(directory.path / f"served__to__{link.own}", os.O_WRONLY | os.O_NONBLOCK)
        theirs = os.open(directory.path / f"{link.own}__to__served", os.O_WRONLY | os.O_NONBLOCK)
        chance = random.Random(4)
        for _ in range(200):
            # In the units in which the library reads, which does not look for the next head inside of one.
            os.write(ours, chance.randbytes(32))
            os.write(theirs, chance.randbytes(32))
            wrong = bytearray(frames.encode(chance.randrange(2**32), chance.randrange(3), chance.randbytes(50)))
            wrong[chance.choice([4, 8, 16, 40])] ^= 1
            os.write(ours, wrong)
            os.write(theirs, wrong)
            assert await link.call(b"meanwhile", 20) == b"meanwhile"
        os.close(ours)
        os.close(theirs)
        assert await link.call(b"after", 20) == b"after"


async def test_garbage_in_the_file_of_the_server_is_skipped(directory):
    async with tarvo.serve("here", echo) as server:
        chance = random.Random(4)
        with open(directory.path / "here", "wb", buffering=0) as fifo:
            for wrong in (
                chance.randbytes(1000),
                packets.connect_packet("../climber", 0, 1),
                packets.connect_packet("folder/name", 0, 1),
                packets.connect_packet("a|b", 0, 1),
                packets.connect_packet("n" * 110, 0, 1),
                packets.connect_packet("missing\0", 0, 1)[:21],
                struct.pack("=IiIiI", frames.MAGIC, 0, 0, 1, 111),
                struct.pack("=IiIi", frames.MAGIC, 7, 0, 1),
            ):
                fifo.write(wrong)
                await eventually(lambda: is_read(server))
        async with tarvo.connect("here") as link:
            assert await link.call(b"fine", 20) == b"fine"
    assert directory.files() == []


def is_read(server):
    """Whether nothing is left in the file of a server."""
    import fcntl
    import termios

    left = bytearray(4)
    fcntl.ioctl(server._file.read_fd, termios.FIONREAD, left)
    return not any(left)


async def test_terminate_packet_ends_the_server_and_leaves_its_clients(directory):
    async with tarvo.serve("here", echo) as server, tarvo.connect("here") as link:
        with open(directory.path / "here", "wb", buffering=0) as fifo:
            fifo.write(struct.pack("=IiIi", frames.MAGIC, packets.TERMINATE, 0, 1))
        await eventually(lambda: not server.is_listening)
        assert await link.call(b"still there", 20) == b"still there"
        with pytest.raises(tarvo.NoServer):
            await tarvo.connect("here", own="other")
    os.unlink(directory.path / "here")  # as that of any server that was ended so


async def test_what_was_sent_before_a_close_is_delivered():
    came = []
    async with tarvo.serve("here", lambda request: came.append(request.payload)):
        for _ in range(20):
            async with tarvo.connect("here") as link:
                for i in range(10):
                    link.send_nowait(b"%d" % i)
        await eventually(lambda: len(came) == 200)


@pytest.mark.parametrize("arguments", [[], ["--engine", "loop"]], ids=["threads", "loop"])
async def test_tool_serves_and_calls(arguments):
    tool = need(TARVOCTL)
    server = await asyncio.create_subprocess_exec(
        tool, "serve", "tool", *arguments, stderr=asyncio.subprocess.PIPE, stdout=asyncio.subprocess.DEVNULL
    )
    assert b"serving" in await server.stderr.readline()
    async with tarvo.connect("tool") as link:
        assert await link.call(b"from Python", 20) == b"from Python"
    server.terminate()
    await server.communicate()
    async with tarvo.serve("python", lambda request: request.payload.upper()):
        for words in (["call", "python", "data"], ["call", "python", "data", "--timeout", "20s"]):
            process = await asyncio.create_subprocess_exec(tool, *words, stdout=asyncio.subprocess.PIPE)
            output, _ = await process.communicate()
            assert (process.returncode, output) == (0, b"DATA")
        words = ["ping", "python", "-c", "50", "-i", "0", "--outstanding", "8", "--json"]
        process = await asyncio.create_subprocess_exec(tool, *words, stdout=asyncio.subprocess.PIPE)
        output, _ = await process.communicate()
        assert process.returncode == 0 and b'"answers":50' in output


@every_engine
async def test_kills_of_the_server_end_each_call_once_and_leave_nothing(engine, files_may_stay):
    """A server is killed in the middle of calls and comes back, again and again."""
    for number in range(KILLS // 3 or 1):
        async with served_by(engine) as peer:
            async with tarvo.connect("served") as link:
                lanes = [asyncio.create_task(call_until_the_end(link)) for _ in range(8)]
                await eventually(lambda: link._calls._last > 20 + 37 * (number % 11))  # noqa: B023
                await peer.kill()
                ends = await asyncio.gather(*lanes)
                assert all(code == errno.EPIPE for code in ends)
                await link.wait_closed()
    assert no_tasks_left()


async def call_until_the_end(link):
    """The errno of the call that was not answered."""
    while True:
        try:
            payload = os.urandom(8)
            assert await link.call(payload, 30) == payload
        except tarvo.Error as error:
            return error.errno


@every_engine
async def test_kills_of_clients_leave_nothing_in_the_server(engine, directory):
    async with tarvo.serve("here", echo) as server:
        for number in range(KILLS // 3 or 1):
            async with Peer(engine) as peer:
                handle = await connect_peer(peer, "here", callback="echo")
                for tag in range(number % 5 + 1):
                    peer.tell(f"start timeout=20000 tag={tag} fill=2000 fd={handle}")
                await peer.kill()
        await eventually(lambda: not server._links and directory.files() == ["here"])
    assert no_tasks_left()
