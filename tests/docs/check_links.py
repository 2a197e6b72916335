#!/usr/bin/env python3
"""Checks that each relative link of the Markdown pages leads to a file, and each anchor to a heading."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
LINK = re.compile(r"\[[^\]\n]*\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ (.*)$", re.M)
CODE = re.compile(r"^```.*?^```", re.M | re.S)


def anchors_of(path):
    """The anchors that the headings of a page get."""
    headings = HEADING.findall(CODE.sub("", path.read_text(encoding="utf-8")))
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def main():
    """Exit code 0 when all links lead somewhere."""
    pages = sorted([*ROOT.glob("*.md"), *(ROOT / "docs").rglob("*.md"),
                    *(ROOT / "models").glob("*.md")])
    links = faults = 0
    for page in pages:
        for target in LINK.findall(CODE.sub("", page.read_text(encoding="utf-8"))):
            if "://" in target:
                continue
            links += 1
            file, _, anchor = target.partition("#")
            path = (page.parent / file).resolve() if file else page
            if not path.exists() or anchor and anchor not in anchors_of(path):
                print(f"{page.relative_to(ROOT)}: {target} leads nowhere")
                faults += 1
    print(f"{links} links on {len(pages)} pages")
    sys.exit(1 if faults or not links else 0)


if __name__ == "__main__":
    main()
