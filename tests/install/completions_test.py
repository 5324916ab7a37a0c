#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What shells offer after words of a command line, by the completions that packages have: the tools'
options, their values and commands, each where it belongs. Arguments: the script that makes them, and
the folder of the tools."""
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

SCRIPT, PROGRAMS = sys.argv[1:3]
MADE = tempfile.TemporaryDirectory()
TOOLS = ("zelta-record", "zelta-deliver", "zelta-lay", "zelta-view", "zelta-worker", "zelta-fleet")

# Words, the last of which is being typed; what is offered for it; what isn't.
ROWS = (
    ("zelta-record --mixed-video-audio ''", {"apart", "baseline", "high"}, {"--demo"}),
    ("zelta-record --log-level d", {"debug"}, {"error"}),
    ("zelta-record --serv", {"--server"}, {"--secret"}),
    ("zelta-lay --demo -", {"-o", "--output", "--track"}, set()),
    ("zelta-fleet ''", {"up", "record", "background"}, {"--job"}),
    ("zelta-fleet record --j", {"--job", "--json"}, {"--handover"}),
    ("zelta-fleet --json drain --", {"--handover", "--nats"}, {"--job"}),
    ("zelta-fleet list u", set(), {"up"}),
    ("zelta-fleet --h", {"--help"}, {"--handover"}),
    ("zelta-fleet list --replicas ''", {"1", "3", "5"}, set()),
)

BASH = """
source {file}
COMP_WORDS=({words}); COMP_CWORD=$(({count} - 1))
{function}
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
# What _arguments is told, in place of what it makes of it.
ZSH = """
_arguments() {{ print -rl -- "$@" }}
words=({words}); CURRENT={count}
source {file}
"""


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60,
                          env={**os.environ, "LC_ALL": "C.UTF-8", "HOME": MADE.name}).stdout


def options_of(tool):
    """Each long option of --help."""
    return set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", run(os.path.join(PROGRAMS, tool), "--help"), re.M))


def by_bash(line):
    words = shlex.split(line)
    return set(run("bash", "-c", BASH.format(
        file=os.path.join(MADE.name, "bash", words[0]), words=line, count=len(words),
        function="_" + words[0].replace("-", "_"))).split())


def by_fish(line):
    words = shlex.split(line)
    said = run("fish", "-c", 'source "$argv[1]"; complete -C "$argv[2]"',
               os.path.join(MADE.name, "fish", words[0] + ".fish"), " ".join(words))
    return {offered.split("\t")[0] for offered in said.splitlines()}


def zsh_entries(line):
    words = shlex.split(line)
    return run("zsh", "-fc", ZSH.format(
        file=os.path.join(MADE.name, "zsh", "_" + words[0]), words=line, count=len(words))).splitlines()


def by_zsh(line):
    """What fits the last word of the entries that _arguments is given."""
    *before, typed = shlex.split(line)
    offered = set()
    for entry in zsh_entries(line):
        name = re.match(r"(-[\w-]*)", entry)
        values = re.search(r":\(([\w -]+)\)$", entry)
        if name and values and name.group(1) == before[-1]:
            return {value for value in values.group(1).split() if value.startswith(typed)}
        if name:
            offered.add(name.group(1))
        elif entry.startswith(":command:"):
            offered.update(re.findall(r"[( ]([\w-]+)\\?:", entry[len(":command:"):].replace("\\ ", "_")))
    return {name for name in offered if name.startswith(typed) and (typed or not name.startswith("-"))}


SHELLS = {"bash": by_bash, "zsh": by_zsh, "fish": by_fish}


class Completions(unittest.TestCase):
    def test_every_option_is_offered_by_every_shell(self):
        for tool in TOOLS:
            for shell, ask in SHELLS.items():
                with self.subTest(tool=tool, shell=shell):
                    self.assertEqual(options_of(tool) - ask(f"{tool} --"), set())

    def test_what_is_offered_fits_what_stands_before(self):
        for line, offered, others in ROWS:
            for shell, ask in SHELLS.items():
                with self.subTest(line=line, shell=shell):
                    said = ask(line)
                    self.assertEqual((offered - said, others & said), (set(), set()), said)

    def test_help_that_cannot_be_read_is_an_error(self):
        made = subprocess.run([sys.executable, SCRIPT, "/bin/true", MADE.name], capture_output=True, text=True,
                              timeout=60)
        self.assertEqual(made.returncode, 1)
        self.assertIn("no options", made.stderr)


if __name__ == "__main__":
    for each in TOOLS:
        subprocess.run([sys.executable, SCRIPT, os.path.join(PROGRAMS, each), MADE.name], check=True, timeout=60)
    unittest.main(argv=sys.argv[:1])
