#!/usr/bin/env python3
"""Puts small faults into src/, one after another, and tells which of them the release tests notice.

The faults are drawn at random, with a seed that is printed: a condition negated or its parts joined otherwise, a limit or
a number off by one, a line left out, two lines swapped, a constant result changed. Each is built in a copy of the tree,
with a compiler cache; the tests nearest to it run first, then the others. What is known stays in build/mutants, so that a
run goes on where an earlier one of the same seed and sources has ended. Faults that cannot matter are listed, with the
reason, in tests/mutants.list: a file, a tabulator, the line before, a tabulator, the line after (empty where it is left
out), a tabulator, the reason.

Exit code 0 when all faults that were tried are noticed, or listed; 1 when --at-least is not reached (default: all).
"""
import argparse
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

from mutations import describe, draw, identity

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build/mutants"
TREE = WORK / "tree"
LISTED = ROOT / "tests/mutants.list"

# The tests of each folder of src/, as CTest names them. Then all that have to do with the code; pages, packages, fuzzing
# and the long-running proofs say nothing more.
NEAREST = {"api": "^(unit_api|unit_environment)", "base": "^(unit_base|unit_worker|unit_pipe)", "diag": "^unit_diag",
           "fifo": "^unit_fifo", "loop": "^(unit_loop|loop_)", "monitor": "^unit_monitor", "pipe": "^unit_pipe",
           "server": "^unit_server", "table": "^unit_table", "worker": "^unit_worker"}
OTHERS = "^(unit|system|faults|loop|foreign)_"
# Compile programs that are to be refused, with the public headers only.
NOT_CONCERNED = "^(system_.*refused|system_public|system_python|system_readme|unit_support)"
PROGRAMS = {"api": ["unit_api*", "unit_environment"], "base": ["unit_base*", "unit_worker", "unit_pipe*"],
            "loop": ["unit_loop*", "loop_*"]}

def listed():
    """The faults that cannot matter, with the reasons."""
    reasons = {}
    for line in LISTED.read_text(encoding="utf-8").splitlines():
        if line.strip() and not line.startswith("#"):
            file, before, after, reason = line.split("\t")
            reasons[file, before, after] = reason
    return reasons


def run(command, limit, log, **options):
    """The exit code, or None when it took too long. Everything that it has started is ended with it."""
    with open(log, "a", encoding="utf-8") as output:
        output.write("$ " + " ".join(command) + "\n")
        output.flush()
        alone = ["unshare", "--fork", "--pid", "--mount-proc", "--kill-child"]
        if subprocess.run([*alone, "true"], capture_output=True, check=False).returncode != 0:
            alone = []
        process = subprocess.Popen([*alone, "nice", "-n", "19", *command], cwd=TREE, stdout=output,
                                   stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, **options)
        try:
            return process.wait(limit)
        except subprocess.TimeoutExpired:
            return None
        finally:
            process.kill()
            process.wait()


def copy_tree():
    """Brings the copy to the state of the sources; what has not changed keeps its time, and is not built again."""
    names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split("\n")
    for name in filter(None, names):
        source, target = ROOT / name, TREE / name
        if source.is_file() and not (target.is_file() and source.read_bytes() == target.read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, target)
            shutil.copymode(source, target)


def build(targets, log, limit):
    environment = dict(os.environ, CCACHE_BASEDIR=str(TREE), CCACHE_NOHASHDIR="1", CI="")
    command = ["cmake", "--build", "build/release", "-j1"]
    return run(command + (["--target", *targets] if targets else []), limit, log, env=environment) == 0


def programs_of(folder):
    """The targets of the nearest tests."""
    found = subprocess.run(["cmake", "--build", "build/release", "--target", "help"], cwd=TREE, check=True,
                           capture_output=True, text=True).stdout
    names = set(re.findall(r"^(\w+): phony", found, re.M))
    wanted = [re.compile("^" + p.replace("*", r"\w*") + "$") for p in PROGRAMS.get(folder, [f"unit_{folder}*"])]
    return sorted(n for n in names if any(w.match(n) for w in wanted))


def ctest(include, exclude, log, limit):
    """Whether the tests pass, and the first that does not."""
    began = log.stat().st_size if log.exists() else 0
    inside = '. scripts/lib.sh; ulimit -v 16000000 -f 4000000; in_sandbox "$@"'
    code = run(["bash", "-c", inside, "bash", "ctest", "--test-dir", "build/release", "-R", include, "-E", exclude,
                "--stop-on-failure", "--timeout", "60", "-j", "1", "--output-on-failure"], limit, log)
    with open(log, encoding="utf-8", errors="replace") as text:
        text.seek(began)
        failed = re.findall(r"^\s*\d+ - (\S+) \((\w+)", text.read(), re.M)
    return code == 0, failed[0] if failed else ("", "out of time" if code is None else "no test")


def test(include, exclude, log, limit):
    """The same, but a test that fails once and then no more is taken for one that load has made fail."""
    for _ in range(3):
        passed, (name, how) = ctest(include, exclude, log, limit)
        if passed or not name:
            return passed, how
        if not ctest("^" + re.escape(name) + "$", "^$", log, limit)[0]:
            return False, f"{name}: {how}"
        exclude += "|^" + re.escape(name) + "$"
    return False, "several tests, each of them once"


def prepare(options):
    """The copy, built without a fault."""
    WORK.mkdir(parents=True, exist_ok=True)
    log = WORK / "prepare.log"
    log.unlink(missing_ok=True)
    copy_tree()
    cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    configured = run(["cmake", "--preset", "release", "-DTARVO_WERROR=OFF", *cache], 600, log) == 0
    first = ["tarvo", "tarvo_loop"] if options.nearest_only else []
    if not configured or not build(first, log, options.build_minutes * 60):
        sys.exit(f"mutants.py: the sources do not build; see {log}")


def demand_sound(include, targets, limit, options, known):
    """Ends the run unless the tests pass without a fault: otherwise they would say nothing about one."""
    log = WORK / "sound.log"
    if include not in known:
        known.add(include)
        build(targets, log, options.build_minutes * 60)
        passed, failed = test(include, NOT_CONCERNED, log, limit)
        if not passed:
            sys.exit(f"mutants.py: {include} fails without a fault ({failed}); see {log}")


def attempt(fault, number, options, known):
    """Builds and tests one fault. What became of it, and who noticed."""
    log = WORK / f"{number}.log"
    log.unlink(missing_ok=True)
    folder = fault["file"].split("/")[1]
    path = TREE / fault["file"]
    original = path.read_text(encoding="utf-8")
    lines = original.split("\n")
    at = fault["line"] - 1
    assert lines[at:at + len(fault["before"])] == fault["before"]
    limit = options.minutes * 60
    programs = programs_of(folder)
    demand_sound(NEAREST[folder], ["tarvo", "tarvo_loop", *programs], limit, options, known)
    if not options.nearest_only:
        demand_sound(OTHERS, [], limit * 3, options, known)
    path.write_text("\n".join(lines[:at] + fault["after"] + lines[at + len(fault["before"]):]), encoding="utf-8")
    try:
        # The programs find the library where it was; only what has more of the sources than that is built anew.
        more = programs if folder in ("loop", "base") or path.suffix == ".h" else []
        if not build(["tarvo", "tarvo_loop", *more], log, limit):
            return "not built", ""
        passed, failed = test(NEAREST[folder], NOT_CONCERNED, log, limit)
        if passed and not options.nearest_only:
            if not build([], log, options.build_minutes * 60):
                return "not built", ""
            passed, failed = test(OTHERS, NOT_CONCERNED + "|" + NEAREST[folder], log, limit * 3)
        return ("survived", "") if passed else ("noticed", failed)
    finally:
        path.write_text(original, encoding="utf-8")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=0, help="of the draw (default: from the clock)")
    parser.add_argument("--faults", type=int, default=100, help="how many are tried (default: 100)")
    parser.add_argument("--at-least", type=int, default=0, help="percentage to be noticed (default: all)")
    parser.add_argument("--hours", type=float, default=12, help="ends after so long (default: 12)")
    parser.add_argument("--minutes", type=int, default=10, help="for a build or the nearest tests (default: 10)")
    parser.add_argument("--build-minutes", type=int, default=60, help="for a build of everything (default: 60)")
    parser.add_argument("--only", default="", help="faults of files whose name has this in it")
    parser.add_argument("--nearest-only", action="store_true", help="leave out the other tests")
    parser.add_argument("--list", action="store_true", help="print what would be tried, and do nothing")
    return parser.parse_args()


def load(results):
    """What earlier runs have found, by the fault and what its file held then."""
    done = {}
    if results.exists():
        for line in results.read_text(encoding="utf-8").splitlines():
            entry = json.loads(line)
            done[entry["key"]] = entry
    return done


def state_of(folder):
    """What tells one state of the files below a folder from another."""
    state = hashlib.sha256()
    for path in sorted(folder.rglob("*")):
        if path.is_file() and path != LISTED and "__pycache__" not in path.parts:
            state.update(str(path).encode() + path.read_bytes())
    return state.hexdigest()[:16]


def key_of(fault):
    held = hashlib.sha256((ROOT / fault["file"]).read_bytes()).hexdigest()
    return hashlib.sha256(json.dumps([fault, held]).encode()).hexdigest()[:16]


class Run:
    """One run over the faults of a seed."""

    def __init__(self, options):
        self.options = options
        self.end = time.monotonic() + options.hours * 3600
        self.reasons = listed()
        self.results = WORK / "results.jsonl"
        self.done = load(self.results)
        self.prepared = False
        self.sound = set()
        self.tests = state_of(ROOT / "tests")
        self.counts = {}
        self.survivors = []

    def entry_of(self, fault):
        """What is known of a fault, or None."""
        if identity(fault) in self.reasons:
            return {"verdict": "cannot matter", "by": self.reasons[identity(fault)]}
        entry = self.done.get(key_of(fault))
        if entry is None or entry["verdict"] != "survived":
            return entry
        # One that has survived may be noticed by the other tests, or by what the tests have become.
        more = (entry["nearest_only"] and not self.options.nearest_only) or entry.get("tests") != self.tests
        return None if more else entry

    def find_out(self, fault):
        """Tries it, and keeps what has become of it."""
        if not self.prepared:
            prepare(self.options)
            self.prepared = True
        key = key_of(fault)
        verdict, by = attempt(fault, key, self.options, self.sound)
        entry = {"key": key, "verdict": verdict, "by": by, "nearest_only": self.options.nearest_only,
                 "tests": self.tests, "fault": fault}
        with open(self.results, "a", encoding="utf-8") as output:
            output.write(json.dumps(entry) + "\n")
        return entry

    def tell(self, fault, entry):
        verdict = entry["verdict"]
        self.counts[verdict] = self.counts.get(verdict, 0) + 1
        if verdict == "survived":
            self.survivors.append(fault)
        if verdict != "not built":
            print(f"{verdict:13} {describe(fault)}" + (f"  [{entry['by']}]" if entry["by"] else ""), flush=True)

    def tried(self):
        return sum(self.counts.values()) - self.counts.get("not built", 0)

    def over(self, faults):
        """Goes through the faults until there were enough, or the time is over."""
        for fault in faults:
            if self.tried() == self.options.faults:
                return
            entry = self.entry_of(fault)
            if entry is None and time.monotonic() > self.end:
                print("out of time; the same seed goes on here")
                return
            self.tell(fault, entry or self.find_out(fault))

    def verdict(self):
        """Prints the sum; the exit code."""
        print(", ".join(f"{self.counts[verdict]} {verdict}" for verdict in sorted(self.counts)))
        for fault in self.survivors:
            print("survived: " + describe(fault))
        counted = self.counts.get("noticed", 0) + self.counts.get("survived", 0)
        share = 100 * self.counts.get("noticed", 0) / counted if counted else 0
        print(f"noticed: {share:.0f} % of {counted}")
        return 0 if share >= (self.options.at_least or 100) else 1


def main():
    """Tries the faults one after another."""
    options = arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143)) # not without what it has started
    seed = options.seed or int(time.time())
    print(f"seed {seed}", flush=True)
    faults = (fault for fault in draw(ROOT, seed) if options.only in fault["file"])
    if options.list:
        for _, fault in zip(range(options.faults), faults):
            print(describe(fault))
        return 0
    run_over = Run(options)
    run_over.over(faults)
    return run_over.verdict()


if __name__ == "__main__":
    sys.exit(main())
