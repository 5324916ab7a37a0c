#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A browser looks at recordings by zelta-view: how far users are from each other is measured by
flashes that were recorded. Arguments: names of cases; none: all. Exit status 1 when one fails."""
import glob
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import traceback

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path += [f"{ROOT}/scripts/webrtc", f"{ROOT}/scripts/media"]

import browser as chromium  # noqa: E402
import crafted_cases  # noqa: E402
import marks  # noqa: E402
import served_cases  # noqa: E402
from viewing import BIN, Recorder, Viewer, WATCH, require  # noqa: E402

APART_MS = 50
PICTURE_MS = 1000 / marks.FPS
MARKED_S = 7
BEHIND_MS = 10000
MOMENT_MS = 100
STARTS = 3
PICTURE_LAG, PLAYER_LAG = 1, 2


def record_marked(clips):
    """A folder with these users' flashes: {uid: (video, audio)}."""
    media = tempfile.mkdtemp(prefix="zelta-view-media-")
    os.mkdir(f"{media}/room")
    made = {uid: marks.make(media, MARKED_S, *codecs) for uid, codecs in clips.items()}
    recorder = Recorder(f"dir:{media}", "--duration", str(MARKED_S + 4))
    recorder.wait_for("joined")
    for uid, path in made.items():
        shutil.copy(path, f"{media}/room/{uid}.part")
        os.rename(f"{media}/room/{uid}.part", f"{media}/room/{uid}.mkv")
    recorder.end()
    shutil.rmtree(media)
    return recorder


def expected(folder):
    """When users flash, in UTC ms, by the manifest and what stands in their files."""
    with open(f"{folder}/recording.json", encoding="utf-8") as text:
        files = json.load(text)["files"]
    return {file["uid"]: [file["first_utc_ms"] + s * 1000
                          for s in marks.flashes(f"{folder}/{file['name']}")]
            for file in files if file["video_codec"]}


def judge(watched, due, speed):
    """How far users were from each other at each flash, and from the clock, in ms that pass."""
    seen, lags = watched
    off = {}
    for uid, times in due.items():
        mine = seen.get(str(uid), [])
        require(len(mine) >= 3, f"user {uid}: {len(mine)} flashes seen")
        off[uid] = {number: (at - one) / speed for at in mine
                    for number, one in enumerate(times) if abs(at - one) < 400}
    common = set.intersection(*map(set, off.values()))
    require(len(common) >= 3, f"only flashes {common} were seen of all")
    at_once = {number: [mine[number] for mine in off.values()] for number in sorted(common)}
    apart = [round(max(one) - min(one)) for one in at_once.values()]
    return {"pictures_apart_ms": apart_ms(lags.values(), speed, PICTURE_LAG),
            "players_apart_ms": apart_ms(lags.values(), speed, PLAYER_LAG), "apart_ms": apart,
            "of_clock_ms": [round(statistics.median(one)) for one in at_once.values()]}


def apart_ms(users, speed, which):
    """How far all are from each other by the pictures of each moment: of ten moments nine are nearer."""
    moments = {}
    for number, lags in enumerate(users):
        for lag in lags:
            moment = moments.setdefault(int(lag[0] / speed / MOMENT_MS), {})
            moment.setdefault(number, []).append(lag[which] / speed)
    apart = []
    for moment in moments.values():
        if len(moment) == len(users):
            middle = [statistics.median(mine) for mine in moment.values()]
            apart.append(max(middle) - min(middle))
    require(len(apart) >= 10, f"{len(apart)} moments that show all")
    return round(statistics.quantiles(apart, n=10)[-1])


def is_in_step(result):
    """By all pictures. Flashes tell that these are where they belong in time: each is as early or late
    as the picture that shows it, and on a busy machine some are late, so the middle one counts."""
    return (result["pictures_apart_ms"] <= APART_MS
            and statistics.median(result["apart_ms"]) <= APART_MS + PICTURE_MS
            and abs(statistics.median(result["of_clock_ms"])) <= APART_MS)


def play_in_step(page, start, speed, due):
    """The page has its players say the same time, at each start. A browser without a screen shows their
    pictures off what they say, on a busy machine by up to 60 ms and by another time at each start, which
    is no page's to mend: that is let pass for two starts of three."""
    results = []
    while len(results) < STARTS:
        results.append(judge(play_and_watch(page, start, speed), due, speed))
        require(results[-1]["players_apart_ms"] <= APART_MS, f"from {start} ms at {speed}: {results}")
        if is_in_step(results[-1]):
            return results[-1]
    raise AssertionError(f"from {start} ms at {speed}: {results}")


def play_and_watch(page, start, speed=1):
    page.wait_for("['paused', 'ended', 'waiting', 'playing'].includes(document.body.dataset.state)")
    page.evaluate(f"setPlaying(false); seek(session.begin_ms + {start});")
    page.wait_for("document.body.dataset.state === 'paused'")
    page.evaluate(f"document.getElementById('speed').value = '{speed}';"
                  "document.getElementById('speed').dispatchEvent(new Event('change')); watch();"
                  "document.getElementById('play').click()")
    page.wait_for("document.body.dataset.state === 'ended'", 30)
    require(page.evaluate("faults") == [], page.evaluate("faults"))
    return page.evaluate("seen"), page.evaluate("lags")


def in_step(open_page, folder):
    due = expected(folder)
    with Viewer(folder) as viewer:
        page = open_page(viewer.url)
        results = {}
        for start, speed in [(0, 1), (2600, 2)]:
            results[f"from {start} ms at {speed}"] = play_in_step(page, start, speed, due)
        page.wait_for("session.files.every(file => file.measured)")
        loud = page.evaluate("session.files.map(file => Math.max(...file.measured))")
        require(min(loud) > 200, f"the strip's volumes: {loud}")
        page.close()
    return results


def exported(open_page, folder):
    done = subprocess.run([f"{BIN}/zelta-view", folder, "--export", "--no-cache"],
                          capture_output=True, text=True, timeout=60, check=False)
    require(done.returncode == 0, done.stderr)
    page = open_page(f"file://{folder}/index.html#t=0:01.6")
    page.wait_for("document.body.dataset.state === 'paused'")
    at = page.evaluate("clock.now() - session.begin_ms")
    require(at == 1600, f"the link leads to {at} ms")
    # Nobody may look at pictures of files; where players say that they are has been measured above.
    page.evaluate("document.getElementById('play').click()")
    page.wait_for("clock.now() > session.begin_ms + 4000 && document.body.dataset.state === 'playing'")
    result = page.evaluate("tracks.map(track => Math.round(track.active.atMs - clock.now()))")
    require(page.evaluate("faults") == [], page.evaluate("faults"))
    require(page.evaluate("session.files.every(file => file.measured.length > 20)"), "no volumes")
    page.close()
    require(max(map(abs, result)) <= APART_MS, result)
    return {"off_ms": result}


def cut_off(open_page, folder):
    """What a recorder that was killed leaves: files without an index, of which nobody says the end."""
    for path in glob.glob(f"{folder}/*"):
        os.utime(path, (1, 1))
    with Viewer(folder) as viewer:
        page = open_page(viewer.url + "#t=0.5")
        page.wait_for("document.body.dataset.state === 'paused'")
        require(page.evaluate("!session.live && tracks.every(track => track.active.appended)"),
                "files without an index aren't appended")
        page.evaluate("document.getElementById('play').click()")
        page.wait_for("document.body.dataset.state === 'ended'")
        at = page.evaluate("tracks.map(track => track.active.video.currentTime)")
        require(min(at) > 1.5, f"users stopped at {at} s")
        require(page.evaluate("faults") == [], page.evaluate("faults"))
        page.close()


def live(open_page, _):
    """Users who are being recorded, in MP4 and in WebM."""
    results = {}
    for video in ["h264", "vp8"]:
        with Recorder(f"test:users=2,video={video},audio=opus,size=320x180") as recorder:
            recorder.wait_for("first video", 2)
            with Viewer(recorder.folder()) as viewer:
                page = open_page(viewer.url)
                page.wait_for("document.body.dataset.state === 'playing'")
                page.wait_for("session.live && tracks.length === 2 && clock.now() > session.begin_ms + 3000 &&"
                              "tracks.every(track => track.active.video.currentTime > 3)", 30)
                behind = page.evaluate("Date.now() - clock.now()")
                off = page.evaluate("tracks.map(track => track.active.atMs - clock.now())")
                require(0 < behind < BEHIND_MS, f"{behind} ms behind")
                require(max(map(abs, off)) <= APART_MS, f"off the clock by {off} ms")
                cut = tempfile.mkdtemp(prefix="zelta-view-cut-")
                shutil.copytree(recorder.folder(), cut, dirs_exist_ok=True)
                recorder.process.terminate()
                recorder.end()
                # The files that are complete now take over where the others were.
                page.wait_for("!session.live && tracks.every(track => !track.active.appended)", 20)
                page.wait_for("document.body.dataset.state === 'ended'", 20)
                require(page.evaluate("faults") == [], page.evaluate("faults"))
                page.close()
                cut_off(open_page, cut)
                shutil.rmtree(cut)
                results[video] = {"behind_ms": round(behind), "off_ms": [round(one) for one in off]}
    return results


CASES = [in_step, exported, live, *served_cases.CASES, *crafted_cases.CASES]


def main():
    wanted = sys.argv[1:]
    failed = 0
    recorder = record_marked({1: ("h264", "opus"), 2: ("vp8", "opus"), 3: ("h264", "opus")})
    with recorder, chromium.Browser() as shell:
        for case in CASES:
            if wanted and case.__name__ not in wanted:
                continue
            begun = time.monotonic()
            try:
                result = case(lambda url: shell.open(url, WATCH), recorder.folder())
                print(f"ok {case.__name__} {time.monotonic() - begun:.1f} s {result}", flush=True)
            except Exception:  # pylint: disable=broad-except
                failed += 1
                traceback.print_exc()
                print(f"FAILED {case.__name__}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
