#!/usr/bin/env python3
"""Checks that the comment of each class of src/ says what it owns, which threads may enter it, which locks guard what
and how it ends.

A class whose labels are those of another says so: "Owns, Threads, Locks, Ends: as Worker." Classes inside of others and
structures without functions of their own (data, or a set of static functions) need none.
"""

import pathlib
import re
import sys

LABELS = ("Owns", "Threads", "Locks", "Ends")
# At the start of a line, where only what stands in no class or function is.
HEAD = re.compile(r"^(?:class|struct)\s[^;={]*\{", re.MULTILINE)
NAME = re.compile(r"([\w:]+)\s*(?:final\s*)?(?::[^:].*)?\{$", re.DOTALL)
# A member at the first depth of a structure that takes arguments.
FUNCTION = re.compile(r"^ {4}(?!.*\b(?:static|static_assert|using)\b)\S[^=\n]*\(", re.MULTILINE)


def comment_above(text, start):
    """The lines of comment directly above position `start`, the line of a template's parameters passed over."""
    lines = text[:start].splitlines()
    if lines and lines[-1].startswith("template"):
        lines.pop()
    comment = []
    while lines and lines[-1].startswith("//"):
        comment.insert(0, lines.pop().lstrip("/ "))
    return " ".join(comment)


def has_objects_with_behaviour(text, head):
    """Whether the structure at the match `head` has a function that is not static."""
    end = text.find("\n};", head.end())
    return bool(FUNCTION.search(re.sub(r"//.*", "", text[head.end() : end])))


def missing_labels(comment):
    return [label for label in LABELS if not re.search(rf"\b{label}(?:,[^:.]*)?: \S", comment)]


def faults_of(text):
    """What is wrong in the text of one file: pairs of a line number and a fault."""
    for head in HEAD.finditer(text):
        if head.group().startswith("struct") and not has_objects_with_behaviour(text, head):
            continue
        missing = missing_labels(comment_above(text, head.start()))
        if missing:
            name = NAME.search(head.group()).group(1)
            yield text.count("\n", 0, head.start()) + 1, f"{name} does not say: {', '.join(missing)}"


def check(root):
    """The faults of the tree `root`, one line each."""
    sources = sorted(p for p in (root / "src").rglob("*") if p.suffix in {".h", ".cpp"})
    if not any(HEAD.search(path.read_text(encoding="utf-8")) for path in sources):
        return ["no classes found"]
    return [f"{path.relative_to(root)}:{line}: {fault}"
            for path in sources
            for line, fault in faults_of(path.read_text(encoding="utf-8"))]


def main():
    faults = check(pathlib.Path(__file__).resolve().parent.parent)
    print("\n".join(faults), end="\n" if faults else "")
    if faults:
        sys.exit(f"{len(faults)} class(es) without all of: {', '.join(LABELS)}")


if __name__ == "__main__":
    main()
