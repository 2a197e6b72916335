"""The small faults that scripts/mutants.py puts into the sources: which there are, and in which order they are drawn."""
import hashlib
import re

NO_STATEMENT = re.compile(r"^\s*(return|break|continue|throw|using|static_assert|namespace|class|struct|enum|public:|"
                          r"private:|case|default:|else|goto|delete this|friend|template|typedef|extern|TARVO_LOG|"
                          r"const |constexpr|auto |static|int |bool |void |virtual |explicit |inline |~|"
                          r".*= (delete|default);|[A-Za-z_:<>]+ [*&]?[a-z]\w*(\{|;| = )|"
                          # declarations of functions, and of variables
                          r"[\w:<>,*& ]*[\w>] [*&]?[A-Z]\w*\(|(?:[\w:<>,*&]+ )+[*&]*\w+( = .*)?;|"
                          r"EXCLUDES|__attribute__|"
                          # clang's analysis refuses what a lock guards without it
                          r"(?:Mutex|Read|Write)Lock \w+\()")
STATEMENT = re.compile(r"^\s+[A-Za-z_:(*+-][^;{}]*;$")


def code_lines(text):
    """The lines of a source with comments blanked, and whether each is inside a function, as its indentation says."""
    lines = []
    for line in text.split("\n"):
        bare = re.sub(r"//.*", "", line)
        logged = "TARVO_LOG" in line or re.match(r'\s*"', line)
        outside = not bare.startswith("    ") or bare.lstrip().startswith("#") or "static_assert" in bare
        lines.append("" if outside or logged else bare.rstrip())
    return lines


def replaced(line, old, new, position):
    return line[:position] + new + line[position + len(old):]


def negations(line):
    found = re.match(r"^(\s*(?:\} else )?(?:if|while) \()(.*)(\) \{)$", line)
    if found and ";" not in found.group(2):
        yield f"{found.group(1)}!({found.group(2)}){found.group(3)}"


def exchanges(pairs):
    """Each of the operators in `pairs`, once at each place, by the other one."""
    def change(line):
        for old, new in pairs:
            for match in re.finditer(re.escape(old), line):
                yield replaced(line, old, new, match.start())
    return change


def numbers(line):
    if "case " in line:
        return
    for match in re.finditer(r"(?<![\w.\"'])(\d+)(?![\w.\"'])", line):
        yield replaced(line, match.group(1), str(int(match.group(1)) + 1), match.start())


def omissions(line):
    if STATEMENT.match(line) and not NO_STATEMENT.match(line) and line.count("(") == line.count(")"):
        yield ""


KINDS = {
    "condition negated": negations,
    "parts of a condition joined otherwise": exchanges([(" && ", " || "), (" || ", " && ")]),
    "limit off by one": exchanges([(" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "),
                                   (" == ", " != "), (" != ", " == ")]),
    "number off by one": numbers,
    "line left out": omissions,
    "constant result changed": exchanges([("return true;", "return false;"), ("return false;", "return true;"),
                                          ("return nullptr;", "abort();")]),
}


def faults_of(path):
    """All faults of one source: kind, line number, the lines before and after."""
    text = path.read_text(encoding="utf-8")
    original = text.split("\n")
    lines = code_lines(text)
    for index, line in enumerate(lines):
        if not line.strip() or "template" in line:
            continue
        for kind, change in KINDS.items():
            for after in change(line):
                yield kind, index, [original[index]], [after]
        follower = lines[index + 1] if index + 1 < len(lines) else ""
        if any(True for _ in omissions(line)) and any(True for _ in omissions(follower)) and \
                re.match(r"\s*", line).group() == re.match(r"\s*", follower).group():
            yield "order swapped", index, original[index:index + 2], [original[index + 1], original[index]]


def surroundings(lines, index):
    """The function around a line, as its indentation says, and where in it the line is."""
    first = index
    while first > 0 and (lines[first][:1] in ("", " ", "}", "#") or lines[first].endswith(":")):
        first -= 1
    last = next((i for i in range(index, len(lines)) if lines[i].startswith("}")), len(lines) - 1)
    return "\n".join(lines[first:last + 1]), index - first


def digest(*parts):
    return hashlib.sha256("\0".join(map(str, parts)).encode()).hexdigest()[:16]


def faults_below(root):
    """All faults of the sources. The key of each stays the same as long as the function around it does."""
    for path in sorted((root / "src").rglob("*.[ch]*")):
        if path.suffix not in (".h", ".cpp", ".c"):
            continue
        name = str(path.relative_to(root))
        lines = path.read_text(encoding="utf-8").split("\n")
        for kind, index, before, after in faults_of(path):
            key = digest(name, kind, *surroundings(lines, index), *before, "->", *after)
            yield {"key": key, "file": name, "line": index + 1, "kind": kind, "before": before, "after": after}


def draw(root, seed):
    """The faults of the sources below `root` as they are tried: each kind in turn, each at random.

    A change of the sources takes the faults of the functions that it changes out, and puts new ones between the others,
    whose order within a kind stays.
    """
    by_kind = {}
    for fault in faults_below(root):
        by_kind.setdefault(fault["kind"], []).append(fault)
    for faults in by_kind.values():
        faults.sort(key=lambda fault: digest(seed, fault["key"]))
    while by_kind:
        for kind in sorted(by_kind):
            yield by_kind[kind].pop()
            if not by_kind[kind]:
                del by_kind[kind]


def identity(fault):
    """What the list knows a fault by."""
    return fault["file"], " ".join(x.strip() for x in fault["before"]), " ".join(x.strip() for x in fault["after"])


def describe(fault):
    before, after = (" / ".join(x.strip() for x in fault[side]) for side in ("before", "after"))
    return f"{fault['file']}:{fault['line']}: {fault['kind']}: {before}  ->  {after or '(nothing)'}"
