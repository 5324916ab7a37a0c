#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Kills recorders and applications at random moments, and looks at what is left.

A farm of engines records marked media with the real recorder. Recorders get SIGKILL, SIGSEGV, or
SIGSTOP for 5 s; applications get SIGKILL. Every stretch must play, a kill may cost one fragment,
the application must be told of exactly what happened, and nothing may be left over. Every second
session takes frames instead of files: the engine must count what the application gets, over all
recorders of a session, and sound may have a gap only where a recorder was hit. Half of the sessions
record into one folder."""

import argparse
import collections
import concurrent.futures
import contextlib
import json
import os
import pathlib
import random
import select
import signal
import statistics
import sys
import tempfile
import threading
import time

from farm import ROOT, STOP_S, Farm, size_of

sys.path.insert(0, str(ROOT / "scripts/media"))
import marks  # noqa: E402  pylint: disable=wrong-import-position

# A fragment; what was captured and not yet written comes on top.
FRAGMENT_MS = 200
IN_FLIGHT_MS = 350
COMPLETE_S = 2.0
RECOVERIES = 3
# A death so short before its session leaves may go unseen.
SEEN_MS = 100


def now_ms():
    return time.time() * 1000


class Findings:
    def __init__(self):
        self.lock = threading.Lock()
        self.wrong = []
        self.losses_ms = []
        self.stretches = 0
        self.short = 0
        self.release_ms = []
        self.told_ms = []
        self.completion_s = []
        self.frames = 0
        self.jumps = 0

    def wrong_if(self, bad, text):
        if bad:
            with self.lock:
                self.wrong.append(text)


def playable_ms(path):
    """How long the file plays; None when it doesn't, or not without an error."""
    text = marks.run("ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                     str(path)).strip()
    errors = marks.run("ffmpeg", "-v", "error", "-i", str(path), "-f", "null", "-")
    try:
        return None if errors else float(text) * 1000
    except ValueError:
        return None


def check_files(session, findings):
    files = session.files()
    if files is None:
        # A recorder that was killed before it had written anything has lost nothing.
        findings.wrong_if(not session.kills, f"{session.folder}: no manifest")
        return
    names = [file["name"] for file in files]
    findings.wrong_if(len(set(names)) < len(names), f"{session.folder}: in two manifests: {names}")
    left_ms = session.left_ms()
    stretches = session.stretches_a_life(files)
    findings.wrong_if(max(stretches) > 1, f"{session.folder}: stretches a recorder: {stretches}")
    for age in session.lives_without_a_file(files):
        # Killed before its first fragment; its successor has removed the empty file.
        with findings.lock:
            findings.short += 1
            findings.losses_ms.append(age)
        findings.wrong_if(age > FRAGMENT_MS + IN_FLIGHT_MS,
                          f"{session.folder}: nothing of a recorder that had a user for {age:.0f} ms")
    for file in files:
        # The last recorder of a session that was given up, or that was killed while the session
        # left, has no successor that closes its file.
        late = any(ms > left_ms - SEEN_MS for ms, _ in session.kills)
        given_up = file["closed"] == "" and (session.values("error") or late)
        died = file["closed"] == "recorder died" or given_up
        # Nothing is captured once a session has left.
        after = [min(ms, left_ms) for ms, _ in session.kills if ms >= file["first_utc_ms"]]
        killed_ms = min(after, default=None) if died else None
        findings.wrong_if(died and killed_ms is None, f"{file['name']}: died of nothing")
        findings.wrong_if(file["closed"] == "" and not given_up, f"{session.folder}{file['name']}: never closed")
        begin_ms = file["first_utc_ms"]
        age = killed_ms - begin_ms - session.stopped_ms(begin_ms, killed_ms) if killed_ms else 0
        length = playable_ms(pathlib.Path(session.folder, file["name"]))
        with findings.lock:
            findings.stretches += 1
        if killed_ms is None:
            findings.wrong_if(length is None, f"{session.folder}{file['name']}: doesn't play")
            continue
        if length is None and age <= FRAGMENT_MS + IN_FLIGHT_MS:
            # Younger than its first fragment.
            with findings.lock:
                findings.short += 1
                findings.losses_ms.append(age)
            continue
        findings.wrong_if(length is None,
                          f"{session.folder}{file['name']}: doesn't play, {age:.0f} ms old")
        if length is not None:
            with findings.lock:
                findings.losses_ms.append(age - length)
            findings.wrong_if(age - length > FRAGMENT_MS + IN_FLIGHT_MS,
                              f"{session.folder}{file['name']}: lost {age - length:.0f} ms")


def check_events(session, findings):
    told_of = [one for one in session.events
               if (one["event"], one["value"]) in (("warning", 108), ("error", 3), ("leaving", 0))]
    left = [one["event"] for one in told_of].index("leaving")
    warnings = session.values("warning").count(108)
    before = [one["event"] for one in told_of[:left]]
    # Once a session leaves, its recorder isn't relaunched any more: a death is an error at once,
    # or isn't seen.
    after = [one["event"] for one in told_of[left + 1:]]
    deaths = [ms for ms, number in session.kills if number != signal.SIGSTOP]
    late = sum(1 for ms in deaths if ms > session.left_ms() - SEEN_MS)
    story = f"{session.folder}: {len(deaths)} deaths, {late} of them while it left: {told_of}"
    findings.wrong_if(not len(deaths) - late <= len(before) + len(after) <= len(deaths), story)
    findings.wrong_if(warnings > RECOVERIES or len(after) > min(late, 1), story)
    findings.wrong_if("error" in before and before != ["warning"] * RECOVERIES + ["error"], story)
    heard = [one["utc_ms"] for one in told_of[:left]]
    with findings.lock:
        findings.release_ms += session.values("ended")
        if len(heard) == len(deaths):
            findings.told_ms += [after - before for before, after in zip(deaths, heard)]


def check_frames(session, findings):
    if not session.values("frames"):
        return
    frames, wrong, jumps = (session.values(name)[0] for name in ("frames", "miscounted", "jumps"))
    findings.wrong_if(wrong, f"{session.folder}: {wrong} of {frames} frames miscounted")
    findings.wrong_if(jumps > len(session.kills),
                      f"{session.folder}: {jumps} gaps of {len(session.kills)} hits")
    with findings.lock:
        findings.frames += frames
        findings.jumps += jumps


def check(session, findings):
    try:
        check_events(session, findings)
        check_frames(session, findings)
        check_files(session, findings)
    except Exception as error:  # pylint: disable=broad-except  # one session must not hide others
        findings.wrong_if(True, f"{session.folder}: {error!r}")


def kill_recorders(work, rounds, engines, seconds, findings):
    farm = Farm(work, f"dir:{work}/channels", engines, seconds, frames="half")
    counts, sizes, conts = collections.Counter(), [], []
    zombies_since = None
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        jobs = []
        while sum(counts.values()) < rounds:
            time.sleep(0.02)  # the pace of the torture, not a synchronisation
            findings.wrong_if(farm.process.poll() is not None, "the application ended")
            if farm.process.poll() is not None:
                break
            for due, pid in [one for one in conts if one[0] <= time.monotonic()]:
                conts.remove((due, pid))
                try:
                    os.kill(pid, signal.SIGCONT)
                except ProcessLookupError:
                    pass
            children, zombies = farm.children()
            zombies_since = (zombies_since or time.monotonic()) if zombies else None
            if zombies_since and time.monotonic() - zombies_since > 2:
                findings.wrong_if(True, "a zombie for 2 s")
                zombies_since = None
            with farm.lock:
                due = [one for one in farm.sessions.values()
                       if one.kill_at and one.kill_at <= time.monotonic()
                       and one.channel in children]
                for session in due:
                    number = random.choices([signal.SIGKILL, signal.SIGSEGV, signal.SIGSTOP],
                                            [14, 5, 1])[0]
                    session.kill_at = None
                    session.kills.append((now_ms(), number))
                    pid = children[session.channel]
                    os.kill(pid, number)
                    if number == signal.SIGSTOP:
                        conts.append((time.monotonic() + STOP_S, pid))
                    counts[number.name] += 1
                ended, farm.ended = farm.ended, []
            jobs += [pool.submit(check, one, findings) for one in ended]
            if not sizes or time.monotonic() - sizes[-1][0] > 2:
                sizes.append((time.monotonic(), *size_of(farm.process.pid)))
        for _, pid in conts:
            try:
                os.kill(pid, signal.SIGCONT)
            except ProcessLookupError:
                pass
        status = farm.finish()
        findings.wrong_if(status != 0, f"the application ended with {status}")
        findings.wrong_if(farm.strange, f"the application said {farm.strange}")
        jobs += [pool.submit(check, one, findings) for one in farm.ended]
        concurrent.futures.wait(jobs)
    return counts, sizes, len(jobs)


def kill_applications(work, rounds, findings):
    for _ in range(rounds):
        farm = Farm(work, f"dir:{work}/channels", 3, 60)
        findings.wrong_if(not farm.wait_joined(3), "three engines that don't join")
        time.sleep(random.uniform(0.3, 2.5))
        children, _ = farm.children()
        findings.wrong_if(len(children) != 3, f"{len(children)} recorders of 3")
        ends = [os.pidfd_open(pid) for pid in children.values()]
        farm.process.kill()
        killed = time.monotonic()
        for end in ends:
            waiting = max(0.0, killed + 10 - time.monotonic())
            done = select.select([end], [], [], waiting)[0]
            findings.wrong_if(not done, "a recorder that outlived its application by 10 s")
            os.close(end)
        took = time.monotonic() - killed
        findings.completion_s.append(took)
        findings.wrong_if(took > COMPLETE_S, f"files complete only after {took:.1f} s")
        farm.process.wait()
        farm.reader.join()
        for session in farm.sessions.values():
            check_files(session, findings)


def share(values, part):
    return sorted(values)[int(part * (len(values) - 1))] if values else 0


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("rounds", type=int, nargs="?", default=1000)
    arguments.add_argument("--engines", type=int, default=6)
    arguments.add_argument("--seconds", type=int, default=9, help="a session at most")
    arguments.add_argument("--application-rounds", type=int, default=None,
                           help="kills of applications with three engines; a twentieth if not given")
    arguments.add_argument("--seed", type=int, default=None)
    arguments.add_argument("--keep", help="an empty folder in which all that was written stays")
    given = arguments.parse_args()
    seed = given.seed if given.seed is not None else random.randrange(1 << 30)
    random.seed(seed)
    app_rounds = given.rounds // 20 if given.application_rounds is None else given.application_rounds
    findings = Findings()
    with contextlib.ExitStack() as stack:
        work = given.keep or stack.enter_context(tempfile.TemporaryDirectory(prefix="zelta-torture-"))
        channel = pathlib.Path(work, "channels/torture")
        channel.mkdir(parents=True)
        media = marks.make(work, 60, "h264", "opus", "320x180", 15)
        os.rename(media, channel / "1.mkv")
        started = time.monotonic()
        counts, sizes, sessions = kill_recorders(work, given.rounds, given.engines, given.seconds,
                                                 findings)
        kill_applications(work, app_rounds, findings)
        stray = marks.run("pgrep", "-f", f"{work}/").split()
        findings.wrong_if([pid for pid in stray if int(pid) != os.getpid()], "stray processes")
    third = max(1, len(sizes) // 3)
    print(f"seed {seed}, {time.monotonic() - started:.0f} s, {sessions} sessions of "
          f"{given.engines} engines in one application\n")
    print("| | |\n|---|---|")
    print("| recorders: " + ", ".join(f"{name} {count}" for name, count in sorted(counts.items())) +
          f" | {findings.stretches} stretches, {findings.short} younger than a fragment |")
    print(f"| lost a kill | median {statistics.median(findings.losses_ms or [0]):.0f} ms, 99 % "
          f"{share(findings.losses_ms, 0.99):.0f} ms, most {max(findings.losses_ms or [0]):.0f} ms |")
    print(f"| delivered | {findings.frames} frames; gaps in sound: {findings.jumps} |")
    print(f"| from a death to its warning or error | median "
          f"{statistics.median(findings.told_ms or [0]):.0f} ms, most "
          f"{max(findings.told_ms or [0]):.0f} ms |")
    print(f"| release of an engine | median {statistics.median(findings.release_ms or [0]):.0f} ms, "
          f"most {max(findings.release_ms or [0])} ms |")
    print(f"| applications killed: {app_rounds} of 3 engines | files complete after "
          f"{statistics.median(findings.completion_s or [0]):.2f} s, at most "
          f"{max(findings.completion_s or [0]):.2f} s |")
    for column, name in [(1, "memory, kB"), (2, "descriptors"), (3, "threads")]:
        early = statistics.median(one[column] for one in sizes[third:2 * third] or sizes)
        late = statistics.median(one[column] for one in sizes[2 * third:] or sizes)
        print(f"| application's {name} | second third {early:.0f}, last third {late:.0f} |")
    print(f"| wrong | {len(findings.wrong)} |")
    for text in findings.wrong[:40]:
        print("  " + text)
    return 1 if findings.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
