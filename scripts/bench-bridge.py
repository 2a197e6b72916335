#!/usr/bin/env python3
"""Measures the bridge between two network namespaces of this machine, beside a call on one machine, a bare round trip of
the DDS, and a relay that only copies bytes over TCP. Prints a table, or JSON.

Needs root, an idle machine, and a build with benchmarks: build/release unless --build names another. What a figure is
divided by was measured in the same run.
"""

import argparse
import json
import os
import pathlib
import re
import statistics
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PREPARE = ("mount -t tmpfs -o mode=1777 tmpfs /dev/shm && install -d -m 0755 /dev/shm/velm && "
           "install -d -m 1777 /dev/shm/velm/tarvo && echo ready && exec cat")
STATE = "/dev/shm/bridges"


class Machine:
    """A network namespace with a /dev/shm of its own; gone with `close`."""

    def __init__(self, name):
        self.name, self.processes = name, []
        self.holder = subprocess.Popen(["unshare", "-n", "-m", "bash", "-c", PREPARE], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, text=True)
        assert self.holder.stdout.readline() == "ready\n"

    def inside(self, command):
        return ["nsenter", "-t", str(self.holder.pid), "-n", "-m", *map(str, command)]

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


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def private_kb(pid):
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return sum(int(kb) for kb in re.findall(r"^Private_\w+:\s+(\d+) kB", text, re.M))


class Bench:
    def __init__(self, build, count):
        self.count = count
        self.tool = build / "tools/tarvoctl/tarvoctl"
        self.bridge = build / "bridge/tarvo-bridge"
        self.floor = build / "bench/bridge/bench_tcp_floor"
        self.front, self.rear = Machine("front"), Machine("rear")
        plug(self.front, self.rear)

    def close(self):
        self.rear.close()
        self.front.close()

    def ping(self, machine, size, outstanding=1):
        """What the tool says at its end."""
        said = machine.run(self.tool, "ping", "camera", "--size", size, "--count", self.count, "--interval", "0",
                           "--outstanding", outstanding, "--json")
        return json.loads(said.strip().splitlines()[-1])

    def start_bridges(self):
        self.front.start(self.tool, "serve", "camera", "--engine", "loop")
        arguments = ("--interface", "eth0", "--state-folder", STATE, "--machine")
        self.exporter = self.front.start(self.bridge, *arguments, "front", "--export", "camera")
        self.importer = self.rear.start(self.bridge, *arguments, "rear", "--import", "camera")
        self.rear.run(self.tool, "wait", "camera", "--timeout", "20s")

    def bridged(self, figures):
        for size in (64, 4000):
            figures[f"local {size}"] = self.ping(self.front, size)
            figures[f"bridge {size}"] = self.ping(self.rear, size)
        pids = (self.exporter.pid, self.importer.pid)
        before = sum(map(processor_seconds, pids))
        figures["bridge 64, 64 under way"] = self.ping(self.rear, 64, 64)
        figures["processor us a call, both bridges"] = (sum(map(processor_seconds, pids)) - before) / self.count * 1e6
        started = time.monotonic()
        self.rear.run(self.tool, "send", "camera", "x" * 64, "--repeat", self.count, "--timeout", "60s")
        figures["one-way a second"] = self.count / (time.monotonic() - started)
        idle = [private_kb(pid) for pid in pids]
        clients = [self.rear.start(self.tool, "ping", "camera", "--interval", "60s") for _ in range(50)]
        self.await_files(self.rear, 2 * len(clients) + 1)
        figures["private kB a session, each bridge"] = [
            round((private_kb(pid) - kb) / len(clients), 1) for pid, kb in zip(pids, idle)]

    @staticmethod
    def await_files(machine, count):
        folder = pathlib.Path(f"/proc/{machine.holder.pid}/root/dev/shm/velm/tarvo")
        end = time.monotonic() + 60
        while len(list(folder.iterdir())) < count:
            if time.monotonic() > end:
                raise TimeoutError("the clients do not connect")
            time.sleep(0.05)

    def bare_dds(self, figures):
        with tempfile.TemporaryDirectory() as folder:
            config = pathlib.Path(folder, "dds.xml")
            config.write_text('<CycloneDDS><Domain Id="any"><General><Interfaces><NetworkInterface name="eth0"/>'
                              "</Interfaces></General></Domain></CycloneDDS>")
            setting = ("env", f"CYCLONEDDS_URI=file://{config}", "ddsperf", "-i", "77")
            self.front.start(*setting, "pong")
            for size in (64, 4000):
                said = self.rear.run(*setting, "-D", "6", "ping", "size", size)
                # "... mean M us min L 50% N 90% ..." a second; the second half is warm.
                medians = [float(us) for us in re.findall(r" 50% ([\d.]+)us", said)]
                figures[f"ddsperf {size}, us of half a round trip"] = statistics.median(medians[len(medians) // 2:])

    def tcp_floor(self, figures):
        for machine in (self.front, self.rear):
            machine.run("mkfifo", "/dev/shm/in", "/dev/shm/out")
        self.front.start(self.floor, "echo", "/dev/shm/in", "/dev/shm/out")
        self.front.start(self.floor, "listen", "9000", "/dev/shm/in", "/dev/shm/out")
        time.sleep(0.5)
        self.rear.start(self.floor, "connect", "10.77.0.1", "9000", "/dev/shm/in", "/dev/shm/out")
        for size, window in ((64, 1), (4000, 1), (64, 64)):
            said = self.rear.run(self.floor, "call", "/dev/shm/in", "/dev/shm/out", size, self.count, window)
            figures[f"tcp {size}" + (f", {window} under way" if window > 1 else "")] = json.loads(said)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release")
    parser.add_argument("--count", type=int, default=20000, help="calls for each figure (%(default)s)")
    arguments = parser.parse_args()
    figures = {}
    bench = Bench(arguments.build.resolve(), arguments.count)
    try:
        bench.start_bridges()
        bench.bridged(figures)
        bench.bare_dds(figures)
        bench.tcp_floor(figures)
    finally:
        bench.close()
    print(json.dumps(figures, indent=2))


if __name__ == "__main__":
    main()
