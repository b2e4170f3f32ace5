#!/usr/bin/env python3
"""Checks that the daemon's includes point down the module order.

Usage: check-layers.py [REPO]

The order, bottom first, is the one the README's Layout section gives on its line
"Module order (bottom first): a, b, c, ...". A module (a top-level folder of the daemon) may
include its own headers and those of the modules below it. Every include that reaches up, or
into a folder that is not in the order (sim/, tools/, tests/), is printed as
"file:line -> header", and the exit status is 1. Tests, sim/ and tools/ sit on top of the daemon
and are not checked. Exit status 2: the README has no order line.
"""
import os
import re
import sys

ORDER_LINE = re.compile(r"Module order \(bottom first\):\s*(.+)$")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"/]+)/[^"]+"')
UNCHECKED = {"tests", "sim", "tools"}
SOURCES = (".cpp", ".h", ".inc")


def read_order(repo):
    with open(os.path.join(repo, "README.md"), encoding="utf-8") as fh:
        for line in fh:
            m = ORDER_LINE.search(line)
            if m:
                return [w.strip(" `.") for w in m.group(1).split(",") if w.strip(" `.")]
    return None


def upward_includes(repo, order):
    rank = {m: i for i, m in enumerate(order)}
    found = []
    for module in order:
        top = os.path.join(repo, module)
        for dirpath, _, files in os.walk(top):
            for name in sorted(files):
                if not name.endswith(SOURCES):
                    continue
                path = os.path.join(dirpath, name)
                with open(path, encoding="utf-8", errors="replace") as fh:
                    for n, line in enumerate(fh, 1):
                        m = INCLUDE.match(line)
                        if not m:
                            continue
                        target = m.group(1)
                        if not os.path.isdir(os.path.join(repo, target)) and target not in rank:
                            continue  # a system header in a folder (sys/, linux/, ...)
                        if target not in rank or rank[target] > rank[module]:
                            rel = os.path.relpath(path, repo)
                            header = line.split('"')[1]
                            found.append(f"{rel}:{n} -> {header}")
    return found


def main(argv):
    repo = argv[0] if argv else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    order = read_order(repo)
    if not order:
        print("check-layers: README.md has no 'Module order (bottom first):' line")
        return 2
    found = upward_includes(repo, [m for m in order if m not in UNCHECKED])
    for f in found:
        print(f)
    print(f"{len(found)} includes reach up (order, bottom first: {', '.join(order)})")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
