#!/usr/bin/env python3
"""Makes the manual pages of sections 3 and 7 out of the public headers' comments, which are the contracts, and of pages.

A page of section 3 for each group of functions or types below, a page that refers to it for each further name of the
group, tarvo(7) and tarvo-loop(7) out of their templates, and tarvo-errors(7) and tarvo-log(7) out of docs/. With --check,
writes nothing, and fails when a declaration of a header belongs to no page, when a page names what the header does not
declare, and when the header raises an error that its overview does not explain: a test's business, so that the headers
can be worked on without the pages.
"""

import argparse
import pathlib
import re
import sys
from dataclasses import dataclass

import header
import markdown

# The day of the last change of what the pages say, and not of the build: equal sources make equal pages.
DATE = "2026-11-22"

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

LOOP_PAGES = [
    (["TarvoLoopCreate", "TarvoLoopDestroy"], "create or destroy a loop on the program's own thread", []),
    (["TarvoLoopFd", "TarvoLoopDispatch"], "run a loop inside another event loop", ["TarvoLoopRun"]),
    (["TarvoLoopRun", "TarvoLoopStop"], "run a loop by itself, and stop it", ["TarvoLoopDispatch"]),
    (["TarvoLoopPost"], "have a loop call a function, from any thread", ["TarvoLoopRun"]),
    (["TarvoServiceOpen", "TarvoServiceClose", "TarvoServiceOptions"], "serve under a name on a loop",
     ["TarvoLinkCallbacks"]),
    (["TarvoLinkOpen", "TarvoLinkOptions", "TarvoLinkKind"], "open a link on a loop", ["TarvoLinkCallbacks"]),
    (["TarvoLinkCallbacks"], "what a link calls", ["TarvoLinkOpen", "TarvoServiceOpen"]),
    (["TarvoLinkSend", "TarvoBytes"], "send a one-way request over a link", ["TarvoLinkCall", "TarvoLinkHold"]),
    (["TarvoLinkCall", "TarvoLinkCancel", "TarvoDone"], "send a request over a link, with a callback for its answer",
     ["TarvoLinkCallSync"]),
    (["TarvoLinkCallSync"], "send a request over a link and wait for its answer", ["TarvoLinkCall"]),
    (["TarvoLinkReply"], "answer a request that came over a link", ["TarvoLinkCallbacks"]),
    (["TarvoLinkHold", "TarvoLinkFlush"], "gather what is sent over a link in one write", ["TarvoLinkSend"]),
    (["TarvoLinkPeer", "TarvoLinkSetContext"], "tell who is at the other end of a link, or replace its context", []),
    (["TarvoLinkClose"], "close a link", ["TarvoLinkOpen"]),
]


STATS_PAGES = [
    (["TarvoStatsOpen", "TarvoStatsOpenAt", "TarvoStatsClose"], "open the statistics file of a process",
     ["TarvoStatsRead", "TarvoStatsEach"]),
    (["TarvoStatsEach"], "list the statistics files of all processes", ["TarvoStatsOpenAt"]),
    (["TarvoStatsRead", "TarvoStatsFree", "TarvoStatsReading"], "read what a process has counted",
     ["TarvoStatsOpen", "TarvoStatsPipe"]),
    (["TarvoStatsReadSlot", "TarvoStatsAlive"], "read one place of a statistics file, or whether its process lives",
     ["TarvoStatsOpen"]),
    (["TarvoStatsSum", "TarvoStatsPipeSince", "TarvoStatsSame"], "sums and differences of what has been counted",
     ["TarvoStatsRead"]),
    (["TarvoStatsPercentile", "TarvoStatsTimesCount", "TarvoStatsTimesAdd", "TarvoStatsTimesSince", "TarvoStatsBucketOf",
      "TarvoStatsBucketEnd", "TarvoStatsTimes"], "what a histogram of times says", ["TarvoStatsPipe"]),
    (["TarvoStatsPipe", "TarvoStatsLevel"], "the numbers of a pipe", ["TarvoStatsRead", "TarvoStatsTimes"]),
    (["TarvoStatsServer", "TarvoStatsPool"], "the numbers of a server, and of the callback threads",
     ["TarvoStatsRead", "TarvoStatsTimes"]),
    (["TarvoStatsHeader", "TarvoStatsSlot"], "how a statistics file lies", ["TarvoStatsRead"]),
    (["TarvoPipeStats"], "read the numbers of a pipe of this process", ["TarvoStatsPipe"]),
    (["TarvoLinkStats"], "read the numbers of a link of this process", ["TarvoStatsPipe"]),
]
# What else a header declares that is in another library.
ELSEWHERE = {"TarvoPipeStats": "tarvo", "TarvoLinkStats": "tarvo-loop"}


@dataclass
class Book:
    """The pages of one library."""

    name: str  # of its overview in section 7
    header: str
    library: str
    pages: list
    example: str = ""  # the file with the first program; none: it is a part of the first library, with its overview


BOOKS = [
    Book("tarvo", "tarvo.h", "tarvo", PAGES, "README.md"),
    Book("tarvo-loop", "tarvo_loop.h", "tarvo-loop", LOOP_PAGES, "docs/loop.md"),
    Book("tarvo", "tarvo_stats.h", "tarvo-stats", STATS_PAGES),
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
        text = text.removesuffix("()")
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
        token = rf"`[^`]+`|\b[a-z_]+\(\d\)|\b\w+(?:->|::)\w+|-E[A-Z]+|\b(?:TARVO|SCHED|SIG)_?[A-Z_]+\b|\b(?:{names})\b(?:\(\))?"
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


def synopsis(group, include):
    lines = [f"#include <{include}>", ""]
    for number, one in enumerate(group):
        if number > 0 and one.kind != "function" and group[number - 1].kind == "function":
            lines.append("")
        lines += fold(one.code).split("\n") + ([""] if one.kind != "function" else [])
    return [".SH SYNOPSIS", ".nf"] + [f"\\fB{escape(line)}\\fP" if line else "" for line in lines] + [".fi"]


def members(declaration, markup):
    """Their comments; the kind of a member without one says what it means, or else the structure's description does."""
    lines = []
    for at, member in enumerate(declaration.members):
        if member.code.startswith("}"):
            continue
        code = member.code
        if code.endswith("{"):
            code += " ... " + next(one.code for one in declaration.members[at:] if one.code.startswith("}"))
        kinds = [name for name in markup.types if re.search(rf"\b{name}\b", member.code)]
        if member.paragraphs or kinds:
            lines += [".TP", f"\\fB{escape(code)}\\fP"]
        for number, paragraph in enumerate(member.paragraphs):
            first = paragraph[0] if re.match(r"\w+\(", paragraph) else paragraph[0].upper()  # code stays as it is
            text = paragraph if paragraph.endswith((".", ":")) else f"{first}{paragraph[1:]}."
            lines += ([".IP"] if number else []) + [markup(text)]
        if kinds and not member.paragraphs:
            markup.mentioned.add(kinds[0])
            lines += [f"See \\fB{kinds[0]}\\fP."]
    return lines


def page(book, names, line, see, declared, version):
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
    library = escape(ELSEWHERE.get(names[0], book.library))
    others = sorted((markup.mentioned | set(see)) - set(names), key=str.lower)
    lines = [f'.TH {names[0]} 3 {DATE} "tarvo {version}" "Library Functions Manual"', ".SH NAME",
             f"{', '.join(names)} \\- {escape(line)}", ".SH LIBRARY", f"tarvo (\\fIlib{library}\\fP, \\fI\\-l{library}\\fP)"]
    lines += synopsis(group, book.header) + [".SH DESCRIPTION"] + description
    if results:
        lines += [".SH RETURN VALUE"] + results
    references = [f".BR {name} (3)" for name in others] + [f".BR {escape(book.name)} (7)"]
    return "\n".join(lines + [".SH SEE ALSO"] + [one + " ," for one in references[:-1]] + references[-1:]) + "\n"


def overview(book, template, text, example_page, declared, version):
    markup = Markup(declared)
    blocks = header.preamble(text)
    common = []
    for block in blocks[blocks.index("Common to all functions:") + 1:]:
        common += [".IP \\(bu 3", markup(block[2:])]
    functions = []
    for names, line, _ in book.pages:
        functions += [".TP"] + [", ".join(f"\\fB{name}\\fP(3)" for name in names), escape(line[0].upper() + line[1:]) + "."]
    example = re.search(r"```cpp\n(.*?)```", example_page, re.DOTALL)
    if not example:
        sys.exit(f"generate.py: {book.example} has no example")
    parts = {"DATE": DATE, "VERSION": version, "COMMON": "\n".join(common), "FUNCTIONS": "\n".join(functions),
             "EXAMPLE": escape(example[1].rstrip())}
    return re.sub(r"@([A-Z]+)@", lambda match: parts[match[1]], template)


def drift(book, declared, text, template):
    """What the pages and the header do not have in common."""
    in_pages = {name for names, _, _ in book.pages for name in names}
    in_header = {one.name for one in declared}
    codes = set(re.findall(r"-E[A-Z]+", text)) - set(re.findall(r"-E[A-Z]+", template.replace("\\-", "-")))
    codes = codes if book.example else set()
    return ([f"no page for {name}: add it to the pages of {book.name}" for name in sorted(in_header - in_pages)]
            + [f"{book.header} does not declare {name}" for name in sorted(in_pages - in_header)]
            + [f"{book.name}(7) does not explain {code}" for code in sorted(codes)])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parents[2],
                        help="the project's folder")
    parser.add_argument("--version", default="", help="the version that the pages name")
    parser.add_argument("--output", type=pathlib.Path, help="folder that gets man3/ and man7/")
    parser.add_argument("--check", action="store_true", help="compare the pages with the header and write none")
    parser.add_argument("--list", action="store_true", help="print the names of the files and write none")
    arguments = parser.parse_args()
    files = [f"man3/{name}.3" for book in BOOKS for names, _, _ in book.pages for name in names]
    files += [f"man7/{name}.7" for name in [book.name for book in BOOKS if book.example] + [guide[0] for guide in GUIDES]]
    if arguments.list:
        print(";".join(files), end="")
        return
    contents, faults = {}, []
    for book in BOOKS:
        text = (arguments.source / "include" / book.header).read_text(encoding="utf-8")
        declared = header.declarations(text)
        template = (arguments.source / f"docs/man/{book.name}.7.in").read_text(encoding="utf-8")
        faults += drift(book, declared, text, template)
        for names, line, see in book.pages:
            contents[f"man3/{names[0]}.3"] = page(book, names, line, see, declared, arguments.version)
            for name in names[1:]:
                contents[f"man3/{name}.3"] = f".so man3/{names[0]}.3\n"
        if not book.example:
            continue
        example = (arguments.source / book.example).read_text(encoding="utf-8")
        contents[f"man7/{book.name}.7"] = overview(book, template, text, example, declared, arguments.version)
    if arguments.check:
        sys.exit("\n".join(faults) or None)
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
