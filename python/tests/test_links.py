"""Links and servers of one process: what holds for each of them."""

import asyncio
import errno
import gc
import logging
import os

import pytest
from conftest import eventually, fifo_descriptors, fill, no_tasks_left

import tarvo
from tarvo import calls, connection, frames, packets, requests
from tarvo.files import pipe_path

pytestmark = pytest.mark.usefixtures("directory")


@pytest.fixture(autouse=True)
def nothing_known_is_left():
    yield
    assert len(connection._links) == 0


async def echo(request):
    return request.payload


async def test_call_is_answered():
    async with tarvo.serve("gps") as server:

        @server.on_request
        async def handle(request):
            return b"47.1"

        async with tarvo.connect("gps", timeout=2) as connected:
            assert await connected.call(b"where?", timeout=1) == b"47.1"
            await connected.send(b"log this")
    assert no_tasks_left()


@pytest.mark.parametrize("size", [1, 255, 256, 257, 4000])
async def test_calls_of_every_size_are_answered(size):
    async with tarvo.serve("s", echo), tarvo.connect("s") as connected:
        assert await connected.call(fill(size), timeout=5) == fill(size)


async def test_both_sides_call_each_other_at_the_same_time():
    async with tarvo.serve("s", echo, concurrent=4) as server:
        seen = []
        server.on_client(seen.append)
        async with tarvo.connect("s", on_request=echo) as connected:
            await eventually(lambda: seen)
            both = (connected, seen[0])
            answers = await asyncio.gather(*(one.call(fill(100, i), 5) for one in both for i in range(50)))
            assert answers == [fill(100, i) for i in range(50)] * 2


async def test_handler_may_call_back_before_it_answers():
    async with tarvo.serve("s") as server:

        @server.on_request
        async def handle(request):
            return await request.link.call(b"and you? " + request.payload, 5)

        async with tarvo.connect("s", on_request=echo) as connected:
            assert await connected.call(b"hello", 5) == b"and you? hello"


async def test_functions_and_coroutines_handle_requests():
    async with tarvo.serve("s") as server, tarvo.connect("s") as connected:
        server.on_request(lambda request: b"function")
        assert await connected.call(b"?", 5) == b"function"
        server.on_request(lambda request: echo(request))
        assert await connected.call(b"awaited", 5) == b"awaited"
        server.on_request(echo)
        assert await connected.call(b"coroutine", 5) == b"coroutine"
        server.on_request(lambda request: b"function again")
        assert await connected.call(b"?", 5) == b"function again"


async def test_requests_of_a_link_are_handled_in_order_and_one_at_a_time():
    order = []

    async def handle(request):
        order.append(request.payload)
        await asyncio.sleep(0)
        order.append(b"end " + request.payload)
        return request.payload

    async with tarvo.serve("s", handle), tarvo.connect("s") as connected:
        await asyncio.gather(*(connected.call(b"%d" % i, 5) for i in range(10)))
    assert order == [text for i in range(10) for text in (b"%d" % i, b"end %d" % i)]


async def test_concurrent_requests_are_handled_side_by_side_up_to_the_limit():
    running, most, go_on = 0, 0, asyncio.Event()

    async def handle(request):
        nonlocal running, most
        running += 1
        most = max(most, running)
        await go_on.wait()
        running -= 1
        return request.payload

    async with tarvo.serve("s", handle, concurrent=3), tarvo.connect("s") as connected:
        waiting = asyncio.gather(*(connected.call(b"%d" % i, 5) for i in range(8)))
        await eventually(lambda: running == 3)
        go_on.set()
        assert await waiting == [b"%d" % i for i in range(8)]
    assert most == 3


async def test_one_way_requests_arrive_in_order():
    came = []
    async with tarvo.serve("s", lambda request: came.append(request.payload)), tarvo.connect("s") as connected:
        for i in range(3000):
            await connected.send(b"%d" % i)
        await connected.wait_read()
        await eventually(lambda: len(came) == 3000)
    assert came == [b"%d" % i for i in range(3000)]


async def test_request_is_answered_later_by_its_number():
    came = []
    async with tarvo.serve("s", came.append), tarvo.connect("s") as connected:
        first, second = (asyncio.create_task(connected.call(b"%d" % i, 5)) for i in range(2))
        await eventually(lambda: len(came) == 2)
        await came[1].link.reply(came[1].id, b"second")
        came[0].link.reply_nowait(came[0].id, b"first")
        assert (await first, await second) == (b"first", b"second")
        assert came[0].timeout == 5


async def test_request_is_answered_once():
    async def handle(request):
        await request.reply(b"once")
        with pytest.raises(tarvo.NoSuchRequest) as refused:
            request.reply_nowait(b"twice")
        assert refused.value.errno == errno.ENOENT
        return b"not this"

    async with tarvo.serve("s", handle), tarvo.connect("s") as connected:
        assert await connected.call(b"?", 5) == b"once"
        assert await connected.call(b"?", 5) == b"once"


async def test_refused_reply_can_be_given_again():
    async def handle(request):
        with pytest.raises(tarvo.InvalidArgument):
            await request.reply(b"")
        with pytest.raises(tarvo.InvalidArgument):
            request.reply_nowait(b"")
        return b"right"

    async with tarvo.serve("s", handle), tarvo.connect("s") as connected:
        assert await connected.call(b"?", 5) == b"right"


async def test_call_without_answer_times_out_and_the_late_answer_is_dropped():
    came = []
    async with tarvo.serve("s", came.append), tarvo.connect("s") as connected:
        begin = asyncio.get_running_loop().time()
        with pytest.raises(tarvo.TimedOut) as timed_out:
            await connected.call(b"first", timeout=0.05)
        assert asyncio.get_running_loop().time() - begin >= 0.05
        assert timed_out.value.errno == errno.ETIMEDOUT and isinstance(timed_out.value, TimeoutError)
        came[0].link.reply_nowait(came[0].id, b"late")
        second = asyncio.create_task(connected.call(b"second", 5))
        await eventually(lambda: len(came) == 2)
        came[1].reply_nowait(b"right")
        assert await second == b"right"


async def test_each_call_has_its_own_deadline():
    async with tarvo.serve("s", lambda request: None), tarvo.connect("s") as connected:
        ends = []

        async def lose(timeout):
            with pytest.raises(tarvo.TimedOut):
                await connected.call(b"?", timeout)
            ends.append(timeout)

        await asyncio.gather(*(lose(timeout) for timeout in (0.09, 0.03, 0.06, 0.0)))
        assert ends == [0.0, 0.03, 0.06, 0.09]


async def test_deadlines_of_ended_calls_do_not_pile_up():
    async with tarvo.serve("s", lambda request: request.payload), tarvo.connect("s") as connected:
        for _ in range(calls._FEW_DEADLINES * 2):
            await connected.call(b"?", 3600)
        assert len(connected._calls._deadlines) <= calls._FEW_DEADLINES + 1
        assert await connected.call(b"?", 3600) == b"?"


async def test_cancelled_call_leaves_nothing_and_its_answer_is_dropped():
    came = []
    async with tarvo.serve("s", came.append), tarvo.connect("s") as connected:
        task = asyncio.create_task(connected.call(b"?", 5))
        await eventually(lambda: came)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        assert connected._calls.waiting == {}
        came[0].reply_nowait(b"late")
        again = asyncio.create_task(connected.call(b"!", 5))
        await eventually(lambda: len(came) == 2)
        came[1].reply_nowait(b"right")
        assert await again == b"right"


async def test_full_fifo_holds_send_up_and_refuses_send_nowait():
    came, go_on = [], asyncio.Event()

    async def handle(request):
        await go_on.wait()
        came.append(request.payload)

    async with tarvo.serve("s", handle) as server, tarvo.connect("s") as connected:
        await eventually(lambda: server.links)
        (served,) = server.links
        served._pause_reading()
        sent = 0
        with pytest.raises(tarvo.Full) as full:
            while True:
                connected.send_nowait(fill(4000, sent))
                sent += 1
        assert full.value.errno == errno.EAGAIN and isinstance(full.value, BlockingIOError)
        assert 1 <= sent <= 17
        waits = [asyncio.create_task(connected.send(fill(4000, sent + i))) for i in range(5)]
        answered = asyncio.create_task(connected.call(b"and a call", 20))
        await asyncio.sleep(0)
        assert not any(task.done() for task in waits) and connected.is_full
        waits[2].cancel()  # what waits can be taken back
        go_on.set()
        served._resume_reading()
        await asyncio.gather(*waits, return_exceptions=True)
        await eventually(lambda: len(came) == sent + 5)
        assert came == [fill(4000, i) for i in range(sent + 5) if i != sent + 2] + [b"and a call"]
        answered.cancel()


async def test_call_that_waits_for_room_ends_with_its_time_and_is_not_sent():
    came = []
    taking = tarvo.serve("s", lambda request: came.append(request.payload))
    async with taking as server, tarvo.connect("s") as connected:
        await eventually(lambda: server.links)
        (served,) = server.links
        served._pause_reading()
        with pytest.raises(tarvo.Full):
            while True:
                connected.send_nowait(bytes(4000))
        with pytest.raises(tarvo.TimedOut):
            await connected.call(b"too late", 0.02)
        assert not connected._sender._waiting
        served._resume_reading()
        await connected.wait_read()
    assert b"too late" not in came


async def test_answers_wait_for_room_too(monkeypatch):
    async with tarvo.serve("s", lambda request: request.payload) as server, tarvo.connect("s") as connected:
        connected._pause_reading()
        with monkeypatch.context() as held_up:
            held_up.setattr(connected, "_resume_reading", lambda: None)
            waiting = [asyncio.create_task(connected.call(fill(4000, i), 20)) for i in range(60)]
            await eventually(lambda: server.links and next(iter(server.links)).is_full)
        connected._resume_reading()
        assert await asyncio.gather(*waiting) == [fill(4000, i) for i in range(60)]
        assert await connected.call(b"function again", 5) == b"function again"


async def test_link_stops_reading_when_its_handler_does_not_keep_up(monkeypatch):
    monkeypatch.setattr(connection, "MANY", 20)
    go_on, came = asyncio.Event(), []

    async def handle(request):
        await go_on.wait()
        came.append(request.payload)

    async with tarvo.serve("s", handle) as server, tarvo.connect("s") as connected:
        task = asyncio.create_task(send_many(connected, 3000))
        await eventually(lambda: connected.is_full)
        (served,) = server.links
        assert served._requests.count < 3000
        go_on.set()
        await task
        await eventually(lambda: len(came) == 3000)
    assert came == [b"%d" % i for i in range(3000)]


async def send_many(connected, count):
    for i in range(count):
        await connected.send(b"%d" % i)


async def test_a_crowd_of_requests_does_not_hold_up_answers(monkeypatch):
    monkeypatch.setattr(connection, "MANY", 20)
    go_on = asyncio.Event()

    async def handle(request):
        await go_on.wait()

    async with tarvo.serve("s", handle) as server, tarvo.connect("s", on_request=echo) as connected:
        await eventually(lambda: server.links)
        (served,) = server.links
        await send_many(connected, 100)
        await eventually(lambda: not served._reading)
        assert await served.call(b"still there?", 5) == b"still there?"
        go_on.set()


async def test_too_many_requests_are_dropped_with_a_line(monkeypatch, caplog):
    monkeypatch.setattr(requests, "KEPT_WITHOUT_HANDLER", 3)
    came = []
    async with tarvo.serve("s") as server, tarvo.connect("s") as connected:
        await send_many(connected, 5)
        await eventually(lambda: "too many wait" in caplog.text)
        server.on_request(lambda request: came.append(request.payload))
        await eventually(lambda: len(came) == 3)
    assert came == [b"0", b"1", b"2"]


async def test_requests_before_the_handler_are_kept_for_it():
    came = []
    async with tarvo.serve("s") as server, tarvo.connect("s") as connected:
        await send_many(connected, 3)
        await connected.wait_read()
        server.on_request(lambda request: came.append(request.payload))
        await eventually(lambda: len(came) == 3)


async def test_handler_that_fails_is_logged_and_the_next_request_served(caplog):
    def handle(request):
        if request.payload == b"bad":
            raise RuntimeError("a bad request")
        return "text" if request.payload == b"text" else request.payload

    for handler in (handle, lambda request: wrap(handle, request)):
        caplog.clear()
        async with tarvo.serve("s", handler), tarvo.connect("s") as connected:
            for payload in (b"bad", b"text"):
                with pytest.raises(tarvo.TimedOut):
                    await connected.call(payload, 0.05)
            assert await connected.call(b"good", 5) == b"good"
        assert "a bad request" in caplog.text and "not str" in caplog.text


async def wrap(handle, request):
    return handle(request)


async def test_own_close_ends_calls_and_sends_with_ecanceled():
    async with tarvo.serve("s", lambda request: None) as server:
        connected = await tarvo.connect("s")
        await eventually(lambda: server.links)
        next(iter(server.links))._pause_reading()
        waiting = [asyncio.create_task(connected.call(b"?")) for _ in range(3)]
        await asyncio.sleep(0)
        with pytest.raises(tarvo.Full):
            while True:
                connected.send_nowait(bytes(4000))
        waiting += [asyncio.create_task(connected.send(b"x")), asyncio.create_task(connected.call(b"y"))]
        await asyncio.sleep(0)
        connected.close()
        connected.close()
        for result in await asyncio.gather(*waiting, return_exceptions=True):
            assert isinstance(result, tarvo.Cancelled) and result.errno == errno.ECANCELED
        await connected.wait_closed()
        with pytest.raises(tarvo.Cancelled):
            await connected.call(b"?")
        with pytest.raises(tarvo.Cancelled):
            connected.send_nowait(b"?")
        with pytest.raises(tarvo.Cancelled):
            await connected.wait_read()


async def test_end_of_the_other_side_ends_calls_with_epipe_and_is_told_once():
    ended = []
    async with tarvo.serve("s", lambda request: None) as server:
        async with tarvo.connect("s") as connected:
            connected.on_closed(ended.append)
            await eventually(lambda: server.links)
            waiting = [asyncio.create_task(connected.call(b"?")) for _ in range(3)]
            await asyncio.sleep(0)
            for one in server.links:
                one.close()
            for result in await asyncio.gather(*waiting, return_exceptions=True):
                assert isinstance(result, tarvo.RemoteClosed) and result.errno == errno.EPIPE
            await connected.wait_closed()
            assert ended == [connected] and connected.state is tarvo.State.GONE
            with pytest.raises(tarvo.RemoteClosed):
                await connected.send(b"?")


async def test_end_is_told_after_the_last_request():
    told = []

    async def handle(request):
        await asyncio.sleep(0)
        told.append(request.payload)
        return b"nobody hears this"

    async with tarvo.serve("s", handle) as server:

        @server.on_closed
        async def closed(_):
            told.append("closed")

        async with tarvo.connect("s") as connected:
            await send_many(connected, 50)
        await eventually(lambda: "closed" in told)
    assert told == [*(b"%d" % i for i in range(50)), "closed"]


async def test_handler_of_the_end_that_fails_is_logged(caplog):
    async with tarvo.serve("s") as server:
        server.on_closed(lambda _: 1 / 0)
        async with tarvo.connect("s"):
            await eventually(lambda: server.links)
        await eventually(lambda: "ZeroDivisionError" in caplog.text)


async def test_close_cancels_handlers_and_waits_for_their_end():
    cancelled = []

    async def handle(request):
        try:
            await asyncio.Event().wait()
        finally:
            cancelled.append(request.payload)

    async with tarvo.serve("s", handle) as server, tarvo.connect("s") as connected:
        connected.send_nowait(b"x")
        await eventually(lambda: any(one._requests._tasks for one in server.links))
    assert cancelled == [b"x"]
    assert no_tasks_left()


async def test_handler_may_close_its_own_link_and_server():
    async with tarvo.serve("s") as server:

        @server.on_request
        async def handle(request):
            if request.payload == b"all":
                server.close()
                await server.wait_closed()
            async with request.link:
                pass
            return b"too late"

        async with tarvo.connect("s") as connected:
            with pytest.raises(tarvo.RemoteClosed):
                await connected.call(b"?", 5)
        async with tarvo.connect("s") as connected:
            with pytest.raises(tarvo.RemoteClosed):
                await connected.call(b"all", 5)
        await server.serve_forever()


async def test_function_that_handles_requests_may_close_the_link():
    async with tarvo.serve("s", lambda request: request.link.close()), tarvo.connect("s") as connected:
        with pytest.raises(tarvo.RemoteClosed):
            await connected.call(b"?", 5)


async def test_no_request_is_handled_after_the_close_of_its_link():
    came = []

    def handle(request):
        came.append(request.payload)
        request.link.close()

    async with tarvo.serve("s", handle), tarvo.connect("s") as connected:
        for i in range(5):  # in one write
            connected._sender.put(frames.encode(i, frames.REQUEST, b"%d" % i), gather=True)
        await connected.wait_closed()
    assert came == [b"0"]


@pytest.mark.parametrize("speaks", [False, True])
async def test_client_that_is_gone_before_its_requests_are_read_is_noticed(speaks, directory):
    told, began = [], []
    async with tarvo.serve("s", lambda request: told.append(request.payload)) as server:
        go_on = asyncio.Event()

        @server.on_client
        async def client(one):
            began.append(one)
            await go_on.wait()
            told.append("client")

        server.on_closed(lambda one: told.append("closed"))
        await raw_client("s", "raw", directory.path, speaks, lambda: began)
        await eventually(lambda: not speaks or began[0]._lost)  # its end has been seen
        go_on.set()
        await eventually(lambda: not server._links)
    assert told == (["client", b"last words", "closed"] if speaks else ["client", "closed"])


async def raw_client(server, own, path, speaks, seen):
    """Reads its FIFO and goes again; it has a write end only if it speaks."""
    with open(path / server, "wb", buffering=0) as fifo:
        fifo.write(packets.connect_packet(own, os.getgid(), os.getpid()))
    theirs, ours = path / f"{server}__to__{own}", path / f"{own}__to__{server}"
    await eventually(ours.exists)
    reading = os.open(theirs, os.O_RDONLY | os.O_NONBLOCK)
    if speaks:
        writing = os.open(ours, os.O_WRONLY | os.O_NONBLOCK)
        os.write(writing, frames.encode(1, frames.REQUEST, b"last words"))
    await eventually(seen)
    os.close(reading)
    if speaks:
        os.close(writing)


async def test_client_is_told_before_its_first_request():
    told, sent = [], []
    async with tarvo.serve("s", lambda request: told.append(request.payload)) as server:

        @server.on_client
        async def client(one):
            await eventually(lambda: sent)
            told.append(one.remote)

        async with tarvo.connect("s", own="me") as connected:
            await connected.send(b"hello")
            sent.append(True)
            await eventually(lambda: len(told) == 2)
            assert told == [connected.own, b"hello"]
            assert connected.own == f"me_{os.getpid()}" and connected.remote == "s"
            assert "s" in repr(server) and "me" in repr(connected)


async def test_handler_of_clients_that_fails_is_logged_and_its_client_dropped(caplog):
    async with tarvo.serve("s") as server:
        server.on_client(lambda one: 1 / 0)
        async with tarvo.connect("s") as connected:
            await connected.wait_closed()
        assert "ZeroDivisionError" in caplog.text


async def test_server_that_stops_listening_keeps_its_clients():
    async with tarvo.serve("s", echo) as server, tarvo.connect("s") as connected:
        await connected.call(b"?", 5)
        server.stop_listening()
        assert not server.is_listening
        assert await connected.call(b"still there", 5) == b"still there"
        with pytest.raises(tarvo.NoServer):
            await tarvo.connect("s", own="other")


async def test_process_has_several_servers():
    async with tarvo.serve("one", lambda request: b"1"), tarvo.serve("two", lambda request: b"2"):
        async with tarvo.connect("one") as one, tarvo.connect("two") as two:
            assert (await one.call(b"?", 5), await two.call(b"?", 5)) == (b"1", b"2")


async def test_links_by_arrangement_open_whoever_comes_first():
    for first in (True, False):
        maker = tarvo.arrange("j", own="m", creates=True, on_request=echo, timeout=5)
        joiner = tarvo.arrange("m", own="j", creates=False, on_request=echo, timeout=5)
        openers = [maker, joiner] if first else [joiner, maker]
        one, two = await asyncio.gather(*(opener.__aenter__() for opener in openers))
        assert await one.call(b"there", 5) == b"there"
        assert await two.call(b"back", 5) == b"back"
        for opener in openers:
            await opener.__aexit__(None, None, None)


async def test_open_ends_with_its_time_and_leaves_nothing():
    for creates in (True, False):
        with pytest.raises(tarvo.TimedOut):
            await tarvo.arrange("nobody", own="me", creates=creates, timeout=0.05)
        assert fifo_descriptors() == [] and no_tasks_left()


async def test_cancelled_open_leaves_nothing():
    for creates in (True, False):
        task = asyncio.ensure_future(tarvo.arrange("nobody", own="me", creates=creates).__aenter__())
        await eventually(lambda: len(connection._links) == 1)
        await eventually(lambda: len(fifo_descriptors()) == (1 if creates else 0))  # noqa: B023
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        assert fifo_descriptors() == [] and no_tasks_left() and len(connection._links) == 0


async def test_link_that_is_closed_while_it_opens_ends():
    opener = tarvo.arrange("nobody", own="me", creates=True)
    with pytest.raises(tarvo.NotOpen):
        opener.link.send_nowait(b"?")
    task = asyncio.ensure_future(opener.link.open())
    await eventually(fifo_descriptors)
    with pytest.raises(tarvo.AlreadyOpen):
        await opener.link.open()
    opener.link.close()
    with pytest.raises(tarvo.Cancelled):
        await task
    await opener.link.wait_closed()
    never = tarvo.arrange("nobody", own="me", creates=True).link
    never.close()
    await never.wait_closed()


async def test_second_link_of_the_same_names_is_refused():
    async with tarvo.serve("s", echo), tarvo.connect("s") as first:
        with pytest.raises(tarvo.AlreadyOpen) as refused:
            await tarvo.connect("s")
        assert refused.value.errno == errno.EEXIST
        assert await first.call(b"untouched", 5) == b"untouched"
        async with tarvo.connect("s", own="other") as second:
            assert await second.call(b"?", 5) == b"?"


async def test_nobody_serves():
    with pytest.raises(tarvo.NoServer) as refused:
        await tarvo.connect("nobody")
    assert refused.value.errno == errno.ENXIO and isinstance(refused.value, ConnectionRefusedError)


async def test_errors_name_what_they_are_about():
    with pytest.raises(OSError, match="nobody serves under this name: 'radar'"):
        await tarvo.connect("radar")


@pytest.mark.parametrize("name", ["", "n" * 101, "a|b", "a..b", "a\0b", "$x"])
async def test_names_against_the_rules_are_refused(name):
    for opener in (
        lambda: tarvo.connect(name),
        lambda: tarvo.connect("s", own=name),
        lambda: tarvo.serve(name),
        lambda: tarvo.arrange(name, creates=True),
    ):
        with pytest.raises(tarvo.InvalidArgument) as refused:
            await opener()
        assert refused.value.errno == errno.EINVAL and isinstance(refused.value, ValueError)


async def test_arguments_against_the_rules_are_refused():
    with pytest.raises(TypeError):
        await tarvo.connect(b"s")
    with pytest.raises(tarvo.InvalidArgument):
        await tarvo.serve("s", concurrent=0)
    with pytest.raises(tarvo.InvalidArgument):
        await tarvo.arrange("s", creates=True, concurrent=0)
    with pytest.raises(tarvo.InvalidArgument, match="at most 254"):
        pipe_path("n" * 100, "m" * 150)
    async with tarvo.serve("s", echo), tarvo.connect("s") as connected:
        with pytest.raises(tarvo.InvalidArgument):
            await connected.send(b"x", id=-1)
        with pytest.raises(tarvo.InvalidArgument):
            await connected.call(b"")
        assert connected._calls.waiting == {}


async def test_500_links_in_one_process_are_served(many_descriptors):
    async with tarvo.serve("s", echo) as server:
        connected = await asyncio.gather(*(tarvo.connect("s", own=f"c{i}").__aenter__() for i in range(500)))
        answers = await asyncio.gather(*(one.call(b"%d" % i, 30) for i, one in enumerate(connected)))
        assert answers == [b"%d" % i for i in range(500)]
        assert len(server.links) == 500
        for one in connected:
            one.close()
        await eventually(lambda: not server._links)
    assert fifo_descriptors() == []


async def test_many_calls_are_under_way_without_a_limit_of_their_own():
    async with tarvo.serve("s", lambda request: request.payload), tarvo.connect("s") as connected:
        answers = await asyncio.gather(*(connected.call(b"%d" % i, 30) for i in range(10000)))
    assert answers == [b"%d" % i for i in range(10000)]


async def test_link_that_is_forgotten_warns_and_gives_back_what_it_has():
    loop = asyncio.new_event_loop()

    async def forget():
        server = await tarvo.serve("s", echo)
        await tarvo.connect("s")
        await eventually(lambda: server.links)

    with pytest.warns(ResourceWarning, match="never closed"):
        await asyncio.to_thread(run_and_close, loop, forget())
        del loop
        gc.collect()
    assert fifo_descriptors() == []


async def test_link_that_its_loop_has_forgotten_gives_way_to_the_next():
    loop, kept = asyncio.new_event_loop(), []

    async def forget():
        kept.append(await tarvo.connect("s"))

    async with tarvo.serve("s", echo) as server:
        await asyncio.to_thread(run_and_close, loop, forget())
        async with tarvo.connect("s") as connected:
            assert await connected.call(b"?", 5) == b"?"
            assert len(server.links) == 1


def run_and_close(loop, work):
    loop.run_until_complete(work)
    for task in asyncio.all_tasks(loop):
        task._log_destroy_pending = False
    loop.close()


async def test_patience_of_a_debugger_holds_for_calls(monkeypatch):
    monkeypatch.setenv("KELDOR_RUN_MODE", "1")
    came = []
    async with tarvo.serve("s", came.append), tarvo.connect("s") as connected:
        call = asyncio.create_task(connected.call(b"?", 0.001))
        await eventually(lambda: came)
        assert came[0].timeout == 18000
        (deadline,) = connected._calls._deadlines
        assert deadline[0] - asyncio.get_running_loop().time() > 17000
        came[0].reply_nowait(b"!")
        assert await call == b"!"


async def test_diagnostics_go_to_the_log_and_nothing_is_printed(capfd, caplog):
    caplog.set_level(logging.DEBUG)
    async with tarvo.serve("s", lambda request: 1 / 0), tarvo.connect("s") as connected:
        with pytest.raises(tarvo.TimedOut):
            await connected.call(b"?", 0.05)
    assert "ZeroDivisionError" in caplog.text
    assert capfd.readouterr() == ("", "")
