# SPDX-License-Identifier: Apache-2.0
"""Lays a session of four users with marks, and measures where they are found again and how fast it was; then
a real recording whose recorder is killed twice.

Users come late, change files and picture sizes, and are away for a while, so that every mark says
whether its file stands where the manifest put it. Each has a tile and a tone of their own, in which all
of their marks are to be found, and no others.
"""
import argparse
import json
import os
import resource
import subprocess
import sys
import tempfile
import time

import lay_killed
import marks

ZERO_MS = 1764000000000
BOUND_MS = 40
LENGTH_S = 0.1
SPEED = 5
# Two of these are to be enough.
PROCESSORS = 2
TONES = {1: 1000, 2: 1700, 3: 2900, 4: 4900}
# In the order in which users come: the second is last.
TILES = {1: "640:360:0:0", 3: "640:360:640:0", 4: "640:360:0:360", 2: "640:360:640:360"}
SPEAKER = "1280:576:0:0"


def cut(source, path, first, last, size):
    """A part of `source`, and where in time its own zero is, in ms; what begins later is encoded again."""
    how = ["-c", "copy", "-to", str(last)]
    if first or size != "640x360":
        span = f"start={first}:end={last}"
        how = ["-vf", f"trim={span},setpts=PTS-STARTPTS,scale={size.replace('x', ':')}", "-af",
               f"atrim={span},asetpts=PTS-STARTPTS", "-c:v", "libx264", "-preset", "ultrafast", "-g", "25",
               "-c:a", "libopus"]
    print(marks.run("ffmpeg", "-v", "error", "-y", "-copyts", "-i", source, *how, path), end="")
    return first * 1000 - marks.first_picture_ms(path)


def plan(seconds):
    """Users' parts: 1 is there all the time, 2 comes late, 3 has two files, which meet in a mark, 4 is away
    and comes back smaller."""
    half = seconds // 2
    return [(1, 0, seconds, "640x360"), (2, half // 2 + 0.4, seconds, "640x360"), (3, 0, half + 0.04, "640x360"),
            (3, half + 0.04, seconds, "640x360"), (4, 0, half + 0.4, "640x360"), (4, half + 4.4, seconds, "320x180")]


def session(folder, sources, seconds):
    """Makes the recording; by how much the film's zero is before the marks', in ms."""
    files = []
    for number, (uid, first, last, size) in enumerate(plan(seconds)):
        name = f"{uid}_{number}.mp4"
        zero_ms = cut(sources[uid], f"{folder}/{name}", first, last, size)
        width, height = map(int, size.split("x"))
        files.append({"name": name, "channel_id": "marks", "uid": uid, "kind": "audio_video",
                      "video_codec": "h264", "audio_codec": "opus", "width": width, "height": height,
                      "first_utc_ms": round(ZERO_MS + zero_ms), "last_utc_ms": round(ZERO_MS + last * 1000),
                      "closed": "user left"})
    with open(f"{folder}/recording.json", "w", encoding="utf-8") as manifest:
        json.dump({"version": 1, "channel_id": "marks", "files": files}, manifest)
    return ZERO_MS - min(f["first_utc_ms"] for f in files)


def expected(users, seconds):
    """The seconds in which one of the users shows and sounds a mark."""
    return [s for s in range(marks.FIRST_MARK_S, seconds)
            if any(uid in users and first <= s + 0.05 and s < last for uid, first, last, _ in plan(seconds))]


def worst_ms(found, seconds, late_ms):
    """The largest distance of a mark from its second; None when one is missing or there is one too many."""
    if len(found) != len(seconds):
        return None
    return max(abs(1000 * (at - second) - late_ms) for at, second in zip(found, seconds))


def worst_of(distances):
    distances = list(distances)
    return None if None in distances else max(distances, default=0.0)


def lay(tool, folder, film, *more):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    began = time.monotonic()
    done = subprocess.run([tool, folder, "-o", film, *more], check=False, stderr=subprocess.DEVNULL,
                          timeout=3600)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return done.returncode, time.monotonic() - began, cpu


def row(name, tool, folder, film, seconds, late_ms, places, tones, *more):
    """`places`: where to look for whose flashes; `tones`: whose beeps to listen for."""
    status, wall, cpu = lay(tool, folder, film, *more)
    picture = worst_of(worst_ms(marks.flashes(film, place), expected(users, seconds), late_ms)
                       for place, users in places)
    sound = worst_of(worst_ms(marks.beeps(film, TONES[uid]), expected({uid}, seconds), late_ms) for uid in tones)
    length = marks.duration(film) if status == 0 else 0
    good = (status == 0 and picture is not None and sound is not None and picture <= BOUND_MS
            and sound <= BOUND_MS and abs(length - seconds) <= LENGTH_S and cpu / PROCESSORS * SPEED <= seconds)
    tell(name, status, length, picture, sound, wall, cpu, "ok" if good else "BAD")
    return good


def tell(name, status, length, picture, sound, wall, cpu, verdict):
    words = ["-" if ms is None else f"{ms:.1f}" for ms in (picture, sound)]
    print(f"{name:14} {status:6} {length:8.1f} {words[0]:>10} {words[1]:>8} {wall:7.1f} {cpu:7.1f} "
          f"{length / wall:7.1f} {length * PROCESSORS / cpu:9.1f}  {verdict}", flush=True)


def killed_rows(tool, scratch):
    """Films of a recording whose recorder was killed: all users, and one, copied. Whether they are good."""
    folder, users = lay_killed.record(scratch)
    every = [entry for files in users.values() for entry in files]
    rows = (("killed", [1, 2], {1: "640:360:0:180", 2: "640:360:640:180"}, 0.041),
            ("killed-track", [1], {1: None}, 1.001, "--track", "1"))
    good = []
    for name, uids, places, picture_step_s, *more in rows:
        film = f"{scratch}/{name}.mp4"
        status, wall, cpu = lay(tool, folder, film, *more)
        zero_ms = min(entry["first_utc_ms"] for entry in every if entry["uid"] in uids)
        end_ms = max(entry["end_ms"] for entry in every if entry["uid"] in uids)
        picture, sound, faults, length = None, None, ["not laid"], 0
        if status == 0:
            picture, sound, faults = lay_killed.look(film, users, zero_ms, places, picture_step_s)
            length = marks.duration(film)
        if abs(length - (end_ms - zero_ms) / 1000) > LENGTH_S:
            faults.append(f"not {(end_ms - zero_ms) / 1000:.1f} s long")
        if None in (picture, sound):
            faults.append("marks")
        tell(name, status, length, picture, sound, wall, cpu, "; ".join(faults) or "ok")
        good.append(not faults)
    return good


def main():
    parse = argparse.ArgumentParser(description=__doc__)
    parse.add_argument("--seconds", type=int, default=600)
    parse.add_argument("--tool", default="build/release/bin/zelta-lay")
    asked = parse.parse_args()
    if asked.seconds < 20 or asked.seconds % 4:
        parse.error(f"--seconds {asked.seconds} should be a multiple of 4, 20 or more")
    grid = [(place, {uid}) for uid, place in TILES.items()]
    rows = (("grid", grid, TONES),
            ("speaker", [(SPEAKER, set(TONES))], TONES, "--layout", "speaker", "--names", "--clock"),
            ("audio-only", [], TONES, "--audio-only"),
            ("track", [(None, {3})], [3], "--track", "3"),
            ("track-resized", [(None, {4})], [4], "--track", "4"),
            ("track-encoded", [(None, {1})], [1], "--track", "1", "--names"))
    with tempfile.TemporaryDirectory() as scratch:
        folder = f"{scratch}/session"
        os.mkdir(folder)
        sources = {uid: marks.make(scratch, asked.seconds, "h264", "opus", tone=tone) for uid, tone in TONES.items()}
        late_ms = session(folder, sources, asked.seconds)
        print(f"{'':14} {'status':>6} {'film s':>8} {'picture ms':>10} {'sound ms':>8} {'wall s':>7} {'CPU s':>7} "
              f"{'speed':>7} {'by 2 CPUs':>9}")
        good = [row(name, asked.tool, folder, f"{scratch}/{name}.mp4", asked.seconds, late_ms, places, tones,
                    *more)
                for name, places, tones, *more in rows]
        good += killed_rows(asked.tool, scratch)
    sys.exit(0 if all(good) else 1)


if __name__ == "__main__":
    main()
