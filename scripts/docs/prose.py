# SPDX-License-Identifier: Apache-2.0
"""Pieces of the Markdown that the reference is made of."""
import re
import textwrap

WIDTH = 120


def code(text):
    """As code, also where it has a grave accent of its own."""
    return f"`` {text} ``" if "`" in text else f"`{text}`"


def plain(text):
    """Free text of a source, which is to be shown as it is; what stands between `…` stays code."""
    parts = re.split(r"(`[^`]+`)", text)
    return "".join(part if part.startswith("`") and len(part) > 1 else re.sub(r"([\\<>*\[\]]|\b_|_\b)", r"\\\1", part)
                   for part in parts)


def paragraph(text):
    return "\n".join(textwrap.wrap(text, WIDTH, break_long_words=False, break_on_hyphens=False))


def table(heads, rows):
    def line(cells):
        return "| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |"
    return "\n".join([line(heads), "|" + "---|" * len(heads), *map(line, rows)])


def page(title, *blocks):
    made = "<!-- Made by scripts/docs/reference.py of the sources: don't edit. -->"
    return "\n\n".join([f"# {title}", made, *[block for block in blocks if block]]) + "\n"
