# SPDX-License-Identifier: Apache-2.0
"""The recordings that are sent to a fleet, and what the fleet says of them."""

import collections
import concurrent.futures
import dataclasses
import json
import subprocess
import threading
import time

from programs import fleet

OVER = ("ended", "failed", "refused")
# A user in each, as cheap as they can be; sound, which has to be encoded, in one of four.
PICTURE = "test:users=1,audio=none,size=64x64,fps=5"
PICTURE_AND_SOUND = "test:users=1,size=64x64,fps=5"
NOBODY = "janus:http://127.0.0.1:9/janus"
SENDERS = 4


@dataclasses.dataclass
class Kind:
    share: int
    ends: str  # the state in which it has to end
    seconds: tuple = (0, 0)  # of the job; 0: until it is told to end
    stop_after: tuple = ()   # seconds
    more: tuple = ()
    server: str = ""  # none of those that are there


KINDS = {
    "short": Kind(60, "ended", seconds=(15, 60)),
    "long": Kind(20, "ended", seconds=(60, 240)),
    "stopped": Kind(10, "ended", stop_after=(2, 60)),
    "endless": Kind(6, "ended"),
    "refused": Kind(2, "refused", more=("--settings", "nobody-has-them")),
    "failed": Kind(2, "failed", server=NOBODY),
}


@dataclasses.dataclass
class Job:
    id: str
    kind: str
    seconds: float
    server: str
    sent_ms: float = 0
    accepted: bool = False
    asked_to_end: bool = False
    refusal: str = ""  # of the last stop
    stop_at: float = 0  # on the steady clock; 0: never
    state: dict = dataclasses.field(default_factory=dict)
    events: list = dataclasses.field(default_factory=list)  # (UTC ms, id, event)
    overs: int = 0
    over_at: float = 0  # on the steady clock

    def is_over(self):
        return self.state.get("state") in OVER


def gone(stretches, before):
    """Whether a stretch is missing that was there. One that a worker began while it still had the one before
    is none: the queue had given it its own job again, as the one before says then, too."""
    if before[1:] and stretches and not before[-1]["joined_utc_ms"] and \
            before[-1]["worker"] == stretches[-1]["worker"] and \
            before[-1]["delivered"] == stretches[-1]["delivered"]:
        before = before[:-1]
    return len(stretches) < len(before)


class Jobs:
    """`wrong` takes a text. States and events come on threads of their own."""

    def __init__(self, urls, dice, pace, wrong):
        self.urls = urls
        self.dice = dice
        self.pace = pace  # of the jobs' lengths: 1, or less
        self.wrong = wrong
        self.lock = threading.Lock()
        self.all = collections.OrderedDict()
        self.pool = concurrent.futures.ThreadPoolExecutor(SENDERS)
        self.busy = set()
        self.ending = threading.Event()
        self.again = 0  # calls of zelta-fleet that had to be made again
        self.unreadable = 0

    def alive(self):
        with self.lock:
            return sum(1 for one in self.all.values() if not one.is_over())

    def send_one(self):
        kind = self.dice.choices(list(KINDS), [one.share for one in KINDS.values()])[0]
        of = KINDS[kind]
        server = of.server or (PICTURE_AND_SOUND if self.dice.random() < 0.25 else PICTURE)
        job = Job(f"job{len(self.all)}", kind, round(self.pace * self.dice.uniform(*of.seconds), 1), server)
        if of.stop_after:
            job.stop_at = time.monotonic() + self.pace * self.dice.uniform(*of.stop_after)
        with self.lock:
            self.all[job.id] = job
        words = ["record", job.id, "--id", job.id, "--users", "1", "--server", server, *of.more]
        if job.seconds:
            words += ["--duration", str(job.seconds)]
        job.sent_ms = time.time() * 1000
        self.pool.submit(self.guard, self.send, job, words)

    def guard(self, call, job, *more):
        try:
            call(job, *more)
        except Exception as error:  # pylint: disable=broad-except  # a thread's would be seen by nobody
            self.wrong(f"{job.id}: {error!r}")

    def call(self, *words):
        try:
            return fleet(self.urls, *words)
        except subprocess.TimeoutExpired:
            self.wrong(f"zelta-fleet {' '.join(words)}: no end after 30 s")
            return -1, "", "too long"

    def send(self, job, words):
        """Until it is there, by whatever call: one that failed may have sent it."""
        while not self.ending.is_set():
            status, _, error = self.call(*words)
            if status == 0 or "already" in error or "sent twice" in error:
                job.accepted = True
                return
            self.again += 1
            if status not in (1, -1):
                self.wrong(f"{job.id} can't be sent: {status} {error}")
                return
            self.ending.wait(0.5)

    def stop(self, job):
        job.asked_to_end = True
        while not self.ending.is_set() and not job.is_over():
            status, _, job.refusal = self.call("stop", job.id)
            if status == 0:
                return
            self.again += 1
            self.ending.wait(0.5)

    def stop_due(self, everybody=False):
        with self.lock:
            due = [one for one in self.all.values() if not one.is_over() and not one.asked_to_end
                   and one.accepted and (everybody or 0 < one.stop_at <= time.monotonic())]
        for job in due:
            job.asked_to_end = True
            self.pool.submit(self.guard, self.stop, job)

    # On the followers' threads.
    def on_state(self, subject, data, headers, _):
        key = subject.split(".")[-1]
        with self.lock:
            job = self.all.get(key)
            if not job or "KV-Operation" in headers:
                self.wrong(f"a state of {key} that nobody sent: {headers}")
                return
            state = json.loads(data)
            before = job.state
            if job.is_over() and state["state"] not in OVER:
                self.wrong(f"{key}: {state['state']} after {before['state']}")
            if gone(state["stretches"], before.get("stretches", [])):
                self.wrong(f"{key}: a stretch is gone")
            if state["state"] in OVER and not job.is_over():
                job.overs += 1
                job.over_at = time.monotonic()
            job.state = state

    def on_event(self, subject, data, headers, utc_ms):
        key = subject.split(".")[-1]
        once = next((line for line in headers.splitlines() if line.startswith("Nats-Msg-Id:")), "")
        with self.lock:
            if key == "unreadable":
                self.unreadable += 1
            elif key in self.all:
                self.all[key].events.append((utc_ms, once, json.loads(data)))
            else:
                self.wrong(f"an event of {key}, which nobody sent")

    def close(self):
        self.ending.set()
        self.pool.shutdown(cancel_futures=True)
