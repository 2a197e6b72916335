"""Reads the declarations of a public header with the comments that stand above and beside them."""

import re
from dataclasses import dataclass, field

WIDTH = 120  # of the header's lines


@dataclass
class Member:
    """A field of a structure or a value of an enumeration."""

    code: str
    paragraphs: list
    indent: str = "    "  # deeper within a structure in the structure


@dataclass
class Declaration:
    kind: str  # "function", "struct", "enum" or "callback" (the type of one)
    name: str
    code: str  # without comments
    paragraphs: list
    members: list = field(default_factory=list)


def paragraphs_of(lines):
    """Joins the lines of a comment. One that could have held the next one's first word ends a paragraph."""
    result, current = [], ""
    for number, line in enumerate(lines):
        text = line.strip()
        indent = len(line) - len(text)
        item = text.startswith("- ")
        if item and current:
            result.append(current)
            current = ""
        current = f"{current} {text}" if current else text
        following = lines[number + 1].split() if number + 1 < len(lines) else []
        if not following or len(line) + len("// ") + 1 + len(following[0]) <= WIDTH - indent and text.endswith((".", ":")):
            result.append(current)
            current = ""
    return result


def comment_text(line):
    return re.sub(r"^\s*// ?", "", line)


def parse_members(lines):
    members, comment = [], []
    for line in lines:
        stripped = line.strip()
        if stripped.startswith("//"):
            # A comment beside a member goes on below it when it is indented beyond the members.
            if members and line.index("//") > 4:
                members[-1].paragraphs[-1] += " " + comment_text(line)
            else:
                comment.append(comment_text(line))
            continue
        code, _, beside = stripped.partition("//")
        text = paragraphs_of(comment) + ([beside.strip()] if beside else [])
        members.append(Member(code.strip().rstrip(";,"), text, line[:len(line) - len(line.lstrip())]))
        comment = []
    return members


def preamble(text):
    """The comment at the head of the file: its paragraphs, with the items of the list among them."""
    lines = []
    for line in text.splitlines():
        if not line.startswith("//"):
            break
        lines.append(comment_text(line))
    blocks, current = [], []
    for line in lines + [""]:
        if line:
            current.append(line)
        elif current:
            blocks += paragraphs_of(current)
            current = []
    return blocks


def declarations(text):
    found, comment, lines = [], [], text.splitlines()
    at = 0
    while at < len(lines):
        line = lines[at].removeprefix("TARVO_LOOP_API ")
        at += 1
        if line.startswith("// ---"):
            comment = []
            continue
        if line.startswith("//"):
            comment.append(comment_text(line))
            continue
        match = re.match(r"(?:typedef )?(struct|enum) (\w+).*\{$", line)
        if match:
            end = next(number for number in range(at, len(lines)) if lines[number].startswith("}"))
            body = lines[at:end]
            members = parse_members(body)
            mark = ";" if match[1] == "struct" else ","
            inside = [member.indent + member.code + ("" if member.code.endswith("{") else mark) for member in members]
            code = "\n".join([line] + inside + [lines[end]])
            found.append(Declaration(match[1], match[2], code, paragraphs_of(comment), members))
            at = end + 1
        elif match := re.match(r"typedef .*\(\*(\w+)\)\(", line):
            found.append(Declaration("callback", match[1], line, paragraphs_of(comment)))
        elif match := re.match(r"\w[\w ]*[ *](\w+)\(", line):
            while not lines[at - 1].endswith(";"):
                line += " " + lines[at].strip()
                at += 1
            found.append(Declaration("function", match[1], line, paragraphs_of(comment)))
        comment = []
    return found
