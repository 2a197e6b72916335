#!/usr/bin/env python3
"""Puts small faults into src/, one after another, and tells which of them the release tests notice.

The faults are drawn at random, with a seed that is printed: a condition negated or its parts joined otherwise, a limit or
a number off by one, a line left out, two lines swapped, a constant result changed. Each is built in a copy of the tree,
with a compiler cache; the tests nearest to it run first, then the others, until one fails. A test that notices a fault is
run without it too, once, and does not count if it fails there.

What is known stays in tests/mutants.tried, which goes into the repository: it holds as long as the function around a fault
stays as it is, and a fault that has survived is tried again when the tests have changed. Faults that cannot matter are
listed, with the reason, in tests/mutants.list: a file, a tabulator, the line before, a tabulator, the line after (empty
where it is left out), a tabulator, the reason.

Exit code 0 when all faults that were tried are noticed, or listed; 1 when --at-least is not reached (default: all).
"""
import argparse
import hashlib
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
TRIED = ROOT / "tests/mutants.tried"

# The tests of each folder of src/, as CTest names them. Then all that have to do with the code; pages, packages, fuzzing
# and the long-running proofs say nothing more.
NEAREST = {"api": "^(unit_api|unit_environment)", "base": "^(unit_base|unit_worker|unit_pipe|unit_api_(exit|fork))",
           "diag": "^unit_diag", "fifo": "^unit_fifo", "loop": "^(unit_loop|loop_)", "monitor": "^unit_monitor",
           "pipe": "^(unit_pipe|unit_stats[.]|unit_api_stats)",
           "server": "^unit_server", "stats": "^(unit_stats[.]|unit_api_stats|loop_stats)",
           "stats_reader": "^unit_stats_reader", "table": "^unit_table", "worker": "^unit_worker"}
OTHERS = "(unit|system|faults|loop|foreign|tracing)_"
# Compile programs that are to be refused, with the public headers only, or need more tools than the one.
NOT_CONCERNED = "^(system_.*refused|system_public|system_python|system_readme|system_demo|foreign_example|unit_support)"
TOOL = "tarvoctl"
PROGRAMS = {"api": ["unit_api*", "unit_environment"],
            "base": ["unit_base*", "unit_worker", "unit_pipe*", "unit_api_exit", "unit_api_fork"],
            "loop": ["unit_loop*", "loop_*"], "pipe": ["unit_pipe*", "unit_stats", "unit_api_stats"],
            "stats": ["unit_stats", "unit_api_stats", "loop_stats*"]}
LEAST = 15 # how nice it is to what else runs
LIBRARIES = ["tarvo", "tarvo_loop", "tarvo_stats"]
# The tests that compile the sources in, or are linked with them. All others find the changed library where it was.
REBUILT = {"base": ["unit_base*"], "loop": ["unit_loop_frames", "unit_loop_parts"], "stats_reader": ["unit_stats_reader*"]}


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
        nice = ["nice", "-n", str(max(0, LEAST - os.nice(0)))]
        process = subprocess.Popen([*alone, *nice, *command], cwd=TREE, stdout=output,
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


def build(targets, log, limit, faulty=False):
    """Faults may lead to warnings. The compiler is told only then, so that all else is in the cache already."""
    environment = dict(os.environ, CI="", TARVO_FAULTY="-w" if faulty else "")
    command = ["cmake", "--build", "build/release", "-j1"]
    return run(command + (["--target", *targets] if targets else []), limit, log, env=environment) == 0


def launcher():
    """The program in front of the compiler."""
    path = WORK / "compile"
    path.write_text("#!/bin/sh\nexec " + ("ccache " if shutil.which("ccache") else "") + '"$@" $TARVO_FAULTY\n',
                    encoding="utf-8")
    path.chmod(0o755)
    return path


def programs_of(patterns):
    """The targets of these names."""
    found = subprocess.run(["cmake", "--build", "build/release", "--target", "help"], cwd=TREE, check=True,
                           capture_output=True, text=True).stdout
    names = set(re.findall(r"^(\w+): phony", found, re.M))
    wanted = [re.compile("^" + p.replace("*", r"\w*") + "$") for p in patterns]
    return sorted(n for n in names if any(w.match(n) for w in wanted))


def ctest(include, exclude, log, limit):
    """Whether the tests pass, and the first that does not."""
    began = log.stat().st_size if log.exists() else 0
    inside = '. scripts/lib.sh; ulimit -v 16000000 -f 4000000; in_sandbox "$@"'
    code = run(["bash", "-c", inside, "bash", "ctest", "--test-dir", "build/release", "-R", include, "-E", exclude,
                "--stop-on-failure", "--timeout", "60", "-j", "2", "--output-on-failure"], limit, log)
    with open(log, encoding="utf-8", errors="replace") as text:
        text.seek(began)
        # What stands between name and verdict is the parameter of a test that has one.
        failed = re.findall(r"^\s*\d+ - (\S+).* \(([^()]+)\)$", text.read(), re.M)
    return code == 0, failed[0] if failed else ("", "out of time" if code is None else "no test")


def only(name):
    """The expression for one test, whatever its parameter is."""
    return "^" + re.escape(name) + "( |$)"


def alone(name, log, limit):
    """Whether one test passes by itself."""
    return ctest(only(name), "^$", log, limit)[0]


def test(include, exclude, log, limit):
    """The test that fails, and how. One that fails once and then no more is taken for one that load has made fail."""
    for _ in range(3):
        passed, (name, how) = ctest(include, exclude, log, limit)
        if passed or not name or not alone(name, log, limit):
            return "" if passed else name, "" if passed else how
        exclude += "|" + only(name)
    return "", "several tests, each of them once"


def prepare(options):
    """The copy, built without a fault."""
    WORK.mkdir(parents=True, exist_ok=True)
    log = WORK / "prepare.log"
    log.unlink(missing_ok=True)
    copy_tree()
    # A program finds a library that was built anew without being linked anew.
    definitions = [f"-DCMAKE_{language}_COMPILER_LAUNCHER={launcher()}" for language in ("C", "CXX")]
    definitions.append("-DCMAKE_LINK_DEPENDS_NO_SHARED=ON")
    configured = run(["cmake", "--preset", "release", *definitions], 600, log) == 0
    if not configured or not build(LIBRARIES, log, options.build_minutes * 60):
        sys.exit(f"mutants.py: the sources do not build; see {log}")


class Attempt:
    """One fault, and what becomes of it."""

    def __init__(self, fault, options, unsound):
        self.fault, self.options, self.unsound = fault, options, unsound
        self.folder = fault["file"].split("/")[1]
        self.path = TREE / fault["file"]
        self.original = self.path.read_text(encoding="utf-8")
        self.log = WORK / f"{fault['key']}.log"
        self.log.unlink(missing_ok=True)
        self.programs = programs_of(PROGRAMS.get(self.folder, [f"unit_{self.folder}*"]))
        self.nearest = NEAREST[self.folder]
        if any("TARVO_PROBE" in line for line in fault["before"]):
            self.programs, self.nearest = programs_of([TOOL]), "^tracing_"

    def put(self):
        lines, at, before = self.original.split("\n"), self.fault["line"] - 1, self.fault["before"]
        assert lines[at:at + len(before)] == before
        lines[at:at + len(before)] = self.fault["after"]
        self.path.write_text("\n".join(lines), encoding="utf-8")

    def excluded(self, *more):
        return "|".join([NOT_CONCERNED, *more, *map(only, sorted(self.unsound))])

    @staticmethod
    def others():
        """What the other tests run."""
        return programs_of([OTHERS + "*", TOOL])

    def build_others(self):
        """Of tests that do not compile the fault in, all is in the cache: unless the compiler is told of faults."""
        log, limit = self.log, self.options.build_minutes * 60
        if self.path.suffix == ".h":
            return build(self.others(), log, limit, True)
        self.path.write_text(self.original, encoding="utf-8")
        built = build(self.others(), log, limit)
        self.put()
        return built and build(LIBRARIES + programs_of(REBUILT.get(self.folder, [])), log, limit, True)

    def look(self):
        """The verdict, and the test that has noticed it, in the copy with the fault."""
        limit, log = self.options.minutes * 60, self.log
        # What a header has in it is in the tests, too.
        tests = self.programs if self.path.suffix == ".h" else programs_of(REBUILT.get(self.folder, []))
        if not build(LIBRARIES + tests, log, limit, True):
            return "not built", "", ""
        name, how = test(self.nearest, self.excluded(), log, limit)
        if not (name or how or self.options.nearest_only):
            if not self.build_others():
                return "not built", "", ""
            name, how = test("^" + OTHERS, self.excluded(self.nearest), log, limit * 3)
        return "noticed" if name or how else "survived", name, how

    def made(self, sound):
        """The verdict, and who noticed it. Afterwards the copy is built without the fault again."""
        limit, log = self.options.build_minutes * 60, self.log
        while True:
            build([*LIBRARIES, *self.programs], log, limit)
            self.put()
            try:
                verdict, name, how = self.look()
            finally:
                self.path.write_text(self.original, encoding="utf-8")
            if not name or name in sound:
                return verdict, f"{name}: {how}" if name else how
            more = self.programs if name.split(".")[0] in self.programs else self.others()
            build(LIBRARIES + more, log, limit)
            if alone(name, log, self.options.minutes * 60):
                sound.add(name)
                return verdict, f"{name}: {how}"
            print(f"{name} fails without a fault, too, and is left out", flush=True)
            self.unsound.add(name)


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=0, help="of the draw (default: from the clock)")
    parser.add_argument("--faults", type=int, default=100, help="how many are tried (default: 100)")
    parser.add_argument("--at-least", type=int, default=0, help="percentage to be noticed (default: all)")
    parser.add_argument("--hours", type=float, default=12, help="ends after so long (default: 12)")
    parser.add_argument("--minutes", type=int, default=10, help="for a build or the nearest tests (default: 10)")
    parser.add_argument("--build-minutes", type=int, default=60, help="for a build of everything (default: 60)")
    parser.add_argument("--only", default="", help="faults of files whose name has this in it")
    parser.add_argument("--nearest-only", action="store_true", help="leave out the other tests, and what they alone could notice open")
    parser.add_argument("--list", action="store_true", help="print what would be tried, and do nothing")
    parser.add_argument("--table", action="store_true", help="print what has become of all that were tried, and do nothing")
    return parser.parse_args()


FIELDS = ("key", "verdict", "by", "tests", "seed", "fault")


def load():
    """What earlier runs have found, by the key of the fault."""
    done = {}
    if TRIED.exists():
        for line in TRIED.read_text(encoding="utf-8").splitlines():
            if line and not line.startswith("#"):
                entry = dict(zip(FIELDS, line.split("\t")))
                done[entry["key"]] = entry
    return done


def state_of(folder):
    """What tells one state of the files below a folder from another."""
    state = hashlib.sha256()
    for path in sorted(folder.rglob("*")):
        if path.is_file() and path.suffix not in (".list", ".tried") and "__pycache__" not in path.parts:
            state.update(str(path).encode() + path.read_bytes())
    return state.hexdigest()[:16]


class Run:
    """One run over the faults of a seed."""

    def __init__(self, options):
        self.options = options
        self.end = time.monotonic() + options.hours * 3600
        self.reasons = listed()
        self.done = load()
        self.prepared = False
        self.sound = set()
        self.unsound = set()
        self.tests = state_of(ROOT / "tests")
        self.counts = {}
        self.unnoticed = []

    def entry_of(self, fault):
        """What is known of a fault, or None."""
        if identity(fault) in self.reasons:
            return {"verdict": "cannot matter", "by": self.reasons[identity(fault)]}
        entry = self.done.get(fault["key"])
        if entry is None or entry["verdict"] not in ("survived", "open"):
            return entry
        # It may be noticed by the other tests, or by what the tests have become.
        more = entry["verdict"] == "open" and not self.options.nearest_only
        return None if more or entry["tests"] != self.tests else entry

    def find_out(self, fault):
        """Tries it, and keeps what has become of it."""
        if not self.prepared:
            prepare(self.options)
            self.prepared = True
        verdict, by = Attempt(fault, self.options, self.unsound).made(self.sound)
        verdict = "open" if verdict == "survived" and self.options.nearest_only else verdict
        entry = dict(zip(FIELDS, (fault["key"], verdict, by, self.tests, str(self.options.seed), describe(fault))))
        self.keep(entry)
        return entry

    def keep(self, entry):
        """In the order in which they were tried."""
        self.done.pop(entry["key"], None)
        self.done[entry["key"]] = entry
        heading = "# What has become of the faults that scripts/mutants.py has tried: " + ", ".join(FIELDS) + ".\n"
        lines = ("\t".join(known[field] for field in FIELDS) + "\n" for known in self.done.values())
        TRIED.write_text(heading + "".join(lines), encoding="utf-8")

    def tell(self, fault, entry):
        verdict = entry["verdict"]
        self.counts[verdict] = self.counts.get(verdict, 0) + 1
        if verdict in ("survived", "open"):
            self.unnoticed.append((verdict, fault))
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
        for verdict, fault in self.unnoticed:
            print(f"{verdict}: {describe(fault)}")
        counted = self.counts.get("noticed", 0) + self.counts.get("survived", 0)
        share = 100 * self.counts.get("noticed", 0) / counted if counted else 0
        print(f"noticed: {share:.0f} % of {counted}")
        return 0 if share >= (self.options.at_least or 100) else 1


def print_table():
    """What has become of all that were tried, by their kind, for a page."""
    columns = ("noticed", "survived", "open", "cannot matter")
    kinds = {}
    known = [(entry["fault"].split(": ")[1], entry["verdict"], entry["fault"]) for entry in load().values()]
    reasons = {f"{file}: {before}  ->  {after or '(nothing)'}" for file, before, after in listed()}
    for kind, verdict, fault in known:
        file, rest = fault.split(":", 1)
        if f"{file}: {rest.split(': ', 2)[2].replace(' / ', ' ')}" in reasons:
            verdict = "cannot matter"
        for row in (kind, "all"):
            counts = kinds.setdefault(row, dict.fromkeys(columns, 0))
            if verdict in counts:
                counts[verdict] += 1
    print("| fault | tried | " + " | ".join(columns) + " |")
    print("|---" * (len(columns) + 2) + "|")
    for kind in sorted(kinds, key=lambda row: (row == "all", row)):
        counts = [kinds[kind][column] for column in columns]
        print(f"| {kind} | {sum(counts)} | " + " | ".join(map(str, counts)) + " |")


def main():
    """Tries the faults one after another."""
    options = arguments()
    if options.table:
        print_table()
        return 0
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143)) # not without what it has started
    options.seed = options.seed or int(time.time())
    print(f"seed {options.seed}", flush=True)
    faults = (fault for fault in draw(ROOT, options.seed) if options.only in fault["file"])
    if options.list:
        for _, fault in zip(range(options.faults), faults):
            print(describe(fault))
        return 0
    run_over = Run(options)
    run_over.over(faults)
    return run_over.verdict()


if __name__ == "__main__":
    sys.exit(main())
