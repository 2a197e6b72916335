"""The page and the sources say the same."""

import errno
import pathlib
import re

import tarvo
from tarvo import errors

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/python.md"


def test_page_has_every_error_with_its_errno_and_its_kin():
    rows = dict(re.findall(r"^\| `([A-Z]\w+)` \| (.*)\|$", PAGE.read_text(), re.MULTILINE))
    classes = {name: kind for name, kind in vars(errors).items() if isinstance(kind, type)}
    kinds = {name: kind for name, kind in classes.items() if issubclass(kind, errors.Error)}
    del kinds["Error"]
    assert set(rows) == set(kinds)
    for name, kind in kinds.items():
        kin = [base.__name__ for base in kind.__bases__ if base is not errors.Error]
        told = [word.strip(" `") for word in rows[name].split("|")]
        assert told == [errno.errorcode[kind.CODE], *(kin or [""])], name
        assert getattr(tarvo, name) is kind and name in tarvo.__all__


def test_os_errors_become_members_of_the_family():
    kinds = {errno.EPIPE: tarvo.RemoteClosed, errno.ENOSPC: tarvo.Error, errno.EACCES: tarvo.AccessDenied}
    for code, kind in kinds.items():
        made = errors.from_os(OSError(code, "text", "file"))
        assert type(made) is kind and (made.errno, made.strerror, made.filename) == (code, "text", "file")
    assert errors.from_os(OSError("unknown")).errno == errno.EIO
