#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every link and anchor of the Markdown in this tree leads somewhere, as a git host shows it; the site's
navigation has every page, and no other. Nothing outside the tree is asked for."""
import pathlib
import re
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts/docs"))
import links  # noqa: E402
import lists  # noqa: E402

# Whose Markdown nobody wrote here: what is built, and what is installed.
FOREIGN = {"build", "node_modules", ".git"}

PAGE = """# A page

Text with [a link](other.md#the-second-one), ![a picture](p.svg) and `[code](none.md)`.

```
[fenced](none.md)
```

- [in a list](other.md "with a title")

## `--option`, and [a link](other.md) in it

## Twice

## Twice

<a id="by-hand"></a>
"""


def pages(root):
    return sorted(path for path in root.rglob("*.md") if not FOREIGN & set(path.relative_to(root).parts))


def broken(root):
    """(page, link, why) of each link that leads nowhere."""
    anchors = {}
    for page in pages(root):
        for _, _, target in links.links(page.read_text()):
            name, _, anchor = target.partition("#")
            if links.is_outside(target):
                continue
            to = (page.parent / name).resolve() if name else page
            if not to.is_file():
                yield page.relative_to(root), target, "no such file"
            elif root not in to.parents:
                yield page.relative_to(root), target, "outside of the tree"
            elif anchor and to.suffix == ".md":
                if to not in anchors:
                    anchors[to] = links.anchors(to.read_text())
                if anchor not in anchors[to]:
                    yield page.relative_to(root), target, "no such heading"


class Links(unittest.TestCase):
    def test_every_link_of_the_tree_leads_somewhere(self):
        self.assertGreater(len(pages(ROOT)), 30)
        self.assertEqual([*broken(ROOT)], [])

    def test_links_are_what_a_reader_can_click(self):
        found = [target for _, _, target in links.links(PAGE)]
        self.assertEqual(found, ["other.md#the-second-one", "p.svg", "other.md", "other.md"])

    def test_anchors_are_those_of_a_git_host(self):
        self.assertEqual(links.anchors(PAGE),
                         {"a-page", "--option-and-a-link-in-it", "twice", "twice-1", "by-hand"})

    def test_what_leads_nowhere_is_told(self):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder).resolve() / "tree"
            root.mkdir()
            (root.parent / "away.md").write_text("# Not of the tree\n")
            (root / "page.md").write_text(PAGE)
            (root / "other.md").write_text("# Other\n\n[away](../away.md)\n")
            said = {(target, why) for _, target, why in broken(root)}
        self.assertEqual(said, {("other.md#the-second-one", "no such heading"), ("p.svg", "no such file"),
                                ("../away.md", "outside of the tree")})


class Navigation(unittest.TestCase):
    def test_it_has_every_page_once_and_no_other(self):
        nav = (ROOT / "mkdocs.yml").read_text().split("\nnav:\n")[1]
        listed = re.findall(r"^ +- (?:.*: )?([\w./-]+\.md)$", nav, re.M)
        # The README and the changelog stand outside docs/.
        there = [path.relative_to(ROOT / "docs").as_posix() for path in pages(ROOT / "docs")]
        self.assertEqual(sorted(listed), sorted([*there, "readme.md", "changelog.md"]))


class Lists(unittest.TestCase):
    # As written; as Python-Markdown wants it.
    ROWS = (
        ("- one\n  more\n  - two\n    more\n", "- one\n    more\n    - two\n        more\n"),
        ("1. one\n\n   | a |\n", "1. one\n\n    | a |\n"),
        ("text\n- one\n", "text\n\n- one\n"),
        ("text ends with\n2026. No list\n", "text ends with\n2026. No list\n"),
        ("- one\n  ```\n    code\n  ```\n", "- one\n    ```\n      code\n    ```\n"),
        ("```\n- no list\n  at all\n```\n", "```\n- no list\n  at all\n```\n"),
        ("- one\nlazy\n- two\n", "- one\n    lazy\n- two\n"),
        ("- one\n\nNo more of it.\n", "- one\n\nNo more of it.\n"),
    )

    def test_what_belongs_to_an_item_stands_four_columns_in(self):
        for written, wanted in self.ROWS:
            with self.subTest(written=written):
                self.assertEqual(lists.four_columns(written), wanted)


if __name__ == "__main__":
    unittest.main()
