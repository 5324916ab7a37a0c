# SPDX-License-Identifier: Apache-2.0
"""What the tests of the Python package have in common: a folder of their own, with settings that name a
channel of two generated users, and waiting with a limit."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

from zelta_recording import Recording

# Of anything that has to come.
PATIENCE_S = 60.0
USERS = "test:users=2,size=160x90,fps=15"


class Fixture:
    """For a TestCase: self.settings() and self.folder."""

    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.folder = pathlib.Path(made.name)
        for name in ("ZELTA_SERVICE_DIR", "ZELTA_CHANNEL_SERVER", "ZELTA_FILE_ROOT"):
            os.environ.pop(name, None)

    def settings(self, server=USERS):
        """Members of Config for a channel of `server`."""
        path = self.folder / "server.json"
        path.write_text(json.dumps({"Channel_Server": server}))
        return {"cfg_file_path": path, "record_file_root_dir": self.folder}

    def joined(self, server=USERS, queue_bytes=0, cleanup=True, **members):
        recording = Recording("test", queue_bytes=queue_bytes)
        if cleanup:
            self.addCleanup(recording.close)
        recording.join("meeting", **self.settings(server), **members)
        return recording

    def child(self, program, *arguments, **options):
        """A Python process of its own, which runs `program` in self.folder."""
        (self.folder / "program.py").write_text(program)
        child = subprocess.Popen([sys.executable, "-X", "dev", "program.py", *arguments], cwd=self.folder,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(end, child)
        return child


def line_of(child):
    """The next line that it prints. A child that prints none in time is killed, which ends the wait."""
    late = threading.Timer(PATIENCE_S, child.kill)
    late.start()
    try:
        line = child.stdout.readline()
    finally:
        late.cancel()
    if not line:
        raise AssertionError(f"the child printed nothing and ended or was killed: {child.wait(PATIENCE_S)}")
    return line


def end(child):
    """For a cleanup: it doesn't outlive its test."""
    if child.poll() is None:
        child.kill()
    child.communicate()


def next_of(recording, kind):
    """The next event of that class; AssertionError when the recording ends or nothing comes."""
    deadline = time.monotonic() + PATIENCE_S
    while (left := deadline - time.monotonic()) > 0:
        event = recording.next_event(left)
        if isinstance(event, kind):
            return event
        if recording.ended:
            break
    raise AssertionError(f"no {kind.__name__}")


def take_until_files(recording, count):
    """Takes events until so many files have something in them: on a busy machine they begin late."""
    deadline = time.monotonic() + PATIENCE_S
    while sum(file.stat().st_size > 0 for file in files(recording.folder)) < count:
        if time.monotonic() > deadline:
            raise AssertionError(f"{files(recording.folder)} and not {count}")
        recording.next_event(0.1)


def files(folder, pattern="*.mp4"):
    return sorted(pathlib.Path(folder).glob(pattern))
