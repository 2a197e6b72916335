"""The processes of one measurement, and what the kernel says about them."""
import ctypes
import json
import os
import re
import resource
import select
import signal
import subprocess
import time

SILENCE = 120  # seconds after which a process that says nothing has failed


class Failure(Exception):
    """A contestant did not do what it was asked to."""


class Child:
    """A process of a contestant that is told what to do by lines, and answers with lines of JSON."""

    def __init__(self, arguments, environment=None):
        self.process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        env={**os.environ, **(environment or {})})
        self.pid = self.process.pid

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def answer(self, patience=0):
        poll = select.poll()  # select(2) knows no more than 1024 descriptors
        poll.register(self.process.stdout, select.POLLIN)
        ready = poll.poll((SILENCE + patience) * 1000)
        line = self.process.stdout.readline() if ready else ""
        if not line:
            raise Failure(f"{os.path.basename(self.process.args[0])} {self.process.args[1]} " +
                          ("ended" if ready else "says nothing"))
        return json.loads(line)

    def ask(self, line):
        self.tell(line)
        return self.answer()

    def end(self):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass

    def await_end(self):
        try:
            self.process.wait(3)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Group:
    """Children that end together: `with Group() as group: group.add(Child(...))`."""

    def __init__(self):
        self.children = []

    def __enter__(self):
        return self

    def add(self, child):
        self.children.append(child)
        return child

    def __exit__(self, *_):
        # The last that came goes first: clients before their server.
        for child in reversed(self.children):
            child.end()
        for child in reversed(self.children):
            child.await_end()


class Busy:
    """Processes that use their cores, each kept on one: all on the last, or one on each in turn."""

    def __init__(self, program, number, one_core):
        cores = sorted(os.sched_getaffinity(0))
        self.processes = [subprocess.Popen([program, "busy"]) for _ in range(number)]
        for index, process in enumerate(self.processes):
            os.sched_setaffinity(process.pid, {cores[-1] if one_core else cores[index % len(cores)]})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()
            process.wait()


def _lines(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def switches(pids):
    """Context switches of all threads so far: given up, and taken away."""
    total = 0
    for pid in pids:
        for thread in os.listdir(f"/proc/{pid}/task"):
            try:
                status = _lines(f"/proc/{pid}/task/{thread}/status")
            except (FileNotFoundError, ProcessLookupError):
                continue  # it has ended meanwhile
            total += sum(int(number) for number in re.findall(r"ctxt_switches:\s+(\d+)", status))
    return total


def processor_time(pids):
    """Of all that have run so far, in the processes' own code and in the kernel, in ticks."""
    fields = [_lines(f"/proc/{pid}/stat").rpartition(")")[2].split() for pid in pids]
    return sum(int(one[11]) for one in fields), sum(int(one[12]) for one in fields)


def facts(pid):
    """What a process holds: threads, descriptors, memory in kB."""
    status = _lines(f"/proc/{pid}/status")
    rollup = _lines(f"/proc/{pid}/smaps_rollup")
    private = sum(int(kb) for kb in re.findall(r"^Private_\w+:\s+(\d+)", rollup, re.M))
    return {"threads": int(re.search(r"Threads:\s+(\d+)", status)[1]),
            "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
            "private_kb": private,
            "locked_kb": int(re.search(r"^Locked:\s+(\d+)", rollup, re.M)[1]),
            "virtual_kb": int(re.search(r"VmSize:\s+(\d+)", status)[1])}


def raise_descriptor_limit():
    """Each child takes two."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def monotonic_ns():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)


def die_with_parent():
    """For a child between fork and exec: it does not outlive this program."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)
