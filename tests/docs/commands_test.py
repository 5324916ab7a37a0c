#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Every command of the README, the tutorials and the how-tos is run as it stands there, and prints what
is shown; every option of our tools that any page has is one that they have.

  ZELTA_BIN=build/release/bin tests/docs/commands_test.py [-v] [Pages.test_NAME …]

pages.py says how a page is read, and stand_ins.py what stands for servers that aren't here. A page's
commands are run in order, in a folder of its own that looks like a clone with everything built, the
programs first in PATH.
"""

import contextlib
import ctypes
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from pages import MARK, pattern_of, steps_of
from stand_ins import ROOT, StandIns
from terminal import END, Terminal

BIN = Path(os.environ.get("ZELTA_BIN", ROOT / "build/release/bin")).resolve()
LIMIT_S = 40
PR_SET_CHILD_SUBREAPER = 36
TOOLS = ("zelta-record", "zelta-view", "zelta-lay", "zelta-deliver", "zelta-worker", "zelta-fleet")
SET = re.compile(r"\w+=")  # a variable of the command's
# Folders that a command makes or records into, and films, which aren't written over.
MADE = re.compile(r"\bmkdir((?: +-m +\d+| +[\w./-]+)+)|--record-file-root-dir[ =]([\w./-]+)|"
                  r"\bzelta-lay .*? -o ([\w./-]+)")
PAGES = ["README.md"] + sorted(
    str(one.relative_to(ROOT)) for folder in ("tutorials", "how-to")
    for one in (ROOT / "docs" / folder).glob("*.md"))
# Blocks that can't be run, by page: who adds one adds it here, too.
NOT_RUN = {
    "README.md": 2,
    "docs/tutorials/first-recording.md": 1,
    "docs/tutorials/first-fleet.md": 1,
    "docs/how-to/record-an-sfu.md": 1,
    "docs/how-to/size-a-machine.md": 1,
}


def in_background(command):
    return command.text.endswith("&")


def name_of(page):
    return re.sub(r"\W", "_", page.removeprefix("docs/").removesuffix(".md"))


class Page:
    """One page's folder and terminals."""

    def __init__(self, page, work):
        self.page, self.work = page, work
        self.text = (ROOT / page).read_text()
        self.here = work / "clone"
        (self.here / "build").mkdir(parents=True)
        (self.here / "build/release").symlink_to(BIN.parent)
        for name in ("examples", "scripts", "packaging", "docs"):
            (self.here / name).symlink_to(ROOT / name)
        other = work / "other"
        other.mkdir()
        self.stand_ins = StandIns(self.text, other)
        self.terminals = {}
        self.begins = {}  # where the last command's output does, by terminal
        self.stays = set()  # terminals whose last command goes on
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith("ZELTA_")}
        self.environment |= {"PATH": f"{BIN}:{os.environ['PATH']}:/usr/sbin", "HOME": str(work),
                             "PYTHONDONTWRITEBYTECODE": "1", "LC_ALL": "C.UTF-8"}

    def end(self):
        for terminal in self.terminals.values():
            terminal.end()
        self.stand_ins.close()

    def terminal(self, name):
        if name not in self.terminals:
            self.terminals[name] = Terminal(self.here, self.environment)
        return self.terminals[name]

    def fail(self, step, command, what, lines):
        shown = "\n".join(f"    {line}" for line in lines[-30:] if not line.startswith(END))
        raise AssertionError(f"{self.page}:{command.line}: {what}\n  $ {command.text}\n{shown}")

    def run(self, step):
        for command in step.commands:
            goes_on = step.terminal and command is step.commands[-1]
            terminal = self.terminal(step.terminal)
            if step.kind == "shows":
                begin = self.begins[step.terminal]
            elif step.kind == "Ctrl-C":
                begin, goes_on = terminal.interrupt(), False
                self.stays.discard(step.terminal)
            elif step.terminal in self.stays:
                self.fail(step, command, "this terminal is busy", [])
            else:
                begin = terminal.run(self.stand_ins.put_in(command.text))
            if goes_on and step.kind == "run" and not in_background(command):
                self.stays.add(step.terminal)
            self.begins[step.terminal] = begin
            self.watch(step, command, terminal, begin, goes_on)

    def watch(self, step, command, terminal, begin, goes_on):
        # What says most first, so that a line that says less leaves it what it wants.
        wanted = sorted(((one, pattern_of(self.stand_ins.put_in(one)))
                         for one in command.expected if one.strip() not in ("", "…")),
                        key=lambda one: -len(one[0]))

        def missing(lines):
            """Each wants a line of its own; users, and so their lines, come in any order."""
            came, left = [line.strip() for line in lines[begin:]], []
            for one in wanted:
                at = next((at for at, line in enumerate(came) if one[1].fullmatch(line)), None)
                if at is None:
                    left.append(one)
                else:
                    del came[at]
            return left

        def status(lines):
            return next((line[1:] for line in lines[begin:] if line.startswith(END)), None)

        def over(lines):
            if in_background(command) or step.kind == "shows":
                return not missing(lines)
            return status(lines) is not None or goes_on and not missing(lines)
        came = terminal.wait_for(over, LIMIT_S)
        lines = terminal.lines[:]
        if left := missing(lines):
            self.fail(step, command, f"doesn't print \"{left[0][0]}\" (status {status(lines)})", lines[begin:])
        if not came:
            self.fail(step, command, f"not over in {LIMIT_S} s", lines[begin:])
        if (goes_on and status(lines) is None) or step.kind == "shows":
            return
        if status(lines) != str(step.status) and step.kind != "Ctrl-C":
            self.fail(step, command, f"ends with {status(lines)}", lines[begin:])


class Pages(unittest.TestCase):
    def run_page(self, page):
        began = time.monotonic()
        work = Path(tempfile.mkdtemp(prefix="zelta-test."))
        self.addCleanup(shutil.rmtree, work, True)
        steps = steps_of((ROOT / page).read_text())
        left_out = [step for step in steps if step.kind == "not run"]
        for step in left_out:
            print(f"{page}:{step.line}: not run, {step.reason}")
        self.assertEqual(len(left_out), NOT_RUN.get(page, 0), "blocks that aren't run; see NOT_RUN")
        made = Page(page, work)
        try:
            for step in steps:
                if step.kind != "not run":
                    made.run(step)
        finally:
            made.end()
            self.nothing_is_left_over(page)
        print(f"{page}: {sum(len(one.commands) for one in steps) - len(left_out)} commands, "
              f"{time.monotonic() - began:.1f} s", flush=True)

    def nothing_is_left_over(self, page):
        """What lost its parent is ours by now: recorders that complete their files end by themselves, and
        what a page leaves running is killed, and told."""
        until = time.monotonic() + LIMIT_S
        while True:
            try:
                if os.waitpid(-1, os.WNOHANG)[0] == 0:
                    if time.monotonic() > until:
                        left = subprocess.run(["ps", "--ppid", str(os.getpid()), "-o", "pid=,args="],
                                              capture_output=True, text=True).stdout
                        for line in left.splitlines():
                            with contextlib.suppress(ProcessLookupError):
                                os.kill(int(line.split()[0]), signal.SIGKILL)
                        self.fail(f"{page} leaves processes running:\n{left}")
                    time.sleep(0.05)  # any child of many: none of them has an event of its own
            except ChildProcessError:
                return


def made_by(text):
    """What the commands of a page of this text make that another page's may stumble over."""
    made = set()
    for step in steps_of(text):
        for command in step.commands if step.kind == "run" else []:
            for folders, root, film in MADE.findall(command.text):
                folders = re.sub(r" -m +\d+", "", folders).split()
                made |= {one for one in [*folders, root, film] if one and not one.startswith("-")}
    return made


def add_page(page):
    setattr(Pages, f"test_{name_of(page)}", lambda self: self.run_page(page))


for one in PAGES:
    add_page(one)


def options_of(tool, *command):
    """As its --help has them, and those of its commands."""
    said = subprocess.run([BIN / tool, *command, "--help"], capture_output=True, text=True).stdout
    made = set(re.findall(r"--[a-z][a-z0-9-]+", said))
    if tool == "zelta-fleet" and not command:
        commands = re.findall(r"^  ([a-z]+) {2,}", said, re.MULTILINE)
        made |= set().union(*(options_of(tool, one) for one in commands))
    return made


class Blocks(unittest.TestCase):
    def told_of(self, text):
        """What is wrong with a page of this text."""
        with tempfile.TemporaryDirectory(prefix="zelta-test.") as folder:
            path = Path(folder) / "page.md"
            path.write_text(text)
            page = Page(path, Path(folder))
            try:
                for step in steps_of(text):
                    page.run(step)
            except AssertionError as e:
                return str(e)
            finally:
                page.end()
        return ""

    def test_what_is_wrong_on_a_page_is_told(self):
        rows = [
            ("```sh\ntrue\n```", ""),
            ("```sh\nfalse\n```", "ends with 1"),
            ("```sh\nzelta-record --no-such-option\n```", "ends with 2"),
            ("```console\n$ echo a; echo 'b  c'\na\nb c\n```", ""),
            ("```console\n$ echo a 17 b\na … b\n```", ""),
            ("```console\n$ echo b a 1; echo b 2\nb …\nb a …\n```", ""),
            ("```console\n$ echo a\na\na\n```", "doesn't print \"a\""),
            ("```console\n$ echo ab\na\n```", "doesn't print \"a\""),
            ("<!-- status: 3 -->\n```sh\ntrue\n```", "ends with 0"),
            ("<!-- terminal: one -->\n```console\n$ echo a; exit 1\nb\n```", "doesn't print \"b\""),
            ("<!-- by hand: false -->", "ends with 1"),
        ]
        for text, told in rows:
            with self.subTest(text=text):
                said = self.told_of(text)
                self.assertIn(told, said)
                self.assertEqual(bool(told), bool(said), said)

    def test_a_mark_that_marks_nothing_is_an_error(self):
        for text in ("<!-- not run: why -->\ntext", "<!-- status: 3 -->\n```json\n{}\n```",
                     "```console\noutput\n```"):
            with self.subTest(text=text), self.assertRaises(ValueError):
                steps_of(text)

    def test_no_two_pages_make_the_same_so_that_one_clone_does_for_all(self):
        makers = {}
        for page in PAGES:
            for name in made_by((ROOT / page).read_text()):
                makers.setdefault(name, []).append(page)
        self.assertGreater(len(makers), 15)
        self.assertEqual({name: pages for name, pages in makers.items() if len(pages) > 1}, {})

    def test_what_a_page_makes_is_found(self):
        rows = [
            ("mkdir -p a/b c", {"a/b", "c"}),
            ("mkdir -m 700 keys", {"keys"}),
            ("zelta-record call --server dir:x \\\n    --record-file-root-dir out --duration 2", {"out"}),
            ("zelta-lay a/*/meeting_* -o film.mp4 --names", {"film.mp4"}),
            ("c++ a.cpp -o a", set()),
        ]
        for text, names in rows:
            with self.subTest(text=text):
                self.assertEqual(made_by(f"```sh\n{text}\n```"), names)
                self.assertEqual(made_by(f"<!-- not run: why -->\n```sh\n{text}\n```"), set())

    def test_drawings_are_as_their_script_draws_them(self):
        subprocess.run([ROOT / "scripts/drawings/draw.py", "--check"], check=True)

    def test_every_option_that_a_page_has_is_one_of_the_tool(self):
        known = {tool: options_of(tool) for tool in TOOLS}
        wrong, seen = [], 0
        for path in [ROOT / "README.md", *sorted((ROOT / "docs").rglob("*.md"))]:
            for step in steps_of(path.read_text()):
                for command in step.commands:
                    for part in re.split(r"[|;&\n]+", command.text.replace("\\\n", " ")):
                        words = [word for word in part.split("#")[0].split() if not SET.match(word)]
                        tool = Path(words[0]).name if words else ""
                        if tool not in TOOLS:
                            continue
                        options = {word.split("=")[0] for word in words if word.startswith("--")}
                        seen += len(options)
                        wrong += [f"{path.relative_to(ROOT)}:{command.line}: {tool} has no {one}"
                                  for one in options - known[tool]]
        self.assertGreater(seen, 50)
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    unittest.main()
