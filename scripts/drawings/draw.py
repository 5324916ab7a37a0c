#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/drawings/*.svg. With --check it writes nothing, and fails where a file isn't what it would
draw."""

import sys
from pathlib import Path

import fleet
import recorder

FOLDER = Path(__file__).resolve().parents[2] / "docs/drawings"


def main():
    check = sys.argv[1:] == ["--check"]
    if sys.argv[1:] and not check:
        sys.exit("usage: draw.py [--check]")
    stale = []
    for name, make in {**recorder.DRAWINGS, **fleet.DRAWINGS}.items():
        path, svg = FOLDER / f"{name}.svg", make().svg()
        if check:
            stale += [path.name] if not path.is_file() or path.read_text() != svg else []
        else:
            path.write_text(svg)
    if stale:
        sys.exit(f"drawn anew by scripts/drawings/draw.py they would differ: {', '.join(stale)}")


if __name__ == "__main__":
    main()
