#!/usr/bin/env python3
"""Tries every C++, shell and Python block of a Markdown page, from the top to the bottom as a reader would.

Shell blocks run one after another as in one terminal, at the top of a copy of the repository whose build/release is the
build under test, with a home folder and a /dev/shm of their own. The ```text block directly below one shows its output.
Notes in the page (page.py) say what is not run, and why.
"""

import argparse
import contextlib
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import page

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIMIT_S = 120
AGAIN_S = 2
# Scripts of the project build, or run tests for long, and the tests of the pages are among what they run; but for these.
DRIVER = re.compile(r"^(?:\S+=\S+ )*(?:scripts/(?!install-deps|fifo-directory)|\.ci/)")
FLAGS = ["-std=c++17", "-Wall", "-Wextra", "-Werror", "-pthread"]

PRELUDE = """\
#include <tarvo.hpp>
#include <csignal>
#include <cstring>
#include <iostream>
#include <thread>
#include <vector>
using namespace std::chrono_literals;
"""

LOOP_PRELUDE = """\
#include <tarvo_coro.hpp>
#include <iostream>
using namespace std::chrono_literals;
struct Task {
    struct promise_type {
        Task get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() {}
    };
};
"""


class Failure(Exception):
    """A block does not do what the page says."""


class Page:
    """One run of one page. Owns the scratch folder and the processes in the background."""

    def __init__(self, text, build, compiler, scratch, alone):
        self.blocks = page.blocks_of(text)
        self.build, self.compiler, self.scratch, self.alone = build, compiler, scratch, alone
        self.background = []
        self.foreground = None  # the block that runs
        self.clone = scratch / "home/tarvo"  # where most people have it
        self.directory, self.environment = self.clone, self.make_clone()

    def make_clone(self):
        """The repository as a reader has it, by links; returns the environment of the first block."""
        (self.clone / "build").mkdir(parents=True)
        for entry in ROOT.iterdir():
            if entry.name not in {"build", ".git"}:
                (self.clone / entry.name).symlink_to(entry)
        (self.clone / "build/release").symlink_to(self.build)
        keep = {key: os.environ[key] for key in ("PATH", "LANG", "LC_ALL", "CCACHE_DIR") if key in os.environ}
        return {**keep, "HOME": str(self.scratch / "home"), "PYTHONDONTWRITEBYTECODE": "1", "CXX": self.compiler}

    def run(self):
        """Tries all blocks; the number of those that failed."""
        failed = 0
        for block in self.blocks:
            what = f"line {block.line}, {block.language or 'no language'}"
            try:
                print(f"{what}: {self.try_block(block)}", flush=True)
            except Failure as failure:
                print(f"{what}: FAILED: {failure}", flush=True)
                failed += 1
                break  # the next blocks build on this one
        return failed + sum(self.end(process) for process in self.background)

    def stop(self):
        """Ends at once what still runs."""
        for process in [*self.background, *([self.foreground] if self.foreground else [])]:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)

    def try_block(self, block):
        """What was done with the block."""
        if "skip" in block.notes:
            if not block.notes["skip"]:
                raise Failure("skipped without a reason")
            return f"not run: {block.notes['skip']}"
        if "alone" in block.notes and not self.alone:
            return "not run: the kernel refuses a mount namespace here"
        if "file" in block.notes:
            (self.directory / block.notes["file"]).write_text(block.text)
        if block.language == "sh" and any(DRIVER.match(line) for line in block.text.splitlines()):
            return "not run: it calls a script that builds or tests the project"
        kinds = {"cpp": self.compile, "sh": self.shell, "python": self.python}
        if block.language in kinds:
            return kinds[block.language](block)
        return "written" if "file" in block.notes else "nothing to run"

    def compile(self, block):
        """Compiles a program or a fragment."""
        source, text = self.scratch / f"line{block.line}.cpp", block.text
        program = "int main(" in text
        if "fragment" in block.notes:
            text = f"{PRELUDE}void f(tarvo::Pipe &pipe, const tarvo::Request &request) {{\n" + text + "}\n"
            text = text.replace("{\n", "{\n(void)pipe; (void)request;\n", 1)
        elif "declarations" in block.notes:
            text = PRELUDE + text
        elif "loop" in block.notes:
            text = LOOP_PRELUDE + text
        elif not program:
            raise Failure("neither a program nor noted as a fragment")
        source.write_text(text)
        unused = ["-Wno-unused"] if not program else []
        link = ["-o", source.with_suffix(""), f"-L{self.build}/src", "-ltarvo", f"-Wl,-rpath,{self.build}/src"]
        if "tarvo_loop.h" in text:
            link[2:2] = [f"-L{self.build}/src/loop", "-ltarvo-loop", f"-Wl,-rpath,{self.build}/src/loop"]
        # What the page itself compiles further down is looked at for warnings only, and so is what is no program.
        output = link if program and not self.builds_later(block) else ["-fsyntax-only"]
        standard = ["-std=c++20"] if "loop" in block.notes else []
        self.check([self.compiler, *FLAGS, *standard, *unused, f"-I{ROOT}/include", source, *output])
        return "compiled"

    def builds_later(self, block):
        """Whether a command below names the block's file."""
        name = block.notes.get("file")
        later = self.blocks[self.blocks.index(block) + 1:]
        return name is not None and any(name in other.text for other in later if other.language == "sh")

    def check(self, command):
        """Runs a command that must succeed."""
        done = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT_S, check=False)
        if done.returncode != 0:
            raise Failure(f"{command[0]} ended with {done.returncode}\n{done.stdout}{done.stderr}")

    def script(self, block):
        """The block as a script that leaves its folder and its environment to the next one."""
        state = self.scratch / "state"
        script = self.scratch / f"line{block.line}.sh"
        script.write_text(f"trap 'pwd >{state}.pwd; env -0 >{state}.env' EXIT\nset -euo pipefail\n{block.text}")
        return ["bash", str(script)], state

    def shell(self, block):
        """Runs a block of commands."""
        command, state = self.script(block)
        if "background" in block.notes:
            return self.begin(block, command)
        code, output = self.run_to_its_end(command)
        wanted = int(block.notes.get("exit", 0))
        if code != wanted:
            raise Failure(f"ended with {code} instead of {wanted}\n{output}")
        if block.expected is not None and not page.matches(block.expected, output):
            raise Failure(f"the page shows\n{block.expected}but the output is\n{output}")
        self.directory = pathlib.Path(pathlib.Path(f"{state}.pwd").read_text().strip())
        pairs = pathlib.Path(f"{state}.env").read_text().split("\0")
        self.environment = dict(pair.partition("=")[::2] for pair in pairs if pair)
        return "ran" if block.expected is None else "ran, with the output shown"

    def run_to_its_end(self, command):
        """The exit code and the output. Whatever the command has started ends with it when it takes too long."""
        process = subprocess.Popen(
            command, cwd=self.directory, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL, text=True, start_new_session=True,
        )
        self.foreground = process
        try:
            output, _ = process.communicate(timeout=LIMIT_S)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise Failure(f"did not end in {LIMIT_S} s\n{process.communicate()[0]}") from None
        self.foreground = None
        return process.returncode, output

    def begin(self, block, command):
        """Starts a block that serves, and waits until it has printed what the page shows."""
        process = subprocess.Popen(
            command, cwd=self.directory, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            stdin=subprocess.PIPE, start_new_session=True,
        )
        self.background.append(process)
        if block.expected is None:
            raise Failure("a block in the background must show what it prints once it is ready")
        deadline, output = time.monotonic() + LIMIT_S, b""
        while not page.matches(block.expected, output.decode(errors="replace")):
            readable, _, _ = select.select([process.stdout], [], [], max(deadline - time.monotonic(), 0))
            more = os.read(process.stdout.fileno(), 65536) if readable else b""
            if not more:  # it has ended, or the time is over
                raise Failure(f"the page shows\n{block.expected}but the output is\n{output.decode(errors='replace')}")
            output += more
        return "runs on, with the output shown"

    def end(self, process):
        """Interrupts what serves, as Ctrl-C does; 0 when it ends."""
        deadline = time.monotonic() + LIMIT_S
        while time.monotonic() < deadline:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGINT)
            # Between its fork and the start of the program a shell loses the interrupt, and waits on.
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.communicate(timeout=AGAIN_S)
                return 0
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        print("FAILED: what runs in the background does not end on SIGINT")
        return 1

    def python(self, block):
        """Runs a Python program that may import the package."""
        source = self.scratch / f"line{block.line}.py"
        source.write_text(block.text)
        environment = {**self.environment, "PYTHONPATH": str(ROOT / "python")}
        done = subprocess.run(
            [sys.executable, source], cwd=self.directory, env=environment, capture_output=True, text=True,
            timeout=LIMIT_S, check=False,
        )
        if done.returncode != 0:
            raise Failure(f"ended with {done.returncode}\n{done.stdout}{done.stderr}")
        return "ran"


def enter_own_shm():
    """Starts this program again with a /dev/shm that no other process sees. Returns inside of it, or False."""
    if os.environ.get("TARVO_OWN_SHM"):
        os.environ.pop("TARVO_OWN_SHM")
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/dev/shm"], check=True)
        return True
    for unshare in (["unshare", "--mount"], ["unshare", "--mount", "--map-root-user"]):
        attempt = [*unshare, "mount", "-t", "tmpfs", "tmpfs", "/dev/shm"]
        if subprocess.run(attempt, capture_output=True, check=False).returncode == 0:
            os.environ["TARVO_OWN_SHM"] = "1"
            os.execvp(unshare[0], [*unshare, sys.executable, *sys.argv])
    print("note: no mount namespace here; the page shares the machine's FIFO directory")
    return False


def main():
    """Exit code 0 when every block does what the page says."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("page", type=pathlib.Path)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="the build folder under test")
    parser.add_argument("--compiler", default="g++")
    arguments = parser.parse_args()
    alone = enter_own_shm()
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="tarvo-docs-"))
    # A test that is cancelled leaves nothing running.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("cancelled"))
    run = None
    try:
        run = Page(arguments.page.read_text(), arguments.build.resolve(), arguments.compiler, scratch, alone)
        failed = run.run()
    except page.PageError as error:
        failed = f"{arguments.page}: {error}"
    finally:
        if run:
            run.stop()
        shutil.rmtree(scratch, ignore_errors=True)
    sys.exit(failed)


if __name__ == "__main__":
    main()
