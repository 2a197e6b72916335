"""One measurement of one contestant in one scenario."""
import json
import os
import subprocess
import tempfile
import time
from dataclasses import dataclass, field, replace

import numpy

from counted import directory_for
from processes import Busy, Child, Failure, Group, facts, monotonic_ns, processor_time, switches
from scenarios import LANES, MANY_CLIENTS

FASTEST = 400_000  # calls a second, of all clients together
WARM_UP = 500
COUNTED_CALLS, COUNTED_CONNECTS = 500, 50
CLIENTS_AT_ONCE = 32  # that are started before the first of them has to be ready


@dataclass
class Contestant:
    """A program of bench/process, under the name that it has in the report."""
    name: str
    program: str
    described: dict
    environment: dict = field(default_factory=dict)
    counted: bool = False  # keeps statistics (counted.py)

    @property
    def abilities(self):
        return self.described["abilities"]

    @property
    def floor(self):
        return self.described["floor"]

    @property
    def design(self):
        return self.described["design"]

    @property
    def peer(self):
        return not self.floor and self.described["name"] not in ("tarvo", "tarvo-loop")


@dataclass
class Measured:
    """What one measurement came to. Latencies in ns; `figures` by name, of the whole measurement."""
    samples: numpy.ndarray
    seconds: float
    figures: dict
    services: numpy.ndarray = None


def discover(folder):
    """The contestants that were built, by name."""
    found = {}
    for file in sorted(os.listdir(folder)):
        path = os.path.join(folder, file)
        if file.startswith("bench_") and os.access(path, os.X_OK) and os.path.isfile(path):
            described = json.loads(subprocess.run([path, "describe"], capture_output=True, check=True).stdout)
            found[described["name"]] = Contestant(described["name"], path, described)
    return found


_number = 0


def _endpoint():
    global _number
    _number += 1
    return f"tvb{os.getpid()}_{_number}"


def _remove_leftovers(endpoint):
    """Of a server that was ended the hard way."""
    for name in os.listdir("/dev/shm"):
        if name.startswith(endpoint + ".") or name.startswith(endpoint + "w."):
            os.unlink(os.path.join("/dev/shm", name))


def measure(contestant, scenario, mode, seconds, least, rate=0.0, urgent=False, count=0):
    """Starts a server and its clients, measures, ends them. Raises Failure when the contestant fails."""
    endpoint = _endpoint()
    common = ["--endpoint", endpoint] + (["--one-core"] if mode == "one" else []) + (
        ["--urgent"] if urgent else []) + (["--lock", "onfault"] if scenario.kind == "periodic" else [])
    try:
        with tempfile.TemporaryDirectory(prefix="tarvo-bench") as folder, directory_for(contestant), Group() as group:
            server = group.add(Child([contestant.program, "server", *common], contestant.environment))
            processes = server.answer()["processes"]
            if not contestant.abilities & LANES:
                scenario = replace(scenario, lanes=1)  # its one thread starts the calls as they are due
            task = _task(scenario, seconds, least, rate, count)
            for process in processes:
                task += ["--server", str(process)]
            clients = _connect(group, contestant, scenario, endpoint, common + task, folder)
            if scenario.kind == "idle":
                return _idle(processes + [client.pid for client in clients], seconds)
            return _run(contestant, scenario, mode, clients, processes, folder, seconds)
    except (BrokenPipeError, ValueError, OSError) as error:
        raise Failure(f"{contestant.name}: {error}") from error
    finally:
        _remove_leftovers(endpoint)


def _task(scenario, seconds, least, rate, count):
    kind = {"idle": "call", "periodic": "open"}.get(scenario.kind, scenario.kind)
    task = ["--kind", kind, "--size", scenario.size, "--lanes", scenario.lanes, "--pipes", scenario.pipes, "--window",
            scenario.window, "--seconds", seconds, "--rate", rate, "--count", count,
            "--fastest", FASTEST // scenario.clients,
            "--warm-up", WARM_UP if scenario.clients == 1 else max(WARM_UP // scenario.clients, 2),
            # Several clients measure in one window of time, one until it has enough.
            "--least", least if scenario.clients == 1 else 0]
    if scenario.kind == "periodic":
        task += ["--realtime", 49, "--limit", seconds + 1]
    return [str(word) for word in task]


def _connect(group, contestant, scenario, endpoint, arguments, folder):
    clients = []
    for index in range(scenario.clients):
        clients.append(group.add(Child([contestant.program, "client", "--self", f"{endpoint}_{index}", "--samples",
                                        os.path.join(folder, str(index)), *arguments], contestant.environment)))
        if index >= CLIENTS_AT_ONCE:
            clients[index - CLIENTS_AT_ONCE].answer()
    for client in clients[-CLIENTS_AT_ONCE:]:
        client.answer()
    return clients


def _idle(processes, seconds):
    before = switches(processes)
    time.sleep(seconds)
    return Measured(numpy.empty(0), seconds, {"wakeups": switches(processes) - before})


def _run(contestant, scenario, mode, clients, servers, folder, seconds):
    watched = servers + [clients[0].pid]
    with Busy(contestant.program, scenario.busy, mode == "one"):
        held = facts(servers[-1]) if scenario.needs & MANY_CLIENTS and scenario.kind != "opens" else {}
        before = switches(servers), processor_time(watched)
        begin = monotonic_ns() + (0 if scenario.clients == 1 else 20_000_000 + 1_000_000 * scenario.clients)
        for client in clients:
            client.tell(f"run {begin}")
        results = [client.answer(seconds) for client in clients]
        after = switches(servers), processor_time(watched)
    operations = sum(result["operations"] for result in results)
    if operations == 0:
        raise Failure(f"{contestant.name}: not one call within the time")
    length = (max(result["end"] for result in results) - min(result["begin"] for result in results)) / 1e9
    figures = {"switches": (after[0] - before[0]) / operations, **held}
    if scenario.kind == "opens":
        figures["failures"] = sum(result["failures"] for result in results)
    else:  # the moments in between of one client are not those of another there
        time_used = sum(result["own_time"] for result in results) + results[0]["server_time"]
        figures["cpu"] = time_used / operations / 1e3
    if scenario.kind != "connect":  # what closing takes is in the length
        figures["rate"] = operations / length
    if scenario.clients == 1 and scenario.kind not in ("open", "periodic"):
        figures.update(_kernel(before[1], after[1]))
        operations = COUNTED_CONNECTS if scenario.kind == "connect" else COUNTED_CALLS * scenario.lanes
        counted = clients[0].ask(f"count {operations}")
        if counted["syscalls"] >= 0:
            figures["syscalls"] = counted["syscalls"] / counted["operations"]
    samples = [numpy.fromfile(os.path.join(folder, str(index)), numpy.int64) for index in range(len(clients))]
    services = os.path.join(folder, "0.services")
    return Measured(_small(numpy.concatenate(samples)), length, figures,
                    numpy.fromfile(services, numpy.int64) if os.path.exists(services) else None)


def _small(samples):
    """In half the memory, where no sample is longer than 4 s."""
    return samples.astype(numpy.uint32) if len(samples) and samples.max() < 1 << 32 else samples


def _kernel(before, after):
    """The kernel's part of the processor time in percent, from ticks: nothing for less than a second."""
    own, kernel = (now - then for now, then in zip(after, before))
    return {"kernel": 100 * kernel / (own + kernel)} if own + kernel >= os.sysconf("SC_CLK_TCK") else {}
