#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Browsers and other users publish by WHIP, with losses and clocks that differ, and what was
recorded is measured. See check-webrtc.sh."""
import argparse
import datetime
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path += [f"{ROOT}/{folder}" for folder in ("scripts/media", "scripts/reliability", "tests/webrtc")]

import browser as chromium  # noqa: E402
import crowd  # noqa: E402
import marks  # noqa: E402
import one_timeline  # noqa: E402
from browser_test import BIN, Recording, enter_namespace, publish  # noqa: E402
from disturbance import drop, was_busy  # noqa: E402

SYNC_LIMIT_MS = 40
LENGTH_LIMIT_MS = 100
FIRST_PICTURE_LIMIT_MS = 1000
LOSSES_PERCENT = (0, 2, 10)
# With more than this pictures may be lost.
WHOLE_UP_TO_PERCENT = 2
# At both ends of a file a mark may be cut.
EDGE_MS = 500
COST_USERS = 20
SETTLE_S = 4
TRIES = 3

# No pictures from now on; what was sent of them, once what was asked for again has come.
STOP_PICTURES = """(async () => {
  await call.peer.getSenders().find(one => one.track.kind === 'video').replaceTrack(null);
  await new Promise(go => setTimeout(go, 500));
  const sum = {framesSent: 0, nackCount: 0, pliCount: 0};
  for (const one of (await call.peer.getStats()).values()) {
    if (one.type !== 'outbound-rtp' || one.kind !== 'video') continue;
    for (const name in sum) sum[name] += one[name] ?? 0;
  }
  return sum;
})()"""


def joined_ms(recording, uid):
    """When the recorder let the user in, by its log."""
    with open(f"{recording.folder}/recording_engine.log", encoding="utf-8") as log:
        line = next(line for line in log if line.rstrip().endswith(f"user {uid} joined"))
    at = datetime.datetime.strptime(line.split()[0], "%Y-%m-%dT%H:%M:%S.%fZ")
    return at.replace(tzinfo=datetime.timezone.utc).timestamp() * 1000


class Used:
    """What the recorder's process uses, against the moment of its making."""

    def __init__(self, pid):
        self.pid = pid
        self.restart()
        self.threads, self.kb, _ = crowd.status_of(pid)

    def restart(self):
        self.begun = time.monotonic()
        self.cpu = crowd.cpu_seconds(self.pid)

    def percent(self):
        return 100 * (crowd.cpu_seconds(self.pid) - self.cpu) / (time.monotonic() - self.begun)

    def more(self):
        threads, kb, _ = crowd.status_of(self.pid)
        return threads - self.threads, kb - self.kb


def found_of(moments, first_ms, last_ms):
    """Of marks at whole seconds of UTC, how many were found, and sent."""
    sent = {at for at in range(int(first_ms // 1000), int(last_ms // 1000) + 1)
            if first_ms + EDGE_MS <= at * 1000 <= last_ms - EDGE_MS}
    return len(sent & {round(at) for at in moments}), len(sent)


def record(codec, percent, seconds):
    """One browser; the recording, what it sent, moments in ms, and processor time."""
    with Recording() as recording, chromium.Browser() as browser:
        used = Used(recording.recorder_pid())
        with drop(percent):
            page = publish(browser, recording, 7, codec)
            used.restart()
            time.sleep(seconds)
            cpu = used.percent()
            stopped_ms = time.time() * 1000
            sent = page.evaluate(STOP_PICTURES)
            left_ms = time.time() * 1000
            page.evaluate("document.getElementById('leave').click()")
            recording.wait_for("user offline", uid=7)
        recording.end()
        if was_busy(recording):
            return None
        return look_at(recording, percent, sent, stopped_ms, left_ms, cpu)


def look_at(recording, percent, sent, stopped_ms, left_ms, cpu):
    """A row's cells, and what is wrong with it."""
    files = recording.files_of(7)
    flash, beep, pictures, ends_ms, errors = [], [], 0, [], 0
    for file in files:
        path, zero_ms = recording.path(file), file["first_utc_ms"]
        if file["video_codec"]:
            flash += [zero_ms / 1000 + at for at in marks.flashes(path)]
            pictures += marks.frames(path)
        beep += [zero_ms / 1000 + begin for begin, _ in marks.tones(path)]
        ends_ms.append(zero_ms + 1000 * marks.duration(path))
        errors += marks.decode_errors(path)
    zero_ms = files[0]["first_utc_ms"]
    picture_ms = zero_ms + marks.first_picture_ms(recording.path(files[0]))
    waited = picture_ms - joined_ms(recording, 7)
    worst, mean = marks.sync_ms(flash, beep, True)
    off = ends_ms[-1] - left_ms
    flashes = found_of(flash, picture_ms, stopped_ms)
    beeps = found_of(beep, zero_ms, left_ms)
    lost = sent["framesSent"] - pictures
    whole = percent <= WHOLE_UP_TO_PERCENT
    wrong = {
        f"{len(files)} files": len(files) != 1 and whole,
        # With losses it is the handshake's, whose packets are sent again after 1, 2, 4 s.
        "first picture": waited > FIRST_PICTURE_LIMIT_MS and not percent,
        "sync": worst is None or abs(worst) > SYNC_LIMIT_MS,
        "length": abs(off) > LENGTH_LIMIT_MS,
        "flashes": flashes[0] != flashes[1] and whole,
        "beeps": beeps[0] != beeps[1],
        "pictures lost": lost > 0 and whole,
        "pictures doubled": lost < 0,
        "decode errors": errors > 0,
    }
    cells = [str(len(files)), f"{waited:.0f}", "" if worst is None else f"{worst:+.1f}",
             "" if mean is None else f"{mean:+.1f}", f"{off:+.0f}",
             f"{flashes[0]}/{flashes[1]}", f"{beeps[0]}/{beeps[1]}", str(sent["framesSent"]),
             str(lost), str(sent["nackCount"]), str(sent["pliCount"]), f"{cpu:.1f}"]
    return cells, [what for what, is_so in wrong.items() if is_so]


def unless_busy(measure, *arguments):
    for _ in range(TRIES):
        found = measure(*arguments)
        if found:
            return found
    return [], ["the machine was too busy"]


def cost(codec, seconds):
    """Of users by the dozen, since what one has is lost beside what the recorder has anyway."""
    with Recording() as recording:
        used = Used(recording.recorder_pid())
        time.sleep(SETTLE_S)
        nobody = used.percent()
        sender = subprocess.Popen(
            [f"{BIN}/crowd_sender", "--users", str(COST_USERS), "--seconds",
             str(seconds + 2 * SETTLE_S), "--whip", recording.url, "--video", codec, "--leave"],
            stdout=subprocess.DEVNULL)
        for _ in range(COST_USERS):
            recording.wait_for("user joined")
        # Handshakes are over.
        time.sleep(SETTLE_S)
        used.restart()
        time.sleep(seconds)
        percent, (threads, kb) = used.percent(), used.more()
        status = sender.wait(timeout=60)
        recording.end()
        if was_busy(recording):
            return None
        return ([f"{(percent - nobody) / COST_USERS:.2f}", f"{nobody:.2f}", f"{kb / COST_USERS:.0f}",
                 f"{threads / COST_USERS:.2f}"], ["the sender failed"] if status else [])


def print_row(name, cells, faults):
    print(f"| {' | '.join([name, *cells])} | {', '.join(faults) or 'ok'} |", flush=True)
    return [f"{name}: {one}" for one in faults]


def table(asked):
    print("| case | files | first picture ms | worst sync ms | mean sync ms | length - wall ms | flashes | beeps | "
          "pictures sent | lost | asked again | key frames asked | CPU % | verdict |\n"
          "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    faults = []
    for codec in ("vp8", "h264"):
        for percent in LOSSES_PERCENT:
            faults += print_row(f"{codec}, {percent} %",
                                *unless_busy(record, codec, percent, asked.seconds))
    print(f"\n| {COST_USERS} users | CPU % a user | with nobody | kB a user | threads a user | verdict |\n"
          "|---|---|---|---|---|---|")
    for codec in ("vp8", "h264"):
        faults += print_row(codec, *unless_busy(cost, codec, asked.seconds))
    return faults


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--seconds", type=int, default=20, help="length of each recording")
    options.add_argument("--minutes", type=float, default=1,
                         help="of users whose clocks differ; 10 is the real thing")
    parts = {"table": table, "browsers": lambda asked: one_timeline.browsers(asked.seconds),
             "drift": lambda asked: one_timeline.drift(asked.minutes)}
    options.add_argument("--only", choices=parts)
    asked = options.parse_args()
    enter_namespace()
    if not os.environ.get("ZELTA_NAMESPACE"):
        return "losses need a network namespace"
    faults = []
    for name, measure in parts.items():
        if asked.only in (None, name):
            print(f"\n{name}\n", flush=True)
            faults += measure(asked)
    print("".join(f"\nmissed: {one}" for one in faults) or "\nall within bounds")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
