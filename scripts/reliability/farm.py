# SPDX-License-Identifier: Apache-2.0
"""An application process with engines (tests/reliability/engine_farm.cpp), and what it says."""
import collections
import datetime
import json
import math
import os
import pathlib
import random
import re
import signal
import subprocess
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = ROOT / "build/release/bin"
STOP_S = 5.0


def size_of(pid):
    """Resident kB, descriptors, threads."""
    status = pathlib.Path(f"/proc/{pid}")
    resident = int((status / "statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024
    return resident, len(os.listdir(status / "fd")), len(os.listdir(status / "task"))


def begin_ms(file):
    """When what is in a file began to be captured: as its name says. Its zero lies up to 22 ms before, by what an
    AAC encoder puts in front of the first sample; a recorder may be back sooner than that."""
    stamp = re.search(r"_(\d{8}T\d{9})\.", file["name"])[1]
    at = datetime.datetime.strptime(stamp + "000", "%Y%m%dT%H%M%S%f").replace(tzinfo=datetime.timezone.utc)
    return at.timestamp() * 1000


class Session:
    def __init__(self):
        self.events = []
        self.folder = ""
        self.channel = ""
        self.kills = []  # (UTC ms, signal)
        self.kill_at = None

    def files(self):
        """What the manifests in its folder say of its files; None when none is there that can be read."""
        found = None
        for path in sorted(pathlib.Path(self.folder).glob("recording*.json")):
            try:
                files = json.loads(path.read_text())["files"]
            except (OSError, ValueError):
                continue
            found = (found or []) + [one for one in files if one["channel_id"] == self.channel]
        return found

    def left_ms(self):
        """When the application began to leave; infinity for one that hasn't."""
        return next((one["utc_ms"] for one in self.events if one["event"] == "leaving"), math.inf)

    def lives_without_a_file(self, files):
        """For how long, in ms, each recorder that was killed and left no file had a user."""
        deaths = sorted(ms for ms, number in self.kills if number != signal.SIGSTOP)
        users = [one["utc_ms"] for one in self.events if one["event"] == "user"]
        for before, death in zip([0] + deaths, deaths):
            came = min((ms for ms in users if before < ms < death), default=None)
            left = any(before < begin_ms(file) <= death for file in files)
            if came is not None and not left and not self.values("frames"):
                until = min(death, self.left_ms())
                yield until - came - self.stopped_ms(came, until)

    def stopped_ms(self, begin, end):
        """How much of that time its recorder was stopped, and captured nothing."""
        stops = [ms for ms, number in self.kills if number == signal.SIGSTOP]
        return sum(max(0, min(end, ms + STOP_S * 1000) - max(begin, ms)) for ms in stops)

    def stretches_a_life(self, files):
        """How many files each of its recorders has made."""
        deaths = sorted(ms for ms, number in self.kills if number != signal.SIGSTOP)
        begins = [begin_ms(file) for file in files]
        return [sum(before < begin <= death for begin in begins)
                for before, death in zip([0] + deaths, deaths + [math.inf])]

    def values(self, event):
        return [one["value"] for one in self.events if one["event"] == event]


class Farm:
    def __init__(self, work, server, engines, seconds, frames=""):
        self.recordings = tempfile.mkdtemp(dir=work)
        environment = dict(os.environ, ZELTA_CHANNEL_SERVER=server, ZELTA_SERVICE_DIR=str(BIN))
        command = [BIN / "engine_farm", str(engines), self.recordings, str(seconds)]
        self.process = subprocess.Popen(
            command + ([frames] if frames else []), stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=environment)
        self.lock = threading.Lock()
        self.sessions = collections.OrderedDict()
        self.ended = []
        self.strange = []
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            try:
                event = json.loads(line)
            except ValueError:
                # Half a line of an application that was killed; from any other it is a finding.
                self.strange.append(line)
                continue
            with self.lock:
                key = (event["slot"], event["session"])
                session = self.sessions.setdefault(key, Session())
                session.events.append(event)
                session.folder = event["folder"] or session.folder
                session.channel = event["channel"]
                if event["event"] == "joined":
                    session.kill_at = time.monotonic() + random.uniform(0.3, 2.5)
                if event["event"] == "error":
                    session.kill_at = None
                if event["event"] == "leaving":
                    # Some are killed in the midst of leaving.
                    hit = not session.values("error") and random.random() < 0.25
                    session.kill_at = time.monotonic() + random.uniform(0, 0.3) if hit else None
                if event["event"] == "ended":
                    self.ended.append(self.sessions.pop(key))

    def wait_joined(self, count, limit_s=60):
        """Whether so many sessions have joined, and a user with them."""
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            with self.lock:
                if sum(1 for one in self.sessions.values() if one.values("user")) >= count:
                    return True
            time.sleep(0.05)
        return False

    def children(self):
        """Recorders by channel; and how many children are zombies."""
        found, zombies = {}, 0
        for task in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/children"):
            try:
                pids = task.read_text().split()
            except OSError:
                continue
            for pid in pids:
                try:
                    command = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
                    if not command[0]:
                        zombies += 1
                        continue
                    at = command.index(b"--channel_id")
                    found[command[at + 1].decode()] = int(pid)
                except (OSError, ValueError):
                    continue
        return found, zombies

    def finish(self):
        self.process.stdin.close()
        status = self.process.wait(timeout=120)
        self.reader.join()
        return status
