"""Takes a Markdown page apart into its code blocks and the notes that say how to test them.

A note is a comment above a block, invisible on the rendered page:

    <!-- test: skip REASON -->      not run; the reason is printed
    <!-- test: file NAME -->        written to NAME before the next blocks run; a C++ program is compiled too
    <!-- test: fragment -->         C++ statements, compiled inside a function that has a `pipe` and a `request`
    <!-- test: declarations -->     C++ outside of functions, without a main
    <!-- test: loop -->             the same over the loop's handles, with `Task` as the type of a coroutine
    <!-- test: background -->       sh that serves until the page ends, then gets SIGINT
    <!-- test: exit CODE -->        sh that ends with this code
    <!-- test: alone -->            needs a /dev/shm of its own; not run where the kernel refuses one
"""

import re
from typing import NamedTuple

FENCE = re.compile(r"^```(\S*)\s*$")
NOTE = re.compile(r"^<!-- test: (\S+)\s*(.*?) -->$")
NOTES = {"skip", "file", "fragment", "declarations", "loop", "background", "exit", "alone"}


class Block(NamedTuple):
    """One code block."""

    language: str
    line: int  # of its fence
    text: str
    notes: dict
    expected: str | None  # the ```text block that stands directly below


class PageError(Exception):
    """The page itself is at fault."""


def blocks_of(text):
    """All code blocks in order, but for the expected outputs, which belong to the block above them."""
    found, notes = [], {}
    lines = iter(enumerate(text.splitlines(), 1))
    adjacent = False  # nothing but blank lines since the last block
    for number, line in lines:
        note, fence = NOTE.match(line), FENCE.match(line)
        if line.startswith("<!-- test:") and not note or note and note[1] not in NOTES:
            raise PageError(f"line {number}: unknown note: {line}")
        if note:
            notes[note[1]] = note[2]
        elif fence:
            body = _body(lines, number)
            if fence[1] == "text" and adjacent and found[-1].language == "sh" and found[-1].expected is None:
                found[-1] = found[-1]._replace(expected=body)
            else:
                found.append(Block(fence[1], number, body, notes, None))
            notes, adjacent = {}, True
        elif line.strip():
            if notes:
                raise PageError(f"line {number}: a note without a block below it")
            adjacent = False
    return found


def _body(lines, start):
    body = []
    for _, line in lines:
        if line == "```":
            return "\n".join(body) + "\n"
        body.append(line)
    raise PageError(f"line {start}: the block does not end")


def matches(expected, output):
    """Whether the output is as shown. On the page "..." stands for anything within a line, and alone for any lines."""
    pattern = ""
    for line in expected.splitlines():
        if line.strip() == "...":
            pattern += r"(?:.*\n)*"
        else:
            pattern += ".*".join(re.escape(part) for part in line.rstrip().split("...")) + r"\s*\n"
    return re.fullmatch(pattern, output if output.endswith("\n") else output + "\n") is not None
