# SPDX-License-Identifier: Apache-2.0
"""The examples do what they say, as a newcomer runs them."""

import pathlib
import signal
import subprocess
import sys
import unittest

from support import PATIENCE_S, Fixture, end, files, line_of

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples/python"


class Examples(Fixture, unittest.TestCase):
    def setUp(self):
        super().setUp()
        self.settings()

    def start(self, name, *arguments):
        child = subprocess.Popen([sys.executable, EXAMPLES / f"{name}.py", *arguments], cwd=self.folder,
                                 text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(end, child)
        return child

    def test_record_until_ctrl_c(self):
        child = self.start("record", "server.json")
        said = {line_of(child).split(" in ")[0] for _ in range(2)}
        self.assertEqual(said, {"user 1 is recorded", "user 2 is recorded"})
        child.send_signal(signal.SIGINT)
        output, errors = child.communicate(timeout=PATIENCE_S)
        self.assertEqual(child.returncode, 0, errors)
        self.assertTrue(output.startswith("stopping\n"))
        self.assertIn("recording.json\n", output)

    def test_record_tells_what_is_wrong(self):
        for server in ("nonsense:", ""):
            with self.subTest(server):
                self.settings(server)
                child = self.start("record", "server.json")
                _, errors = child.communicate(timeout=PATIENCE_S)
                self.assertEqual(child.returncode, 1)
                self.assertIn("the session failed: FAILED, JOIN", errors)
                self.assertNotIn("Traceback", errors)

    def test_frames_are_loud_and_bright(self):
        child = self.start("frames", "server.json")
        output, errors = child.communicate(timeout=PATIENCE_S)
        self.assertEqual(child.returncode, 0, errors)
        lines = output.splitlines()
        self.assertGreaterEqual(len(lines), 4)
        for line in lines:
            level, brightness = line.split(": ")[1].split(", ")
            self.assertGreater(int(level.split()[0]), -60)
            self.assertTrue(16 <= int(brightness.split()[1]) <= 240)

    def test_layout_follows_the_users(self):
        child = self.start("layout", "server.json", "5")
        output, errors = child.communicate(timeout=PATIENCE_S)
        self.assertEqual(child.returncode, 0, errors)
        self.assertIn("2 users: [", output)
        self.assertEqual(len(files(self.folder, "**/*.mp4")), 1)


if __name__ == "__main__":
    unittest.main()
