"""Calls at 1 kHz from a real-time thread on a machine under stress, over urgent pipes and over normal ones, and what the
machine itself adds meanwhile, as cyclictest sees it."""
import json
import os
import shutil
import subprocess
import tempfile
import time

from figures import PERCENTILES, histogram, percentile
from measure import measure
from processes import Failure, die_with_parent
from scenarios import LEAST_ABOVE, LEAST_SAMPLES, Scenario

RATE = 1000
SCENARIO = Scenario("periodic", "calls of 64 bytes at 1 kHz under stress", kind="periodic")
SETTLE = 2  # seconds that the stress has before the first call


class Beside:
    """A program that runs beside the measurement. What it prints goes to a file of the folder."""

    def __init__(self, folder, command):
        self.command = command
        self.log = open(os.path.join(folder, command[0] + ".log"), "wb")
        self.process = subprocess.Popen(command, stdout=self.log, stderr=subprocess.STDOUT, preexec_fn=die_with_parent)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()


def stress_command(folder, seconds):
    cores = len(os.sched_getaffinity(0))
    return ["stress-ng", "--cpu", str(cores), "--vm", "1", "--vm-bytes", "256M", "--hdd", "1", "--hdd-bytes", "64M",
            "--temp-path", folder, "--timeout", f"{int(seconds) + 60}s"]


def cyclictest_command(path, seconds):
    """Above the library's threads, so that it sees the machine and not them; leaves the machine's settings alone."""
    return ["cyclictest", "--default-system", "--mlockall", "--smp", "--priority=51", "--interval=1000", "--quiet",
            "--histogram=20000", f"--duration={max(1, round(seconds))}", f"--json={path}"]


def of_cyclictest(path):
    """All its threads together, in us."""
    with open(path, encoding="utf-8") as file:
        threads = json.load(file)["thread"].values()
    counts = {}
    for thread in threads:
        for latency, count in thread["histogram"].items():
            counts[int(latency)] = counts.get(int(latency), 0) + count
    total = sum(thread["cycles"] for thread in threads)
    found = {"samples": total, "max": max(thread["max"] for thread in threads),
             "histogram_us": sorted(counts.items())}
    for name, part in PERCENTILES.items():
        seen = 0
        for latency, count in sorted(counts.items()):
            seen += count
            if seen >= part * total and total >= LEAST_SAMPLES and total * (1 - part) >= LEAST_ABOVE:
                found[name] = latency
                break
    return found


def of_samples(samples, seconds):
    found = {name: percentile(samples, seconds, part) for name, part in PERCENTILES.items()}
    return {**found, "samples": len(samples), "max": float(samples.max()) / 1e3, "histogram_us": histogram(samples)}


def one(contestant, urgent, seconds, work):
    with tempfile.TemporaryDirectory(dir=work) as folder:
        report = os.path.join(folder, "cyclictest.json")
        stress = stress_command(folder, seconds)
        cyclic = cyclictest_command(report, seconds)
        with Beside(folder, stress):
            time.sleep(min(SETTLE, seconds))
            with Beside(folder, cyclic) as beside:
                measured = measure(contestant, SCENARIO, "all", seconds, 0, rate=RATE, urgent=urgent)
                try:
                    beside.process.wait(30)
                except subprocess.TimeoutExpired as error:
                    raise Failure("cyclictest does not end") from error
        if beside.process.returncode != 0:
            raise Failure("cyclictest failed")
        return {"contestant": contestant.name, "pipes": "urgent" if urgent else "normal",
                "call": of_samples(measured.services, measured.seconds),
                "from_due": of_samples(measured.samples, measured.seconds),
                "cpu": measured.figures["cpu"], "cyclictest": of_cyclictest(report),
                "stress": " ".join(stress).replace(folder, "DIR"), "measured_beside": " ".join(cyclic[:-1])}


def measure_urgent(contestant, seconds, order, work):
    """Both kinds of pipes, one after the other; the disk load writes below the folder `work`. Raises Failure."""
    for program in ("stress-ng", "cyclictest"):
        if not shutil.which(program):
            raise Failure(f"{program} is not installed")
    return [one(contestant, urgent, seconds, work) for urgent in order]
