#!/usr/bin/env python3
"""Tests of what the tests of the pages rely on: a page that lies must fail."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import page

RUNNER = pathlib.Path(__file__).resolve().parent / "run_page.py"
BUILD = sys.argv.pop(1)


def run(text):
    """The exit code and the output of the runner for a page."""
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "page.md"
        path.write_text(text)
        done = subprocess.run(
            [sys.executable, RUNNER, path, "--build", BUILD], capture_output=True, text=True, check=False
        )
        return done.returncode, done.stdout + done.stderr


def sh(script, output=None, note=""):
    """A page of one shell block."""
    note = f"<!-- test: {note} -->\n" if note else ""
    shown = f"\n```text\n{output}\n```\n" if output is not None else ""
    return f"{note}```sh\n{script}\n```\n{shown}"


class PageTest(unittest.TestCase):
    """The runner as a page meets it."""

    def accepts(self, text):
        code, output = run(text)
        self.assertEqual(code, 0, output)
        return output

    def refuses(self, text, why):
        code, output = run(text)
        self.assertNotEqual(code, 0, output)
        self.assertIn(why, output)

    def test_commands_must_succeed(self):
        self.accepts(sh("true"))
        self.refuses(sh("false"), "ended with 1")
        self.refuses(sh("false | true"), "ended with 1")
        self.accepts(sh("exit 3", note="exit 3"))
        self.refuses(sh("true", note="exit 3"), "instead of 3")

    def test_output_must_be_as_shown(self):
        self.accepts(sh("echo one; echo two", "one\ntwo"))
        self.refuses(sh("echo one", "two"), "the page shows")
        self.accepts(sh("seq 5", "1\n...\n5"))
        self.accepts(sh("echo took 17 ms", "took ... ms"))
        self.refuses(sh("echo", "..., not empty"), "the page shows")

    def test_blocks_share_folder_and_environment(self):
        self.accepts(sh("cd docs; export A='b c'") + sh('basename "$PWD"; echo "$A"', "docs\nb c"))

    def test_programs_must_compile(self):
        self.accepts("```cpp\nint main() {}\n```\n")
        self.refuses("```cpp\nint main() { return nothing; }\n```\n", "nothing")
        self.refuses("```cpp\nint x;\n```\n", "neither a program nor noted")
        self.accepts("<!-- test: fragment -->\n```cpp\npipe.Send(request.Bytes());\n```\n")
        self.refuses("<!-- test: fragment -->\n```cpp\npipe.Sind(1);\n```\n", "Sind")
        self.accepts("<!-- test: declarations -->\n```cpp\nstatic void Nothing(int) {}\n```\n")

    def test_what_is_not_run_is_printed(self):
        self.assertIn("not run: needs two machines", self.accepts(sh("false", note="skip needs two machines")))
        self.refuses(sh("false", note="skip "), "without a reason")

    def test_scripts_that_run_this_test_are_not_run(self):
        for script in ("scripts/test.sh asan", "scripts/fuzz.sh", "  .ci/run".strip(), "A=b scripts/check-tidy.sh"):
            self.assertIn("not run: it calls a script", self.accepts(sh(script)))
        self.accepts(sh("scripts/install-deps.sh --list", "...", "exit 0"))

    def test_background_serves_until_the_end(self):
        serving = sh("echo ready; sleep 600", "ready", "background")
        self.accepts(serving + sh("true"))
        self.refuses(sh("echo no", "yes", "background"), "the page shows")

    def test_an_interrupt_that_a_shell_has_lost_comes_again(self):
        self.accepts(sh("trap 'trap - INT' INT; echo ready; sleep 600 || true; sleep 600", "ready", "background"))

    def test_each_page_has_a_shm_of_its_own(self):
        listing = sh("ls /dev/shm", "velm", "alone")
        output = self.accepts(sh("scripts/fifo-directory.sh; ls /dev/shm/velm", "tarvo") + listing)
        if "mount namespace" in output:
            self.skipTest("the kernel refuses a mount namespace here")

    def test_python_runs(self):
        self.accepts("```python\nfrom tarvo import frames\n```\n")
        self.refuses("```python\nraise SystemExit(4)\n```\n", "ended with 4")

    def test_mistakes_in_the_page_are_found(self):
        self.refuses("```sh\ntrue\n", "does not end")
        self.refuses("<!-- test: skipp x -->\n```sh\n```\n", "unknown note")
        self.refuses("<!-- test: fragment -->\nText.\n", "a note without a block")

    def test_lines_are_matched_whole(self):
        self.assertTrue(page.matches("a...c\n", "abc\n"))
        self.assertFalse(page.matches("a\n", "ab\n"))
        self.assertFalse(page.matches("a\n", "a\nb\n"))


if __name__ == "__main__":
    unittest.main()
