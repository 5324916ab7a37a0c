#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the completions of a tool for bash, zsh and fish, of what its --help says.

completions.py PROGRAM FOLDER writes FOLDER/bash/NAME, FOLDER/zsh/_NAME and FOLDER/fish/NAME.fish.
"""
import dataclasses
import os
import re
import subprocess
import sys

# What stands behind an option's names and is no value of it.
NO_VALUE = ("", "REQUIRED", "Excludes:", "Needs:", "...")


@dataclasses.dataclass
class Option:
    names: list
    value: str  # TEXT, INT, a|b|c, or nothing for a flag
    help: str

    def choices(self):
        listed = re.search(r"\{(.*)\}", self.value)
        if listed:
            return listed.group(1).split(",")
        return self.value.split("|") if "|" in self.value else []

    def is_path(self):
        return self.value.startswith("TEXT")


@dataclasses.dataclass
class Page:
    options: list
    positionals: list  # names
    commands: list  # (name, help)


def read_help(text):
    """The entries of a --help: name and hint in the first column, help beside or below it."""
    page = Page([], [], [])
    section = ""
    entry = None
    for line in text.splitlines():
        if re.match(r"\S.*:$", line):
            section = line[:-1]
            continue
        found = re.match(r"  (\S+)((?: \S+)*)(?: {2,}(.*))?$", line)
        if found and section:
            name, hint, said = found.group(1), found.group(2).split(), found.group(3) or ""
            if name.startswith("-"):
                value = hint[0] if hint else ""
                is_flag = value in NO_VALUE or value.startswith("(")
                entry = Option(name.split(","), "" if is_flag else value, said)
                page.options.append(entry)
            elif section == "Subcommands":
                page.commands.append((name, said))
                entry = None
            else:
                page.positionals.append(name)
                entry = None
        elif entry is not None and line.startswith("   ") and not entry.help:
            entry.help = line.strip()
        elif line and not line.startswith(" "):
            section = ""
    if not page.options:
        raise ValueError("its --help has no options")
    return page


def ask(program, *command):
    said = subprocess.run([program, *command, "--help"], check=True, capture_output=True, timeout=60,
                          env={**os.environ, "LC_ALL": "C.UTF-8"})
    return read_help(said.stdout.decode())


def names(options):
    return " ".join(name for option in options for name in option.names)


def beside(own, common):
    """Those of the tool that a command, which has --help as well, doesn't have itself."""
    return [option for option in common if option.names not in [each.names for each in own]]


def bash_cases(prefix, options):
    for option in options:
        if not option.value:
            continue
        pattern = "|".join(prefix + name for name in option.names)
        # Without a reply bash offers files.
        reply = f'COMPREPLY=($(compgen -W "{" ".join(option.choices())}" -- "$word"))'
        yield f"    {pattern}) {reply if option.choices() else ':'}; return ;;"


def bash(tool, page, commands):
    function = "_" + tool.replace("-", "_")
    lines = [
        f"# Made of {tool} --help.",
        f"{function}() {{",
        '  local word=${COMP_WORDS[COMP_CWORD]} at=$COMP_CWORD command="" each',
        "  COMPREPLY=()",
        "  # --option=value comes as three words.",
        '  if [[ $word == "=" ]]; then word=""; elif [[ ${COMP_WORDS[at - 1]} == "=" ]]; then at=$((at - 1)); fi',
        "  local before=${COMP_WORDS[at - 1]}",
    ]
    if commands:
        lines += [
            '  for each in "${COMP_WORDS[@]:1:COMP_CWORD - 1}"; do',
            f'    case $each in {"|".join(commands)}) command=$each; break ;; esac',
            "  done",
        ]
    lines += ["  case $command/$before in"]
    for name, sub in commands.items():
        lines += bash_cases(name + "/", sub.options)
    lines += bash_cases("*/", page.options)
    lines += ["  esac", "  case $command/$word in"]
    for name, sub in commands.items():
        own = names(sub.options + beside(sub.options, page.options))
        lines.append(f'    {name}/-*) COMPREPLY=($(compgen -W "{own}" -- "$word")) ;;')
    lines.append(f'    */-*) COMPREPLY=($(compgen -W "{names(page.options)}" -- "$word")) ;;')
    if commands:
        lines.append(f'    /*) COMPREPLY=($(compgen -W "{" ".join(commands)}" -- "$word")) ;;')
    lines += ["  esac", "}", f"complete -o default -F {function} {tool}", ""]
    return "\n".join(lines)


def quoted(text):
    return "'" + text.replace("'", "'\\''") + "'"


def zsh_options(options):
    for option in options:
        said = re.sub(r"([\[\]:\\])", r"\\\1", option.help)
        for name in option.names:
            if not option.value:
                yield quoted(f"{name}[{said}]")
                continue
            if option.choices():
                action = f"({' '.join(option.choices())})"
            else:
                action = "_files" if option.is_path() else " "
            form = name + ("=" if name.startswith("--") else "")
            yield quoted(f"{form}[{said}]:value:{action}")


def zsh_arguments(indent, options, rest):
    lines = ["_arguments :", *zsh_options(options), *map(quoted, rest)]
    return indent + f" \\\n{indent}  ".join(lines)


def zsh(tool, page, commands):
    lines = [f"#compdef {tool}", f"# Made of {tool} --help."]
    if not commands:
        lines += [zsh_arguments("", page.options, ["*: :_files"] if page.positionals else []), ""]
        return "\n".join(lines)
    lines += [
        "local command each",
        "for each in ${words[2,CURRENT-1]}; do",
        f'  case $each in ({"|".join(commands)}) command=$each; break ;; esac',
        "done",
        "case $command in",
    ]
    for name, sub in commands.items():
        rest = [": :", "*: :_files"] if sub.positionals else [": :"]
        lines += [f"  ({name})", zsh_arguments("    ", sub.options + beside(sub.options, page.options), rest), "    ;;"]
    listed = " ".join(name + "\\:" + re.sub(r"([ :;'()\\])", r"\\\1", said) for name, said in page.commands)
    lines += ["  (*)", zsh_arguments("    ", page.options, [f":command:(({listed}))"]), "    ;;", "esac", ""]
    return "\n".join(lines)


def fish_options(tool, condition, options):
    for option in options:
        words = ["complete -c", tool, *condition]
        for name in option.names:
            words += ["-l" if name.startswith("--") else "-s", name.lstrip("-")]
        if option.choices():
            words += ["-x -a", quoted(" ".join(option.choices()))]
        elif option.is_path():
            words += ["-r -F"]
        elif option.value:
            words += ["-x"]
        yield " ".join([*words, "-d", fish_quoted(option.help)])


def fish_quoted(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish(tool, page, commands):
    lines = [f"# Made of {tool} --help.", *fish_options(tool, [], page.options)]
    if not page.positionals:
        lines.append(f"complete -c {tool} -f")
    for name, said in page.commands:
        lines.append(f"complete -c {tool} -n __fish_use_subcommand -a {name} -d {fish_quoted(said)}")
        condition = ["-n", quoted(f"__fish_seen_subcommand_from {name}")]
        lines += fish_options(tool, condition, beside(page.options, commands[name].options))
        if commands[name].positionals:
            lines.append(" ".join(["complete -c", tool, *condition, "-F"]))
    return "\n".join([*lines, ""])


def main(program, folder):
    tool = os.path.basename(program)
    page = ask(program)
    commands = {name: ask(program, name) for name, _ in page.commands}
    for shell, name, made in (("bash", tool, bash), ("zsh", "_" + tool, zsh), ("fish", tool + ".fish", fish)):
        os.makedirs(os.path.join(folder, shell), exist_ok=True)
        with open(os.path.join(folder, shell, name), "w", encoding="utf-8") as file:
            file.write(made(tool, page, commands))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("completions.py: it takes a program and a folder")
    try:
        main(sys.argv[1], sys.argv[2])
    except (OSError, ValueError, subprocess.SubprocessError) as error:
        sys.exit(f"completions.py: {sys.argv[1]}: {error}")
