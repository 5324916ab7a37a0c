#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures what a fleet carries and costs on this machine, with nats-servers and eight workers of its own on
loopback, and prints tables for docs/bench/fleet.md: jobs a second through the queue, with one server and
with three; the time from a job to its first picture, at several rates; what an idle worker and a job cost.
Takes about five minutes. Exit status 1: a job wasn't ended once, as it has to be; the tables come anyway."""

import argparse
import os
import platform
import signal
import statistics
import sys
import time

import nats_servers
import trial

# It costs nothing to be recorded, as no worker has such settings, and goes through queue and store.
NOTHING = {"server": "test:", "settings": "nobody-has-them"}
JOB_S = 5
PICTURES = {"server": "test:users=1,audio=none,size=64x64,fps=5", "duration_s": JOB_S}
# The processors' load includes whoever measures. Memory and disk are looked at as always.
ANY_LOAD = {"busy_share": 100}
# What a worker has without settings.
ROOM_SHARE = 0.8


def of_rank(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else float("nan")


def three(values, unit=1.0, places=1):
    """p50, p99 and the most, as cells."""
    found = [of_rank(values, 0.5), of_rank(values, 0.99), max(values, default=float("nan"))]
    return [f"{one / unit:,.{places}f}" for one in found]


def between(fates, later, unit=1.0, places=1):
    return three([getattr(one, later) - one.sent_ms for one in fates if getattr(one, later)], unit, places)


def table(title, heads, rows):
    print(f"\n{title}\n")
    for cells in (heads, ["---"] * len(heads), *rows):
        print("| " + " | ".join(map(str, cells)) + " |")
    sys.stdout.flush()


def say(text):
    print(text, file=sys.stderr, flush=True)


class Measurement:
    def __init__(self, given):
        self.given = given
        self.idle_rows, self.queue_rows, self.cost_rows, self.picture_rows = [], [], [], []
        self.faults = []
        self.others = None  # share of the processors

    # ---- What nothing costs ----------------------------------------------------------------

    def idle(self, fleet, name, seconds):
        """With what passes a second, to be taken off what jobs are measured to cost."""
        say(f"{name}: idle for {seconds} s")
        time.sleep(2)  # what a start still does
        before = fleet.used()
        time.sleep(seconds)
        used = fleet.used().since(before)
        self.others = self.others or 100 * used.busy / used.ticks
        workers, servers = len(fleet.workers), len(fleet.servers)
        for what, count, spent, pids in (
                ("worker", workers, used.workers_s, [one.pid for one in fleet.workers]),
                ("nats-server", servers, used.servers_s, [one.process.pid for one in fleet.servers])):
            sizes = [statistics.mean(values) for values in zip(*map(trial.size_of, pids))]
            # Three servers talk among themselves for the most part.
            is_told = what != "worker" or servers == 1
            messages = f"{used.messages / used.at_s / count:,.0f}" if is_told else ""
            self.idle_rows.append([f"{what}, {name}", f"{100 * spent / used.at_s / count:.2f} %",
                                   *(f"{size:,.0f}" for size in sizes), messages])
        return used

    def add_costs(self, name, outcome, idle):
        used, jobs = outcome.used, len(outcome.fates)
        share = used.at_s / idle.at_s

        def each(taken, at_rest):
            return (taken - share * at_rest) / jobs
        self.cost_rows.append([
            name, f"{1000 * each(used.workers_s, idle.workers_s):.1f}",
            f"{1000 * each(used.servers_s, idle.servers_s):.1f}", f"{each(used.messages, idle.messages):.0f}",
            f"{1000 * used.recorders_s / jobs:.0f}", f"{100 * used.busy / used.ticks:.0f} %"])

    def look_at(self, name, outcome, state):
        found = outcome.faults(state)
        self.faults += [f"{name}: {one}" for one in found]
        return f"{outcome.accounted(state):,} of {len(outcome.fates):,}"

    # ---- Jobs a second ---------------------------------------------------------------------

    def queue(self, fleet, name, idle):
        rate, seconds = self.given.rate, self.given.seconds
        say(f"{name}: {rate:g} jobs a second for {seconds} s")
        found = trial.play(fleet, "nothing", rate, seconds, NOTHING)
        once = self.look_at(name, found, "refused")
        self.queue_rows += [
            [name, f"{(len(found.fates) - 1) / found.sending_s:.1f}", what, *cells, found.most_waiting, once]
            for what, cells in (("kept by the queue", three(found.kept)),
                                ("`taken` in the store", between(found.fates, "taken_ms")),
                                ("over in the store", between(found.fates, "over_ms")))]
        self.add_costs(f"refused, {rate:g} a second, {name}", found, idle)
        say(f"  the sender was {found.late_ms:.1f} ms late at most")

    # ---- Pictures --------------------------------------------------------------------------

    def pictures(self, fleet, rate, idle, note=""):
        say(f"{rate:g} recordings a second{note} for {self.given.picture_seconds} s")
        name = f"{rate:g}{note}"
        prefix = f"picture-{len(self.picture_rows)}"
        found = trial.play(fleet, prefix, rate, self.given.picture_seconds, PICTURES)
        seen = sorted(one.picture_ms for one in found.fates if one.picture_ms)
        begun = (len(seen) - 1) / (seen[-1] - seen[0]) * 1000 if len(seen) > 1 else 0
        self.picture_rows.append([
            name, between(found.fates, "taken_ms", 1000, 2)[0], between(found.fates, "joined_ms", 1000, 2)[0],
            *between(found.fates, "picture_ms", 1000, 2), f"{begun:.1f}", found.most_waiting,
            found.waiting_at_end, self.look_at(name + " recordings a second", found, "ended")])
        self.add_costs(f"recorded, {rate:g} a second{note}", found, idle)

    # ---- All of it -------------------------------------------------------------------------

    def run(self):
        given = self.given
        with trial.running(1, **ANY_LOAD) as fleet:
            idle = self.idle(fleet, "one server", given.idle_seconds)
            self.queue(fleet, "one server", idle)
            for rate in given.pictures:
                self.pictures(fleet, rate, idle)
        if not given.quick and self.others > 100 * ROOM_SHARE / 2:
            say("what waits for room isn't measured: others take it")
        elif not given.quick:
            with trial.running(1, busy_share=ROOM_SHARE) as fleet:
                note = f", {100 * ROOM_SHARE:.0f} % of the processors at most"
                self.pictures(fleet, max(given.pictures), idle, note)
        with trial.running(3, **ANY_LOAD) as fleet:
            idle = self.idle(fleet, "three servers", given.idle_seconds / 2)
            self.queue(fleet, "three servers", idle)

    def tell(self):
        print(f"{len(os.sched_getaffinity(0))} processors of {platform.machine()}, "
              f"Linux {platform.release()}, {nats_servers.version()}, {trial.WORKERS} workers. Of the "
              f"processors {self.others:.0f} % were busy while the fleet was at rest.")
        table(f"From sent on, ms; {self.given.seconds:g} s:",
              ["servers", "jobs a second", "until it is", "p50", "p99", "most", "waited at most",
               "ended once"], self.queue_rows)
        table(f"From sent on, s; jobs of {JOB_S} s, sent for {self.given.picture_seconds:g} s:",
              ["jobs a second", "`taken`, p50", "joined, p50", "first picture, p50", "p99", "most",
               "begun a second", "waited at most", "when the last was sent", "ended once"], self.picture_rows)
        table("At rest, each:",
              ["", "processor", "memory, kB", "descriptors", "threads", "messages a second"], self.idle_rows)
        table("A job costs:",
              ["", "workers, ms", "servers, ms", "messages", "its recorder, ms", "machine busy"],
              self.cost_rows)
        for one in self.faults:
            print(f"\n**{one}**")


def numbers(text):
    return [float(one) for one in text.split(",")]


def options():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rate", type=float, default=200,
                        help="jobs a second through the queue (%(default)s)")
    parser.add_argument("--seconds", type=float, help="for how long (60)")
    parser.add_argument("--pictures", type=numbers, help="recordings a second, by commas (1,5,10,20,40)")
    parser.add_argument("--quick", action="store_true", help="within a minute: whether it works at all")
    given = parser.parse_args()
    given.seconds = given.seconds or (5 if given.quick else 60)
    given.pictures = given.pictures or ([1, 5] if given.quick else [1, 5, 10, 20, 40])
    given.picture_seconds = 4 if given.quick else 12
    given.idle_seconds = 4 if given.quick else 30
    return given


def end(*_):
    """By what ends what was started, too, whoever asks again meanwhile."""
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    sys.exit(1)


def main():
    signal.signal(signal.SIGTERM, end)
    measurement = Measurement(options())
    measurement.run()
    measurement.tell()
    return 1 if measurement.faults else 0


if __name__ == "__main__":
    sys.exit(main())
