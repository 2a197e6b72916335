"""The fixtures."""

import os

import pytest

from tarvo import blocking, files, testing

TEST_FILE = """
    import subprocess, sys, tarvo
    from tarvo import blocking

    def test_own_directory_is_empty(tarvo_directory, tarvo_server):
        assert tarvo_directory.files() == []
        tarvo_server("radar", lambda request: b"12")
        assert tarvo_directory.files() == ["radar"]
        with blocking.connect("radar") as link:
            assert link.call(b"range?", timeout=5) == b"12"

    def test_next_one_is_too(tarvo_directory, tarvo_server):
        assert tarvo_directory.files() == []
        server = tarvo_server("radar")
        server.on_request(lambda request: b"13")
        tarvo_directory.require_programs()
        words = [sys.executable, "-m", "tarvo", "call", "radar", "range?"]
        assert subprocess.run(words, capture_output=True, check=True).stdout == b"13"
"""


@pytest.mark.usefixtures("own_programs")
def test_each_test_has_a_directory_and_servers_of_its_own(pytester):
    pytester.makepyfile(TEST_FILE)
    result = pytester.runpytest_inprocess("-p", "tarvo.testing", "-q")
    result.assert_outcomes(passed=2)


def test_without_namespaces_python_still_has_its_own_directory(pytester, monkeypatch):
    monkeypatch.setattr(testing, "_namespace", False)
    pytester.makepyfile(TEST_FILE)
    result = pytester.runpytest_inprocess("-p", "tarvo.testing", "-q")
    result.assert_outcomes(passed=1, skipped=1)
    assert files.directory() == files.DEFAULT_DIRECTORY


class Kernel:
    """One that refuses."""

    def __init__(self, refuses):
        self.refuses = refuses
        self.asked = []

    def __getattr__(self, name):
        def call(*arguments):
            self.asked.append((name, arguments))
            return -1 if name == self.refuses else 0

        return call


@pytest.mark.parametrize("refuses", ["unshare", "mount"])
def test_refusal_of_the_kernel_is_no_failure(monkeypatch, refuses):
    kernel = Kernel(refuses)
    monkeypatch.setattr(testing, "_libc", kernel)
    assert testing.enter_namespace() is False


def test_ordinary_users_get_a_namespace_in_which_they_are_themselves(monkeypatch):
    kernel, written = Kernel(None), {}
    monkeypatch.setattr(testing, "_libc", kernel)
    monkeypatch.setattr(os, "geteuid", lambda: 1000)
    monkeypatch.setattr(os, "getegid", lambda: 100)
    monkeypatch.setattr(os, "makedirs", lambda path: None)
    monkeypatch.setattr(testing.pathlib.Path, "write_text", lambda path, text: written.update({path.name: text}))
    assert testing.enter_namespace() is True
    assert written == {"setgroups": "deny", "uid_map": "1000 1000 1", "gid_map": "100 100 1"}
    assert kernel.asked[0] == ("unshare", (testing._CLONE_NEWNS | testing._CLONE_NEWUSER,))


def test_nothing_of_the_fixtures_is_in_the_way_of_other_tests(tarvo_directory):
    assert tarvo_directory.path.is_dir()
    with pytest.raises(OSError, match="nobody"):
        blocking.connect("nobody")
