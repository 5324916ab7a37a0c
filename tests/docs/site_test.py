#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The site can be built, strictly; each link of it leads somewhere, it takes nothing from other servers,
its search finds what stands in it, and its pages fit on a telephone."""
import functools
import html.parser
import http.server
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "scripts/webrtc"))
import browser as chromium  # noqa: E402

TELEPHONE = (390, 844)
TYPE = """(() => {
  const words = document.querySelector('[data-md-component=search-query]');
  words.focus();
  words.value = 'most_users';
  words.dispatchEvent(new Event('keyup', {bubbles: true}));
})()"""
# Of doxygen's pages those that are read most.
HEADERS = ["api/files.html", "api/zelta__recording_8h.html", "api/classzelta_1_1recording_1_1IRecordingEngine.html"]
# Elements that a page is made of, unlike links, which a reader follows; by the attribute with the address.
LOADED = {"script": "src", "img": "src", "link": "href", "iframe": "src", "source": "src", "video": "src",
          "audio": "src", "object": "data", "embed": "src"}
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


FOLDER = tempfile.TemporaryDirectory()
SITE = pathlib.Path(FOLDER.name).resolve() / "site"


def setUpModule():
    unittest.addModuleCleanup(FOLDER.cleanup)
    built = subprocess.run([ROOT / "scripts/docs.sh", "--into", SITE], capture_output=True, text=True, timeout=120)
    if built.returncode != 0:
        raise AssertionError(f"scripts/docs.sh: status {built.returncode}\n{built.stdout}{built.stderr}")


class Site(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pages = {path: Page(path.read_text()) for path in SITE.rglob("*.html")}

    def where(self, page, address):
        """The file that an address of a page names, or none for one of another server."""
        parts = urllib.parse.urlsplit(address)
        if parts.scheme or parts.netloc:
            return None, ""
        # The page for what isn't found may be asked for from any folder.
        base = SITE if page.name == "404.html" or parts.path.startswith("/") else page.parent
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
                with self.subTest(page=str(page.relative_to(SITE)), address=address):
                    self.assertTrue(to.is_file(), "no such file")
                    if anchor and to in self.pages:
                        self.assertIn(anchor, self.pages[to].names, "no such place")

    def test_nothing_comes_from_other_servers(self):
        for page, read in self.pages.items():
            with self.subTest(page=str(page.relative_to(SITE))):
                self.assertEqual([address for address in read.loaded if re.match(r"(https?:)?//", address)], [])
                self.assertEqual(IN_STYLE.findall(page.read_text()), [])
                # The theme would fetch what draws these.
                self.assertNotIn("mermaid", read.classes)
        for style in SITE.rglob("*.css"):
            self.assertEqual(IN_STYLE.findall(style.read_text()), [], style)

    def test_comments_of_both_headers_are_on_their_pages(self):
        rows = (("zelta__recording_8h.html", "Hands out the oldest event that waits"),
                ("classzelta_1_1recording_1_1IRecordingEngine.html", "the engine thread has ended when this"))
        for header, said in rows:
            with self.subTest(header=header):
                self.assertIn(said, " ".join((SITE / "api" / header).read_text().split()))

    def test_files_beside_docs_are_pages_of_it(self):
        self.assertIn("zelta_recording_join", (SITE / "source/examples/c/record.c.html").read_text())


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


class InABrowser(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Quiet, directory=SITE))
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.server.server_close)
        cls.addClassCleanup(cls.server.shutdown)
        cls.browser = chromium.Browser()
        cls.addClassCleanup(cls.browser.kill)

    def open(self, page):
        made = self.browser.open(f"http://127.0.0.1:{self.server.server_port}/{page}", script="")
        self.addCleanup(made.close)
        made.wait_for("document.readyState === 'complete'")
        return made

    def test_search_finds_a_key_with_this_server_alone(self):
        page = self.open("index.html")
        page.evaluate("document.querySelector('[data-md-toggle=search]').click()")
        # The theme's search never answers who types before it has its index.
        page.wait_for("document.querySelector('.md-search-result__meta').innerText === 'Type to start searching'")
        page.evaluate(TYPE)
        page.wait_for("document.querySelector('.md-search-result__link')")
        found = page.evaluate(
            "[...document.querySelectorAll('.md-search-result__link')].map(link => link.href).join(' ')")
        self.assertIn("recorder.html?h=most_users#settings-zelta_recorder_settings", found)
        asked = page.evaluate("performance.getEntriesByType('resource').map(each => new URL(each.name).host)")
        self.assertEqual(set(asked), {f"127.0.0.1:{self.server.server_port}"})

    def test_no_page_is_wider_than_a_telephone(self):
        page = self.open("index.html")
        page.call("Emulation.setDeviceMetricsOverride", width=TELEPHONE[0], height=TELEPHONE[1], deviceScaleFactor=1,
                  mobile=True)
        pages = [path.relative_to(SITE).as_posix() for path in sorted(SITE.rglob("*.html"))]
        for name in [page for page in pages if not page.startswith(("api/", "source/"))] + HEADERS:
            page.call("Page.navigate", url=f"http://127.0.0.1:{self.server.server_port}/{name}")
            page.wait_for(f"document.readyState === 'complete' && location.pathname === '/{name}'")
            with self.subTest(page=name):
                self.assertEqual(page.evaluate("document.documentElement.scrollWidth"), TELEPHONE[0])


if __name__ == "__main__":
    unittest.main()
