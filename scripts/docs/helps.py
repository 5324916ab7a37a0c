# SPDX-License-Identifier: Apache-2.0
"""What --help of a program says, taken apart."""
import dataclasses
import os
import re
import subprocess

ENTRY = re.compile(r"  (\S(?:\S| (?! ))*)(?: {2,}(.*))?$")
NUMBERS = {"INT": "whole number", "UINT": "whole number", "FLOAT": "number", "BOOLEAN": "0 or 1", "TEXT": "text"}


@dataclasses.dataclass
class Section:
    name: str
    rows: list  # (names, value, help)


@dataclasses.dataclass
class Help:
    about: list  # paragraphs before the usage
    usage: str
    sections: list
    after: list  # paragraphs behind all

    def section(self, name):
        return next((section for section in self.sections if section.name == name), Section(name, []))


def ask(program, *command):
    said = subprocess.run([program, *command, "--help"], check=True, capture_output=True, timeout=60,
                          env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout.decode()
    made = read(said)
    if not made.usage or not made.sections:
        raise ValueError(f"{program} {' '.join(command)}: its --help has no usage or no options")
    return made


def read(text):
    made = Help([], "", [], [])
    section = row = None
    for line in text.splitlines():
        entry = ENTRY.match(line)
        if line.startswith("Usage: "):
            made.usage = line[len("Usage: "):]
        elif re.match(r"[A-Z]\w*:$", line):
            section = Section(line[:-1], [])
            made.sections.append(section)
        elif section and entry:
            names, _, value = entry.group(1).partition(" ")
            row = [names, value, entry.group(2) or ""]
            section.rows.append(row)
        elif section and row and line.startswith("   "):
            row[2] = f"{row[2]} {line.strip()}".strip()
        elif line.strip():
            (made.after if section else made.about).append(line.strip())
    return made


def value(text):
    """(what an option takes, what else holds for it) in words, of the hint behind its names."""
    notes = []
    for word, said in (("Excludes", "not with"), ("Needs", "only with")):
        found = re.search(rf" ?{word}:((?: -[\w,-]+)+)", text)
        if found:
            notes.append(f"{said} " + ", ".join(f"`{name}`" for name in found.group(1).split()))
            text = text.replace(found.group(), "")
    needed = " REQUIRED" in text
    text = text.replace(" REQUIRED", "")
    found = re.search(r" ?\(Env:(\w+)\)", text)
    if found:
        notes.append(f"or by `{found.group(1)}` of the environment")
        text = text.replace(found.group(), "")
    elif needed:
        notes.append("needed")
    many = text.endswith("...")
    text = text.removesuffix("...").strip()
    kind, _, default = text.partition("=")
    if default:
        notes.append(f"default: `{default}`")
    among = re.search(r":\{(.*)\}", kind)
    bounds = re.search(r"in \[(\S+) - (\S+)\]", kind)
    if among or "|" in kind:
        choices = among.group(1).split(",") if among else kind.split("|")
        said = ", ".join(f"`{choice}`" for choice in choices)
    else:
        said = NUMBERS.get(kind.split(":")[0].strip(), kind)
    if bounds:
        said += ", {} to {}".format(*bounds.groups())
    return said + (", several" if many else ""), notes
