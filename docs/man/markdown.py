"""Turns a page of docs/ into a manual page: the part of Markdown that these pages use.

A row of a table becomes a paragraph: its first cell, and below it the others, each after the heading of its column. A row
whose first cell is empty goes on with the row before.
"""

import re

# Pages that are manual pages as well; others are named as they are.
MANUAL = {"errors.md": "tarvo-errors(7)", "troubleshooting.md": "tarvo-log(7)"}


def escape(text):
    """Plain text as roff has it."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"(?<=[a-z])\\-(?=[a-z])", "-", text)  # a hyphen within a word, and not a minus


def protected(line):
    """A line of text that roff does not take for a request."""
    return "\\&" + line if line.startswith((".", "'")) else line


def linked(match):
    text, target = match[1], match[2].split("#")[0]
    return MANUAL.get(target, text)


def inline(text):
    """Text with its code, stress and links."""
    text = re.sub(r"\[([^\]]*)\]\(([^)]*)\)", linked, text)
    parts = re.split(r"(`[^`]*`|\*\*[^*]+\*\*|(?<![\w*])\*[^*\s][^*]*\*)", text)
    out = ""
    for part in parts:
        if part.startswith("`") and len(part) > 1:
            out += f"\\fB{escape(part[1:-1])}\\fP"
        elif part.startswith("**") and len(part) > 4:
            out += f"\\fB{escape(part[2:-2])}\\fP"
        elif part.startswith("*") and len(part) > 2:
            out += f"\\fI{escape(part[1:-1])}\\fP"
        else:
            out += escape(part)
    return protected(out)


def cells(row):
    """The cells of a row, of which a vertical bar within code is no border."""
    masked = re.sub(r"`[^`]*`", lambda code: code[0].replace("|", "\0"), row.strip().strip("|"))
    return [cell.strip().replace("\0", "|") for cell in masked.split("|")]


def table(lines):
    heading = [name.replace("`", "") for name in cells(lines[0])]
    out = []
    for line in lines[2:]:
        row = cells(line)
        if row[0]:
            out += [".PP", inline(row[0])]
        elif out:
            out.append(".sp")
        rest = [f"\\fI{escape(name)}:\\fP {inline(cell)}" for name, cell in zip(heading[1:], row[1:]) if cell]
        body = "\n.br\n".join(rest)
        out += [".RS 4", body, ".RE"] if body else []
    return out


def item(text):
    number = re.match(r"(\d+\.) (.*)", text, re.S)
    mark, words = (number[1], number[2]) if number else ("\\(bu", text[2:])
    return [f".IP {mark} 4", inline(" ".join(words.split()))]


def block(lines):
    """One block of lines between empty ones."""
    first = lines[0]
    if first.startswith("|"):
        return table(lines)
    if heading := re.match(r"(#+) (.*)", first):
        macro = ".SH" if len(heading[1]) == 2 else ".SS"
        below = block(lines[1:]) if lines[1:] else []
        return [f'{macro} "{escape(heading[2])}"'] + below
    if re.match(r"- |\d+\. ", first):
        items = re.split(r"\n(?=- |\d+\. )", "\n".join(lines))
        return [line for one in items for line in item(one)]
    return [".PP", inline(" ".join(line.strip() for line in lines))]


def code(lines):
    return [".PP", ".nf", ".RS 4"] + [protected(escape(line)) for line in lines] + [".RE", ".fi"]


def blocks(text):
    """The page's blocks as roff: paragraphs, tables, lists, and code, indented or between fences."""
    lines = re.sub(r"<!--.*?-->\n?", "", text, flags=re.S).split("\n")
    out, open_block, fenced = [], [], None
    for line in lines + [""]:
        if fenced is not None:
            if line.startswith("```"):
                out, fenced = out + code(fenced), None
            else:
                fenced.append(line)
        elif line.strip() and not line.startswith("```"):
            open_block.append(line)
        else:
            if open_block:
                indented = all(one.startswith("    ") for one in open_block)
                out += code([one[4:] for one in open_block]) if indented else block(open_block)
                open_block = []
            fenced = [] if line.startswith("```") else None
    return out


def manual_page(text, name, purpose, see, date, version):
    """The whole page; `text` begins with its title."""
    body = blocks(text.split("\n", 1)[1])
    lines = [f'.TH {name} 7 {date} "tarvo {version}" "Miscellaneous Information Manual"', ".SH NAME",
             f"{escape(name)} \\- {escape(purpose)}", ".SH DESCRIPTION"] + body
    lines += [".SH SEE ALSO"] + [f".BR {page} (7){',' if page != see[-1] else ''}" for page in see]
    # A section begins a paragraph by itself.
    kept = [line for before, line in zip([""] + lines, lines) if not (line == ".PP" and before[:3] in (".SH", ".SS"))]
    return "\n".join(kept) + "\n"
