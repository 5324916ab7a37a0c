#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""docs/reference/ is what the sources and the programs say today, and what other pages list by hand is
all that there is.

  ZELTA_BIN=build/release/bin tests/docs/reference_test.py
"""
import os
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZELTA_BIN", ROOT / "build/release/bin"))
sys.path.insert(0, str(ROOT / "scripts/docs"))
import headers  # noqa: E402
import helps  # noqa: E402
import reference  # noqa: E402

METRIC = re.compile(r"\bzelta_(?:recording|deliver|worker|fleet)_[a-z_]+\b")
HELP = """Does something.
Usage: tool [OPTIONS] word

Positionals:
  word TEXT REQUIRED      what it is about

Options:
  -q,--quiet              says nothing
  --count INT:INT in [1 - 9]=3 Excludes: --all
                          how many
  --urls TEXT ... (Env:TOOL_URLS)
                          of servers
  --kind INT:{1,3,5}      of it

More:
  --late a|b              in a section of its own
"""


def code_metrics():
    found = set()
    for folder in ("src", "tools"):
        for path in (ROOT / folder).rglob("*.cpp"):
            found |= {name.strip('"') for name in re.findall(f'"{METRIC.pattern}"', path.read_text())}
    return found


def page_metrics():
    """Of the tables' first columns, where `_busy_processors` is short for a name of the same beginning."""
    found = set()
    for row in re.findall(r"^\| (`zelta_[^|]+) \|", (ROOT / "docs/metrics.md").read_text(), re.M):
        names = re.findall(r"`(\w+)`", row)
        beginning = METRIC.match(names[0]).group().split("_")[:2]
        found |= {"_".join(beginning) + name if name.startswith("_") else name for name in names}
    return found


class Reference(unittest.TestCase):
    def test_every_page_is_what_the_script_makes_of_the_tree(self):
        made = reference.pages(BIN)
        there = {path.name: path.read_text() for path in (ROOT / "docs/reference").glob("*.md")}
        self.assertEqual(sorted(made), sorted(there))
        for name, text in made.items():
            with self.subTest(name=name):
                self.assertEqual(text, there[name], "made anew by scripts/docs/reference.py BIN")

    def test_every_program_with_options_has_a_section(self):
        programs = {path.parent.name for path in (ROOT / "tools").glob("*/main.cpp")} | {"ZeltaCoreService"}
        self.assertEqual(set(reference.PROGRAMS), programs)
        self.assertEqual(set(reference.STATUSES), programs)

    def test_statuses_of_the_help_are_those_of_the_source(self):
        for name, (path, _) in reference.STATUSES.items():
            said = " ".join([*(asked := helps.ask(str(BIN / name))).about, *asked.after])
            if "Exit status: " not in said:
                continue
            numbers = re.findall(r"\b\d\b", said.partition("Exit status: ")[2])
            enum = {each.name: each for each in headers.enums((ROOT / path).read_text())}["exit_status"]
            with self.subTest(program=name):
                self.assertEqual(set(numbers), {value for _, value, _ in enum.rows})

    def test_metrics_are_those_of_the_code(self):
        self.assertEqual(page_metrics(), code_metrics())

    def test_every_packet_has_its_number_on_the_page_of_packets(self):
        text = (ROOT / "docs/protocol.md").read_text()
        listed = set()
        for cell in re.findall(r"\| ([\d, to]+)(?= \|)", text):
            for part in cell.split(", "):
                first, _, last = part.partition(" to ")
                listed |= set(range(int(first), int(last or first) + 1))
        there = {packet.uri for _, _, each in headers.packets((ROOT / "include/protocol/ipc_protocol.h").read_text())
                 for packet in each}
        self.assertEqual(listed, there)


class Helps(unittest.TestCase):
    def setUp(self):
        self.read = helps.read(HELP)

    def test_sections_and_what_stands_before_them(self):
        self.assertEqual(self.read.about, ["Does something."])
        self.assertEqual(self.read.usage, "tool [OPTIONS] word")
        self.assertEqual([(section.name, len(section.rows)) for section in self.read.sections],
                         [("Positionals", 1), ("Options", 4), ("More", 1)])

    def test_what_options_take(self):
        rows = {names: (helps.value(hint), said)
                for section in self.read.sections for names, hint, said in section.rows}
        self.assertEqual(rows, {
            "word": (("text", ["needed"]), "what it is about"),
            "-q,--quiet": (("", []), "says nothing"),
            "--count": (("whole number, 1 to 9", ["not with `--all`", "default: `3`"]), "how many"),
            "--urls": (("text, several", ["or by `TOOL_URLS` of the environment"]), "of servers"),
            "--kind": (("`1`, `3`, `5`", []), "of it"),
            "--late": (("`a`, `b`", []), "in a section of its own")})


if __name__ == "__main__":
    unittest.main()
