# SPDX-License-Identifier: Apache-2.0
"""Lists of Markdown as a git host reads them, written as Python-Markdown wants them: what belongs to an
item stands four columns further in, however wide its bullet is, and a list has an empty line before it."""
import re

import links

ITEM = re.compile(r"( *)([-*+]|\d{1,9}[.)])( {1,4})(?=\S)")


def four_columns(text):
    lines, columns = [], []  # columns: where the text of each item begins that is open
    fenced = links.without_fences(text).splitlines()
    was_blank = True
    for line, prose in zip(text.splitlines(), fenced):
        if not line.strip():
            lines.append(line)
            was_blank = True
            continue
        indent = len(line) - len(line.lstrip(" "))
        item = ITEM.match(line) if prose.strip() else None
        belongs = [column for column in columns if column <= indent]
        is_lazy = columns and not belongs and not was_blank and not item and prose.strip()
        if item and not columns and not was_blank and item.group(2) not in "-*+1.1)":
            item = None  # a number that happens to begin a line
        if item and not columns and not was_blank:
            lines.append("")
        columns = columns if is_lazy else belongs
        over = 0 if is_lazy else indent - (columns[-1] if columns else 0)
        rest = line.lstrip(" ")
        lines.append(" " * (4 * len(columns) + (0 if item else over)) + rest)
        if item:
            columns = [*columns, item.end()]
        was_blank = False
    return "\n".join(lines) + "\n"
