"""The tables of docs/PERFORMANCE.md, docs/loop.md and docs/stats.md, from the JSON files of one run.

python3 page.py FIGURES.JSON         prints them
python3 page.py FOLDER PAGE.MD...    puts each between its two marks in the pages, and the plots into figures/ beside them
"""
import json
import os
import shutil
import sys

from parts import PARTS, about, counting, engines, inside

# The places of the pages, by their marks.
FIGURES, COUNTS, BOTH_ENGINES = "figures of one run", "counts of one operation", "figures of both engines"
COUNTING = "what counting takes"
PLACES = (FIGURES, COUNTS, BOTH_ENGINES, COUNTING)


def page(document, plots=()):
    """What stands between the marks of the page about performance."""
    lines = about(document)
    for title, pictures, text, part in PARTS:
        found, shown = part(document), [name for name in pictures if name in plots]
        if found or shown:
            lines += ([f"### {title}", ""] if title else []) + [text, ""]
            for name in shown:
                lines += [f"![{title}](figures/{name})", ""]
            lines += found
    return "\n".join(lines)


def marks(name):
    return f"<!-- {name} -->", f"<!-- end of {name} -->"


def between(text, name, content):
    """The text with new content between two marks; as it is when it has none of the two."""
    begin, end = marks(name)
    before, found, rest = text.partition(begin)
    _, ended, after = rest.partition(end)
    if not found and end not in text:
        return text
    if not ended:
        sys.exit(f"page.py: one of the marks of the {name} is missing")
    return f"{before}{begin}\n\n{content.rstrip()}\n\n{end}{after}"


def read(path):
    with open(path, encoding="utf-8") as source:
        return json.load(source)


def write(folder, *targets):
    """Puts the figures of a run's folder into the pages, and its plots beside them."""
    document = read(os.path.join(folder, "figures.json"))
    counts = os.path.join(folder, "inside.json")
    if os.path.exists(counts):
        document["inside"] = read(counts)
    plots = sorted(name for name in os.listdir(folder) if name.endswith(".svg"))
    counted = counting(document)
    if counted:  # a run about that: the other figures are those of a whole one
        parts = {COUNTING: "\n".join(counted)}
    else:
        parts = {FIGURES: page(document, plots), BOTH_ENGINES: "\n".join(engines(document))}
    if "inside" in document:
        parts[COUNTS] = "\n".join(inside(document["inside"]))
    pages = {}
    for target in targets:  # all of them, before one is opened: a failure leaves them as they are
        with open(target, encoding="utf-8") as file:
            before = pages[target] = file.read()
        if not any(marks(name)[0] in before for name in PLACES):
            sys.exit(f"page.py: {target} has no place for figures")
        for name, content in parts.items():
            pages[target] = between(pages[target], name, content)
    for target, text in pages.items():
        with open(target, "w", encoding="utf-8") as file:
            file.write(text)
        if FIGURES in parts and marks(FIGURES)[0] in text:
            pictures = os.path.join(os.path.dirname(target), "figures")
            os.makedirs(pictures, exist_ok=True)
            for name in plots:
                shutil.copy(os.path.join(folder, name), pictures)


if __name__ == "__main__":
    if len(sys.argv) > 2:
        write(sys.argv[1], *sys.argv[2:])
    else:
        print(page(read(sys.argv[1])))
