# SPDX-License-Identifier: Apache-2.0
"""Media with a flash and a beep each second, and where they are found again in a file."""
import json
import os
import re
import statistics
import subprocess

FPS = 25
# The first mark stands where every receiver has had the time to listen.
FIRST_MARK_S = 2
# What follows the last mark: a clipped end loses it.
TAIL_S = 0.4


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stdout + done.stderr


def make(folder, seconds, video, audio, size="640x360", fps=FPS, tone=1000):
    """A file with marks at 2, 3, … `seconds`, beeps of `tone` Hz; None for a medium leaves it out."""
    path = f"{folder}/{video}_{audio}_{size}x{fps}_{seconds}_{tone}.mkv"
    if os.path.exists(path):
        return path
    total = seconds + TAIL_S
    on = f"gte(t,{FIRST_MARK_S}-0.001)"
    encoders = {
        # Every key frame brings its parameter sets, as senders without a description do.
        "h264": ["libx264", "-preset", "veryfast", "-tune", "zerolatency", "-profile:v", "baseline",
                 "-x264-params", "repeat-headers=1"],
        "vp8": ["libvpx", "-deadline", "realtime", "-cpu-used", "8"],
        "vp9": ["libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8"],
        "opus": ["libopus", "-b:a", "48k"],
        "pcmu": ["pcm_mulaw", "-ar", "8000"],
        "pcma": ["pcm_alaw", "-ar", "8000"],
    }
    command = ["ffmpeg", "-v", "error", "-y"]
    if video:
        command += ["-f", "lavfi", "-i",
                    f"color=black:s={size}:r={fps}:d={total},drawbox=enable='{on}*lt(mod(t+0.001,1),"
                    f"0.15)':color=white:t=fill,noise=alls=8:allf=t"]
    if audio:
        command += ["-f", "lavfi", "-i",
                    f"aevalsrc='{on}*lt(mod(t,1),0.1)*0.7*sin(2*PI*{tone}*t)':s=48000:d={total}"]
    if video:
        command += ["-c:v", *encoders[video], "-g", str(fps), "-b:v", "600k"]
    if audio:
        command += ["-c:a", *encoders[audio]]
    print(run(*command, path), end="")
    return path


def flashes(path, place=None):
    """On the file's own time; `place` is W:H:X:Y, the part of the picture to look at."""
    crop = f"crop={place}," if place else ""
    # By itself ffmpeg moves all streams until the first begins at 0.
    text = run("ffmpeg", "-v", "error", "-copyts", "-i", path, "-an", "-vf",
               f"{crop}scale=64:36,signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=-",
               "-fps_mode", "passthrough", "-f", "null", "-")
    found, time, lit = [], 0.0, False
    for line in text.splitlines():
        at = re.search(r"pts_time:(-?[0-9.]+)", line)
        if at:
            time = float(at.group(1))
        if "YAVG=" in line:
            level = float(line.split("=")[1])
            if level > 75 and not lit:
                found.append(time)
            lit = level > 75
    return found


def decoder(path):
    """Arguments of ffmpeg: its own decoder of Opus is up to 35 dB too low after gaps."""
    facts = json.loads(probe(path, ["-show_entries", "stream=codec_name"], "a:0"))
    is_opus = any(s.get("codec_name") == "opus" for s in facts.get("streams", []))
    return ["-c:a", "libopus"] if is_opus else []


def beeps(path, tone=None):
    """On the file's own time; `tone` in Hz, when there are others."""
    # Twice: what is a factor of 1.6 away is 40 dB lower then.
    only = f"bandpass=f={tone}:width_type=q:w=10," * 2 if tone else ""
    # Silence is trusted after 0.4 s of it; what ends it is a beep, and the end of the file is not.
    text = run("ffmpeg", "-v", "info", *decoder(path), "-copyts", "-i", path, "-vn", "-af",
               f"{only}silencedetect=n=-34dB:d=0.4", "-f", "null", "-")
    found = [float(at) for at in re.findall(r"silence_end: (-?[0-9.]+)", text)]
    # A file that was cut at a beep begins without the silence that the beep would end.
    quiet = [float(at) for at in re.findall(r"silence_start: (-?[0-9.]+)", text)]
    if quiet and quiet[0] > 0.03:
        found.insert(0, 0.0)
    end = duration(path, "a:0")
    return [at for at in found if at < end - 0.05]


def tones(path):
    """Beginning and end of each beep of Opus: of one whose first or last packet was lost they are
    closer."""
    # The level is well above what Opus puts before a sound that sets in.
    text = run("ffmpeg", "-v", "info", *decoder(path), "-i", path, "-vn", "-af",
               "silencedetect=n=-14dB:d=0.4", "-f", "null", "-")
    edges = [float(at) for at in re.findall(r"silence_(?:start|end): (-?[0-9.]+)", text)]
    # Silence begins, ends by a beep, begins again.
    return list(zip(edges[1::2], edges[2::2]))


def probe(path, what, stream=None):
    select = ["-select_streams", stream] if stream else []
    return run("ffprobe", "-v", "error", *select, *what, "-of", "json", path)


def duration(path, stream=None):
    facts = json.loads(probe(path, ["-show_entries", "format=duration:stream=duration"], stream))
    streams = [float(s["duration"]) for s in facts.get("streams", []) if "duration" in s]
    return streams[0] if stream and streams else float(facts["format"].get("duration", 0))


def frames(path):
    facts = json.loads(probe(path, ["-count_packets", "-show_entries", "stream=nb_read_packets"], "v"))
    return sum(int(s["nb_read_packets"]) for s in facts.get("streams", []))


def decode_errors(path):
    # In the file's own time base: rounded to the frame rate two times may be one.
    text = run("ffmpeg", "-v", "error", "-i", path, "-fps_mode", "passthrough", "-enc_time_base", "-1",
               "-f", "null", "-")
    return len(text.splitlines())


def sync_ms(flash, beep, lossy=False):
    """Largest and mean distance of a beep from its flash; positive: the beep is late.

    Where packets were lost a flash may be missing or show only in a later picture, which says
    nothing of sync. There the largest is that of the medians of ten stretches of the file.
    """
    pairs = [min((b - f for f in flash), key=abs) for b in beep if flash]
    pairs = [1000 * p for p in pairs if abs(p) < 0.5]
    if not pairs:
        return None, None
    if lossy:
        part = max(len(pairs) // 10, 5)
        pairs = [statistics.median(pairs[at:at + part])
                 for at in range(0, len(pairs) - part + 1, part)]
    return max(pairs, key=abs), sum(pairs) / len(pairs)


def first_picture_ms(path):
    """From the file's zero to its first picture."""
    facts = json.loads(probe(path, ["-read_intervals", "%+#1", "-show_entries", "packet=pts_time"],
                             "v:0"))
    return float(facts["packets"][0]["pts_time"]) * 1000
