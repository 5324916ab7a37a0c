#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tortures a fleet: three NATS servers and four workers, each on a machine of its own (a network namespace
and a folder), record as many channels at a time as are asked for, while programs are killed and stopped,
machines die, and cables are cut, lose packets or are slow, at random moments. At the end every job has to
be over once, every file has to play, and nothing may have been recorded twice for longer than a lease."""

import argparse
import collections
import contextlib
import dataclasses
import heapq
import json
import os
import pathlib
import random
import shutil
import signal
import statistics
import sys
import tempfile
import threading
import time

import findings
from jobs import KINDS, Jobs
from nats import Follower, ask
from network import Network
from programs import RECORDER, SERVICE, NatsServer, Worker, channel_of, fleet

DELAY_S = 0.2
SAMPLE_S = 5
# So long after its end the last recorder of a job has gone: a lease, and a stop before.
GONE_S = 25
STOP_S = 15
START_S = 30
# What the last third may need more than the second.
GROWTH_KB, GROWTH_SHARE = 2048, 0.05

# Of a hundred strikes, how many are of which kind; on which machines.
STRIKES = {
    "worker killed": (18, "w"), "machine died": (9, "w"), "handed over": (10, "w"),
    "worker stopped": (9, "w"), "machine stopped": (4, "w"), "zelta-record killed": (10, "w"),
    "recorder killed": (9, "w"), "cable cut": (14, "wn"), "loss": (6, "wn"), "delay": (3, "wn"),
    "server killed": (8, "n"),
}
# A worker that isn't ended shows whether one grows.
LASTING = "w1"
SPARES_LASTING = ("worker killed", "machine died", "handed over")


def now_ms():
    return time.time() * 1000


class Torture:
    def __init__(self, work, given, network):
        self.given = given
        self.dice = random.Random(given.seed)
        machines = network.machines
        servers = [machines[name] for name in machines if name.startswith("n")]
        self.urls = [f"nats://{one.address}:4222" for one in servers]
        self.addresses = [one.address for one in servers]
        self.programs = {one.name: NatsServer(one, work / one.name, servers) for one in servers}
        workers = [Worker(one, work / name, self.urls, given.most_jobs)
                   for name, one in machines.items() if name.startswith("w")]
        self.programs.update({one.name: one for one in workers})
        self.workers = {one.name: one for one in workers}
        self.found = findings.Findings({one.name: one.root for one in workers},
                                       [one.name for one in servers])
        self.jobs = Jobs(self.urls, random.Random(given.seed + 1), given.pace, self.found.add)
        self.states = Follower(self.addresses, "KV_zelta_recordings", self.jobs.on_state)
        self.events = Follower(self.addresses, "zelta_events", self.jobs.on_event)
        self.due = []  # (moment, order, what to call)
        self.order = 0
        self.hurt = {}  # hits that last, by machine
        self.struck = collections.Counter()
        self.samples = collections.defaultdict(list)
        self.idle = {}
        self.looked_at = set()
        self.exits = collections.Counter()
        self.most_alive = 0
        self.differing = 0  # streams
        self.looker = threading.Thread(target=self.look_at_files, daemon=True)
        self.ending = threading.Event()

    # ---- Time ------------------------------------------------------------------------------

    def later(self, seconds, call):
        self.order += 1
        heapq.heappush(self.due, (time.monotonic() + seconds, self.order, call))

    def turn(self):
        """What is to be done now, and a moment's rest: the pace of the torture."""
        while self.due and self.due[0][0] <= time.monotonic():
            heapq.heappop(self.due)[2]()
        self.jobs.stop_due()
        for name, program in self.programs.items():
            if name not in self.hurt and program.ended() is not None:
                self.exits[f"{name[0]}: {program.ended()}"] += 1
                # A worker that finds no server, or a server, is started again by whoever watches them.
                self.found.wrong_if(program.ended() != 1 or name[0] == "n",
                                    f"{name} ended by itself: {program.ended()}")
                self.hurt[name] = self.found.hit("ended by itself", name, now_ms())
                self.later(1, lambda one=program: self.heal(one.name, one.start))
        time.sleep(0.1)

    def heal(self, name, call):
        call()
        self.hurt.pop(name).until_ms = now_ms()

    # ---- Strikes ---------------------------------------------------------------------------

    def strike(self):
        kind = self.dice.choices(list(STRIKES), [share for share, _ in STRIKES.values()])[0]
        where = self.dice.choice(STRIKES[kind][1])
        names = [name for name in self.programs if name[0] == where and name not in self.hurt
                 and not (name == LASTING and kind in SPARES_LASTING)]
        hurt = sum(name[0] == where for name in self.hurt)
        seldom = self.dice.random() < 0.1
        # Two workers stay as they are, usually, and two servers, but for seconds.
        if self.given.servers == "spared" and where == "n":
            return
        if not names or hurt >= {"w": 2 + seldom, "n": 1 + seldom}[where]:
            return
        name = self.dice.choice(names)
        short = where == "n" and hurt > 0
        getattr(self, kind.replace(" ", "_").replace("-", "_"))(self.programs[name], kind, short)

    def begin(self, program, kind, *job):
        made = self.found.hit(kind, program.name, now_ms(), float("inf"), *job)
        self.struck[made.name()] += 1
        return made

    def lasts(self, program, kind, seconds, end):
        self.hurt[program.name] = self.begin(program, kind)
        self.later(seconds, lambda: self.heal(program.name, end))

    def worker_killed(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(0, 20), program.start)
        program.kill()

    def server_killed(self, program, kind, short):
        self.lasts(program, kind, self.dice.uniform(0.5, 3 if short else 8), program.start)
        (program.end if self.given.servers == "ended" else program.kill)()
        if self.given.servers == "emptied":
            program.empty()

    def machine_died(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(3, 20), program.start_machine)
        program.kill_machine()

    def worker_stopped(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(1, STOP_S), lambda: program.send(signal.SIGCONT))
        program.send(signal.SIGSTOP)

    def machine_stopped(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(1, STOP_S), lambda: program.send_all(signal.SIGCONT))
        program.send_all(signal.SIGSTOP)

    def cable_cut(self, program, kind, short):
        self.lasts(program, kind, self.dice.uniform(1, 3 if short else 15), program.machine.join)
        program.machine.cut()

    def loss(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(5, 20), program.machine.lose_none)
        program.machine.lose(self.dice.randint(10, 30))

    def delay(self, program, kind, _):
        self.lasts(program, kind, self.dice.uniform(5, 20), program.machine.fast)
        program.machine.slow()

    def handed_over(self, program, kind, _):
        self.hurt[program.name] = self.begin(program, kind)
        program.drain()
        self.later(0.5, lambda: self.after_drain(program, time.monotonic()))

    def after_drain(self, program, began):
        status = program.ended()
        if status is None and time.monotonic() < began + START_S:
            return self.later(0.5, lambda: self.after_drain(program, began))
        self.found.wrong_if(status != 0, f"{program.name}: drained with {status} after "
                            f"{time.monotonic() - began:.0f} s")
        if status is None:
            program.kill()
        return self.heal(program.name, program.start)

    def zelta_record_killed(self, program, kind, _):
        self.kill_one(program, kind, RECORDER)

    def recorder_killed(self, program, kind, _):
        self.kill_one(program, kind, SERVICE)

    def kill_one(self, program, kind, name):
        pids = program.recorders(name)
        pid = self.dice.choice(pids) if pids else 0
        job = channel_of(pid) if pid else ""
        if job:
            self.begin(program, kind, job).until_ms = now_ms()
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    # ---- Its parts -------------------------------------------------------------------------

    def start(self):
        for program in self.programs.values():
            if program.name not in self.workers:
                program.start()
        until = time.monotonic() + START_S
        while fleet(self.urls, "list")[0] != 0:  # makes what is kept, in three places
            if time.monotonic() > until:
                raise RuntimeError(f"the servers don't answer: {fleet(self.urls, 'list')}")
        for worker in self.workers.values():
            worker.start()
        while len(fleet(self.urls, "--json", "workers")[1].splitlines()) < len(self.workers):
            if time.monotonic() > until + START_S:
                raise RuntimeError("not all workers are there")
        self.idle = {name: [one.size()] for name, one in self.workers.items()}
        self.states.start()
        self.events.start()
        self.looker.start()
        self.provoke_unreadable()

    def provoke_unreadable(self):
        ask(self.addresses, "zelta.jobs.any", {"channel": 7})

    def sample(self):
        for name, worker in self.workers.items():
            if name not in self.hurt:
                with contextlib.suppress(OSError):
                    self.samples[name].append(worker.size())
        self.later(SAMPLE_S, self.sample)

    def feed(self):
        """As many at a time as are asked for; in the beginning a few a second."""
        alive = self.jobs.alive()
        self.most_alive = max(self.most_alive, alive)
        for _ in range(min(2, self.given.recordings - alive)):
            self.jobs.send_one()
        self.later(0.5, self.feed)

    def strike_on(self):
        self.strike()
        self.later(self.dice.expovariate(1 / self.given.interval), self.strike_on)

    def say_how_it_goes(self):
        with self.found.lock:
            wrong = len(self.found.wrong)
        print(f"{time.strftime('%T')} {len(self.jobs.all)} jobs, {self.jobs.alive()} of them not over, "
              f"{sum(self.struck.values())} hits, {len(self.looked_at)} looked at, wrong: {wrong}",
              file=sys.stderr, flush=True)
        self.later(60, self.say_how_it_goes)

    def look_at_files(self):
        """Beside the torture, as what is over has ended."""
        while not self.ending.wait(1):
            with self.jobs.lock:
                ready = [one for one in self.jobs.all.values() if one.is_over() and
                         one.id not in self.looked_at and time.monotonic() > one.over_at + GONE_S]
            for job in ready:
                if self.ending.is_set():
                    return
                try:
                    self.found.look_at_files(job)
                except Exception as error:  # pylint: disable=broad-except  # one must not hide others
                    self.found.add(f"{job.id}: {error!r}")
                self.looked_at.add(job.id)

    def torture(self):
        self.later(0, self.feed)
        self.later(0, self.sample)
        self.later(0, self.say_how_it_goes)
        self.later(5, self.strike_on)
        until = time.monotonic() + self.given.minutes * 60
        while time.monotonic() < until:
            self.turn()
        # What is hurt is healed in its time; nothing new comes.
        self.due = [one for one in self.due if one[2] not in (self.feed, self.strike_on)]
        heapq.heapify(self.due)
        while self.hurt:
            self.turn()

    def end_jobs(self):
        until = time.monotonic() + 120
        while self.jobs.alive() and time.monotonic() < until:
            self.jobs.stop_due(everybody=True)
            self.turn()
        # Then nobody is left over.
        until = time.monotonic() + GONE_S + 5 + self.jobs.alive()
        while time.monotonic() < until:
            self.turn()
        for follower in (self.states, self.events):
            self.found.wrong_if(not follower.caught_up(20), f"{follower.stream} can't be read to its end")
        for name, worker in self.workers.items():
            left = worker.recorders(RECORDER) + worker.recorders(SERVICE)
            self.found.wrong_if(left, f"{name}: {len(left)} recorders are left")
            self.idle[name].append(worker.size())
        while len(self.looked_at) < len([one for one in self.jobs.all.values() if one.is_over()]):
            self.turn()

    def look_at_queue(self):
        info = ask(self.addresses, "$JS.API.STREAM.INFO.zelta_jobs")["state"]
        self.found.wrong_if(info["messages"], f"in the queue: {info}")
        consumer = ask(self.addresses, "$JS.API.CONSUMER.INFO.zelta_jobs.jobs_any")
        self.found.wrong_if(consumer["num_ack_pending"], f"taken and never given back: {consumer}")
        events = ask(self.addresses, "$JS.API.STREAM.INFO.zelta_events")["state"]
        self.found.wrong_if(events.get("num_deleted"), f"events are gone: {events}")
        status, listed, error = fleet(self.urls, "--json", "list", "--all")
        told = collections.Counter(json.loads(line)["state"] for line in listed.splitlines())
        seen = collections.Counter(one.state.get("state") for one in self.jobs.all.values())
        self.found.wrong_if(status != 0 or told != seen, f"listed {told}, seen {seen}: {error}")
        self.found.wrong_if(not self.jobs.unreadable, "nobody told of the job that can't be read")

    def look_at_copies(self):
        """What stays the same while nobody works; a server that has another copy answers otherwise once it
        leads."""
        copies = {name: one.copies() for name, one in self.programs.items() if name not in self.workers}
        for stream in ("zelta_jobs", "zelta_events", "KV_zelta_recordings", "KV_zelta_wishes"):
            found = {name: of.get(stream) for name, of in copies.items()}
            if len(set(found.values())) > 1:
                self.differing += 1
                self.found.add(f"{stream}: the servers' copies differ (messages, last): {found}")

    def look_at_all(self):
        self.look_at_queue()
        self.look_at_copies()
        for job in self.jobs.all.values():
            for look in (self.found.look_at_end, self.found.look_at_overlaps,
                         self.found.look_at_takeovers, self.found.look_at_events):
                try:
                    look(job)
                except Exception as error:  # pylint: disable=broad-except  # one must not hide others
                    self.found.add(f"{job.id}: {look.__name__}: {error!r}")

    def keep(self, work):
        """For whoever looks for the reasons."""
        with open(work / "jobs.jsonl", "w", encoding="utf-8") as to:
            for job in self.jobs.all.values():
                files = [{**dataclasses.asdict(one), "path": str(one.path)} for one in self.found.files[job.id]]
                to.write(json.dumps({**dataclasses.asdict(job), "files": files}) + "\n")
        with open(work / "hits.jsonl", "w", encoding="utf-8") as to:
            to.writelines(json.dumps(dataclasses.asdict(one)) + "\n" for one in self.found.hits)

    def close(self):
        self.ending.set()
        self.jobs.close()
        for follower in (self.states, self.events):
            if follower.is_alive():
                follower.close()
        if self.looker.is_alive():
            self.looker.join()

    # ---- What it tells ---------------------------------------------------------------------

    def tell(self, seconds):
        found, jobs = self.found, list(self.jobs.all.values())
        print(f"seed {self.given.seed}, {seconds / 60:.0f} minutes, {len(jobs)} recordings, at most "
              f"{self.most_alive} at a time, {sum(self.struck.values())} hits\n")
        print("| hit | times | recordings | to the next picture, s: median, 99 %, most | picture lost, s: "
              "median, 99 %, most | recorded twice at most, s |\n|---|---|---|---|---|---|")
        kinds = list(dict.fromkeys([*STRIKES, *self.struck]))
        for kind in kinds:
            if not self.struck[kind]:
                continue
            of = [one for one in found.takeovers if one.hit.name() == kind]
            lost = [max(0, one.lost_ms) for one in of]
            twice = max((-one.lost_ms for one in of), default=0)
            print(f"| {kind} | {self.struck[kind]} | {len(of)} | "
                  f"{quantiles_of(one.next_picture_ms for one in of)} | {quantiles_of(lost)} | "
                  f"{max(0, twice) / 1000:.2f} |")
        print("\n| deaths of a worker, while | recordings | to the next picture, s: median, 99 %, most | "
              "later than 10 s | counts |\n|---|---|---|---|---|")
        deaths = [one for one in found.takeovers if one.hit.kind in findings.DEATHS]
        for why, excused in sorted({(one.why_late, one.excused) for one in deaths}, key=lambda one: one[::-1]):
            of = [one.next_picture_ms for one in deaths if one.why_late == why]
            late = sum(one > findings.TAKEN_UP_MS for one in of)
            print(f"| {why or 'nothing else was wrong'} | {len(of)} | {quantiles_of(of)} | {late} | "
                  f"{'no' if excused else 'yes'} |")
        self.tell_counts(jobs)
        print(f"| wrong | {len(found.wrong)} |")
        for text in found.wrong[:60]:
            print("  " + text)

    def tell_counts(self, jobs):
        found = self.found
        ends = collections.Counter(one.state.get("state", "unknown") for one in jobs)
        stretches = [len(one.state.get("stretches", [])) for one in jobs]
        files = [one for of_job in found.files.values() for one in of_job]
        print("\n| | |\n|---|---|")
        print("| jobs | " + ", ".join(f"{name} {count}" for name, count in sorted(ends.items())) + " |")
        print(f"| stretches | {sum(stretches)}, of a job {max(stretches, default=0)} at most; "
              f"{found.early} begun though nothing had befallen the one before |")
        print(f"| files | {len(files)}, of {sum(one.last_ms - one.first_ms for one in files) / 3.6e6:.1f} hours; "
              f"{found.young} younger than a fragment don't play |")
        print(f"| events | {sum(len(one.events) for one in jobs)} of recordings, missing {found.missed_events} |")
        print(f"| streams of which the servers' copies differ | {self.differing} of 4 |")
        print(f"| calls of zelta-fleet made again | {self.jobs.again} |")
        print(f"| ended by themselves | {dict(self.exits) or 'none'} |")
        for column, (name, slack) in enumerate((("memory, kB", GROWTH_KB), ("descriptors", 0), ("threads", 0))):
            samples = [one[column] for one in self.samples[LASTING]]
            third = max(1, len(samples) // 3)
            early, late = (statistics.median(part or [0]) for part in
                           (samples[third:2 * third], samples[2 * third:]))
            first, last = (one[column] for one in (self.idle[LASTING][0], self.idle[LASTING][-1]))
            print(f"| {name} of {LASTING}, which is never ended | second third {early:.0f}, last third "
                  f"{late:.0f}; idle before {first}, after {last} |")
            if column == 0:
                slack = max(slack, early * GROWTH_SHARE)
                found.wrong_if(late > early + slack, f"{LASTING}'s memory grew from {early} to {late} kB")
            else:
                found.wrong_if(last > first, f"{LASTING}'s {name}: {first} before, {last} after")


def quantiles_of(values):
    return findings.quantiles(list(values))


def options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("minutes", type=float, nargs="?", help="of torture; 60, with --quick 2")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("--quick", action="store_true", help="two minutes, of fewer and shorter recordings")
    parser.add_argument("--recordings", type=int, help="at a time; 40, with --quick 12")
    parser.add_argument("--interval", type=float, help="mean time between hits, s; 6, with --quick 4")
    parser.add_argument("--most-jobs", type=int, default=40, help="of a worker at a time")
    parser.add_argument("--servers", choices=("killed", "emptied", "ended", "spared"), default="killed",
                        help="what becomes of NATS servers: SIGKILL, that and their store is lost, "
                        "SIGTERM, or nothing at all")
    parser.add_argument("--keep", type=pathlib.Path, help="folder for all that they write, which stays")
    parser.add_argument("--prefix", default=f"zelta-fleet-{os.getpid()}", help="of the namespaces' names")
    given = parser.parse_args()
    for name, usual in {"minutes": (60, 2), "recordings": (40, 12), "interval": (6, 4)}.items():
        if getattr(given, name) is None:
            setattr(given, name, usual[given.quick])
    given.pace = 0.3 if given.quick else 1
    return given


def main():
    given = options()
    missing = [one for one in ("ip", "nft", "nats-server", "ffmpeg") if not shutil.which(one)]
    if os.geteuid() != 0 or missing or not os.path.exists("/dev/net/tun"):
        print(f"check-fleet.sh: it needs root, /dev/net/tun, ip, nft, nats-server and ffmpeg; missing: "
              f"{missing}", file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    names = [f"n{at + 1}" for at in range(3)] + [f"w{at + 1}" for at in range(4)]
    with contextlib.ExitStack() as stack:
        if given.keep:
            given.keep.mkdir(parents=True)
            work = given.keep
        else:
            work = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="zelta-fleet-")))
        network = Network(given.prefix, names, DELAY_S)
        stack.callback(network.close)
        torture = Torture(work.resolve(), given, network)
        stack.callback(torture.close)
        began = time.monotonic()
        torture.start()
        torture.torture()
        torture.end_jobs()
        torture.look_at_all()
        torture.keep(work)
        torture.tell(time.monotonic() - began)
        return 1 if torture.found.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
