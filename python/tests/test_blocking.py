"""The face without asyncio."""

import asyncio
import errno
import queue
import signal
import threading
import time

import pytest

import tarvo
from tarvo import blocking

pytestmark = pytest.mark.usefixtures("directory")


def wait_for(condition):
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end, "it does not come"
        time.sleep(0.001)


def test_call_is_answered():
    with blocking.serve("gps", lambda request: b"47.1") as server, blocking.connect("gps", timeout=2) as link:
        assert link.call(b"where?", timeout=1) == b"47.1"
        link.send(b"log this")
        link.send_nowait(b"and this")
        assert link.remote == "gps" and link.is_open and server.name == "gps"
        assert "gps" in repr(link) and "gps" in repr(server)


def test_handler_may_wait_and_call_back():
    with blocking.serve("s") as server:

        @server.on_request
        def handle(request):
            return request.link.call(b"and you? " + request.payload, 5)

        with blocking.connect("s", on_request=lambda request: request.payload) as link:
            assert link.call(b"hello", 10) == b"and you? hello"


def test_request_is_answered_later_and_once():
    came = queue.Queue()
    with blocking.serve("s", came.put) as server, blocking.connect("s") as link:
        answers = queue.Queue()
        for number in range(2):
            threading.Thread(target=lambda n=number: answers.put(link.call(b"%d" % n, 10))).start()
        first, second = came.get(timeout=10), came.get(timeout=10)
        first.reply(b"first")
        with pytest.raises(tarvo.NoSuchRequest):
            first.reply(b"twice")
        assert first.answered and not second.answered and first.timeout == 10
        second.link.reply(second.id, b"second")
        assert {answers.get(timeout=10), answers.get(timeout=10)} == {b"first", b"second"}
        assert server.links == {first.link}


def test_calls_of_many_threads_do_not_disturb_each_other():
    with blocking.serve("s", lambda request: request.payload), blocking.connect("s") as link:
        wrong = []

        def work(number):
            for i in range(50):
                if link.call(b"%d %d" % (number, i), 10) != b"%d %d" % (number, i):
                    wrong.append((number, i))

        threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert wrong == []


def test_errors_are_those_of_the_family():
    with pytest.raises(tarvo.NoServer) as refused:
        blocking.connect("nobody")
    assert refused.value.errno == errno.ENXIO
    with blocking.serve("s", lambda request: None), blocking.connect("s") as link:
        with pytest.raises(tarvo.TimedOut):
            link.call(b"?", 0.01)
        with pytest.raises(tarvo.TimedOut):
            link.wait_closed(0.01)
    with pytest.raises(tarvo.Cancelled):
        link.call(b"?")


def test_ends_are_told():
    told = queue.Queue()
    server = blocking.serve("s", lambda request: None)
    server.on_client(lambda link: told.put("client"))
    server.on_closed(lambda link: told.put("closed"))
    link = blocking.connect("s")
    assert told.get(timeout=10) == "client"
    link.on_closed(lambda link: told.put("end"))
    other = blocking.connect("s", own="other")
    other.close()
    assert [told.get(timeout=10), told.get(timeout=10)] == ["client", "closed"]
    server.stop_listening()
    server.close()
    server.wait_closed(10)
    link.wait_closed(10)
    assert told.get(timeout=10) == "end"


def test_links_by_arrangement():
    made = queue.Queue()
    maker = threading.Thread(target=lambda: made.put(blocking.arrange("j", own="m", creates=True, timeout=10)))
    maker.start()
    with blocking.arrange("m", own="j", creates=False, timeout=10) as joined:
        joined.on_request(lambda request: request.payload)
        with made.get(timeout=10) as link:
            assert link.own == "m" and link.call(b"?", 10) == b"?"
    maker.join()
    with pytest.raises(tarvo.TimedOut):
        blocking.arrange("nobody", own="m", creates=False, timeout=0.01, on_request=lambda request: None)


def test_interrupt_ends_a_call_that_waits():
    came = queue.Queue()
    before = signal.signal(signal.SIGINT, signal.default_int_handler)  # also where a shell has it ignored
    with blocking.serve("s", came.put), blocking.connect("s") as link:

        def interrupt():
            came.get(timeout=10)
            signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)

        threading.Thread(target=interrupt).start()
        with pytest.raises(KeyboardInterrupt):
            link.call(b"?")
        wait_for(lambda: not link._link._calls.waiting)
    signal.signal(signal.SIGINT, before)


def test_interrupt_ends_a_call_that_has_only_been_handed_over(monkeypatch):
    engine = blocking._Engine.get()
    hand_over = engine.loop.call_soon_threadsafe

    def interrupted(*arguments, **named):
        monkeypatch.undo()
        hand_over(*arguments, **named)
        raise KeyboardInterrupt

    with blocking.serve("s", lambda request: None), blocking.connect("s") as link:
        monkeypatch.setattr(engine.loop, "call_soon_threadsafe", interrupted)
        with pytest.raises(KeyboardInterrupt):
            link.call(b"?")
        engine.do(lambda: None)  # what was handed over before has begun
        wait_for(lambda: not link._link._calls.waiting)


def test_coroutine_functions_are_not_for_this_face():
    async def handle(request):
        return None

    with pytest.raises(TypeError):
        blocking.serve("s", handle)


def test_thread_of_the_loop_does_not_wait_for_itself():
    async def wait():
        blocking.connect("s")

    with pytest.raises(RuntimeError):
        asyncio.run_coroutine_threadsafe(wait(), blocking._Engine.get().loop).result()
