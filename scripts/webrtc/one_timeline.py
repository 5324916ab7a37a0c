# SPDX-License-Identifier: Apache-2.0
"""Whether what several users of one recording heard at one moment stands at one moment in their files."""
import json
import shutil
import statistics
import subprocess
import tempfile

import browser as chromium
import marks
from browser_test import BIN, Recording
from disturbance import drop, was_busy
from sound_source import SoundSource

APART_LIMIT_MS = 20
LENGTH_LIMIT_MS = 100
# Of a beep of 100 ms that is longer or shorter an end was lost.
BEEP_MS = 100
BEEP_ERROR_MS = 5
DRIFT_PPM = (100, -100)
DRIFT_LOSS_PERCENT = 1
# Share of the marks that losses may leave whole in both files.
LEAST_WHOLE = 0.8


def sound_files(recording, uid):
    return [f for f in recording.files_of(uid) if f["audio_codec"]]


def heard(recording, uid):
    """UTC in ms of all whole beeps of a user, and how many aren't whole."""
    at, damaged = [], 0
    for file in sound_files(recording, uid):
        for begin, end in marks.tones(recording.path(file)):
            if abs((end - begin) * 1000 - BEEP_MS) <= BEEP_ERROR_MS:
                at.append(file["first_utc_ms"] + begin * 1000)
            else:
                damaged += 1
    return at, damaged


def by_number(moments, first_ms):
    """By the second, how much later than it they are, in ms."""
    return {round((at - first_ms) / 1000): (at - first_ms + 500) % 1000 - 500 for at in moments}


def drift_of(values):
    """From the first fifth of them to the last one."""
    part = max(len(values) // 5, 1)
    return statistics.median(values[-part:]) - statistics.median(values[:part])


def row(name, values, *more):
    numbers = [f"{one:+.1f}" for one in (statistics.median(values), max(values, key=abs),
                                         drift_of(values))]
    print("| " + " | ".join([name, str(len(values)), *numbers, *more]) + " |", flush=True)


def faults_between(one, other, wanted, *more):
    """Prints how much later the first one's marks are, and `more` cells."""
    common = sorted(one.keys() & other.keys())
    if len(common) < wanted * LEAST_WHOLE:
        return [f"{len(common)} marks are in both files, of {wanted}"]
    apart = [one[at] - other[at] for at in common]
    row("one against the other", apart, *more)
    worst = max(apart, key=abs)
    return [f"marks are {worst:.1f} ms apart"] if abs(worst) > APART_LIMIT_MS else []


def print_head(*more):
    columns = ["", "marks", "median ms", "largest ms", "first to last fifth ms", *more]
    print("| " + " | ".join(columns) + " |\n" + "|---" * len(columns) + "|")


# ---- Two browsers with one microphone ------------------------------------------------------------

MICROPHONE = """
const real = navigator.mediaDevices.getUserMedia.bind(navigator.mediaDevices);
navigator.mediaDevices.getUserMedia = () => real({audio: {
  echoCancellation: false, noiseSuppression: false, autoGainControl: false}});
"""


def browsers(seconds):
    """Faults of two browsers who hear the same beeps."""
    work = tempfile.mkdtemp(prefix="zelta-beeps-")
    beeps = f"{work}/beeps.wav"
    marks.run("ffmpeg", "-v", "error", "-f", "lavfi", "-i",
              f"aevalsrc='gte(t,1)*lt(mod(t,1),0.1)*0.7*sin(2*PI*1000*t)':s=48000:d={seconds + 1.5}", beeps)
    try:
        with SoundSource() as source, Recording() as recording:
            with chromium.Browser(sound=source.environment) as first, \
                    chromium.Browser(sound=source.environment) as second:
                pages = [one.open(f"{recording.url}?auto={uid}", script=MICROPHONE)
                         for uid, one in enumerate((first, second), 1)]
                for page in pages:
                    page.wait_for("document.body.dataset.state === 'recording'")
                source.play(beeps)
                for page in pages:
                    page.close()
                for uid in (1, 2):
                    recording.wait_for("user offline")
            recording.end()
            found = [heard(recording, uid) for uid in (1, 2)]
    finally:
        shutil.rmtree(work)
    print_head()
    first_ms = found[0][0][0]
    return faults_between(*(by_number(at, first_ms) for at, _ in found), seconds)


# ---- Two senders whose clocks differ -------------------------------------------------------------

def drifted_sound(work, seconds, ppm, into):
    """What a sender with such a clock hears of beeps at each true second, who begins `into` one."""
    path = f"{work}/{ppm}.ogg"
    true = f"(t/{1 + ppm / 1e6}+{into})"
    print(marks.run("ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                    f"aevalsrc='lt(mod({true},1),0.1)*0.7*sin(2*PI*1000*t)':s=48000:d={seconds + 2}",
                    "-c:a", "libopus", "-b:a", "48k", "-frame_duration", "20", path), end="")
    return path


def lengths(recording, uid, wanted_s):
    """Of sound and picture, how much longer they are than so many seconds, in ms."""
    def whole(files, stream):
        files = [f for f in files if f[{"a": "audio_codec", "v": "video_codec"}[stream[0]]]]
        end = max(f["first_utc_ms"] + 1000 * marks.duration(recording.path(f), stream) for f in files)
        return end - min(f["first_utc_ms"] for f in files) - 1000 * wanted_s
    return [whole(recording.files_of(uid), stream) for stream in ("a:0", "v:0")]


def drift(minutes):
    """Faults of two senders whose clocks are 200 ppm apart, with losses."""
    seconds = round(60 * minutes)
    work = tempfile.mkdtemp(prefix="zelta-drift-")
    users = len(DRIFT_PPM)
    # A crowd's users begin at moments that are spread over a second.
    sounds = [drifted_sound(work, seconds, ppm, index / users) for index, ppm in enumerate(DRIFT_PPM)]
    faults = []
    with Recording() as recording:
        with drop(DRIFT_LOSS_PERCENT):
            sent = json.loads(subprocess.check_output(
                [f"{BIN}/crowd_sender", "--users", str(users), "--seconds", str(seconds),
                 "--whip", recording.url, "--leave",
                 "--clock-ppm=" + ",".join(str(ppm) for ppm in DRIFT_PPM), "--sound", *sounds],
                text=True, timeout=seconds + 60))
        for _ in DRIFT_PPM:
            recording.wait_for("user offline")
        recording.end()
        if was_busy(recording):
            print("the machine was too busy: what follows says little", flush=True)
        first_ms = sent["users"][0]["begin_utc_ms"]
        print_head("damaged by losses", "sound's length - clock ms", "picture's length - clock ms")
        placed = []
        for index, ppm in enumerate(DRIFT_PPM):
            at, damaged = heard(recording, index + 1)
            placed.append(by_number(at, first_ms))
            longer = lengths(recording, index + 1, seconds - index / users)
            row(f"{ppm:+d} ppm", list(placed[-1].values()), str(damaged),
                *(f"{one:+.0f}" for one in longer))
            faults += [f"{ppm} ppm: a track is {one:.0f} ms longer than the clock says"
                       for one in longer if abs(one) > LENGTH_LIMIT_MS]
    shutil.rmtree(work)
    return faults + faults_between(*placed, seconds, "", "", "")
