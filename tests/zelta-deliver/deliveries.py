# SPDX-License-Identifier: Apache-2.0
"""What tests of zelta-deliver share: recordings as a recorder leaves them, servers on the loopback,
the tool's settings, runs and what it tells."""

import contextlib
import hashlib
import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import zlib
from pathlib import Path

HERE = Path(__file__).resolve().parent
TOOL = Path(os.environ["ZELTA_BIN"]) / "zelta-deliver"
LIMIT_S = 60
# Of a run of a few seconds that has hardly anything to do. Sanitizers take their time.
CPU_S = 4 if any("ASAN" in name or "TSAN" in name for name in os.environ) else 1.5
RETRY = {"first_ms": 20, "longest_ms": 200, "refusals": 3}
ENVIRONMENT = {**os.environ, "S3_SECRET": "not-a-secret", "HOOK_KEY": "hook-key"}


def wait_for(what, holds):
    """A file system or another process has no event to wait on that a test could have."""
    until = time.monotonic() + LIMIT_S
    while not holds():
        if time.monotonic() > until:
            raise AssertionError(f"{what} in {LIMIT_S} s")
        time.sleep(0.02)


@contextlib.contextmanager
def killed_late(process):
    """One that hangs is a failure, and keeps no test."""
    late = threading.Timer(LIMIT_S, process.kill)
    late.start()
    try:
        yield
    finally:
        late.cancel()


class Recording:
    """A folder as a recorder leaves it."""

    def __init__(self, root, name="call"):
        self.folder = root / name
        self.folder.mkdir(parents=True)
        self.files = []

    def add(self, name, size, closed="user left"):
        seed = hashlib.sha256(f"{self.folder}{name}".encode()).digest()
        (self.folder / name).write_bytes((seed * (size // 32 + 1))[:size])
        self.files = [one for one in self.files if one["name"] != name]
        self.files.append({"name": name, "uid": 7, "closed": closed})
        return self.write()

    def add_with_crc(self, name, size):
        """As a recorder closes one in order: with what its manifest has to compare it by."""
        self.add(name, size)
        self.files[-1]["bytes"] = size
        self.files[-1]["crc32"] = f"{zlib.crc32((self.folder / name).read_bytes()):08x}"
        return self.write()

    def write(self):
        beside = self.folder / "recording.json.new"
        beside.write_text(json.dumps({"version": 1, "channel_id": "c", "files": self.files}))
        beside.rename(self.folder / "recording.json")
        return self

    def runs(self, does):
        journal = self.folder / "journal.json"
        if does:
            journal.write_text("{}")
        else:
            journal.unlink()
        return self

    def state(self):
        return json.loads((self.folder / "delivery.json").read_text())

    def stages(self):
        return {name: {at["state"] for at in one["targets"].values()}
                for name, one in self.state()["files"].items()}


class DeliveryTest(unittest.TestCase):
    def setUp(self):
        self.dir = Path(tempfile.mkdtemp(prefix="zelta-test."))
        self.addCleanup(shutil.rmtree, self.dir, True)
        self.kept = self.dir / "kept"
        (self.dir / "id").write_text("tester\n")
        self.port = 0
        self.store = None

    def serve(self, faults="", folder=None):
        if self.store:
            self.stop_store()
        self.store = subprocess.Popen(
            [sys.executable, HERE / "store.py", folder or self.kept, str(self.port), "--faults",
             faults], stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.stop_store)
        self.port = int(self.store.stdout.readline())

    def stop_store(self):
        if self.store:
            self.store.kill()
            self.store.wait()
            self.store.stdout.close()
            self.store = None

    def target(self, kind, **more):
        url = f"http://127.0.0.1:{self.port}"
        made = {
            "http": {"url": url + "/dav"},
            "s3": {"endpoint": url + "/s3", "bucket": "bucket", "access_key_file":
                   str(self.dir / "id"), "secret_key_env": "S3_SECRET", "prefix": "p q/",
                   "part_bytes": 5 << 20},
            "folder": {"path": str(self.dir / "nas")},
        }[kind]
        if kind == "folder":
            (self.dir / "nas").mkdir(exist_ok=True)
        return {"name": kind, "type": kind, **made, **more}

    def settings(self, *targets, **more):
        path = self.dir / "settings.json"
        path.write_text(json.dumps({"targets": targets, "retry": RETRY, "stall_s": 5, **more}))
        return path

    def command(self, settings, *arguments):
        return [TOOL, "--json", "--settings", settings, *map(str, arguments)]

    def run_tool(self, settings, *arguments, status=0, env=None, until=None, times=1, **more):
        """What it tells. `until` such an event was told so many times, however busy the machine is, and
        for a second more, in which it is to be idle; then it is stopped."""
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        command = self.command(settings, *arguments)
        with tempfile.TemporaryFile("w+") as said, subprocess.Popen(
                command, env=env or ENVIRONMENT, stdout=subprocess.PIPE, stderr=said, text=True,
                **more) as tool, killed_late(tool):
            told = []
            for line in tool.stdout:
                told.append(json.loads(line))
                times -= told[-1]["event"] == until
                if times == 0:
                    times = -1
                    stop = threading.Timer(1, tool.terminate)
                    self.addCleanup(stop.cancel)
                    stop.start()
            done = tool.wait(LIMIT_S)
            said.seek(0)
            self.said = said.read()
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.cpu_s = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
        self.assertEqual(done, status, f"{told[-5:]} {self.said}")
        return told

    def count(self, told, event):
        return sum(one["event"] == event for one in told)

    def start_tool(self, settings, *arguments, env=None):
        tool = subprocess.Popen(self.command(settings, *arguments), env=env or ENVIRONMENT,
                                stdout=subprocess.DEVNULL)

        def end():
            tool.kill()
            tool.wait()
        self.addCleanup(end)
        return tool

    @contextlib.contextmanager
    def small_disk(self, at, size):
        """Is `at`, and can be made larger by what is yielded."""
        if os.geteuid() != 0:
            self.skipTest("root alone can mount")
        at.mkdir(exist_ok=True)
        mount = ["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", at]
        if subprocess.run(mount, capture_output=True, check=False).returncode != 0:
            self.skipTest("nothing can be mounted here")
        try:
            yield lambda more: subprocess.run(["mount", "-o", f"remount,size={more}", at], check=True)
        finally:
            subprocess.run(["umount", at], check=True)

    @staticmethod
    def locks_of(tool):
        count = 0
        for one in Path(f"/proc/{tool.pid}/fd").iterdir():
            try:
                count += os.readlink(one).endswith(".delivery.lock")
            except FileNotFoundError:  # it was closed meanwhile
                pass
        return count

    def puts(self):
        log = self.kept / "puts.txt"
        return sorted(log.read_text().split()) if log.exists() else []

    def hooks(self):
        log = self.kept / "hooks.txt"
        return [json.loads(line) for line in log.read_text().splitlines()] if log.exists() else []

    def assert_arrived(self, recording, at):
        for one in recording.folder.iterdir():
            if one.name.startswith((".", "delivery", "journal")):
                continue
            there = at / recording.folder.name / one.name
            self.assertEqual(there.read_bytes(), one.read_bytes(), one.name)

    def all_kinds(self):
        return {"http": self.kept / "dav", "s3": self.kept / "s3/bucket/p q",
                "folder": self.dir / "nas"}

    def recording(self):
        made = Recording(self.dir, "a call+1")
        made.add("7_a.mp4", 1000).add("7_b.webm", 200_000).add("8_c.m4a", 12_000_000)
        made.add("9_d.m4a", 0)
        (made.folder / "messages.jsonl").write_text("{}\n")
        (made.folder / "recording_engine.log").write_text("began\n")
        (made.folder / "7_20260101T000000000.jpg").write_bytes(b"jpeg")
        return made
