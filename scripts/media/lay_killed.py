# SPDX-License-Identifier: Apache-2.0
"""A real recording of two users whose recorder is killed twice, and a look at the films of it.

Senders go on as their own clock says, whoever listens. So all marks of a user stand whole seconds from
the first one, if the manifests' clock and the film are right, and there are pauses without any.
"""
import re
import time

import check_media
import marks

BOUND_MS = 40
# Far from each other: a beep that sets in is heard in others' tones, and here no two set in together.
TONES = {1: 1000, 2: 4900}
SECONDS = {1: 24, 2: 12}
KILLS_S = (6.5, 14.5)
LATE_S = 9
# A beep shows by the silence before it, and so long a file has to be there.
BEFORE_S = 0.45
# The longer one of the two marks.
MARK_S = 0.15
# How often who was recorded meanwhile has a pause.
PAUSES = {1: 2, 2: 1}
# What is shorter is none.
PAUSE_S = 0.05
# What a pause has at its edges: sound that fades, a picture that comes up to half its time early.
EDGE_S = 0.02


def wait_until(at):
    time.sleep(max(0, at - time.time()))


def packet_times(path, stream=None):
    select = ["-select_streams", stream] if stream else []
    text = marks.run("ffprobe", "-v", "error", *select, "-show_entries", "packet=pts_time", "-of", "csv=p=0", path)
    return sorted(float(at) for at in re.findall(r"-?[0-9.]+", text))


def record(work):
    """The folder, and its users' files in the order of time, each with its path and its end."""
    sources = {uid: marks.make(work, SECONDS[uid], "h264", "opus", tone=tone) for uid, tone in TONES.items()}
    recording = check_media.Recording(work, [])
    channel = f"{recording.channels}/room"
    first = check_media.Sender(work, channel, 1, sources[1], 21000, {})
    began = time.time()
    wait_until(began + KILLS_S[0])
    recording.kill_recorder()
    wait_until(began + LATE_S)
    late = check_media.Sender(work, channel, 2, sources[2], 21100, {})
    wait_until(began + KILLS_S[1])
    recording.kill_recorder()
    for sender in (late, first):
        sender.wait()
        sender.leave()
    entries = [entry for entry in recording.end() if entry["kind"] == "audio_video"]
    entries.sort(key=lambda entry: entry["first_utc_ms"])
    for entry in entries:
        entry["path"] = f"{recording.folder}/{entry['name']}"
        # Of a recorder that was killed the manifest is up to two seconds behind.
        entry["end_ms"] = entry["first_utc_ms"] + 1000 * packet_times(entry["path"])[-1]
    return recording.folder, {uid: [entry for entry in entries if entry["uid"] == uid] for uid in TONES}


def spans_of(files, zero_ms):
    """Where files stand in the film, seconds."""
    return [((entry["first_utc_ms"] - zero_ms) / 1000, (entry["end_ms"] - zero_ms) / 1000) for entry in files]


def worst_ms(found, first, spans):
    """The largest distance of a mark from where it belongs; None: one is missing, or there is one too many."""
    worst, seen = 0.0, set()
    for at in found:
        number = round(at - first)
        off = abs(at - first - number)
        if off * 1000 <= BOUND_MS:
            seen.add(number)
            worst = max(worst, off)
        elif not any(begin - 0.05 <= at <= begin + MARK_S for begin, _ in spans):
            # No mark in whose midst a file begins, either.
            return None
        if not any(begin - 0.05 <= at <= end + 0.05 for begin, end in spans):
            return None
    due = {number for number in range(60) for begin, end in spans
           if begin + BEFORE_S <= first + number <= end - MARK_S}
    return worst * 1000 if due <= seen else None


def is_filled(film, place, tone, begin, end):
    """Whether there are pictures all the time, dark ones, and no sound of the user's."""
    crop = f"crop={place}," if place else ""
    text = marks.run("ffmpeg", "-v", "info", "-ss", str(begin), "-t", str(end - begin), *marks.decoder(film),
                     "-i", film, "-vf", f"{crop}signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=-",
                     "-af", f"bandpass=f={tone}:width_type=q:w=10," * 2 + "volumedetect", "-f", "null", "-")
    levels = [float(level) for level in re.findall(r"YAVG=([0-9.]+)", text)]
    loudest = re.findall(r"max_volume: (-?[0-9.]+|-inf) dB", text)
    return (bool(levels) and max(levels) < 75 and bool(loudest)
            and all(float(level) < -34 for level in loudest))


def longest_step_s(film, stream):
    """Between two packets of a stream."""
    times = packet_times(film, stream)
    return max((b - a for a, b in zip(times, times[1:])), default=99.0)


def look(film, users, zero_ms, places, picture_step_s):
    """How far pictures and sound of a film are off, ms, and what is wrong besides. `places`: where whose
    pictures are."""
    faults, pictures, sounds = [], [], []
    for uid, place in places.items():
        spans = spans_of(users[uid], zero_ms)
        tone = TONES[uid] if len(places) > 1 else None
        flash, beep = marks.flashes(film, place), marks.beeps(film, tone)
        if not flash or not beep:
            return None, None, [f"no marks of user {uid}"]
        # The first mark is where its own file says, which the recorder wrote undisturbed.
        own = users[uid][0]["path"]
        pictures.append(worst_ms(flash, spans[0][0] + marks.flashes(own)[0], spans))
        sounds.append(worst_ms(beep, spans[0][0] + marks.beeps(own)[0], spans))
        pauses = [(end, begin) for (_, end), (begin, _) in zip(spans, spans[1:]) if begin - end >= PAUSE_S]
        if len(pauses) != PAUSES[uid]:
            faults.append(f"{len(pauses)} pauses of user {uid}")
        faults += [f"pause of user {uid} at {begin:.1f} s" for begin, end in pauses
                   if not is_filled(film, place, TONES[uid], begin + EDGE_S, end - EDGE_S)]
    for stream, most_s in (("v:0", picture_step_s), ("a:0", 0.03)):
        step = longest_step_s(film, stream)
        if step > most_s:
            faults.append(f"{step:.3f} s without anything in {stream}")
    worst = [None if None in off else max(off) for off in (pictures, sounds)]
    return worst[0], worst[1], faults
