# SPDX-License-Identifier: Apache-2.0
"""Enumerations and packets of C and C++ headers, with their comments."""
import dataclasses
import re

ENUM = re.compile(r"^enum (?P<name>\w+)(?: : [\w:]+)? \{(?P<body>.*?)\};", re.M | re.S)
ROW = re.compile(r"(?P<name>\w+)\s*=\s*(?P<value>-?\d+)\s*,?[ \t]*(?://\s*(?P<said>[^\n]*))?")
PACKET = re.compile(r"^ZELTA_PACKET\((?P<name>\w+), (?P<uri>\d+)\) \{(?P<body>.*?)^\};", re.M | re.S)
MEMBER = re.compile(r"^  (?P<type>[\w:]+(?:<\w+>)?) (?P<name>\w+)(?: = [^;]+)?;", re.M)
HEADING = re.compile(r"^// ---- (.*?) -+$", re.M)


@dataclasses.dataclass
class Enum:
    name: str
    said: str  # the comment of it
    rows: list  # (name, value, comment)


@dataclasses.dataclass
class Packet:
    name: str
    uri: int
    said: str
    fields: list  # (name, type), in the order of the wire


def comment_above(text, position):
    """The // lines that end right before a position, as one text."""
    lines = []
    for line in reversed(text[:position].splitlines()):
        if not line.startswith("//") or line.startswith("// ----"):
            break
        lines.append(line[2:].strip())
    return " ".join(reversed(lines))


def enums(text):
    for found in ENUM.finditer(text):
        first_line = found["body"].split("\n", 1)[0]
        beside = first_line.split("//", 1)[1].strip() if "=" not in first_line and "//" in first_line else ""
        rows = [(row["name"], row["value"], row["said"] or "") for row in ROW.finditer(found["body"])]
        yield Enum(found["name"], comment_above(text, found.start()) or beside, rows)


def packets(text):
    """(heading of the header, comment below it, its packets) for each heading that has any."""
    headings = [*HEADING.finditer(text)]
    for heading, after in zip(headings, [*headings[1:], None]):
        part = text[heading.end():after.start() if after else len(text)]
        made = []
        for found in PACKET.finditer(part):
            order = re.search(r"ZELTA_FIELDS\((.*?)\);", found["body"], re.S).group(1)
            types = {member["name"]: member["type"] for member in MEMBER.finditer(found["body"])}
            fields = [(name, types[name]) for name in re.findall(r"s\.(\w+)", order)]
            made.append(Packet(found["name"], int(found["uri"]), comment_above(part, found.start()), fields))
        if made:
            said = re.match(r"\n//\n((?:// .*\n)+)", part)
            yield heading.group(1), " ".join(said.group(1).replace("// ", "").split()) if said else "", made
