# SPDX-License-Identifier: Apache-2.0
"""What a tortured fleet has left, and whether that is what it promises."""

import bisect
import collections
import dataclasses
import json
import pathlib
import sys
import threading

from jobs import KINDS
from network import ROOT

sys.path.insert(0, str(ROOT / "scripts/reliability"))
from torture import FRAGMENT_MS, IN_FLIGHT_MS, playable_ms  # noqa: E402  pylint: disable=wrong-import-position

LEASE_MS = 5000
TAKEN_UP_MS = 10_000
# Of a clock that is read here and there.
SLACK_MS = 500
# What a worker says is on its way for so long; so is what it asks.
ON_ITS_WAY_MS = 5000
# After what befell a server, elections and leases are over.
BEFORE_MS = 25_000

# Kinds of hits: of a worker; that end a stretch; by which one may lose it; by which one is not there.
DEATHS = ("worker killed", "machine died")
ENDINGS = (*DEATHS, "handed over", "zelta-record killed")
TAKEN_BY_HIT = (*ENDINGS, "worker stopped", "machine stopped", "cable cut", "loss", "delay")
SERVERS_LOST_BY = ("server killed", "cable cut", "loss", "delay")
AWAY = (*DEATHS, "worker stopped", "machine stopped", "cable cut", "server killed", "handed over")


@dataclasses.dataclass
class Hit:
    kind: str
    machine: str
    at_ms: float
    until_ms: float = float("inf")
    job: str = ""  # of a recorder that was hit

    def name(self):
        is_own = self.kind.startswith("server") or self.machine.startswith("w")
        return self.kind if is_own else f"{self.kind}, a server's"


@dataclasses.dataclass
class File:
    worker: str
    path: pathlib.Path
    first_ms: float
    last_ms: float
    closed: str
    plays: bool


@dataclasses.dataclass
class Takeover:
    job: str
    hit: Hit
    next_picture_ms: float
    lost_ms: float  # less than nothing: that was recorded twice
    why_late: str   # what else was so, empty: nothing
    excused: bool


def quantiles(values):
    if not values:
        return "-"
    ordered = sorted(values)
    picked = [ordered[min(len(ordered) - 1, int(share * len(ordered)))] for share in (0.5, 0.99)]
    return ", ".join(f"{one / 1000:.2f}" for one in [*picked, ordered[-1]])


class Findings:
    def __init__(self, workers, servers):
        self.workers = workers  # roots by name
        self.servers = servers  # names
        self.lock = threading.Lock()
        self.hits = []
        self.wrong = []
        self.files = collections.defaultdict(list)  # by job
        self.young = 0
        self.takeovers = []
        self.missed_events = 0
        self.early = 0

    def wrong_if(self, bad, text):
        if bad:
            with self.lock:
                self.wrong.append(text)

    def add(self, text):
        self.wrong_if(True, text)

    def hit(self, *what):
        made = Hit(*what)
        with self.lock:
            self.hits.append(made)
        return made

    # ---- Files -----------------------------------------------------------------------------

    def look_at_files(self, job):
        """Of a job that is over, and whose last recorders have ended."""
        for worker, root in self.workers.items():
            for manifest in sorted((root / job.id).rglob("recording*.json")):
                try:
                    told = json.loads(manifest.read_text(encoding="utf-8"))["files"]
                except (OSError, ValueError, KeyError) as error:
                    self.add(f"{manifest}: {error!r}")
                    continue
                for one in told:
                    self.files[job.id].append(self.look_at(worker, manifest.parent / one["name"], one))
        self.files[job.id].sort(key=lambda one: one.first_ms)
        self.wrong_if(KINDS[job.kind].ends != "ended" and self.files[job.id], f"{job.id}: has files")

    def look_at(self, worker, path, told):
        length = playable_ms(path)
        first = told["first_utc_ms"]
        if length is None:
            kills = [one.at_ms for one in self.hits if one.machine == worker and one.at_ms >= first]
            age = min(kills, default=float("inf")) - first
            is_young = told["closed"] in ("", "recorder died") and age <= FRAGMENT_MS + IN_FLIGHT_MS
            self.young += is_young
            self.wrong_if(not is_young, f"{path}: doesn't play, {age:.0f} ms old, \"{told['closed']}\"")
        # The manifest of a recorder that died is up to two seconds behind.
        return File(worker, path, first, max(told["last_utc_ms"], first + (length or 0)), told["closed"],
                    length is not None)

    def files_of(self, job, number):
        """Of a stretch: those that its worker began within its time."""
        stretches = job.state["stretches"]
        one = stretches[number]
        until = next((after["taken_utc_ms"] for after in stretches[number + 1:]
                      if after["worker"] == one["worker"]), float("inf"))
        return [file for file in self.files[job.id] if file.worker == one["worker"] and file.plays
                and one["taken_utc_ms"] - SLACK_MS <= file.first_ms < until - SLACK_MS]

    # ---- Jobs ------------------------------------------------------------------------------

    def look_at_end(self, job):
        state = job.state
        said = state.get("state", "never heard of")
        wanted = KINDS[job.kind].ends
        # What is told to end while it waits, or can't be joined, has ended.
        fits = said == wanted or (job.asked_to_end and said == "ended")
        self.wrong_if(not fits, f"{job.id} ({job.kind}): {said} {state.get('reason', '')}")
        self.wrong_if(job.overs != 1, f"{job.id} ({job.kind}): over {job.overs} times")
        if not state or said != "ended":
            return
        at_ms = state["since_utc_ms"] - state["first_joined_utc_ms"]
        early = job.seconds and not job.asked_to_end and at_ms < job.seconds * 1000 - SLACK_MS
        self.wrong_if(early, f"{job.id}: ended after {at_ms} ms of {job.seconds} s")
        was_recorded = job.kind in ("short", "long", "endless")
        self.wrong_if(was_recorded and not job.asked_to_end and not self.files[job.id], f"{job.id}: no files")

    def look_at_overlaps(self, job):
        """Two workers at a time for longer than a lease."""
        spans = []
        for number, one in enumerate(job.state.get("stretches", [])):
            files = self.files_of(job, number)
            if files:
                spans.append((min(file.first_ms for file in files), max(file.last_ms for file in files),
                              number, one["worker"]))
        for at, (first, last, number, worker) in enumerate(spans):
            for other_first, other_last, other, other_worker in spans[at + 1:]:
                begin, end = max(first, other_first), min(last, other_last)
                both = end - begin - self.stood_still_ms({worker, other_worker}, begin, end)
                self.wrong_if(both > LEASE_MS,
                              f"{job.id}: stretches {number} and {other} recorded together for {both:.0f} ms")

    def stood_still_ms(self, machines, begin, end):
        """A machine that stands still records nothing, though a file that goes on afterwards spans it."""
        return sum(max(0, min(end, hit.until_ms) - max(begin, hit.at_ms)) for hit in self.hits
                   if hit.machine in machines and hit.kind == "machine stopped")

    # ---- Takeovers -------------------------------------------------------------------------

    def cause(self, job, number):
        """The hit by which a stretch ended; None for none."""
        one, after = job.state["stretches"][number:number + 2]
        found = None
        for hit in self.hits:
            is_its = hit.machine == one["worker"] and (not hit.job or hit.job == job.id)
            if not is_its or hit.kind not in TAKEN_BY_HIT or hit.at_ms > after["taken_utc_ms"]:
                continue
            # What stops for a while may have begun before, and is over when its lease is.
            is_end = hit.kind in ENDINGS
            since = hit.at_ms + SLACK_MS if is_end else hit.until_ms + LEASE_MS + SLACK_MS
            if since >= one["taken_utc_ms"] and (is_end or not found or found.kind not in ENDINGS):
                found = hit
        return found or self.servers_hit(after["taken_utc_ms"])

    def servers_hit(self, taken_ms):
        """The last one that kept a worker from keeping its lease, when it was not hit itself."""
        hits = self.away(self.servers, taken_ms - BEFORE_MS, taken_ms, SERVERS_LOST_BY)
        return max(hits, key=lambda hit: hit.at_ms, default=None)

    def away(self, names, from_ms, to_ms, kinds=AWAY):
        return [hit for hit in self.hits if hit.machine in names and hit.kind in kinds
                and hit.at_ms < to_ms and hit.until_ms > from_ms]

    def lacked_majority(self, from_ms, to_ms):
        """Whether two servers were away at a time; a server that is back needs a moment."""
        hits = self.away(self.servers, from_ms, to_ms)
        return any(one.machine != other.machine and one.at_ms < other.until_ms + 2000 and
                   other.at_ms < one.until_ms + 2000 for one in hits for other in hits)

    def circumstances(self, hit, taker, until_ms):
        """What else was so, and whether that excuses a late takeover."""
        if self.lacked_majority(hit.at_ms - 1000, until_ms):
            return "no majority of servers", True
        others = set(self.workers) - {hit.machine}
        busy = {one.machine for one in self.away(others, hit.at_ms, hit.at_ms + TAKEN_UP_MS)}
        if busy == others:
            return "no worker was there all the time", True
        if any(one is not hit for one in self.away([taker], hit.at_ms, until_ms, TAKEN_BY_HIT)):
            return "who took it was hit, too", True
        if self.away(self.servers, hit.at_ms - 1000, until_ms):
            return "a server was away", False
        if busy:
            return "another worker was away", False
        if self.away({*self.servers, *self.workers}, hit.at_ms, until_ms, ("loss", "delay")):
            return "loss or delay somewhere", False
        return "", False

    def look_at_takeovers(self, job):
        stretches = job.state.get("stretches", [])
        for number in range(len(stretches) - 1):
            before = self.files_of(job, number)
            hit = self.cause(job, number)
            if KINDS[job.kind].ends != "ended" or not before:
                continue
            if not hit:
                self.look_at_early(job, number, before)
                continue
            follower = next((at for at in range(number + 1, len(stretches)) if self.files_of(job, at)), None)
            if follower is None:
                self.look_at_none(job, hit)
                continue
            first = min(one.first_ms for one in self.files_of(job, follower))
            last = max(one.last_ms for one in before)
            why, excused = self.circumstances(hit, stretches[follower]["worker"], first)
            if follower > number + 1:
                why, excused = "who took it was hit, too", True
            # Of what was recorded twice, or lost, while a machine stood still.
            still = self.stood_still_ms({hit.machine}, min(first, last), max(first, last))
            lost = first - last + still if first < last else first - last
            self.takeovers.append(Takeover(job.id, hit, first - hit.at_ms, lost, why, excused))
            self.wrong_if(hit.kind in DEATHS and not excused and first - hit.at_ms > TAKEN_UP_MS,
                          f"{job.id}: {hit.kind} ({hit.machine}), next picture {first - hit.at_ms:.0f} ms "
                          f"later, by {stretches[follower]['worker']}, {why or 'nothing else was wrong'}")

    def look_at_early(self, job, number, before):
        """A queue may give a job away before its lease is over: that may cost no picture."""
        self.early += 1
        after = self.files_of(job, number + 1)
        lost = min((one.first_ms for one in after), default=0) - max(one.last_ms for one in before)
        self.wrong_if(not after or lost > SLACK_MS, f"{job.id}: stretch {number} was taken over from "
                      f"{job.state['stretches'][number]['worker']} for nothing, {lost:.0f} ms lost")

    def look_at_none(self, job, hit):
        """A recording that nobody went on with: its time was over, or it was told to end."""
        joined = job.state["first_joined_utc_ms"]
        time_was_over = job.seconds and joined + job.seconds * 1000 <= hit.at_ms + TAKEN_UP_MS + SLACK_MS
        over_soon = job.asked_to_end and job.state["since_utc_ms"] <= hit.at_ms + 2 * TAKEN_UP_MS
        self.wrong_if(not time_was_over and not over_soon, f"{job.id}: nothing after {hit}")

    # ---- Events ----------------------------------------------------------------------------

    def look_at_events(self, job):
        ids = [once for _, once, _ in job.events if once]
        self.wrong_if(len(set(ids)) < len(ids), f"{job.id}: an event was kept twice")
        told = collections.defaultdict(list)  # by worker
        for _, _, event in job.events:
            told[event.get("worker", "")].append(event)
        parts = {worker: self.parts_of(job, worker, events) for worker, events in told.items()}
        for worker in {one["worker"] for one in job.state.get("stretches", [])}:
            self.look_at_told(job, worker, parts.get(worker, []))

    def parts_of(self, job, worker, events):
        """What each of its recorders told, which counts from its own beginning."""
        parts, before, is_new = [], 0, True
        for event in events:
            name = event.get("event")
            if is_new or name == "joined":
                parts.append([])
                before = 0
            at = event.get("elapsed_s", before)
            self.wrong_if(at < before - 0.001, f"{job.id}: {worker}'s event came late: {event}")
            before, is_new = at, name == "end"
            parts[-1].append(name)
        return parts

    def look_at_told(self, job, worker, parts):
        """That each stretch joined, and how its recorder ended, where its worker saw that."""
        same = [one for one in job.state["stretches"] if one["worker"] == worker and one["joined_utc_ms"]]
        joins = sum(not self.untold(one, "joined_utc_ms") for one in same)
        ends = sum(0 <= one["status"] < 128 and not self.untold(one, "ended_utc_ms") for one in same)
        told = [sum(name in part for part in parts) for name in ("joined", "end")]
        missed = max(0, joins - told[0]) + max(0, ends - told[1])
        self.missed_events += missed
        self.wrong_if(missed, f"{job.id}: {worker} told {told} of {joins} joins and {ends} ends")

    def untold(self, one, moment):
        """Whether its worker died before it could say so."""
        at = one[moment]
        deaths = sorted(hit.at_ms for hit in self.hits
                        if hit.machine == one["worker"] and hit.kind in DEATHS)
        next_death = bisect.bisect(deaths, at)
        if next_death == len(deaths):
            return False
        death = deaths[next_death]
        return death - at < ON_ITS_WAY_MS or bool(self.away(
            {one["worker"], *self.servers}, at, death, (*AWAY, "loss", "delay")))
