# SPDX-License-Identifier: Apache-2.0
"""A fleet on loopback that is measured: nats-servers and workers in a folder of their own, who sends jobs at
a steady pace, and what the store had of each of them at the end. Nothing follows the store meanwhile: its
servers keep the moment of each writing, by the clock that the sender reads, too."""

import collections
import contextlib
import dataclasses
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import uuid

import nats_servers

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts/fleet"))
from nats import Connection, Follower, ask  # noqa: E402  pylint: disable=wrong-import-position

BIN = pathlib.Path(os.environ.get("ZELTA_BIN") or ROOT / "build/release/bin")
TICKS = os.sysconf("SC_CLK_TCK")
WORKERS = 8
# An election of servers may come first; of two leases, as docs/fleet.md has it; what waits at most.
START_S, END_S, EMPTY_S = 40, 25, 60
LOOK_S = 0.25
OVER = ("ended", "failed", "refused")


# ---- Processes -----------------------------------------------------------------------------


def processor_s(pid):
    """Of the process alone: what it started counts for itself."""
    # The kernel's name for that clock, as clock_getcpuclockid() makes it: nanoseconds, where /proc has
    # hundredths of a second, of which a worker at rest takes few.
    return time.clock_gettime((~pid << 3) | 2)


def ended_children_s(pid):
    """Of the processor, of all that it started and that has ended."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rsplit(")", 1)[1].split()
    return (int(fields[13]) + int(fields[14])) / TICKS


def size_of(pid):
    """Its share of resident memory in kB, descriptors, threads."""
    of = pathlib.Path(f"/proc/{pid}")
    lines = (of / "smaps_rollup").read_text(encoding="utf-8").splitlines()
    memory = next(int(line.split()[1]) for line in lines if line.startswith("Pss:"))
    return memory, len(os.listdir(of / "fd")), len(os.listdir(of / "task"))


def grown_from(pid):
    """All processes that come from it and are there now."""
    try:
        text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="utf-8")
    except OSError:
        return []
    return [one for child in map(int, text.split()) for one in (child, *grown_from(child))]


def busy_and_all_ticks():
    with open("/proc/stat", encoding="utf-8") as file:
        ticks = list(map(int, file.readline().split()[1:9]))
    return sum(ticks) - ticks[3] - ticks[4], sum(ticks)


# ---- A fleet -------------------------------------------------------------------------------


@dataclasses.dataclass
class Used:
    """Since the fleet began, or between two looks."""
    at_s: float
    workers_s: float  # processor
    servers_s: float
    recorders_s: float  # of those that have ended
    messages: int  # that came to the servers and that they sent
    busy: int  # ticks of the whole machine
    ticks: int

    def since(self, before):
        values = zip(dataclasses.astuple(self), dataclasses.astuple(before))
        return Used(*(now - then for now, then in values))


class Fleet:
    def __init__(self, folder, servers):
        self.folder = folder
        self.servers = servers
        self.workers = []
        self.addresses = [f"127.0.0.1:{one.port}" for one in servers]
        self.read = collections.Counter()  # messages of each stream that were read back

    def used(self):
        counted = [one.numbers() for one in self.servers]
        return Used(time.monotonic(), sum(processor_s(one.pid) for one in self.workers),
                    sum(processor_s(one.process.pid) for one in self.servers),
                    sum(ended_children_s(one.pid) for one in self.workers),
                    sum(one["in_msgs"] + one["out_msgs"] for one in counted), *busy_and_all_ticks())

    def read_back(self, stream):
        """What has come to it since the last time: key, text, when in UTC ms."""
        found = []
        follower = Follower(self.addresses, stream,
                            lambda subject, data, _, ms: found.append((subject.split(".")[-1], data, ms)))
        follower.last = self.read[stream]
        follower.start()
        if not follower.caught_up(30):
            sys.exit(f"{stream} can't be read")
        self.read[stream] = follower.last
        follower.ending.set()  # it ends with the next message, or its connection
        return found

    def in_queue(self):
        return ask(self.addresses, "$JS.API.STREAM.INFO.zelta_jobs")["state"]["messages"]

    def _are_there(self):
        with contextlib.suppress(ConnectionError, OSError):
            told = ask(self.addresses, "$JS.API.STREAM.INFO.KV_zelta_workers")
            return told["state"].get("num_subjects") == len(self.workers)
        return False

    def wait(self):
        until = time.monotonic() + START_S
        while not self._are_there():
            if any(one.poll() is not None for one in self.workers) or time.monotonic() > until:
                said = [path.read_text(encoding="utf-8") for path in self.folder.glob("w*/out.txt")]
                sys.exit(f"the workers don't begin, or not within {START_S} s:\n{''.join(said)}")
            time.sleep(0.1)

    def end(self):
        for one in self.workers:
            one.terminate()
        until = time.monotonic() + END_S
        for one in self.workers:
            with contextlib.suppress(subprocess.TimeoutExpired):
                one.wait(max(0.1, until - time.monotonic()))
            for pid in [] if one.poll() is not None else [*grown_from(one.pid), one.pid]:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            one.wait()


@contextlib.contextmanager
def running(servers, **settings):
    if not (BIN / "zelta-worker").exists():
        sys.exit(f"{BIN / 'zelta-worker'} isn't there: build it, or say in ZELTA_BIN where it is")
    with tempfile.TemporaryDirectory(prefix="zelta-fleet-bench.") as folder, \
            nats_servers.running(folder, servers) as brokers:
        made = Fleet(pathlib.Path(folder), brokers)
        try:
            for at in range(WORKERS):
                root = made.folder / f"w{at}"
                root.mkdir()
                path = root / "settings.json"
                path.write_text(json.dumps({
                    "name": root.name, "root": str(root), "servers": ["test:"],
                    "nats": {"urls": [f"nats://{one}" for one in made.addresses], "replicas": servers},
                    **settings}), encoding="utf-8")
                with open(root / "out.txt", "w", encoding="utf-8") as out:
                    made.workers.append(subprocess.Popen(
                        [BIN / "zelta-worker", "--handover", "--settings", path], stdin=subprocess.DEVNULL,
                        stdout=out, stderr=out, env={**os.environ, "TMPDIR": folder}))
            made.wait()
            yield made
        finally:
            made.end()


# ---- Who sends -----------------------------------------------------------------------------


class Sender:
    def __init__(self, servers):
        self.connection = Connection(servers)
        self.inbox = f"_INBOX.{uuid.uuid4().hex}"
        self.connection.subscribe(self.inbox + ".*")
        self.sent_ms = {}  # by id
        self.kept_ms = {}  # when the queue had said that it keeps it
        self.refusals = []
        self.late_ms = 0  # at most, behind its own pace
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        with contextlib.suppress(ConnectionError, OSError):
            while True:
                with contextlib.suppress(TimeoutError):
                    message = self.connection.next()
                    if b'"error"' in message.data or b'"seq"' not in message.data:
                        self.refusals.append(message.data.decode() or message.headers)
                    else:
                        self.kept_ms[message.subject.split(".")[-1]] = time.time() * 1000

    def send(self, prefix, rate, seconds, job):
        begun = time.monotonic()
        for at in range(round(rate * seconds)):
            name = f"{prefix}-{at}"
            text = json.dumps({"id": name, "channel": name, **job}).encode()
            left = begun + at / rate - time.monotonic()
            if left > 0:
                time.sleep(left)
            self.late_ms = max(self.late_ms, -left * 1000)
            self.sent_ms[name] = time.time() * 1000
            self.connection.publish("zelta.jobs.any", text, f"{self.inbox}.{name}")

    def close(self):
        self.connection.socket.shutdown(socket.SHUT_RDWR)
        self.reader.join()
        self.connection.close()


class Watch(threading.Thread):
    """Looks how many jobs wait in the queue."""

    def __init__(self, servers):
        super().__init__(daemon=True)
        self.connection = Connection(servers)
        self.looks = []  # waiting, handed out and not yet done
        self.ending = threading.Event()
        self.start()

    def run(self):
        while not self.ending.wait(LOOK_S):
            try:
                told = self.connection.request("$JS.API.CONSUMER.INFO.zelta_jobs.jobs_any")
            except (ConnectionError, OSError):
                continue
            self.looks.append((told["num_pending"], told["num_ack_pending"]))

    def wait_empty(self, limit_s):
        """Until nothing waits and nobody has any."""
        looks = len(self.looks) + 1  # one that began after now
        until = time.monotonic() + limit_s
        while time.monotonic() < until:
            if len(self.looks) > looks and self.looks[-1] == (0, 0):
                return
            self.ending.wait(LOOK_S)

    def close(self):
        self.ending.set()
        self.join()
        self.connection.close()


# ---- What became of them -------------------------------------------------------------------


@dataclasses.dataclass
class Fate:
    """Of one job: UTC ms of what the store had, and of its events; None: never."""
    sent_ms: float
    taken_ms: float = None
    joined_ms: float = None
    picture_ms: float = None
    over_ms: float = None
    state: str = ""
    overs: int = 0
    stretches: int = 0


@dataclasses.dataclass
class Outcome:
    fates: list
    kept: list  # ms from sent until the queue had said so
    unknown: int  # states of jobs that nobody sent
    refusals: list
    late_ms: float
    left: int  # in the queue at the end
    most_waiting: int
    waiting_at_end: int  # of sending
    sending_s: float
    used: Used

    def accounted(self, state):
        """How many ended once, in that state, and were taken up once."""
        return sum((one.state, one.overs, one.stretches) == (state, 1, 1) for one in self.fates)

    def faults(self, state):
        """What isn't as it has to be, in words."""
        found = [f"not in the queue: {one}" for one in self.refusals[:3]]
        if self.left or self.unknown:
            found.append(f"{self.left} stay in the queue, {self.unknown} states of nobody's")
        odd = collections.Counter((one.state or "no state", one.overs, one.stretches) for one in self.fates)
        odd.pop((state, 1, 1), None)
        return found + [f"{count} are {name}, over {overs} times, with {stretches} stretches"
                        for (name, overs, stretches), count in odd.items()]


def fates_of(sent_ms, states, events):
    fates = {name: Fate(ms) for name, ms in sent_ms.items()}
    unknown = 0
    for key, text, ms in states:
        one = fates.get(key)
        if not one:
            unknown += 1
            continue
        told = json.loads(text)
        was_over = one.state in OVER
        one.state, one.stretches = told["state"], len(told["stretches"])
        one.overs += one.state in OVER and not was_over
        if one.state == "taken":
            one.taken_ms = one.taken_ms or ms
        elif one.state == "recording":
            one.joined_ms = one.joined_ms or ms
        elif one.state in OVER:
            one.over_ms = one.over_ms or ms
    for key, text, ms in events:
        one = fates.get(key)
        if one and not one.picture_ms and json.loads(text)["event"] == "first video":
            one.picture_ms = ms
    return list(fates.values()), unknown


def play(fleet, prefix, rate, seconds, job):
    """Sends jobs for so many seconds and waits for their ends."""
    before = fleet.used()
    watch = Watch(fleet.addresses)
    sender = Sender(fleet.addresses)
    begun = time.monotonic()
    sender.send(prefix, rate, seconds, job)
    sending_s = time.monotonic() - begun
    during = len(watch.looks)
    watch.wait_empty(EMPTY_S)
    used = fleet.used().since(before)
    watch.close()
    sender.close()
    # Looking is no load of the jobs': a question and an answer each.
    used.messages -= 2 * len(watch.looks)
    fates, unknown = fates_of(sender.sent_ms, fleet.read_back("KV_zelta_recordings"),
                              fleet.read_back("zelta_events"))
    waiting = [one for one, _ in watch.looks] or [0]
    return Outcome(fates, [ms - sender.sent_ms[name] for name, ms in sender.kept_ms.items()], unknown,
                   sender.refusals, sender.late_ms, fleet.in_queue(), max(waiting),
                   waiting[min(during, len(waiting) - 1)], sending_s, used)
