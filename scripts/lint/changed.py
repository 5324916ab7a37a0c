#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints which sources clang-tidy has to read again, as patterns for run-clang-tidy, a line each.

These are the sources that changed since the commit in scripts/lint/checked, and for every header that
did, the first source that includes it. All of them if the settings of clang-tidy changed. A clone that
doesn't have that commit, as one without its history, has the files of its last commit read."""

import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
EVERYTHING = "(src|tools|tests|bench|bindings|fuzz|examples)/"


def git(*arguments):
    return subprocess.run(["git", "-C", str(ROOT), *arguments], capture_output=True, text=True, check=True).stdout.splitlines()


def changed_files():
    """Paths below the root."""
    commit = (ROOT / "scripts/lint/checked").read_text().split()[0]
    unknown = git("ls-files", "-o", "--exclude-standard")
    for since in (commit, "HEAD~1"):
        try:
            return git("diff", "--name-only", "--diff-filter=d", since) + unknown
        except subprocess.CalledProcessError:
            print(f"changed.py: {since} isn't in this clone", file=sys.stderr)
    return unknown


def main():
    changed = changed_files()
    if ".clang-tidy" in changed:
        print(re.escape(f"{ROOT}/") + EVERYTHING)
        return
    sources = {path for path in changed if path.endswith(".cpp")}
    # What includes a header is told by its name: two headers of one name cost a source more.
    names = {os.path.basename(path) for path in changed if path.endswith(".h")}
    for path in git("ls-files", "*.cpp"):
        if not names:
            break
        included = {os.path.basename(name) for name in re.findall(r'#include "([^"]+)"', (ROOT / path).read_text())}
        if included & names:
            sources.add(path)
            names -= included
    for path in sorted(sources):
        print(re.escape(f"{ROOT}/{path}") + "$")


if __name__ == "__main__":
    main()
