#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The site can be built, strictly; each link of it leads somewhere, it takes nothing from other servers,
and its search knows what stands in it."""
import html.parser
import json
import pathlib
import re
import subprocess
import tempfile
import unittest
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
# Elements that a page is made of, unlike links, which a reader follows; by the attribute with the address.
LOADED = {"script": "src", "img": "src", "link": "href", "iframe": "src", "source": "src", "video": "src", "audio": "src",
          "object": "data", "embed": "src"}
# A stylesheet's own.
IN_STYLE = re.compile(r"(?:@import\s*|url\()\s*[\"']?((?:https?:)?//[^\"')]+)")


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.links, self.loaded, self.names, self.classes = [], [], set(), set()
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        said = {name: value or "" for name, value in attrs}
        self.names |= {said.get("id"), said.get("name")} - {None}
        self.classes |= set(said.get("class", "").split())
        if tag in LOADED and said.get(LOADED[tag]):
            self.loaded.append(said[LOADED[tag]])
        if tag == "a" and said.get("href"):
            self.links.append(said["href"])

    handle_startendtag = handle_starttag


class Site(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.site = pathlib.Path(cls.folder.name).resolve() / "site"
        built = subprocess.run([ROOT / "scripts/docs.sh", "--into", cls.site], capture_output=True, text=True, timeout=120)
        if built.returncode != 0:
            raise AssertionError(f"scripts/docs.sh: status {built.returncode}\n{built.stdout}{built.stderr}")
        cls.pages = {path: Page(path.read_text()) for path in cls.site.rglob("*.html")}

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def where(self, page, address):
        """The file that an address of a page names, or none for one of another server."""
        parts = urllib.parse.urlsplit(address)
        if parts.scheme or parts.netloc:
            return None, ""
        # The page for what isn't found may be asked for from any folder.
        base = self.site if page.name == "404.html" or parts.path.startswith("/") else page.parent
        path = base / urllib.parse.unquote(parts.path).lstrip("/") if parts.path else page
        path = path.resolve()
        return path / "index.html" if path.is_dir() else path, urllib.parse.unquote(parts.fragment)

    def test_every_link_leads_to_a_page_and_a_place_in_it(self):
        for page, read in self.pages.items():
            for address in {*read.links, *read.loaded}:
                to, anchor = self.where(page, address)
                # What a script acts on.
                if to is None or anchor.startswith("__"):
                    continue
                with self.subTest(page=str(page.relative_to(self.site)), address=address):
                    self.assertTrue(to.is_file(), "no such file")
                    if anchor and to in self.pages:
                        self.assertIn(anchor, self.pages[to].names, "no such place")

    def test_nothing_comes_from_other_servers(self):
        for page, read in self.pages.items():
            with self.subTest(page=str(page.relative_to(self.site))):
                self.assertEqual([address for address in read.loaded if re.match(r"(https?:)?//", address)], [])
                self.assertEqual(IN_STYLE.findall(page.read_text()), [])
                # The theme would fetch what draws these.
                self.assertNotIn("mermaid", read.classes)
        for style in self.site.rglob("*.css"):
            self.assertEqual(IN_STYLE.findall(style.read_text()), [], style)

    def test_search_finds_keys_and_functions(self):
        index = json.loads((self.site / "search/search_index.json").read_text())
        found = {entry["location"] for entry in index["docs"]
                 if "ZELTA_RECORDER_SETTINGS" in entry["text"] + entry["title"]}
        self.assertIn("recorder.html#settings-zelta_recorder_settings", found)

    def test_comments_of_both_headers_are_on_their_pages(self):
        for header, said in (("zelta__recording_8h.html", "Hands out the oldest event that waits"),
                             ("classzelta_1_1recording_1_1IRecordingEngine.html", "the engine thread has ended when this")):
            with self.subTest(header=header):
                self.assertIn(said, " ".join((self.site / "api" / header).read_text().split()))

    def test_files_beside_docs_are_pages_of_it(self):
        self.assertIn("zelta_recording_join", (self.site / "source/examples/c/record.c.html").read_text())


if __name__ == "__main__":
    unittest.main()
