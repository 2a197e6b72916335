"""A copy of the sources in which a test can put a fault, and the checks of scripts/ to find it with."""

import importlib.util
import pathlib
import shutil
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


def load_script(name):
    """The script of that name as a module."""
    spec = importlib.util.spec_from_file_location(name.replace("-", "_"), ROOT / "scripts" / f"{name}.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


class ChangedTreeTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.root = pathlib.Path(scratch.name)
        for folder in ("include", "src", "tools"):
            shutil.copytree(ROOT / folder, self.root / folder)

    def write(self, path, text):
        (self.root / path).parent.mkdir(exist_ok=True)
        (self.root / path).write_text(text, encoding="utf-8")

    def append(self, path, text):
        with (self.root / path).open("a", encoding="utf-8") as file:
            file.write(text)
