# SPDX-License-Identifier: Apache-2.0
"""Lays a session of four users with marks, and measures where they are found again and how fast it was.

Users come late, change files and picture sizes, and are away for a while, so that every mark says
whether its file stands where the manifest put it.
"""
import argparse
import json
import os
import resource
import subprocess
import sys
import tempfile
import time

import marks

ZERO_MS = 1764000000000
BOUND_MS = 40
SPEED = 5
# Two of these are to be enough.
PROCESSORS = 2


def cut(source, folder, name, first, last, size):
    """A file of `source` from one second to another; what begins later is encoded again, to be exact."""
    how = ["-c", "copy", "-to", str(last)]
    if first or size != "640x360":
        span = f"start={first}:end={last}"
        how = ["-vf", f"trim={span},setpts=PTS-STARTPTS,scale={size.replace('x', ':')}", "-af",
               f"atrim={span},asetpts=PTS-STARTPTS", "-c:v", "libx264", "-preset", "ultrafast", "-g", "25",
               "-c:a", "libopus"]
    print(marks.run("ffmpeg", "-v", "error", "-y", "-i", source, *how, "-movflags", "+frag_keyframe",
                    f"{folder}/{name}"), end="")


def session(folder, source, seconds):
    """A recording: user 1 is there all the time, 2 comes late, 3 has two files, 4 another size in between."""
    half = seconds // 2
    plan = [(1, 0, seconds, "640x360"), (2, half // 2, seconds, "640x360"), (3, 0, half, "640x360"), (3, half, seconds, "640x360"),
            (4, 0, half, "640x360"), (4, half + 4, seconds, "320x180")]
    files = []
    for number, (uid, first, last, size) in enumerate(plan):
        name = f"{uid}_{number}.mp4"
        cut(source, folder, name, first, last, size)
        width, height = map(int, size.split("x"))
        files.append({"name": name, "channel_id": "marks", "uid": uid, "kind": "audio_video",
                      "video_codec": "h264", "audio_codec": "opus", "width": width, "height": height,
                      "first_utc_ms": ZERO_MS + first * 1000, "last_utc_ms": ZERO_MS + last * 1000,
                      "closed": "user left"})
    with open(f"{folder}/recording.json", "w", encoding="utf-8") as manifest:
        json.dump({"version": 1, "channel_id": "marks", "files": files}, manifest)


def worst_ms(found, seconds):
    """The largest distance of a mark from its second; None when one is missing."""
    worst = 0.0
    for second in range(marks.FIRST_MARK_S, seconds):
        near = [1000 * abs(at - second) for at in found if abs(at - second) < 0.4]
        if not near:
            return None
        worst = max(worst, min(near))
    return worst


def lay(tool, folder, film, *more):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    began = time.monotonic()
    done = subprocess.run([tool, folder, "-o", film, *more], check=False, stderr=subprocess.DEVNULL,
                          timeout=3600)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return done.returncode, time.monotonic() - began, cpu


def row(name, tool, folder, film, seconds, *more):
    status, wall, cpu = lay(tool, folder, film, *more)
    picture = worst_ms(marks.flashes(film), seconds) if "--audio-only" not in more else 0
    sound = worst_ms(marks.beeps(film), seconds)
    length = marks.duration(film) if status == 0 else 0
    good = (status == 0 and picture is not None and sound is not None and picture <= BOUND_MS
            and sound <= BOUND_MS and cpu / PROCESSORS * SPEED <= seconds)
    words = ["-" if ms is None else f"{ms:.1f}" for ms in (picture, sound)]
    print(f"{name:14} {status:6} {length:8.1f} {words[0]:>10} {words[1]:>8} {wall:7.1f} {cpu:7.1f} "
          f"{seconds / wall:7.1f} {seconds * PROCESSORS / cpu:9.1f}  {'ok' if good else 'BAD'}", flush=True)
    return good


def main():
    parse = argparse.ArgumentParser(description=__doc__)
    parse.add_argument("--seconds", type=int, default=600)
    parse.add_argument("--tool", default="build/release/bin/zelta-lay")
    asked = parse.parse_args()
    if asked.seconds < 20 or asked.seconds % 4:
        parse.error(f"--seconds {asked.seconds} should be a multiple of 4, 20 or more")
    with tempfile.TemporaryDirectory() as scratch:
        folder = f"{scratch}/session"
        os.mkdir(folder)
        session(folder, marks.make(scratch, asked.seconds, "h264", "opus"), asked.seconds)
        print(f"{'':14} {'status':>6} {'film s':>8} {'picture ms':>10} {'sound ms':>8} {'wall s':>7} {'CPU s':>7} "
              f"{'speed':>7} {'by 2 CPUs':>9}")
        good = [row(name, asked.tool, folder, f"{scratch}/{name}.mp4", asked.seconds, *more)
                for name, more in (("grid", ()), ("speaker", ("--layout", "speaker", "--names", "--clock")),
                                   ("audio-only", ("--audio-only",)), ("track", ("--track", "3")),
                                   ("track-encoded", ("--track", "1", "--names")))]
    sys.exit(0 if all(good) else 1)


if __name__ == "__main__":
    main()
