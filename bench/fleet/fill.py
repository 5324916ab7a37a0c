#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs what a document's tables are made by, and puts what comes out into them.

    fill.py PROGRAM DOCUMENT

A table stands between "<!-- fleet_simulation ARGUMENTS -->" and "<!-- end -->"; its runs go beside each
other, one a processor that it may use. The document stays as it is when one of them fails.
"""
import concurrent.futures
import os
import re
import shlex
import subprocess
import sys

BLOCK = re.compile(r"(<!-- fleet_simulation([^\n]*?) -->\n).*?(<!-- end -->)", re.DOTALL)


def run(program, arguments):
    done = subprocess.run([program, *shlex.split(arguments)], stdout=subprocess.PIPE, text=True, check=True)
    return done.stdout.strip("\n")


def main():
    program, path = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        text = file.read()
    wanted = [match.group(2) for match in BLOCK.finditer(text)]
    if not wanted:
        sys.exit(f"{path}: there is no table to be filled")
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        made = iter(list(pool.map(lambda arguments: run(program, arguments), wanted)))
    filled = BLOCK.sub(lambda match: f"{match.group(1)}\n{next(made)}\n\n{match.group(3)}", text)
    with open(path, "w", encoding="utf-8") as file:
        file.write(filled)


if __name__ == "__main__":
    main()
