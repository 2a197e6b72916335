#!/usr/bin/env python3
"""Makes the manual pages of sections 3 and 7 out of the public header's comments, which are the contracts, and of pages.

A page of section 3 for each group of functions or types below, a page that refers to it for each further name of the
group, tarvo(7) out of its template, and tarvo-errors(7) and tarvo-log(7) out of docs/. With --check, writes nothing, and fails when a declaration of the header belongs to
no page, when a page names what the header does not declare, and when the header raises an error that tarvo(7) does not
explain: a test's business, so that the header can be worked on without the pages.
"""

import argparse
import pathlib
import re
import sys

import header
import markdown

# The day of the last change of what the pages say, and not of the build: equal sources make equal pages.
DATE = "2026-11-21"

# Names of a page, its line in indexes, and the pages to look at besides those that its text names.
PAGES = [
    (["TarvoOpen", "TarvoPipeTypeOpen"], "open a pipe by arrangement with another process", ["TarvoAttr"]),
    (["TarvoCreateClient"], "open a pipe to a server", ["TarvoAttr"]),
    (["TarvoCreateServer"], "serve under a name", ["TarvoServerAttr"]),
    (["TarvoSendRequest", "TarvoSendResponse"], "send a one-way request, or answer a request", ["TarvoRequest"]),
    (["TarvoTimedRPCSync", "TarvoRPCSync"], "send a request and wait for its answer", ["TarvoRequest"]),
    (["DestroyResponse"], "release the data of an answer", ["TarvoTimedRPCSync"]),
    (["TarvoClosePipe", "TarvoCleanPipe"], "close a pipe, or remove its files", []),
    (["TarvoGetRemoteName"], "tell who is at the other end of a pipe", ["TarvoOpen", "TarvoCreateServer"]),
    (["TarvoCfgFinishServer"], "end all communication of the process in order", ["TarvoClosePipe"]),
    (["TarvoExceptionHandler"], "remove the process's FIFO files after a fatal signal", ["TarvoCfgFinishServer"]),
    (["TarvoServiceIsExist"], "tell whether the library can be used", ["TarvoCfgFinishServer"]),
    (["GetCurrDomain", "IsOrlaDomainPipe", "IsCrossDomainPipe"], "operating-system domains", ["TarvoAttr"]),
    (["NuroCoreSetaffinity"], "hook at the start of the library's threads", []),
    (["TarvoAttr", "TarvoMode", "TarvoPriority", "TarvoDomain", "TarvoPipeType"], "how a pipe is to be opened",
     ["TarvoOpen", "TarvoCreateClient"]),
    (["TarvoServerAttr"], "how a process serves", ["TarvoCreateServer", "TarvoAttr"]),
    (["TarvoRequest", "TarvoResponse"], "a request and its answer", ["TarvoSendRequest", "TarvoTimedRPCSync"]),
]

# Pages of docs/ that who looks after a machine wants at hand: name, source, and its line in indexes.
GUIDES = [
    ("tarvo-errors", "docs/errors.md", "every code of the functions of tarvo, its cause and its remedy"),
    ("tarvo-log", "docs/troubleshooting.md", "every line that tarvo writes to the system log, and what to do about it"),
]


def escape(text):
    """Plain text as roff has it."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    text = re.sub(r"(?<=[a-z])\\-(?=[a-z])", "-", text)  # a hyphen within a word, and not a minus
    return "\n".join("\\&" + line if line.startswith((".", "'")) else line for line in text.split("\n"))


class Markup:
    """Turns a sentence of the header into roff, with its names set off."""

    def __init__(self, declared):
        self.functions = {one.name for one in declared if one.kind == "function"}
        self.types = {one.name for one in declared if one.kind != "function"}
        self.mentioned = set()

    def word(self, match):
        text = match[0]
        if text.startswith("`"):
            return f"\\fI{escape(text[1:-1])}\\fP"
        if page := re.fullmatch(r"(\w+)\((\d)\)", text):
            return f"\\fB{page[1]}\\fP({page[2]})"
        if text in self.functions:
            self.mentioned.add(text)
            return f"\\fB{text}\\fP()"
        if text in self.types:
            self.mentioned.add(text)
        if "->" in text or "::" in text:
            return f"\\fI{escape(text)}\\fP"
        return f"\\fB{escape(text)}\\fP"

    def __call__(self, text):
        names = "|".join(sorted(self.functions | self.types, key=len, reverse=True))
        token = rf"`[^`]+`|\b[a-z_]+\(\d\)|\b\w+(?:->|::)\w+|-E[A-Z]+|\b(?:TARVO|SCHED|SIG)_?[A-Z_]+\b|\b(?:{names})\b"
        parts, at = [], 0
        for match in re.finditer(token, text):
            parts += [escape(text[at:match.start()]), self.word(match)]
            at = match.end()
        return "".join(parts) + escape(text[at:])


def is_result(paragraph):
    return re.match(r"(Returns|Results) ", paragraph)


def split_result(paragraphs):
    """Sentences on results, which may also close a paragraph, and the rest."""
    rest, results = [], []
    for paragraph in paragraphs:
        if is_result(paragraph):
            results.append(paragraph)
            continue
        before, mark, after = paragraph, "", ""
        if match := re.search(r"(?<=\. )(?=(?:Returns|Results) )", paragraph):
            before, mark, after = paragraph[:match.start()].strip(), "x", paragraph[match.start():]
        rest.append(before)
        if mark:
            results.append(after)
    return rest, results


def fold(code, width=78):
    """A declaration in lines that fit a terminal."""
    if len(code) <= width or "\n" in code:
        return code
    head, _, arguments = code.partition("(")
    lines, current = [], f"{head}("
    # Commas between the arguments, and not within the one of a function.
    for argument in re.split(r"(?<=,) (?![^()]*\))", arguments):
        if len(current) + len(argument) > width:
            lines.append(current.rstrip())
            current = " " * 4
        current += argument + " "
    return "\n".join(lines + [current.rstrip()])


def synopsis(group):
    lines = ["#include <tarvo.h>", ""]
    for one in group:
        lines += fold(one.code).split("\n") + ([""] if one.kind != "function" else [])
    return [".SH SYNOPSIS", ".nf"] + [f"\\fB{escape(line)}\\fP" if line else "" for line in lines] + [".fi"]


def members(declaration, markup):
    """Their comments; the kind of a member without one says what it means, or else the structure's description does."""
    lines = []
    for member in declaration.members:
        kinds = [name for name in markup.types if re.search(rf"\b{name}\b", member.code)]
        if member.paragraphs or kinds:
            lines += [".TP", f"\\fB{escape(member.code)}\\fP"]
        for number, paragraph in enumerate(member.paragraphs):
            text = paragraph if paragraph.endswith((".", ":")) else f"{paragraph[0].upper()}{paragraph[1:]}."
            lines += ([".IP"] if number else []) + [markup(text)]
        if kinds and not member.paragraphs:
            markup.mentioned.add(kinds[0])
            lines += [f"See \\fB{kinds[0]}\\fP."]
    return lines


def page(names, line, see, declared, version):
    markup = Markup(declared)
    group = [one for name in names for one in declared if one.name == name]
    description, results = [], []
    for number, one in enumerate(group):
        rest, result = split_result(one.paragraphs)
        if len(group) > 1 and rest:
            again = ", second form" if one.name in (before.name for before in group[:number]) else ""
            description.append(f".SS {one.name}{'()' if one.kind == 'function' else ''}{again}")
        for number, paragraph in enumerate(rest):
            description += ([".PP"] if number else []) + [markup(paragraph)]
        description += members(one, markup)
        for paragraph in result:
            results += [".TP", f"\\fB{one.name}\\fP()"] if len(group) > 1 else [".PP"] * bool(results)
            results.append(markup(paragraph))
    others = sorted((markup.mentioned | set(see)) - set(names), key=str.lower)
    lines = [f'.TH {names[0]} 3 {DATE} "tarvo {version}" "Library Functions Manual"', ".SH NAME",
             f"{', '.join(names)} \\- {escape(line)}", ".SH LIBRARY", "tarvo (\\fIlibtarvo\\fP, \\fI\\-ltarvo\\fP)"]
    lines += synopsis(group) + [".SH DESCRIPTION"] + description
    if results:
        lines += [".SH RETURN VALUE"] + results
    references = [f".BR {name} (3)" for name in others] + [".BR tarvo (7)"]
    return "\n".join(lines + [".SH SEE ALSO"] + [one + " ," for one in references[:-1]] + references[-1:]) + "\n"


def overview(template, text, readme, declared, version):
    markup = Markup(declared)
    blocks = header.preamble(text)
    common = []
    for block in blocks[blocks.index("Common to all functions:") + 1:]:
        common += [".IP \\(bu 3", markup(block[2:])]
    functions = []
    for names, line, _ in PAGES:
        functions += [".TP"] + [", ".join(f"\\fB{name}\\fP(3)" for name in names), escape(line[0].upper() + line[1:]) + "."]
    example = re.search(r"```cpp\n(.*?)```", readme, re.DOTALL)
    if not example:
        sys.exit("generate.py: the README has no example")
    parts = {"DATE": DATE, "VERSION": version, "COMMON": "\n".join(common), "FUNCTIONS": "\n".join(functions),
             "EXAMPLE": escape(example[1].rstrip())}
    return re.sub(r"@([A-Z]+)@", lambda match: parts[match[1]], template)


def drift(declared, text, template):
    """What the pages and the header do not have in common."""
    in_pages = {name for names, _, _ in PAGES for name in names}
    in_header = {one.name for one in declared}
    codes = set(re.findall(r"-E[A-Z]+", text)) - set(re.findall(r"-E[A-Z]+", template.replace("\\-", "-")))
    return ([f"no page for {name}: add it to PAGES" for name in sorted(in_header - in_pages)]
            + [f"the header does not declare {name}" for name in sorted(in_pages - in_header)]
            + [f"tarvo(7) does not explain {code}" for code in sorted(codes)])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parents[2],
                        help="the project's folder")
    parser.add_argument("--version", default="", help="the version that the pages name")
    parser.add_argument("--output", type=pathlib.Path, help="folder that gets man3/ and man7/")
    parser.add_argument("--check", action="store_true", help="compare the pages with the header and write none")
    parser.add_argument("--list", action="store_true", help="print the names of the files and write none")
    arguments = parser.parse_args()
    files = [f"man3/{name}.3" for names, _, _ in PAGES for name in names] + ["man7/tarvo.7"]
    files += [f"man7/{name}.7" for name, _, _ in GUIDES]
    if arguments.list:
        print(";".join(files), end="")
        return
    text = (arguments.source / "include/tarvo.h").read_text(encoding="utf-8")
    declared = header.declarations(text)
    template = (arguments.source / "docs/man/tarvo.7.in").read_text(encoding="utf-8")
    if arguments.check:
        sys.exit("\n".join(drift(declared, text, template)) or None)
    contents = {}
    for names, line, see in PAGES:
        contents[f"man3/{names[0]}.3"] = page(names, line, see, declared, arguments.version)
        for name in names[1:]:
            contents[f"man3/{name}.3"] = f".so man3/{names[0]}.3\n"
    readme = (arguments.source / "README.md").read_text(encoding="utf-8")
    contents["man7/tarvo.7"] = overview(template, text, readme, declared, arguments.version)
    for name, source, purpose in GUIDES:
        guide = (arguments.source / source).read_text(encoding="utf-8")
        see = ["tarvo"] + [other for other, _, _ in GUIDES if other != name]
        contents[f"man7/{name}.7"] = markdown.manual_page(guide, name, purpose, see, DATE, arguments.version)
    for name, content in contents.items():
        path = arguments.output / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content, encoding="utf-8")


if __name__ == "__main__":
    main()
