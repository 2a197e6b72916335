"""The contestants: each with a server that echoes, and a client. Both are asyncio, each in a process of its own."""

import asyncio
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))


class Tarvo:
    """This package."""

    name = "tarvo"

    def __init__(self, place):
        self.served = "bench_" + os.path.basename(place)

    async def serve(self, ready):
        import tarvo

        count = 0
        async with tarvo.serve(self.served) as server:

            @server.on_request
            async def handle(request):
                nonlocal count
                count += 1
                if request.payload[0] == ONE_WAY:
                    return None
                return str(count).encode() if request.payload[0] == COUNT else request.payload

            ready()
            await server.serve_forever()

    async def connect(self):
        import tarvo

        self.link = await tarvo.connect(self.served, own="bench", timeout=10)

    async def call(self, payload):
        return await self.link.call(payload, 10)

    async def send(self, payload):
        await self.link.send(payload)

    async def close(self):
        self.link.close()


class ZeroMq:
    """A router and a dealer over a socket of the file system; replies are matched by a number, as its users do it."""

    name = "zmq"

    def __init__(self, place):
        self.address = f"ipc://{place}/zmq"

    async def serve(self, ready):
        import zmq
        import zmq.asyncio

        socket = zmq.asyncio.Context().socket(zmq.ROUTER)
        socket.set_hwm(0)
        socket.bind(self.address)
        ready()
        count = 0
        while True:
            client, number, payload = await socket.recv_multipart()
            count += 1
            if payload[0] != ONE_WAY:
                answer = str(count).encode() if payload[0] == COUNT else payload
                await socket.send_multipart([client, number, answer])

    async def connect(self):
        import zmq
        import zmq.asyncio

        self.socket = zmq.asyncio.Context().socket(zmq.DEALER)
        self.socket.set_hwm(0)
        self.socket.connect(self.address)
        self.waiting, self.last = {}, 0
        self.reader = asyncio.create_task(self.read())

    async def read(self):
        while True:
            number, payload = await self.socket.recv_multipart()
            waiter = self.waiting.pop(number, None)
            if waiter is not None and not waiter.done():
                waiter.set_result(payload)

    async def call(self, payload):
        self.last += 1
        number = self.last.to_bytes(8, "little")
        waiter = self.waiting[number] = asyncio.get_running_loop().create_future()
        await self.socket.send_multipart([number, payload])
        async with asyncio.timeout(10):
            return await waiter

    async def send(self, payload):
        await self.socket.send_multipart([b"", payload])

    async def close(self):
        self.reader.cancel()
        self.socket.close(0)


class Grpc:
    """A unary method over a socket of the file system, with bytes as they are: no messages to encode."""

    name = "grpc.aio"

    def __init__(self, place):
        self.address = f"unix:{place}/grpc"

    async def serve(self, ready):
        import grpc

        count = 0

        async def handle(payload, _):
            nonlocal count
            count += 1
            if payload[0] == ONE_WAY:
                return b""
            return str(count).encode() if payload[0] == COUNT else payload

        server = grpc.aio.server()
        methods = {"Call": grpc.unary_unary_rpc_method_handler(handle)}
        server.add_generic_rpc_handlers((grpc.method_handlers_generic_handler("bench.Echo", methods),))
        server.add_insecure_port(self.address)
        await server.start()
        ready()
        await server.wait_for_termination()

    async def connect(self):
        import grpc

        self.channel = grpc.aio.insecure_channel(self.address)
        self.method = self.channel.unary_unary("/bench.Echo/Call")
        await self.channel.channel_ready()

    async def call(self, payload):
        return await self.method(payload, timeout=10)

    send = call  # it has no other request

    async def close(self):
        await self.channel.close()


class Dbus:
    """A method of an object on a bus of its own; messages without a reply for one-way."""

    name = "dbus-next"

    def __init__(self, place):
        self.address = f"unix:path={place}/bus"

    @staticmethod
    def broker(place):
        return subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address=unix:path={place}/bus"],
            stderr=subprocess.DEVNULL,
        )

    async def serve(self, ready):
        from dbus_next import Message, MessageType
        from dbus_next.aio import MessageBus

        bus = await self.bus(MessageBus)
        count = 0

        def handle(message):
            nonlocal count
            if message.message_type is not MessageType.METHOD_CALL or message.interface != "bench.Echo":
                return None
            count += 1
            payload = message.body[0]
            if payload[0] == ONE_WAY:
                return True
            answer = str(count).encode() if payload[0] == COUNT else payload
            return Message.new_method_return(message, "ay", [answer])

        bus.add_message_handler(handle)
        await bus.request_name("bench.Echo")
        ready()
        await bus.wait_for_disconnect()

    async def bus(self, kind):
        while not os.path.exists(self.address.partition("=")[2]):
            await asyncio.sleep(0.01)
        return await kind(bus_address=self.address).connect()

    def message(self, payload):
        from dbus_next import Message

        return Message("bench.Echo", "/", "bench.Echo", "Call", signature="ay", body=[payload])

    async def connect(self):
        from dbus_next.aio import MessageBus

        self.client = await self.bus(MessageBus)

    async def call(self, payload):
        async with asyncio.timeout(10):
            return (await self.client.call(self.message(payload))).body[0]

    async def send(self, payload):
        from dbus_next import MessageFlag

        message = self.message(payload)
        message.flags = MessageFlag.NO_REPLY_EXPECTED
        await self.client.send(message)

    async def close(self):
        self.client.disconnect()


CONTESTANTS = {one.name: one for one in (Tarvo, ZeroMq, Grpc, Dbus)}
ECHO, ONE_WAY, COUNT = 0, 1, 2  # first byte of a request: what its server does with it


def place():
    """A folder for the sockets of one measurement."""
    return tempfile.mkdtemp(prefix="tarvo-bench-")


def remove(folder):
    """Removes it."""
    shutil.rmtree(folder, ignore_errors=True)
