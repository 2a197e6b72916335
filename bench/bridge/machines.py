"""Machines as network namespaces, each with a /dev/shm of its own, and what runs on them."""
import json
import os
import pathlib
import re
import select
import struct
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench/run"))
from processes import Child, Group, processor_time  # noqa: E402

PREPARE = ("mount -t tmpfs -o mode=1777 tmpfs /dev/shm && install -d -m 0755 /dev/shm/velm && "
           "install -d -m 1777 /dev/shm/velm/tarvo && echo ready && exec cat")
STATE = "/dev/shm/bridges"
PIPES = "/dev/shm/velm/tarvo"
# What a client writes to a server, before its name: magic, type, group, process, and how long the name is.
CONNECT = struct.Struct("<IIIiI")
FRONT_ADDRESS = "10.77.0.1"
GRPC_ENDPOINT = f"{FRONT_ADDRESS}:9100"
FLOOR_PORT = "9000"
DDS_CONFIG = ('<CycloneDDS><Domain Id="any"><General><Interfaces><NetworkInterface name="eth0"/></Interfaces></General>'
              "</Domain></CycloneDDS>")


class Machine:
    """A network namespace with a /dev/shm of its own, whose programs stay on `cores`; gone with `close`."""

    def __init__(self, name, cores):
        self.name, self.cores, self.processes = name, cores, []
        self.holder = subprocess.Popen(["unshare", "-n", "-m", "bash", "-c", PREPARE], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, text=True)
        if self.holder.stdout.readline() != "ready\n":
            raise RuntimeError("no network namespace can be made here: this needs root")

    def path(self, file):
        """A file of its own, for those outside."""
        return f"/proc/{self.holder.pid}/root{file}"

    def inside(self, command):
        return ["taskset", "-c", self.cores, "nsenter", "-t", str(self.holder.pid), "-n", "-m", *map(str, command)]

    def run(self, *command):
        return subprocess.run(self.inside(command), check=True, capture_output=True, text=True, timeout=300).stdout

    def start(self, *command):
        process = subprocess.Popen(self.inside(command), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.processes.append(process)
        return process

    def close(self):
        for process in self.processes:
            process.kill()
            process.wait()
        self.holder.stdin.close()
        self.holder.wait()


def plug(first, second):
    """A cable between two machines."""
    first.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", second.holder.pid)
    for number, machine in enumerate((first, second), 1):
        machine.run("ip", "addr", "add", f"10.77.0.{number}/24", "dev", "eth0")
        for link in ("lo", "eth0"):
            machine.run("ip", "link", "set", link, "up")


def wait_until(holds, otherwise):
    end = time.monotonic() + 20
    while not holds():
        if time.monotonic() > end:
            raise TimeoutError(otherwise)
        time.sleep(0.01)


def private_kb(pid):
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="utf-8")
    return sum(int(kb) for kb in re.findall(r"^Private_\w+:\s+(\d+) kB", text, re.M))


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


class Pair:
    """Two machines, `front` with the servers and `rear` with the clients, and what joins them."""

    def __init__(self, build, bridge, cores):
        self.build, self.bridge = build, bridge
        self.group, self.folder = Group(), tempfile.TemporaryDirectory()
        self.clients, self.servers, self.bridges, self.relays = 0, {}, [], {}
        self.floor = build / "bench/bridge/bench_tcp_floor"
        self.front, self.rear = Machine("front", cores[0]), Machine("rear", cores[1])
        plug(self.front, self.rear)

    def close(self):
        self.group.__exit__()
        self.rear.close()
        self.front.close()
        self.folder.cleanup()

    def program(self, contestant):
        return self.build / f"bench/process/bench_{contestant}"

    def serve(self, contestant, endpoint):
        server = self.group.add(Child(self.front.inside([self.program(contestant), "server", "--endpoint", endpoint])))
        self.servers[endpoint] = server.answer()["processes"]
        # Clients wait for what the server has counted.
        self.rear.run("ln", "-s", self.front.path(f"/dev/shm/{endpoint}.count"), "/dev/shm")

    def start_bridges(self, *names):
        shared = ("--interface", "eth0", "--state-folder", STATE, "--machine")
        for machine, option in ((self.front, "--export"), (self.rear, "--import")):
            words = [word for name in names for word in (option, name)]
            self.bridges.append(machine.start(self.bridge, *shared, machine.name, *words).pid)
        for name in names:
            self.rear.run(self.build / "tools/tarvoctl/tarvoctl", "wait", name, "--timeout", "20s")

    def client(self, machine, contestant, endpoint, *task):
        """One that is connected, and the file for its samples."""
        helpers = self.servers[endpoint] + (self.bridges if machine is self.rear and ":" not in endpoint else [])
        child, file = self.begin_client(machine, contestant, endpoint, helpers, *task)
        child.answer()
        return child, file

    def begin_client(self, machine, contestant, endpoint, helpers, *task):
        """One that connects now. Its processor time counts with that of the helpers."""
        self.clients += 1
        file = os.path.join(self.folder.name, str(self.clients))
        watched = [word for pid in helpers for word in ("--server", pid)]
        return self.group.add(Child(machine.inside([
            self.program(contestant), "client", "--endpoint", endpoint, "--self", f"client{self.clients}", "--samples",
            file, *watched, *task]))), file

    def dds_config(self):
        config = os.path.join(self.folder.name, "dds.xml")
        pathlib.Path(config).write_text(DDS_CONFIG, encoding="utf-8")
        return "env", f"CYCLONEDDS_URI=file://{config}"

    def start_dds(self):
        self.dds = (*self.dds_config(), "ddsperf", "-i", "77")
        self.front.start(*self.dds, "pong")

    def dds_round_trip(self, size, seconds):
        """In us. It prints the half of it once a second; the first second is that of its start."""
        said = self.rear.run(*self.dds, "-D", seconds + 1, "ping", "size", size)
        halves = [float(us) for us in re.findall(r" 50% ([\d.]+)us", said)]
        return 2 * sum(halves[1:]) / len(halves[1:])

    def start_echo(self, name):
        """FIFOs of both machines, and a server at those of one: the ends of a relay."""
        fifos = (f"/dev/shm/{name}.in", f"/dev/shm/{name}.out")
        for machine in (self.front, self.rear):
            machine.run("mkfifo", *fifos)
        return fifos, [self.front.start(self.floor, "echo", *fifos)]

    def start_floor(self):
        fifos, relay = self.start_echo("tcp")
        relay.append(self.front.start(self.floor, "listen", FLOOR_PORT, *fifos))
        wait_until(lambda: f":{FLOOR_PORT}" in self.front.run("ss", "-Hltn"), "the floor does not listen")
        relay.append(self.rear.start(self.floor, "connect", FRONT_ADDRESS, FLOOR_PORT, *fifos))
        self.relays["tcp"] = [process.pid for process in relay]

    def start_dds_floor(self):
        fifos, relay = self.start_echo("dds")
        relay += self.join_over_dds("dds", fifos[::-1], fifos)
        self.relays["dds"] = [process.pid for process in relay]

    def join_over_dds(self, name, front, rear):
        """Copies between the FIFOs of two machines: of each the one that is read, and the one that is written."""
        ready = [os.path.join(self.folder.name, machine.name + name) for machine in (self.front, self.rear)]
        floor, topics = self.build / "bench/bridge/bench_dds_floor", (f"{name}_answers", f"{name}_questions")
        relay = [self.front.start(*self.dds_config(), floor, *topics, *front, ready[0]),
                 self.rear.start(*self.dds_config(), floor, *reversed(topics), *rear, ready[1])]
        wait_until(lambda: all(map(os.path.exists, ready)), "the ends of the floor over the DDS do not meet")
        return relay

    def client_of_floor(self, contestant, endpoint, *task):
        """As client(), but with the floor over the DDS in the place of bridges. It copies what is in pipes, and knows
        nothing of them, so they are made and opened here."""
        name = f"{endpoint}_over_floor{self.clients}"
        os.mkfifo(self.rear.path(f"{PIPES}/{name}"))
        listening = os.open(self.rear.path(f"{PIPES}/{name}"), os.O_RDWR)
        self.rear.run("ln", "-s", self.front.path(f"/dev/shm/{endpoint}.count"), f"/dev/shm/{name}.count")
        child, file = self.begin_client(self.rear, contestant, name, (), *task)
        if not select.select([listening], [], [], 20)[0]:
            raise TimeoutError("the client of the floor over the DDS does not connect")
        head, client = os.read(listening, CONNECT.size), os.read(listening, 4096).decode()
        os.close(listening)
        rear = (f"{PIPES}/{client}__to__{name}", f"{PIPES}/{name}__to__{client}")
        for fifo in rear:
            os.mkfifo(self.rear.path(fifo))
        magic, kind, group, *_ = CONNECT.unpack(head)
        with open(self.front.path(f"{PIPES}/{endpoint}"), "wb", buffering=0) as server:
            server.write(CONNECT.pack(magic, kind, group, self.front.holder.pid, len(client)) + client.encode())
        front = (f"{PIPES}/{endpoint}__to__{client}", f"{PIPES}/{client}__to__{endpoint}")
        wait_until(lambda: all(os.path.exists(self.front.path(fifo)) for fifo in front), "the server makes no pipe")
        self.join_over_dds(name, front, rear)
        child.answer()
        return child, file

    def floor_calls(self, relay, size, count, window):
        pids = self.relays[relay]
        ticks = sum(processor_time(pids))
        said = json.loads(self.rear.run(self.floor, "call", f"/dev/shm/{relay}.in", f"/dev/shm/{relay}.out", size, count,
                                        window))
        # Without the client's own.
        spent = (sum(processor_time(pids)) - ticks) / os.sysconf("SC_CLK_TCK")
        return said["median_us"], said["calls_per_s"], spent / count * 1e6
