"""The reader of statistics files, on files made by hand and on those of processes, as tarvoctl reads them."""

import asyncio
import contextlib
import dataclasses
import errno
import fcntl
import json
import logging
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import textwrap
import time

import pytest
from conftest import LIMIT_S, ROOT, TARVOCTL, Peer, connect_peer, need, open_descriptors, served_by

import tarvo
from tarvo import stats

MAGIC, HEADER_SIZE, SLOT_SIZE, MOST_SLOTS = 0x5354415453565254, 4096, 4608, 65536
HEADER, SLOT = "=QIIIIIIiIIIQQQ104s118Q", "=IIIIqQQ104s104sQ"
NO_WORDS = (0,) * 512
LOCK = struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 0, 0)
GONE, PIPE, SERVER, POOL = 1, 2, 3, 4
RANDOM = random.Random(4711)


def header(slots, **other):
    """The bytes of a header, of which some fields are others."""
    fields = dict.fromkeys(("magic", "version", "header_size", "slot_size", "slots", "clock", "folding"), 0)
    fields.update(magic=MAGIC, version=2, header_size=HEADER_SIZE, slot_size=SLOT_SIZE, slots=slots, clock=1)
    fields.update(pid=4711, per_time=16, calls=4, rest=0, started=5, created=6, wall=7, process=b"writer")
    fields["words"] = NO_WORDS[:118]
    fields.update(other)
    return struct.pack(HEADER, *list(fields.values())[:-1], *fields["words"])


def slot(kind, name=b"", remote=b"", words=NO_WORDS, sequence=2, engine=0, state=2, handle=3):
    """The bytes of a slot."""
    head = struct.pack(SLOT, sequence, kind, engine, state, handle, 8, 0, name, remote, 0)
    return (head + struct.pack(f"={len(words)}Q", *words)).ljust(SLOT_SIZE, b"\0")


def write(path, head, *slots):
    path.write_bytes(head.ljust(HEADER_SIZE, b"\0") + b"".join(slots))
    return path


@contextlib.contextmanager
def living(path):
    """Holds the lock of a living process."""
    with open(path, "r+b") as file:
        fcntl.fcntl(file, fcntl.F_OFD_SETLK, LOCK)
        yield file


def words(count=512):
    """Numbers of every size, some of which are there at most once."""
    return tuple(RANDOM.getrandbits(RANDOM.choice((1, 8, 20, 40))) for _ in range(count))


@pytest.fixture
def file(tmp_path):
    """A good one, with each kind of slot."""
    others = (slot(SERVER, b"served", words=words(120)), slot(POOL, words=words(8)), bytes(SLOT_SIZE))
    head = header(5, words=words(118))
    return write(tmp_path / "4711.5", head, slot(GONE, words=words()), slot(PIPE, b"own", b"far", words()), *others)


@pytest.fixture(autouse=True)
def nothing_stays_open():
    def of_files():
        return [name for name in open_descriptors() if name.startswith("/")]

    before = of_files()
    yield
    assert of_files() == before


# ---- As tarvoctl tells it ----


def told(value):
    """Numbers as the tool tells them in JSON."""
    if isinstance(value, stats.Times):
        ends = [stats.bucket_end(bucket) for bucket in range(stats.BUCKETS - 1)] + [None]
        shares = {f"p{name}_ns": value.percentile(p) for name, p in (("50", 50), ("90", 90), ("99", 99), ("999", 99.9))}
        buckets = [[end, many] for end, many in zip(ends, value.buckets, strict=True) if many]
        return {"count": value.count, "sum_ns": value.sum, "longest_ns": value.longest, "buckets": buckets, **shares}
    if dataclasses.is_dataclass(value):
        return {each.name: told(getattr(value, each.name)) for each in dataclasses.fields(value)}
    return value


def told_place(kind, place):
    fields = {each.name: told(getattr(place, each.name)) for each in dataclasses.fields(place)}
    del fields["sequence"]
    return {"kind": kind, **fields}


def told_process(process):
    kinds = {"pipe": process.pipes, "server": process.servers, "pool": process.pools}
    slots = [told_place(kind, place) for kind, places in kinds.items() for place in places]
    gone = {"slot": 0, "kind": "gone", "engine": "threads", "numbers": told(process.gone)}
    return {
        "file": os.path.basename(process.file),
        "process": process.name,
        "pid": process.pid,
        "alive": process.alive,
        "left_open": process.left_open,
        "owner": process.owner,
        "created_at_ns": process.created_at_ns,
        "created_unix_ns": process.created_unix_ns,
        "one_ways_per_time": process.one_ways_per_time,
        "calls_per_time": process.calls_per_time,
        "inexact": process.inexact,
        "unreadable_slots": len(process.unreadable),
        "seconds": None,
        "numbers": told(process.numbers),
        "slots": sorted([gone, *slots], key=lambda each: each["slot"]),
    }


def tool(directory, *more):
    """What tarvoctl tells of the files there."""
    command = [need(TARVOCTL), "stat", "--json", "--stats-directory", directory, *more]
    output = subprocess.run(command, check=True, capture_output=True, timeout=LIMIT_S).stdout
    found = json.loads(output)
    for process in found["processes"]:
        del process["read_at_ns"]
    return found


@pytest.mark.parametrize("alive", [True, False])
def test_file_made_by_hand_reads_as_the_tool_reads_it(file, alive):
    with living(file) if alive else contextlib.nullcontext():
        process = stats.read(file)
        assert tool(file.parent)["processes"] == [told_process(process)]
    assert process.alive == alive and process.left_open == (0 if alive else 1)
    assert (process.started_at_ticks, process.created_at_ns, process.created_unix_ns) == (5, 6, 7)
    assert process.owner == os.geteuid() and process.pid == 4711 and process.name == "writer"
    assert process.unreadable == () and not process.inexact
    (pipe,) = process.pipes
    assert (pipe.name, pipe.remote, pipe.state, pipe.engine, pipe.handle) == ("own", "far", "open", "threads", 3)
    assert pipe.opened_at_ns == 8 and pipe.closed_at_ns is None
    assert abs(process.read_at_ns - time.monotonic_ns()) < LIMIT_S * 1e9


def test_numbers_at_the_edges_read_as_the_tool_reads_them(tmp_path):
    """Every word as large as can be, or of any size: levels below 0, counts that wrap, times without a longest."""
    largest = slot(PIPE, b"a", b"b", (2**64 - 1,) * 512)
    any_size = [slot(PIPE, b"a", b"b", tuple(RANDOM.getrandbits(64) for _ in NO_WORDS)) for _ in range(20)]
    # Without a longest time the end of the bucket is told, whose last is that of all numbers.
    no_longest = [slot(PIPE, b"a", b"b", [0] * (66 + bucket) + [1] + [0] * (445 - bucket)) for bucket in range(110)]
    write(tmp_path / "1", header(132), slot(GONE), largest, *any_size, *no_longest)
    assert tool(tmp_path)["processes"] == [told_process(stats.read(tmp_path / "1"))]


# ---- Processes ----


@pytest.fixture
def counted(directory):
    """A directory of statistics, which processes that the test starts find."""
    directory.require_programs()
    need(TARVOCTL)
    path = pathlib.Path(stats.DIRECTORY)
    path.mkdir()
    yield directory
    shutil.rmtree(path)


def received(*processes):
    """How many calls were received, and answered to the end: the last numbers come after the answer."""
    numbers = sum((process.sum() for process in processes), stats.PipeNumbers())
    counts = {numbers.received_messages.call, numbers.sent_messages.response, numbers.callbacks_finished}
    return len(counts) == 1 and counts.pop()


async def agreed(calls):
    """What both readers say of all processes, as soon as so many calls are through."""
    async with asyncio.timeout(LIMIT_S / 2):
        while True:
            processes = stats.processes()
            said = tool(stats.DIRECTORY)["processes"]
            if received(*processes) == calls and said == [told_process(process) for process in processes]:
                return {process.pid: process for process in processes}
            await asyncio.sleep(0)


@pytest.mark.parametrize("engine", ["threads", "loop"])
async def test_server_and_client_read_as_the_tool_reads_them(counted, engine):
    async with served_by(engine, "served") as server, Peer("loop") as peer:
        handle = await connect_peer(peer, "served")
        async with tarvo.connect("served", own="python", timeout=20) as link:
            for number in range(30):
                assert await link.call(b"%d" % number, timeout=20) == b"%d" % number
        assert handle > 0
        processes = await agreed(30)
        assert set(processes) == {server.pid, peer.pid}
        served, client = processes[server.pid], processes[peer.pid]
        assert served.alive and client.alive
        assert [one.name for one in served.servers] == ["served"]
        assert served.servers[0].numbers.opened == 2 and served.servers[0].numbers.open_time.count == 2
        pipes = {pipe.remote.rpartition("_")[0]: pipe for pipe in served.pipes}
        assert pipes["python"].numbers.received_messages.call == 30
        assert pipes["python"].numbers.callback.count == 5, "one in eight is timed: here the first, and four others"
        assert pipes["python"].numbers.callbacks_finished == 30 and pipes["python"].engine == engine
        assert pipes["peer"].state == "open"
        assert served.sum().sent_messages.response == 30
        assert client.numbers.opens.ok == 1 and client.numbers.open_time.mean > 0
        assert len(served.pools) == (1 if engine == "threads" else 0)


async def test_process_that_was_killed_leaves_its_last_numbers(counted):
    counted.files_may_stay = True
    async with Peer("threads") as server:
        assert await server.ask("serve self=served callback=echo") == "0"
        async with tarvo.connect("served", own="python", timeout=20) as link:
            assert await link.call(b"last", timeout=20) == b"last"
            assert next(iter((await agreed(1)).values())).alive
            await server.kill()
            await link.wait_closed()
        (process,) = (await agreed(1)).values()
        assert not process.alive and process.left_open == 1 and process.pid == server.pid
        assert process.sum().calls_begun == 0 and process.sum().received_messages.call == 1


async def test_difference_of_two_readings_is_what_came_between(counted):
    async with served_by("threads", "served"), tarvo.connect("served", own="python", timeout=20) as link:

        async def reading(calls, sum_of_all):
            for _ in range(calls):
                await link.call(b"x", timeout=20)
            return next(iter((await agreed(sum_of_all)).values()))

        before, now = await reading(3, 3), await reading(4, 7)
        (pipe,) = now.since(before).pipes
        assert pipe.numbers.received_messages == stats.Kinds(call=4)
        assert pipe.numbers.callbacks_finished == 4
        assert pipe.numbers.callback.count == 1, "the sixth of all"
        assert now.since(before).sum().received_bytes.total == 4


# ---- Files that are none ----


def refusal(path, kind=stats.NoStatistics):
    with pytest.raises(tarvo.Error) as refused:
        stats.StatsFile(path)
    assert type(refused.value) is kind and refused.value.filename == str(path)
    return refused.value.errno


def test_what_is_no_regular_file_is_not_opened_and_not_waited_for(file, tmp_path):
    os.mkfifo(tmp_path / "fifo")
    (tmp_path / "link").symlink_to(file)
    (tmp_path / "folder").mkdir()
    assert refusal(tmp_path / "fifo") == errno.EBADMSG
    assert refusal(tmp_path / "folder") == errno.EBADMSG
    assert refusal("/dev/zero") == errno.EBADMSG
    assert refusal(tmp_path / "link", tarvo.Error) == errno.ELOOP
    assert refusal(tmp_path / "none", stats.FileMissing) == errno.ENOENT
    assert refusal(str(file) + "\0", tarvo.InvalidArgument) == errno.EINVAL


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be another user for a while")
def test_file_of_another_user_needs_the_right_to_it():
    with tempfile.TemporaryDirectory(dir="/dev/shm") as name:
        os.chmod(name, 0o755)
        path = write(pathlib.Path(name, "4711"), header(0))
        path.chmod(0o600)
        os.seteuid(65534)
        try:
            assert refusal(path, tarvo.AccessDenied) == errno.EACCES
        finally:
            os.seteuid(0)


WRONG = {
    "magic": {"magic": 0},
    "header size": {"header_size": 0},
    "largest header size": {"header_size": 2**32 - 1},
    "slot size": {"slot_size": 4607},
    "no slot size": {"slot_size": 0},
    "slots beyond the file": {"slots": 3},
    "most slots": {"slots": 2**32 - 1},
    "clock": {"clock": 0},
    "name without an end": {"process": b"x" * 104},
    "version": {"version": 1},
    "no version": {"version": 0},
}


@pytest.mark.parametrize("wrong", WRONG)
def test_wrong_header_is_refused_at_the_open_and_later_on(tmp_path, wrong):
    kind = stats.OtherVersion if "version" in wrong else stats.NoStatistics
    path = write(tmp_path / "file", header(2), slot(GONE), slot(PIPE))
    with stats.StatsFile(path) as file:
        file.read()
        with open(path, "r+b") as writer:
            writer.write(header(**({"slots": 2} | WRONG[wrong])))
        with pytest.raises(kind) as refused:
            file.read()
    assert refused.value.errno == refusal(path, kind) == kind.CODE
    (problem,) = tool(tmp_path)["problems"]
    assert ("version" in problem["problem"]) == (kind is stats.OtherVersion)


def test_more_slots_than_are_allowed_are_refused_although_the_file_has_them(tmp_path):
    path = write(tmp_path / "file", header(MOST_SLOTS + 1))
    os.truncate(path, HEADER_SIZE + (MOST_SLOTS + 1) * SLOT_SIZE)
    assert refusal(path) == errno.EBADMSG


def test_file_that_is_cut_off_while_it_is_read_is_refused(file, monkeypatch):
    with stats.StatsFile(file) as reader:
        pread = os.pread

        def cut(fd, size, offset):
            if offset > HEADER_SIZE:
                os.truncate(file, HEADER_SIZE + 100)
            return pread(fd, size, offset)

        monkeypatch.setattr(os, "pread", cut)
        with pytest.raises(stats.NoStatistics):
            reader.read()
        for size in (HEADER_SIZE + 100, 10, 0):
            os.truncate(file, size)
            with pytest.raises(stats.NoStatistics):
                reader.read()
            assert refusal(file) == errno.EBADMSG


def test_short_reads_are_continued_and_errors_told(file, monkeypatch):
    pread, good = os.pread, stats.read(file)
    monkeypatch.setattr(os, "pread", lambda fd, size, offset: pread(fd, min(size, 1000), offset))
    assert stats.read(file).pipes == good.pipes

    def fail(*_):
        raise OSError(errno.EIO, "broken")

    monkeypatch.setattr(os, "pread", fail)
    assert refusal(file, tarvo.Error) == errno.EIO
    monkeypatch.undo()
    with stats.StatsFile(file) as reader:
        monkeypatch.setattr(fcntl, "fcntl", fail)
        with pytest.raises(tarvo.Error, match="broken"):
            reader.alive()


def test_slots_that_hold_nonsense_are_left_out_as_by_the_tool(tmp_path):
    bad = [{"kind": 77}, {"engine": 2}, {"state": 2**32 - 1}, {"name": b"n" * 104}, {"remote": b"r" * 104}]
    slots = [slot(**({"kind": PIPE, "name": b"a", "remote": b"b"} | one)) for one in bad]
    path = write(tmp_path / "file", header(7), slot(GONE), *slots, slot(PIPE, b"good"))
    process = stats.read(path)
    assert process.unreadable == (1, 2, 3, 4, 5) and [pipe.name for pipe in process.pipes] == ["good"]
    assert tool(tmp_path)["processes"] == [told_process(process)]


# ---- Files that are written meanwhile ----


@pytest.mark.parametrize("alive", [True, False])
def test_slot_that_is_changed_for_ever_is_left_out(tmp_path, alive):
    path = write(tmp_path / "file", header(3), slot(GONE), slot(PIPE, b"odd", sequence=3), slot(PIPE, b"good"))
    with living(path) if alive else contextlib.nullcontext():
        process = stats.read(path)
    assert process.unreadable == (1,) and [pipe.name for pipe in process.pipes] == ["good"]


def test_file_full_of_odd_slots_is_not_read_for_ever(tmp_path, monkeypatch):
    path = write(tmp_path / "file", header(3000), *[slot(PIPE, sequence=1)] * 3000)
    yields = []
    monkeypatch.setattr(os, "sched_yield", lambda: yields.append(1))
    with living(path):
        assert len(stats.read(path).unreadable) == 3000
    assert len(yields) < 3000


def test_slot_that_changes_while_it_is_read_is_read_again(tmp_path, monkeypatch):
    path = write(tmp_path / "file", header(2), slot(GONE), slot(PIPE, b"former"))
    pread, seen = os.pread, []

    def change(fd, size, offset):
        data = pread(fd, size, offset)
        if size == SLOT_SIZE and offset == HEADER_SIZE + SLOT_SIZE:
            seen.append(offset)
            if len(seen) == 1:
                writer.seek(offset)
                writer.write(slot(PIPE, b"later", sequence=4))
                writer.flush()
        return data

    with living(path) as writer:
        monkeypatch.setattr(os, "pread", change)
        (pipe,) = stats.read(path).pipes
    assert (pipe.name, pipe.sequence) == ("later", 4) and len(seen) == 2


WRITER = """
import os, struct, sys
slots = [[bytes.fromhex(text) for text in pair.split(":")] for pair in sys.stdin.readline().split()]
fd = os.open(sys.argv[1], os.O_RDWR)
print("writes", flush=True)
sequence = 2
while True:
    for (body,) in slots:
        os.pwrite(fd, struct.pack("=I", sequence + 1), 4096)
        os.pwrite(fd, body[4:], 4100)
        sequence = (sequence + 2) & 0xFFFFFFFE or 2
        os.pwrite(fd, struct.pack("=I", sequence), 4096)
"""


def test_slot_that_is_taken_again_and_again_is_never_a_mixture(tmp_path):
    path = write(tmp_path / "file", header(1), slot(PIPE, b"1", b"1", (1,) * 512))
    bodies = [slot(PIPE, b"%d" % n, b"%d" % n, (n,) * 512, handle=n) for n in (1, 2)]
    with living(path), subprocess.Popen(
        [sys.executable, "-c", WRITER, path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    ) as writer:
        try:
            writer.stdin.write(" ".join(body.hex() for body in bodies) + "\n")
            writer.stdin.flush()
            assert writer.stdout.readline() == "writes\n"
            found = set()
            for _ in range(500):
                for pipe in stats.read(path).pipes:
                    numbers = pipe.numbers
                    counts = {numbers.sends_lost, *numbers.round_trip.buckets, *numbers.callback.buckets}
                    assert counts == {int(pipe.name)} == {int(pipe.remote)}
                    found.add(pipe.name)
            assert found == {"1", "2"}
        finally:
            writer.kill()


@pytest.mark.parametrize("alive", [True, False])
def test_numbers_that_move_for_ever_are_told(tmp_path, alive):
    path = write(tmp_path / "file", header(2, folding=1), slot(GONE), slot(PIPE, b"a"))
    with living(path) if alive else contextlib.nullcontext():
        process = stats.read(path)
        assert process.inexact and [pipe.name for pipe in process.pipes] == ["a"]
        assert tool(tmp_path)["processes"] == [told_process(process)]


def test_reading_is_repeated_when_numbers_have_moved_in_it(tmp_path, monkeypatch):
    path = write(tmp_path / "file", header(2), slot(GONE), slot(PIPE, b"a", words=(7,) * 512))
    pread, seen = os.pread, []

    def move(fd, size, offset):
        data = pread(fd, size, offset)
        if size == SLOT_SIZE and offset > HEADER_SIZE and not seen:
            seen.append(offset)
            writer.write(header(2, folding=2).ljust(HEADER_SIZE, b"\0"))
            writer.write(slot(GONE, words=(7,) * 512) + slot(PIPE, b"b", sequence=4))
            writer.flush()
        return data

    with living(path) as writer:
        monkeypatch.setattr(os, "pread", move)
        process = stats.read(path)
    assert seen and not process.inexact and process.pipes[0].name == "b"
    assert process.sum().calls_begun == 7 + 7, "of the first thread and of the others"


# ---- Directories ----


def test_directory_tells_each_file_and_what_is_wrong_with_others(file, caplog):
    directory = file.parent
    write(directory / "9", header(0, version=3))
    write(directory / ".hidden", header(0))
    (directory / "1").write_bytes(b"no")
    os.mkfifo(directory / "2")
    assert stats.names(directory) == ["1", "2", "4711.5", "9"]
    problems = []
    (process,) = stats.processes(directory, problems.append)
    assert process.file == str(file)
    assert [(error.filename, error.errno) for error in problems] == [
        (str(directory / "1"), errno.EBADMSG),
        (str(directory / "2"), errno.EBADMSG),
        (str(directory / "9"), errno.EPROTONOSUPPORT),
    ]
    with caplog.at_level(logging.WARNING, "tarvo.stats"):
        assert len(stats.processes(directory)) == 1
    assert [record.message.split(": ")[0] for record in caplog.records] == [error.filename for error in problems]


def test_file_that_is_removed_meanwhile_is_left_out(file, monkeypatch):
    monkeypatch.setattr(os, "listdir", lambda fd: ["gone", file.name])
    assert [process.file for process in stats.processes(file.parent, pytest.fail)] == [str(file)]


def test_name_leads_out_of_no_directory(file):
    fd = os.open(file.parent, os.O_RDONLY)
    try:
        for name in ("", "../x", str(file)):
            with pytest.raises(tarvo.InvalidArgument):
                stats.StatsFile(name, dir_fd=fd)
        with pytest.raises(stats.NoStatistics):
            stats.StatsFile("..", dir_fd=fd)
        with stats.StatsFile(file.name, dir_fd=fd) as one:
            assert one.read().pid == 4711 and not one.alive()
    finally:
        os.close(fd)


@pytest.mark.parametrize("function", [stats.names, stats.processes])
def test_directory_that_is_missing_or_none_is_told(file, function):
    with pytest.raises(tarvo.DirectoryMissing) as refused:
        function(file.parent / "none")
    assert refused.value.errno == errno.ENOENT and refused.value.filename == str(file.parent / "none")
    with pytest.raises(tarvo.Error) as refused:
        function(file)
    assert refused.value.errno == errno.ENOTDIR


# ---- Numbers ----


def test_buckets_hold_the_times_that_they_say():
    ends = [stats.bucket_end(bucket) for bucket in range(stats.BUCKETS)]
    assert ends[0] == 896 and ends[-1] == 2**64 - 1 and ends == sorted(set(ends))
    for bucket, end in enumerate(ends[:-1]):
        assert stats.bucket_of(end - 1) == bucket and stats.bucket_of(end) == bucket + 1
    assert stats.bucket_of(0) == 0 and stats.bucket_of(2**64 - 1) == stats.BUCKETS - 1
    for begin, end in zip(ends, ends[1:-1], strict=False):
        assert end - begin <= begin / 4


def times(*values):
    buckets = [0] * stats.BUCKETS
    for value in values:
        buckets[stats.bucket_of(value)] += 1
    return stats.Times(sum(values), max(values, default=0), tuple(buckets))


def test_percentile_is_at_most_a_quarter_too_large():
    values = sorted(RANDOM.randrange(1000, 10**9) for _ in range(1000))
    measured = times(*values)
    assert measured.count == 1000 and measured.mean == sum(values) / 1000
    for percent in (1, 50, 90, 99, 99.9):
        right = values[int(-(-1000 * percent // 100)) - 1]
        assert right <= measured.percentile(percent) <= right * 1.25
    assert measured.percentile(100) == measured.longest == values[-1]
    assert times().percentile(50) == 0 and times().mean == 0
    for wrong in (-1, 100.1, float("nan")):
        with pytest.raises(tarvo.InvalidArgument):
            measured.percentile(wrong)


def test_times_add_up_and_differ():
    one, more = times(1000, 5000), times(900, 7_000_000)
    both = one + more
    assert both == times(1000, 5000, 900, 7_000_000)
    assert both.since(one) == more


def test_counters_wrap_and_levels_are_of_now():
    then = stats.PipeNumbers(calls_begun=2**64 - 3, calls_outstanding=stats.Level(5, 6))
    now = stats.PipeNumbers(calls_begun=4, calls_outstanding=stats.Level(1, 7))
    assert now.since(then).calls_begun == 7 and now.since(then).calls_outstanding == stats.Level(1, 7)
    assert (now + then).calls_begun == 1 and (now + then).calls_outstanding == stats.Level(6, 13)
    pool = stats.PoolNumbers(stats.Level(4, 4), stats.Level(1, 3), 5, 6, 2)
    assert pool.since(pool) == stats.PoolNumbers(stats.Level(4, 4), stats.Level(1, 3), 0, 0, 2)
    with pytest.raises(TypeError):
        now.since(pool)


def reading(path, *slots, **other):
    return stats.read(write(path, header(len(slots), **other), *slots))


def pipe(name, calls, sequence):
    return slot(PIPE, name, words=[0] * 48 + [calls] + [0] * 463, sequence=sequence)


def test_difference_counts_pipes_that_came_and_went_once(tmp_path):
    """Between the readings `b` goes and leaves its 20 + 2 calls to the sums, and `c` takes its place."""
    before = reading(tmp_path / "f", slot(GONE), pipe(b"a", 10, 2), pipe(b"b", 20, 2), slot(SERVER, words=[1] * 120))
    gone = slot(GONE, words=[0] * 48 + [22] + [0] * 463)
    now = reading(tmp_path / "f", gone, pipe(b"a", 11, 2), pipe(b"c", 5, 4), slot(SERVER, words=[3] * 120))
    since = now.since(before)
    assert {one.name: one.numbers.calls_begun for one in since.pipes} == {"a": 1, "c": 5}
    assert since.gone.calls_begun == 2 and since.sum().calls_begun == 8
    assert since.servers[0].numbers.packets == 2 and since.numbers == stats.ProcessNumbers()
    assert now.sum().calls_begun - before.sum().calls_begun == 8


def test_difference_guesses_nothing_of_what_could_not_be_read(tmp_path):
    before = reading(tmp_path / "f", slot(GONE), pipe(b"a", 10, 2))
    assert reading(tmp_path / "f", slot(GONE), pipe(b"a", 11, 3)).since(before).sum() == stats.PipeNumbers()
    moving = reading(tmp_path / "f", slot(GONE), pipe(b"b", 1, 4), folding=1)
    assert moving.since(before).gone == stats.PipeNumbers() and moving.since(before).sum().calls_begun == 1


def test_readings_of_two_processes_have_no_difference(tmp_path):
    before = reading(tmp_path / "f", slot(GONE))
    with pytest.raises(tarvo.InvalidArgument):
        reading(tmp_path / "f", slot(GONE), created=9).since(before)


def test_names_are_those_of_the_page():
    """docs/stats.md explains each number under its name."""
    page = (ROOT / "docs/stats.md").read_text()
    rows = re.findall(r"^\| `(pipe|server|pool|header)\.[\w.]+` \| `(\w+)` \|", page, re.MULTILINE)
    kinds = {
        "pipe": stats.PipeNumbers,
        "server": stats.ServerNumbers,
        "pool": stats.PoolNumbers,
        "header": stats.ProcessNumbers,
    }
    for place, kind in kinds.items():
        assert [name for where, name in rows if where == place] == [each.name for each in dataclasses.fields(kind)]


def test_package_is_imported_without_the_reader():
    program = textwrap.dedent("""
        import sys
        import tarvo
        print([name for name in sys.modules if name.startswith("tarvo.stats")])
    """)
    assert subprocess.run([sys.executable, "-c", program], capture_output=True, check=True).stdout == b"[]\n"
