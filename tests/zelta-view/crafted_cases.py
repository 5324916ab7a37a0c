# SPDX-License-Identifier: Apache-2.0
"""A browser looks at folders that were made by hand."""
import os

from crafted import Crafted, encode
from viewing import Viewer, require

# When the picture is from that is shown after a step of a fifth of a second.
PICTURE = """new Promise(shown => {
  const { video } = tracks[0].active;
  video.requestVideoFrameCallback((_, frame) => shown(frame.mediaTime));
  clock.at += 200;
})"""
PLAYING = "document.body.dataset.state === 'playing'"


def faultless(page):
    require(page.evaluate("faults") == [], page.evaluate("faults"))


def sparse_key_frames(open_page, _):
    """Files without an index whose key frames are a minute apart, and whose bytes say nothing of time."""
    results = {}
    for codec, ending in [("h264", "mp4"), ("vp8", "webm")]:
        with Crafted() as folder:
            folder.film(f"1_a.{ending}", 1, seconds=180, codec=codec, source="uneven", gop_s=60, cut=True)
            with Viewer(folder.path) as viewer:
                for s in [118, 61, 150, 1]:
                    page = open_page(viewer.url + f"#t={s}")
                    page.wait_for("document.body.dataset.state === 'paused'")
                    shown, begin = page.evaluate(PICTURE), page.evaluate("tracks[0].active.source.beginS")
                    require(abs(shown - s - 0.2) < 0.15, f"shown is {shown} s, {s} s is wanted")
                    results[f"{codec} {s}"] = round(begin)
                    page.evaluate("seek(session.begin_ms + 170000)")
                    page.wait_for("tracks[0].active.isReady && Math.abs(tracks[0].active.video.currentTime - 170) < 0.2")
                    page.evaluate(f"seek(session.begin_ms + {s * 1000}); setPlaying(true)")
                    page.wait_for(f"{PLAYING} && tracks[0].active.video.currentTime > {s} + 1 && clock.now() - session.begin_ms < {s}000 + 5000")
                    faultless(page)
                    page.close()
    return results


def end_that_nobody_told(open_page, _):
    """A recorder that was killed before it told of an end: what is there is played to its end."""
    with Crafted() as folder:
        folder.film("1_a.mp4", 1, seconds=4, end_ms=0, cut=True)
        folder.film("2_b.webm", 2, seconds=6, end_ms=4500, cut=True, codec="vp8")
        with Viewer(folder.path) as viewer:
            page = open_page(viewer.url)
            page.wait_for("document.body.dataset.state === 'paused'")
            page.evaluate("setPlaying(true)")
            page.wait_for("document.body.dataset.state === 'ended'")
            ends = page.evaluate("tracks.map(track => track.active.video.currentTime)")
            shown = page.evaluate("session.end_ms - session.begin_ms")
            require(ends[0] > 3.8 and ends[1] > 5.8 and 5900 <= shown <= 6200, f"{ends} of {shown} ms")
            faultless(page)
            page.close()


def completed_while_watched(open_page, _):
    """The index of a file comes before its manifest tells that it is complete."""
    with Crafted() as folder:
        path = folder.film("1_a.mp4", 1, seconds=8, cut=True)
        os.utime(path)
        with Viewer(folder.path) as viewer:
            page = open_page(viewer.url)
            page.wait_for(f"{PLAYING} && tracks[0].active.appended && following")
            with open(path, "ab") as file:
                file.write(b"\0\0\0\x08moov")
            page.wait_for("tracks[0].active.source && tracks[0].active.source.completed")
            faultless(page)
            encode(f"{folder.path}/whole.mp4", seconds=8)
            os.rename(f"{folder.path}/whole.mp4", path)
            # One that is opened now has no description before its media.
            page.evaluate("tracks[0].active.open(tracks[0].active.file, session.begin_ms + 3000)")
            folder.close("1_a.mp4", "user left")
            page.wait_for("!session.live && tracks[0].active.file && !tracks[0].active.appended && tracks[0].active.isReady")
            faultless(page)
            page.close()


def back_again(open_page, _):
    """Everybody leaves, and somebody comes back: who follows is taken along, and who paused isn't."""
    with Crafted() as folder:
        os.utime(folder.film("1_a.mp4", 2, seconds=8, cut=True))
        with Viewer(folder.path) as viewer:
            page = open_page(viewer.url)
            page.wait_for(f"{PLAYING} && following && session.live")
            encode(f"{folder.path}/whole.mp4", seconds=8)
            os.rename(f"{folder.path}/whole.mp4", f"{folder.path}/1_a.mp4")
            folder.close("1_a.mp4", "user left")
            page.wait_for("document.body.dataset.state === 'ended' && !session.live && following")
            # Of another user, who had been there before the first: the list of users begins with them.
            folder.film("1_0.mp4", 1, seconds=1, begin_ms=-2000)
            os.utime(folder.film("1_b.mp4", 1, seconds=20, begin_ms=13000, cut=True))
            page.wait_for(f"session.live && {PLAYING} && tracks.some(track => track.user.uid === 1 && track.active.plays)")
            names = page.evaluate("Object.fromEntries(tracks.map(track => [track.user.uid, track.files.map(file => file.name)]))")
            require(names == {"2": ["1_a.mp4"], "1": ["1_0.mp4", "1_b.mp4"]}, f"files of users: {names}")
            page.evaluate("document.getElementById('play').click()")
            at = page.evaluate("clock.now()")
            require(page.evaluate("!following && document.getElementById('live').getAttribute('aria-pressed') === 'false'"),
                    "it follows while it is paused")
            folder.files["1_b.mp4"]["last_utc_ms"] += 40000
            folder.write()
            page.wait_for("session.end_ms - clock.now() > 40000")
            require(abs(page.evaluate("clock.now()") - at) < 500, "who paused is taken to the end")
            faultless(page)
            page.close()


def crowd(open_page, _):
    """More users than a browser opens connections, each with more media than it takes at once."""
    with Crafted() as folder:
        first = folder.film("1_a.mp4", 1, seconds=20, source="noise", bitrate="7M", fps=25, size="320x180", gop_s=2)
        size = os.path.getsize(first)
        for uid in range(2, 11):
            path = folder.add(f"{uid}_a.mp4", uid, 0, 20000)
            os.remove(path)
            os.link(first, path)
        with Viewer(folder.path) as viewer:
            page = open_page(viewer.url)
            begun = page.evaluate("performance.now()")
            page.wait_for("document.body.dataset.state === 'paused' && tracks.length === 10 && "
                          "tracks.every(track => track.active.isReady)", 30)
            ready_ms = page.evaluate("performance.now()") - begun
            page.evaluate("window.holds = 0; setInterval(() => { holds += clock.held; }, 50); setPlaying(true)")
            page.wait_for("clock.now() > session.begin_ms + 6000", 60)
            missing = page.evaluate("tracks.filter(track => Math.abs(track.active.atMs - clock.now()) > 1000).length")
            require(missing == 0, f"{missing} of 10 users stand still")
            page.evaluate("seek(session.begin_ms + 15000)")
            page.wait_for(f"{PLAYING} && clock.now() > session.begin_ms + 17000 && "
                          "tracks.every(track => Math.abs(track.active.atMs - clock.now()) < 1000)", 40)
            held_ms = page.evaluate("holds * 50")
            faultless(page)
            page.close()
    return {"bytes": size, "ready_ms": round(ready_ms), "held_ms": held_ms}


CASES = [sparse_key_frames, end_that_nobody_told, completed_while_watched, back_again, crowd]
