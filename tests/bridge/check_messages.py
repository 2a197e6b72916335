#!/usr/bin/env python3
"""Checks that docs/bridge.md explains each message of the bridge, and no other; and that page and manual page name each
of its options.

A message is the text of a Say(), or what a function returns as a fault: a text of a fmt::format() or of faults in
bridge/program and bridge/network. On the page it is a table row that begins with the message in backticks.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs/bridge.md"
MANUAL = ROOT / "bridge/tarvo-bridge.8"
TEXT = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
SAID = re.compile(r"\bSay\(\s*Level::\w+,\s*(?:\w+ \? " + TEXT + r"\s*:\s*)?" + TEXT)
FAULT = re.compile(r"(?:push_back|emplace_back|return|\?|:)\s*\(?\s*(?:fmt::format\()?" + TEXT + r"\s*[,;):]")
FAILED = re.compile(r"\bFailed\(" + TEXT)
ROW = re.compile(r"^\| `([^`]+)` \| (\S.*) \|$", re.M)
# Texts in those files that are no messages: they have no blank, or are XML, JSON or help.
FOLDERS = ("program", "network")


def joined(literals):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)).replace('\\"', '"')


def messages():
    found = set()
    for path in sorted((ROOT / "bridge").rglob("*.cpp")):
        text = path.read_text(encoding="utf-8")
        for match in SAID.finditer(text):
            found.update(joined(part) for part in match.groups() if part)
        if path.parent.name in FOLDERS:
            for match in FAULT.finditer(text):
                message = joined(match[1])
                if " " in message and "<" not in message:
                    found.add(message)
            found.update(joined(match[1]) + ": {}" for match in FAILED.finditer(text))
    return found - {"{}", "{}: {}"}


def options():
    text = (ROOT / "bridge/program/Options.cpp").read_text(encoding="utf-8")
    return {"--as", "--config"} | set(re.findall(r'add_(?:option|flag)\("(--[a-z-]+)"', text))


def main():
    found = messages()
    if "--list" in sys.argv:
        print("\n".join(sorted(found)))
        return
    page = PAGE.read_text(encoding="utf-8")
    section = page.split("## Troubleshooting", 1)[1]
    rows = [row[1] for row in ROW.finditer(section)]
    faults = [f"not explained: {message}" for message in sorted(found - set(rows))]
    faults += [f"explained, but not said: {message}" for message in sorted(set(rows) - found)]
    manual = MANUAL.read_text(encoding="utf-8").replace("\\-", "-")
    faults += [f"{place.name} does not name {option}" for option in sorted(options())
               for place, text in ((PAGE, page), (MANUAL, manual)) if option not in text]
    print("\n".join(faults), end="\n" if faults else "")
    if not found or faults:
        sys.exit(1)


if __name__ == "__main__":
    main()
