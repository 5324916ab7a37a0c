# SPDX-License-Identifier: Apache-2.0
"""Links and anchors of Markdown, read as a git host reads them: what stands in code is none."""
import re

CODE_SPAN = re.compile(r"(?<!`)(`+)(?!`)(.+?)(?<!`)\1(?!`)", re.S)
FENCE = re.compile(r" *(?:[-*] +)?(```+|~~~+)")
LINK = re.compile(
    r"\]\(<?(?P<inline>[^)\s>]+)>?(?:\s+\"[^\"]*\")?\)"  # [text](target), ![text](target "title")
    r"|^ {0,3}\[[^\]]+\]: +<?(?P<defined>[^\s>]+)"  # [text]: target
    r"|<(?:a|img|source)\b[^>]*?\b(?:href|src|srcset)=\"(?P<html>[^\"]+)\"", re.M)
HEADING = re.compile(r"^(#{1,6}) +(.*?)(?: +#+)?$", re.M)
NAMED = re.compile(r"<[a-z][^>]*?\b(?:id|name)=\"([^\"]+)\"")


def blank(text):
    """As many characters, and the same lines."""
    return re.sub(r"[^\n]", " ", text)


def without_fences(text):
    lines, fence = [], ""
    for line in text.splitlines(keepends=True):
        found = FENCE.match(line)
        if fence:
            closes = line.strip() and set(line.strip()) == {fence[0]} and len(line.strip()) >= len(fence)
            fence = "" if closes else fence
            line = blank(line)
        elif found:
            fence = found.group(1)
            line = blank(line)
        lines.append(line)
    return "".join(lines)


def without_code(text):
    return CODE_SPAN.sub(lambda span: blank(span.group()), without_fences(text))


def links(text):
    """(start, end, target) of each link and image: text[start:end] is the target."""
    for found in LINK.finditer(without_code(text)):
        start, end = found.span(found.lastgroup)
        yield start, end, text[start:end]


def slug(heading):
    """The anchor that a git host gives to a heading."""
    shown = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    return re.sub(r"[^\w\- ]", "", re.sub(r"[*`]", "", shown).strip().lower()).replace(" ", "-")


def anchors(text):
    """Of its headings, the second of the same name with -1 behind it, and of its HTML."""
    prose, seen = without_fences(text), {}
    made = set(NAMED.findall(prose))
    for found in HEADING.finditer(prose):
        name = slug(found.group(2))
        times = seen[name] = seen.get(name, -1) + 1
        made.add(f"{name}-{times}" if times else name)
    return made


def is_outside(target):
    """Whether a link leaves the project: another server, or an address of mail."""
    return re.match(r"[a-z][a-z+.-]*:", target) is not None
