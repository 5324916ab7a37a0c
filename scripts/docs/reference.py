#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes docs/reference/ of the sources and of what programs say of themselves.

reference.py BIN [FOLDER] asks the programs in BIN, and writes into FOLDER, docs/reference unless named.
"""
import json
import os
import pathlib
import subprocess
import sys

import headers
import helps
import schemas
from prose import code, page, paragraph, plain, table

ROOT = pathlib.Path(__file__).resolve().parents[2]
# What a program is for, and the page that says more.
PROGRAMS = {
    "zelta-record": ("records a channel", "../zelta-record.md"),
    "zelta-view": ("shows a recording in a browser", "../view.md"),
    "zelta-lay": ("makes one film of a recording", "../lay.md"),
    "zelta-deliver": ("brings recordings to where they are kept", "../delivery.md"),
    "zelta-worker": ("records a fleet's jobs on one machine", "../fleet.md"),
    "zelta-fleet": ("sends jobs to a fleet and shows it", "../fleet.md"),
    "ZeltaCoreService": ("is the recorder, which the engine starts", "../recorder.md#options"),
}
# Where a program's exit statuses are named, and what else there is to say of them.
STATUSES = {
    "zelta-record": ("tools/zelta-record/exit_status.h", "After a second signal: 128 and the signal's number."),
    "zelta-view": ("tools/zelta-view/exit_status.h", ""),
    "zelta-lay": ("tools/zelta-lay/exit_status.h", "After SIGINT, SIGTERM or SIGHUP: 128 and its number."),
    "zelta-deliver": ("tools/zelta-deliver/exit_status.h", ""),
    "zelta-worker": ("tools/zelta-worker/main.cpp", ""),
    "zelta-fleet": ("tools/zelta-fleet/exit_status.h", ""),
    "ZeltaCoreService": ("src/core_service/session/ending.h", ""),
}
SETTINGS = (
    ("recorder-settings", "../recorder.md#settings-zelta_recorder_settings", "what each does"),
    ("delivery-settings", "../delivery.md", "what comes of it"),
    ("worker-settings", "../fleet.md", "what a worker does with it"),
    ("fleet-job", "../fleet.md", "what becomes of a job"),
)
WRITTEN = (
    ("recording", "../recorder.md#the-manifest-recordingjson", "how it is kept up"),
    ("fleet-state", "../fleet.md", "what states mean"),
    ("fleet-worker", "../fleet.md", "how workers are chosen"),
)


def page_of(link):
    return link.removeprefix("../").partition("#")[0]


def meaning(said, notes):
    """A help, and what else holds; of a variable of the environment only if the help doesn't name it."""
    notes = [note for note in notes if not note.startswith("or by") or note.split("`")[1] not in said]
    return "; ".join(part for part in [plain(said), *notes] if part)


def option_rows(section):
    for names, hint, said in section.rows:
        takes, notes = helps.value(hint)
        yield [", ".join(f"`{name}`" for name in names.split(",")), takes, meaning(said, notes)]


def option_tables(asked, level):
    for section in asked.sections:
        if section.name in ("Subcommands", "Positionals"):
            continue
        if section.name != "Options":
            yield f"{level} {section.name}"
        yield table(["option", "takes", "what it does"], option_rows(section))


def commands_of(program, asked):
    rows = asked.section("Subcommands").rows
    yield "### Commands"
    yield table(["command", "what it does"], [[f"`{name}`", plain(said)] for name, _, said in rows])
    shared = {names for names, _, _ in asked.section("Options").rows}
    for name, _, said in rows:
        own = helps.ask(program, name)
        for section in own.sections:
            section.rows = [row for row in section.rows if row[0] not in shared]
        own.sections = [section for section in own.sections if section.rows]
        yield f"### `{os.path.basename(program)} {name}`"
        yield f"{plain(said)[:1].upper()}{plain(said)[1:]}: {code(own.usage)}"
        yield from words_of(own)
        yield from option_tables(own, "####")


def words_of(asked):
    rows = asked.section("Positionals").rows
    if rows:
        yield table(["word", "what it is"], [[f"`{name}`", meaning(said, helps.value(hint)[1])]
                                            for name, hint, said in rows])


def options(programs):
    blocks = []
    for name, (_, more) in PROGRAMS.items():
        asked = helps.ask(str(programs / name))
        blocks += [f"## `{name}`", f"[{page_of(more)}]({more}) says more.",
                   *[paragraph(plain(said)) for said in asked.about if not said.startswith("Exit status")],
                   code(asked.usage), *words_of(asked), *option_tables(asked, "###")]
        if asked.section("Subcommands").rows:
            blocks += commands_of(str(programs / name), asked)
    return page("Options of every program",
                paragraph("What `--help` of each program says; with which status each ends is in "
                          "[exit-statuses.md](exit-statuses.md)."),
                table(["program", "what it does"],
                      [[f"[`{name}`](#{name.lower()})", said] for name, (said, _) in PROGRAMS.items()]),
                *blocks)


def statuses():
    blocks = []
    for name, (path, said) in STATUSES.items():
        made = {enum.name: enum for enum in headers.enums((ROOT / path).read_text())}["exit_status"]
        blocks += [f"## `{name}`", table(["status", "meaning"], [[value, plain(text)] for _, value, text in made.rows]),
                   said]
    return page("Exit statuses", "How each program ends; its last lines on standard error say why.", *blocks)


def schema_blocks(name, more, what):
    root = json.loads((ROOT / f"docs/{name}.schema.json").read_text())

    def rows(schema, prefix=""):
        return [[code(key), value, "yes" if needed else "", said]
                for key, needed, value, said in schemas.rows(schema, root, prefix)]
    heads = ["key", "value", "needed", "meaning"]
    yield f"## {root['title']}"
    yield paragraph(plain(root["description"]))
    yield paragraph(f"[{page_of(more)}]({more}) says {what}; editors and validators read "
                    f"[{name}.schema.json](../{name}.schema.json).")
    yield table(heads, rows(root))
    for key, several in schemas.kinds(root, root):
        for each in several:
            yield f"### `{key}[]` of type `{each['properties']['type']['const']}`"
            yield table(heads, rows(each, f"{key}[]."))


def settings():
    return page("Settings",
                paragraph("JSON files that programs read. A key with a dot stands inside an object, one with `[]` "
                          "in each object of a list; what is needed is so within the object that it belongs to."),
                *[block for each in SETTINGS for block in schema_blocks(*each)])


def written():
    return page("What programs write",
                paragraph("JSON for programs that go on with it; what is needed is always there. What else stands in a "
                          "recording's folder: [recorder.md](../recorder.md#files)."),
                *[block for each in WRITTEN for block in schema_blocks(*each)])


def enum_blocks(path):
    for enum in headers.enums((ROOT / path).read_text()):
        yield f"### `{enum.name}`"
        yield paragraph(plain(enum.said[:1].upper() + enum.said[1:]))
        yield table(["value", "name", "meaning"],
                    [[value, f"`{name}`", plain(said)] for name, value, said in enum.rows])


def codes():
    return page("Events, results, enumerations",
                paragraph("Every number that the library hands out or takes. [c-interface.md](../c-interface.md) says "
                          "how events come, [lifecycle.md](../lifecycle.md) what comes when a recording ends."),
                "## C: `zelta_recording.h`",
                "[The header](../../include/zelta_recording.h) has the functions and structs.",
                *enum_blocks("include/zelta_recording.h"),
                "## C++: `IZeltaRecordingEngine.h`",
                "[The header](../../include/IZeltaRecordingEngine.h) has the classes and callbacks.",
                *enum_blocks("include/IZeltaRecordingEngine.h"))


def packets():
    blocks = []
    for heading, said, each in headers.packets((ROOT / "include/protocol/ipc_protocol.h").read_text()):
        blocks += [f"## {heading}", paragraph(plain(said)),
                   table(["uri", "packet", "fields, in the order of the wire", "meaning"],
                         [[str(packet.uri), f"`{packet.name}`",
                           ", ".join(f"`{name}` {short(kind)}" for name, kind in packet.fields) or "none",
                           plain(packet.said)] for packet in each])]
    return page("Fields of each packet",
                paragraph("[protocol.md](../protocol.md) says how packets stand on the pipes and how each kind of field "
                          "is written; these are of [ipc_protocol.h](../../include/protocol/ipc_protocol.h)."), *blocks)


def short(kind):
    """u32 for uint32_t, list of u32 for a vector of it."""
    if kind.startswith("std::vector<"):
        inner = kind.removeprefix("std::vector<").removesuffix(">")
        return "bytes" if inner == "uint8_t" else f"list of {short(inner)}"
    return {"std::string": "string"}.get(kind, kind.replace("uint", "u").replace("int", "i").removesuffix("_t"))


def pages(programs):
    """The text of each page, by its name."""
    return {"options.md": options(programs), "exit-statuses.md": statuses(), "settings.md": settings(),
            "written.md": written(), "codes.md": codes(), "packets.md": packets()}


def main(arguments):
    programs = pathlib.Path(arguments[0])
    folder = pathlib.Path(arguments[1]) if len(arguments) > 1 else ROOT / "docs/reference"
    folder.mkdir(parents=True, exist_ok=True)
    for name, text in pages(programs).items():
        (folder / name).write_text(text)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("reference.py: it takes the folder of the programs, and where to write to")
    try:
        main(sys.argv[1:])
    except (OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
        sys.exit(f"reference.py: {error!r}")
