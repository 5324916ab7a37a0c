#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Records for a long time and at a large size, and watches what the processes need.

Three parts: an application with engines that record and one that takes frames, for MINUTES, with
memory, descriptors and threads looked at every few seconds; 64 users in one channel; and an
application that stops reading, which may cost the recorder a bounded queue and nothing else."""

import argparse
import json
import os
import pathlib
import signal
import statistics
import sys
import tempfile
import time

from farm import Farm, size_of

# What the last third may need more than the second: what an allocator keeps for later.
GROWTH_KB = 2048
GROWTH_SHARE = 0.05
# The queue for pictures, a pipe, and what two pictures in the making need.
STALL_KB = (16 + 1 + 16) * 1024
USERS = 64

failures = []


def judge(good):
    failures.extend([] if good else [1])
    return "yes" if good else "**no**"


def thirds(samples, column):
    third = max(1, len(samples) // 3)
    return (statistics.median(one[column] for one in samples[third:2 * third] or samples),
            statistics.median(one[column] for one in samples[2 * third:] or samples))


def row_of(name, samples):
    cells = [name]
    good = True
    for column in range(3):
        early, late = thirds(samples, column)
        cells.append(f"{early:.0f}, then {late:.0f}")
        slack = max(GROWTH_KB, early * GROWTH_SHARE) if column == 0 else 0
        good = good and late <= early + slack
    return "| " + " | ".join(cells) + f" | {judge(good)} |"


def soak(work, minutes, engines):
    seconds = int(minutes * 60)
    server = "test:users=2,video=h264,audio=opus,size=320x180,fps=15"
    files = Farm(work, server, engines, seconds + 60)
    frames = Farm(work, server, 1, seconds + 60, frames="frames")
    good = files.wait_joined(engines) and frames.wait_joined(1)
    samples = {}
    end = time.monotonic() + seconds
    while good and time.monotonic() < end:
        for name, farm in [("files", files), ("frames", frames)]:
            samples.setdefault(f"application of {name}", []).append(size_of(farm.process.pid))
            for number, pid in enumerate(sorted(farm.children()[0].values())):
                samples.setdefault(f"recorder of {name} {number + 1}", []).append(size_of(pid))
        time.sleep(min(5, seconds / 30))
    statuses = [files.finish(), frames.finish()]
    print(f"\n## {minutes} minutes, {engines} engines with files and one with frames, two users each\n")
    print("| process | memory, kB | descriptors | threads | flat |\n|---|---|---|---|---|")
    for name, taken in samples.items():
        print(row_of(name, taken))
    broken = [one for farm in (files, frames) for session in farm.ended
              for one in session.events if one["event"] in ("error", "warning")]
    print(f"\nJoined, without a warning or an error, ended with 0: "
          f"{judge(good and not broken and statuses == [0, 0])}")


def crowd(work):
    farm = Farm(work, f"test:users={USERS},video=h264,audio=opus,size=160x120,fps=5", 1, 25)
    good = farm.wait_joined(1)
    time.sleep(15)
    pids = list(farm.children()[0].values())
    sizes = size_of(pids[0]) if pids else (0, 0, 0)
    status = farm.finish()
    session = farm.ended[0]
    manifest = json.loads(pathlib.Path(session.folder, "recording.json").read_text())
    users = {one["uid"] for one in manifest["files"]}
    shortest = min((one["duration_ms"] for one in manifest["files"]), default=0)
    print(f"\n## {USERS} users in one channel\n\n| users in the manifest | shortest file, ms | "
          f"recorder: memory, kB | descriptors | threads | whole |\n|---|---|---|---|---|---|")
    whole = good and status == 0 and len(users) == USERS and shortest > 10_000
    print(f"| {len(users)} | {shortest} | {sizes[0]} | {sizes[1]} | {sizes[2]} | {judge(whole)} |")


def stall(work):
    farm = Farm(work, "test:users=2,video=h264,audio=opus,size=1280x720,fps=15", 1, 120, frames="frames")
    good = farm.wait_joined(1)
    time.sleep(5)
    pid = next(iter(farm.children()[0].values()), 0)
    before = size_of(pid)[0]
    os.kill(farm.process.pid, signal.SIGSTOP)
    most = 0
    for _ in range(100):
        time.sleep(0.1)
        most = max(most, size_of(pid)[0])
    os.kill(farm.process.pid, signal.SIGCONT)
    time.sleep(3)
    after = size_of(pid)[0]
    status = farm.finish()
    dropped = json.loads(pathlib.Path(farm.ended[0].folder, "recording.json").read_text())["dropped_frames"]
    lost = [one for session in farm.ended for one in session.events
            if one["event"] in ("error", "warning")]
    print("\n## An application that stops for 10 s, two users of 1280x720 as pictures and sound\n")
    print("| recorder's memory before, kB | at most | 3 s after | dropped | bounded |\n"
          "|---|---|---|---|---|")
    bounded = good and status == 0 and most - before <= STALL_KB and not lost
    print(f"| {before} | {most} | {after} | {dropped['pictures']} pictures, {dropped['coded']} coded, "
          f"{dropped['sound']} of sound | {judge(bounded and dropped['sound'] == 0)} |")


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("minutes", type=float, nargs="?", default=30)
    arguments.add_argument("--engines", type=int, default=4)
    arguments.add_argument("--only", choices=["soak", "crowd", "stall"])
    given = arguments.parse_args()
    with tempfile.TemporaryDirectory(prefix="zelta-soak-") as work:
        if given.only in (None, "crowd"):
            crowd(work)
        if given.only in (None, "stall"):
            stall(work)
        if given.only in (None, "soak"):
            soak(work, given.minutes, given.engines)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
