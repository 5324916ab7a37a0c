# SPDX-License-Identifier: Apache-2.0
"""What mkdocs doesn't do by itself.

The pages of docs/ link to files beside it as a git host wants it: ../examples/c/record.c. The site has
a page for each of these files, with its text, and links lead there; the README and other Markdown
become pages like those of docs/. A link to what doesn't exist stays as it is, which mkdocs tells.
"""
import os
import pathlib
import posixpath
import sys

from mkdocs.structure.files import File
from mkdocs.structure.nav import Link

sys.path.append(os.path.dirname(__file__))
import links  # noqa: E402  of this folder, where mkdocs doesn't look
import lists  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
MADE = ROOT / "build/docs-pages"
# Pages that stand outside docs/, and go into the site whether or not somebody links to them.
ALWAYS = ("README.md", "CHANGELOG.md")
LANGUAGES = {".c": "c", ".cpp": "cpp", ".h": "cpp", ".json": "json", ".py": "python", ".service": "ini",
             ".sh": "bash", ".txt": "cmake", ".yaml": "yaml"}
# What doxygen makes of a header, by the header.
API = {"include/IZeltaRecordingEngine.h": "IZeltaRecordingEngine_8h.html",
       "include/zelta_recording.h": "zelta__recording_8h.html"}


def place(path):
    """Where the site has a file of the tree."""
    if path.startswith("docs/"):
        return path[len("docs/"):]
    if path in ALWAYS:
        return path.lower()
    return f"source/{path}" if path.endswith(".md") else f"source/{path}.md"


def origin(file):
    """The file of the tree that a page of the site is made of."""
    for path in ALWAYS:
        if file.src_uri == place(path):
            return path
    made = file.src_uri.startswith("source/")
    return file.src_uri[len("source/"):] if made else "docs/" + file.src_uri


def targets(path, text):
    """(start, end, file of the tree, anchor) of each link that leads to one."""
    for start, end, target in links.links(text):
        name, _, anchor = target.partition("#")
        if not name or links.is_outside(target):
            continue
        found = posixpath.normpath(posixpath.join(posixpath.dirname(path), name))
        if (ROOT / found).is_file():
            yield start, end, found, anchor


def source_page(path):
    text = (ROOT / path).read_text()
    suffix = posixpath.splitext(path)[1]
    up = "../" * (place(path).count("/"))
    said = f'\n<a href="{up}api/{API[path]}">What it declares, with search</a>\n' if path in API else ""
    return f"# `{path}`\n{said}\n~~~~~~{LANGUAGES.get(suffix, 'text')}\n{text.rstrip()}\n~~~~~~\n"


def on_files(files, config):
    """Adds what docs/ links to outside itself."""
    waiting = [f"docs/{file.src_uri}" for file in files.documentation_pages()] + list(ALWAYS)
    seen = set(waiting)
    while waiting:
        path = waiting.pop()
        is_page = path.endswith(".md")
        text = (ROOT / path).read_text() if is_page else source_page(path)
        if is_page:
            more = {found for _, _, found, _ in targets(path, text)} - seen
            more = {found for found in more if found.endswith(".md") or not found.startswith("docs/")}
            seen |= more
            waiting += sorted(more)
        if not path.startswith("docs/"):
            made = MADE / place(path)
            made.parent.mkdir(parents=True, exist_ok=True)
            made.write_text(text)
            files.append(File(place(path), str(MADE), config["site_dir"], config["use_directory_urls"]))
    return files


def on_page_markdown(markdown, page, config, files):
    if page.file.src_uri == "index.md":
        page.meta["hide"] = ["navigation", "toc"]  # all that it says is where to go
    path = origin(page.file)
    here = posixpath.dirname(page.file.src_uri)
    for start, end, found, anchor in reversed(list(targets(path, markdown))):
        to = posixpath.relpath(place(found), here or ".")
        markdown = markdown[:start] + to + ("#" + anchor if anchor else "") + markdown[end:]
    return lists.four_columns(markdown)


def on_nav(nav, config, files):
    """Doxygen's pages, of which mkdocs knows nothing, behind all else of the reference."""
    reference = next(item for item in nav.items if item.title == "Reference")
    link = Link("The headers, by doxygen", "api/files.html")
    link.parent = reference
    reference.children.append(link)
    return nav
