# SPDX-License-Identifier: Apache-2.0
"""What a page of Markdown has to be done: its fenced blocks of commands, in order.

    ```console            a command behind "$ ", beneath it lines that it prints; … stands for anything
    ```sh                 commands alone

What a page can't say to a reader stands in a comment of its own above the block:

    <!-- not run: REASON -->        the block isn't run
    <!-- terminal: NAME -->         the block is of another terminal, where its last command may go on
    <!-- status: N -->              its commands end with another status than 0

and, where a reader does something without a command,

    <!-- by hand: COMMAND -->       is run instead
    <!-- Ctrl-C: NAME -->           is pressed in that terminal; a block of text beneath has what it prints
    <!-- shows: NAME -->            in that terminal its last command prints the block of text beneath
"""

import dataclasses
import re

FENCE = re.compile(r"^( *)```(\S*)\s*$")
MARK = re.compile(r"^ *<!-- (not run|terminal|status|by hand|Ctrl-C|shows): (.+?) -->\s*$")
HEREDOC = re.compile(r"<<-?'?(\w+)'?")


@dataclasses.dataclass
class Command:
    text: str
    line: int
    expected: list


@dataclasses.dataclass
class Step:
    kind: str  # run, not run, Ctrl-C, shows
    line: int
    terminal: str = ""
    reason: str = ""
    status: int = 0
    commands: list = dataclasses.field(default_factory=list)


def commands_of(lines, first, prompts):
    """A command goes on after a backslash and up to the end of a here-document."""
    made, at = [], 0
    while at < len(lines):
        text, number = lines[at], first + at
        at += 1
        if prompts and not text.startswith("$ "):
            if not made:
                raise ValueError(f"line {number}: output of no command")
            made[-1].expected.append(text)
            continue
        text = text[2:] if prompts else text
        if not text.strip() or text.lstrip().startswith("#"):
            continue
        while text.endswith("\\"):
            text += "\n" + lines[at]
            at += 1
        if found := HEREDOC.search(text):
            while True:
                text += "\n" + lines[at]
                at += 1
                if lines[at - 1].strip() == found[1]:
                    break
        made.append(Command(text, number, []))
    return made


def steps_of(text):
    """All of a page's steps; what marks stand above a block that has no commands is an error."""
    lines, made, marks, at = text.splitlines(), [], {}, 0
    while at < len(lines):
        line = lines[at]
        at += 1
        if found := MARK.match(line):
            if found[1] == "by hand":
                made.append(Step("run", at, commands=[Command(found[2], at, [])]))
            elif found[1] in ("Ctrl-C", "shows"):
                made.append(Step(found[1], at, terminal=found[2],
                                 commands=[Command(f"({found[1]})", at, [])]))
            else:
                marks[found[1]] = found[2]
            continue
        if not (found := FENCE.match(line)):
            if line.strip() and marks:
                raise ValueError(f"line {at}: a mark stands above no block")
            continue
        begin, language = at, found[2]
        while lines[at].strip() != "```":
            at += 1
        body = [one[len(found[1]):] for one in lines[begin:at]]
        at += 1
        if language == "text" and made and made[-1].kind in ("Ctrl-C", "shows") and not marks:
            made[-1].commands[0].expected += body
        elif language in ("console", "sh", "bash"):
            made.append(Step("not run" if "not run" in marks else "run", begin,
                             marks.get("terminal", ""), marks.get("not run", ""),
                             int(marks.get("status", 0)),
                             commands_of(body, begin + 1, language == "console")))
        elif marks:
            raise ValueError(f"line {begin}: a mark stands above a block of \"{language}\"")
        marks = {}
    return made


def pattern_of(expected):
    """Of an expected line: … is anything, and how many spaces there are doesn't matter."""
    parts = [r"\s+".join(map(re.escape, re.split(" +", part)))
             for part in expected.strip().split("…")]
    return re.compile(".*".join(parts))
