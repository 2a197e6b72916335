#!/usr/bin/env python3
"""Runs the installed bpftrace scripts against servers and clients of both engines, and looks at what they print.

Prints "Skipped: " and the reason where the kernel lets nobody trace.
"""

import argparse
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

INSTALLED = "/usr/lib/*/"
SECONDS = "2"


def run(command, timeout=120):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=timeout, check=False)


def reason_to_skip(library):
    if shutil.which("bpftrace") is None:
        return "there is no bpftrace"
    if os.geteuid() != 0:
        return "only root may trace"
    tried = run(["bpftrace", "-e", f"usdt:{library}:tarvo:open {{ exit(); }} BEGIN {{ printf(\"attached\\n\"); exit(); }}"])
    return None if "attached" in tried.stdout else "the kernel does not allow it: " + tried.stdout.strip()[-300:]


class Scene:
    """Processes in the background, which end with it."""

    def __init__(self, tool):
        self.tool = tool
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stack.close()

    def start(self, *arguments):
        process = subprocess.Popen([self.tool, *arguments], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.stack.callback(process.wait)
        self.stack.callback(process.kill)
        return process

    def server(self, name, engine, *more):
        process = self.start("serve", name, "--engine", engine, *more)
        subprocess.run([self.tool, "wait", name], check=True, stdout=subprocess.DEVNULL, timeout=60)
        return process

    def again_and_again(self, *arguments):
        """A command over and over until the scene ends."""
        command = ["sh", "-c", 'while :; do "$@" >/dev/null 2>&1; done', "sh", self.tool, *arguments]
        process = subprocess.Popen(command, start_new_session=True)
        self.stack.callback(process.wait)
        self.stack.callback(lambda: os.killpg(process.pid, signal.SIGKILL))


class Test:
    def __init__(self, options):
        self.options = options
        self.folder = pathlib.Path(tempfile.mkdtemp())
        # Copies, which the processes of other tests do not run.
        for library in options.libraries:
            shutil.copy(library, self.folder)
        os.environ["LD_LIBRARY_PATH"] = str(self.folder)
        self.name = f"traced{os.getpid()}"

    def script(self, name):
        """A script as it is installed, but for where the libraries are."""
        text = (self.options.scripts / name).read_text()
        if INSTALLED not in text:
            sys.exit(f"{name} does not look at {INSTALLED}")
        path = self.folder / name
        path.write_text(text.replace(INSTALLED, f"{self.folder}/"))
        result = run(["bpftrace", str(path), SECONDS])
        if result.returncode != 0:
            sys.exit(f"{name} failed:\n{result.stdout}")
        return result.stdout

    def expect(self, output, *patterns):
        missing = [pattern for pattern in patterns if not re.search(pattern, output)]
        if missing:
            sys.exit(f"not found: {missing} in\n{output}")

    def latency(self):
        steps = [r"@step1_request_in_fifo_us", r"@step2_wait_for_callback_us", r"@step3_callback_us",
                 r"@step4_answer_in_fifo_us", r"@step5_caller_told_us", r"@whole_call_us"]
        for engine in ("threads", "loop"):
            with Scene(self.options.tool) as scene:
                scene.server(self.name, engine)
                scene.start("ping", self.name, "--interval", "1ms", *(["--outstanding", "2"] if engine == "loop" else []))
                self.expect(self.script("tarvo-latency.bt"), *[step + r": *\n[\[(].*\|@*" for step in steps])

    def queues(self):
        with Scene(self.options.tool) as scene:
            for engine in ("threads", "loop"):
                name = self.name + engine
                scene.server(name, engine, "--count")
                scene.again_and_again("send", name, "x", "--repeat", "1000")
            output = self.script("tarvo-queues.bt")
        self.expect(output, "waiting now, by process and pipe")
        processes = set(re.findall(r"@most\[(\d+), \d+\]: [1-9]", output))
        if len(processes) != 2:
            sys.exit(f"not two servers in\n{output}")

    def drops(self):
        with Scene(self.options.tool) as scene:
            scene.server(self.name, "threads")
            scene.again_and_again("send", self.name, "x" * 4000, "--repeat", "100000")
            self.expect(self.script("tarvo-drops.bt"), r"process \d+ \(.*\) cannot send on pipe \d+: errno 11",
                        r"@refused_by_errno\[\d+, \d+, 11\]: [1-9]")

    def opens(self):
        """Each open that fails says so, at whatever step."""
        program = "".join(f"usdt:{self.folder}/{library.name}:tarvo:open {{ @opens[{index}, arg0 != 0, (int32)arg1] = count(); }}"
                          for index, library in enumerate(self.options.libraries))
        with subprocess.Popen(["bpftrace", "-e", program + ' BEGIN { printf("attached\\n"); }'], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as tracer:
            said = ""
            while "attached" not in said:
                line = tracer.stdout.readline()
                if not line:
                    sys.exit(f"bpftrace does not trace opens:\n{said}")
                said += line
            tool = self.options.tool
            run([tool, "call", self.name, "x"])
            run([tool, "ping", self.name, "--outstanding", "2"])
            # At some of these limits the program runs, but has no descriptor for the monitor of its pipes.
            for limit in range(3, 16):
                run(["prlimit", f"--nofile={limit}", tool, "call", self.name, "x"])
            tracer.send_signal(signal.SIGINT)
            said += tracer.communicate(timeout=60)[0]
        self.expect(said, r"@opens\[0, 1, -6\]: [1-9]", r"@opens\[1, 1, -6\]: [1-9]", r"@opens\[0, 0, -24\]: [1-9]")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("scripts", type=pathlib.Path)
    parser.add_argument("tool")
    parser.add_argument("libraries", type=pathlib.Path, nargs="+")
    options = parser.parse_args()
    reason = reason_to_skip(options.libraries[0])
    if reason:
        print("Skipped: " + reason)
        return
    test = Test(options)
    test.latency()
    test.queues()
    test.drops()
    test.opens()
    shutil.rmtree(test.folder)
    print("the scripts print what they promise")


if __name__ == "__main__":
    main()
