# SPDX-License-Identifier: Apache-2.0
"""Whole processes: Ctrl-C, an end with everything alive, forks, recordings that nobody closed."""

import pathlib
import signal
import subprocess
import time
import unittest

from support import PATIENCE_S, Fixture, files, line_of

BEGIN = """
import os, sys, threading
from zelta_recording import *
recording = Recording("test")
recording.join("meeting", cfg_file_path="server.json", record_file_root_dir=".",
               decode_audio=DecodeAudio.PCM_FRAMES)
"""
RECORDER = """
import pathlib
for task in pathlib.Path("/proc/self/task").iterdir():
    print((task / "children").read_text(), end="", flush=True)
"""
KEEP = """
kept = []
for event in recording:
    if isinstance(event, AudioFrame):
        kept.append((event, event.samples))
        del kept[:-20]
    if len(kept) == 20 and any(file.stat().st_size for file in recording.folder.glob("*.mp4")):
        break
"""


class Processes(Fixture, unittest.TestCase):
    def setUp(self):
        super().setUp()
        self.settings()

    def ends(self, child, status=0):
        output, errors = child.communicate(timeout=PATIENCE_S)
        self.assertEqual(child.returncode, status, errors)
        for said in ("Traceback", "Fatal Python error", "Exception ignored"):
            self.assertNotIn(said, errors)
        return output, errors

    def test_ctrl_c_interrupts_a_loop_that_waits(self):
        for title, wait in [("for", "for event in recording: pass"),
                            ("next_event", "recording.next_event()")]:
            with self.subTest(title):
                self.settings("test:users=0")
                child = self.child(BEGIN + f"""
for event in recording:
    if isinstance(event, Joined): break
while recording.next_event(0.2): pass
import time
try:
    print("waiting", flush=True)
    {wait}
except KeyboardInterrupt:
    print(time.monotonic(), flush=True)
recording.close()
""")
                self.assertEqual(line_of(child), "waiting\n")
                self.until_asleep(child)
                # Of who waits a stretch of time is none of a processor's.
                used = self.processor_time(child)
                time.sleep(0.3)
                self.assertLessEqual(self.processor_time(child) - used, 2)
                sent = time.monotonic()
                child.send_signal(signal.SIGINT)
                output, _ = self.ends(child)
                # Nothing else would wake it.
                self.assertLess(float(output) - sent, 5)

    def stat(self, child):
        with open(f"/proc/{child.pid}/stat", encoding="ascii") as stat:
            return stat.read().rsplit(")", 1)[1].split()

    def processor_time(self, child):
        """In ticks, of all its threads."""
        return sum(map(int, self.stat(child)[11:13]))

    def until_asleep(self, child):
        deadline = time.monotonic() + PATIENCE_S
        while self.stat(child)[0] != "S":
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def test_ctrl_c_in_a_with_completes_the_files(self):
        child = self.child("""
from zelta_recording import *
with Recording("test") as recording:
    recording.join("meeting", cfg_file_path="server.json", record_file_root_dir=".",
                   audio_indication_interval=100)
    for event in recording:
        if any(file.stat().st_size for file in recording.folder.glob("*.mp4")):
            print("now", flush=True)
""")
        self.assertEqual(line_of(child), "now\n")
        # The second one may come while it closes, which goes on.
        child.send_signal(signal.SIGINT)
        child.send_signal(signal.SIGINT)
        _, errors = child.communicate(timeout=PATIENCE_S)
        self.assertIn("KeyboardInterrupt", errors)
        self.assert_complete()

    def test_an_end_with_everything_alive_completes_the_files(self):
        for title, end in [
            ("returned", ""),
            ("exit", "sys.exit(0)"),
            ("a thread that waits", "threading.Thread(target=list, args=(recording,), daemon=True).start()"),
            ("a cycle", "kept.append((recording, kept)); del recording"),
        ]:
            with self.subTest(title):
                self.settings()
                output, _ = self.ends(self.child(BEGIN + RECORDER + KEEP + end))
                # Which would complete its files by itself, but later.
                self.assertFalse(pathlib.Path(f"/proc/{int(output)}").exists())
                self.assert_complete()

    def test_an_end_closes_all_at_a_time_and_through_ctrl_c(self):
        child = self.child(BEGIN + """
other = Recording("test")
both = threading.Barrier(2)
def close(recording, method):
    # Neither goes on before the other has begun, nor before it is told to.
    both.wait(10)
    if recording is other:
        print("closing", flush=True)
        sys.stdin.readline()
    method()
    os.write(1, f"{recording!r}\\n".encode())
for one in (recording, other):
    one.close = lambda one=one, method=one.close: close(one, method)
for event in recording:
    if any(file.stat().st_size for file in recording.folder.glob("*.mp4")):
        break
""", stdin=subprocess.PIPE)
        self.assertEqual(line_of(child), "closing\n")
        child.send_signal(signal.SIGINT)
        output, errors = child.communicate("go on\n", timeout=PATIENCE_S)
        self.assertEqual(output, "<Recording, closed>\n" * 2, errors)
        self.assert_complete()

    def test_who_forgets_to_close_is_told_and_has_the_files(self):
        output, errors = self.child(BEGIN + KEEP + """
del recording
print(sum(int(abs(samples).max()) >= 0 for _, samples in kept))
""").communicate(timeout=PATIENCE_S)
        self.assertEqual(output, "20\n")
        self.assertIn("ResourceWarning: <Recording, joined> was not closed", errors)
        self.assert_complete()

    def test_a_forked_child_has_no_recording_and_hurts_none(self):
        output, _ = self.ends(self.child(BEGIN + KEEP + """
sys.stdout.flush()
child = os.fork()
if child == 0:
    try:
        recording.next_event()
    except ClosedError:
        print("none", flush=True)
    recording.close()
    sys.exit(0)
os.waitpid(child, 0)
for event in recording:
    if isinstance(event, AudioFrame): break
print("goes on", all((event.samples == samples).all() for event, samples in kept))
recording.close()
"""))
        self.assertEqual(output, "none\ngoes on True\n")
        self.assert_complete()

    def assert_complete(self):
        recorded = files(self.folder, "**/*.mp4") + files(self.folder, "**/*.webm")
        self.assertTrue(recorded)
        for file in recorded:
            self.assertIn(b"moov", file.read_bytes())


if __name__ == "__main__":
    unittest.main()
