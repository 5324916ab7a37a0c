#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A header as doxygen wants it: plain comments become those that it takes as documentation.

comments.py HEADER writes it to standard output. The comment that opens the file is the file's; a rule,
// ---- Results ----, begins a group, whose comment is what stands alone below it; and one behind a
declaration is its.
"""
import re
import sys

# What doxygen would take for commands, tags and links.
SPECIAL = re.compile(r"[\\@<>#%]")
RULE = re.compile(r"// ---- (.*?) -+$")
BEHIND = re.compile(r"(.*[;,{}\w)])\s+// ?(.*)$")


def escaped(text):
    """Outside of code, which is indented or between grave accents."""
    if text.startswith("     "):
        return text
    return "".join(part if part.startswith("`") else SPECIAL.sub(r"\\\g<0>", part)
                   for part in re.split(r"(`[^`]*`)", text))


def declaration(line):
    behind = BEHIND.match(line)
    if not behind or line.lstrip().startswith("#"):
        return line
    if behind.group(1).endswith("{"):
        return f"/// {escaped(behind.group(2))}\n{behind.group(1)}"
    return f"{behind.group(1)}  ///< {escaped(behind.group(2))}"


def blocks(lines):
    """Lines that follow each other without an empty one."""
    block = []
    for line in [*lines, ""]:
        if line.strip():
            block.append(line)
        elif block:
            yield block
            block = []


def comment(line):
    found = re.match(r"(\s*)//(?!/)(.*)", line)
    return found.group(1) + "///" + escaped(found.group(2)) if found else None


def documented(lines):
    in_group = False
    for block in blocks(lines):
        if block[0].startswith("// SPDX"):
            block[0] = "/// \\file"
        rule = RULE.match(block[0])
        if in_group and (rule or block[0].startswith("}")):
            yield "///@}"
            in_group = False
        if rule:
            in_group = True
            yield f"/// \\name {escaped(rule.group(1))}"
            block = block[1:]
            if block and comment(block[-1]):  # nothing but a comment: the group's
                yield from map(comment, block)
                block = []
            yield "///@{"
        yield ""
        yield from (comment(line) or declaration(line) for line in block)
    if in_group:
        yield "///@}"


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        print("\n".join(documented(header.read().splitlines())))
