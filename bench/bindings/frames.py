#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a frame costs an application in Python beside one in C++: processor time of the application, from
the first frame to the last, with the recorder's stand-in sending as fast as it can.

The C++ application is frame_path_bench, which counts the frames in the engine's callback; the C one,
queue_frames, takes them from a queue, and so does the Python one: "taken" is a loop that counts them,
"looked at" one that makes the arrays of each. All are measured in turns, and ratios are taken within a
round. Prints docs/bench/python.md.

Needs a build with -DZELTA_BUILD_BENCH=ON -DZELTA_BUILD_PYTHON=ON, and Debian's Python."""

import argparse
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile
import time

# Name as frame_path_bench has it, what it is, its load in the stand-in's words, bytes and frames.
KINDS = [
    ("yuv 1920x1080", "1080p picture, I420", "0 1920 1080", 1920 * 1080 * 3 // 2, 1_000),
    ("pcm 1920 B", "10 ms of sound, stereo", "3 1920 0", 1920, 200_000),
]
QUEUE_BYTES = 1 << 30
WAYS = [("callback", "C++, callback"), ("queue", "C, queue"), ("taken", "Python, taken"),
        ("looked at", "Python, looked at")]


def measure_python(frames, look):
    """In a process of its own: nanoseconds of processor a frame, and how many were dropped."""
    from zelta_recording import AudioFrame, DecodeAudio, DecodeVideo, Dropped, Recording, VideoFrame
    with tempfile.TemporaryDirectory() as folder, Recording("bench", queue_bytes=QUEUE_BYTES) as recording:
        recording.join("bench", record_file_root_dir=folder, decode_audio=DecodeAudio.PCM_FRAMES,
                       decode_video=DecodeVideo.YUV_FRAMES)
        seen = dropped = process = thread = 0
        for event in recording:
            if isinstance(event, (AudioFrame, VideoFrame)):
                if not seen:
                    process, thread = time.process_time_ns(), time.thread_time_ns()
                seen += 1
                if look:
                    event.samples if isinstance(event, AudioFrame) else event.planes
            elif isinstance(event, Dropped):
                dropped += event.audio_frames + event.video_frames
            if seen + dropped >= frames:
                break
        return {"process": (time.process_time_ns() - process) / (seen - 1),
                "thread": (time.thread_time_ns() - thread) / (seen - 1), "dropped": dropped}


def output(command, **environment):
    said = subprocess.run([str(word) for word in command], env=dict(os.environ, **environment), check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return json.loads(said.stdout)


def one_round(build, name, load, size, frames):
    callback = output([build / "bin/frame_path_bench", "--rounds", 1, "--latency-seconds", 0,
                       "--idle-engines", 0, "--engine-only", "--only", name])
    found = {"callback": {
        "process": callback["throughput"][0][name]["engine"]["reader_cpu"] * size, "dropped": 0}}
    sender = {"ZELTA_SERVICE_DIR": str(build / "bench/service"),
              "ZELTA_BENCH_LOAD": f"{load} {frames} 1 1 0"}
    with tempfile.TemporaryDirectory() as folder:
        found["queue"] = output([build / "bin/queue_frames", folder, frames], **sender)
    for way, option in ("taken", []), ("looked at", ["--look"]):
        found[way] = output([sys.executable, __file__, "--child", frames] + option, **sender,
                            PYTHONPATH=str(build / "python"), PYTHONDONTWRITEBYTECODE="1")
    return found


def print_rows(what, rounds):
    for way, title in WAYS:
        def median(value, way=way):
            return statistics.median(value(one[way], one) for one in rounds)
        loop = f"{median(lambda run, _: run['thread']) / 1e3:.2f}" if way != "callback" else ""
        print(f"| {what} | {title} | {median(lambda run, _: run['process']) / 1e3:.2f} | {loop} "
              f"| {median(lambda run, one: run['process'] / one['callback']['process']):.1f} "
              f"| {median(lambda run, one: run['process'] / one['queue']['process']):.1f} "
              f"| {sum(one[way]['dropped'] for one in rounds)} |", flush=True)


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("build", type=pathlib.Path, nargs="?", default="build/release")
    arguments.add_argument("--rounds", type=int, default=5)
    arguments.add_argument("--child", type=int, help=argparse.SUPPRESS)
    arguments.add_argument("--look", action="store_true", help=argparse.SUPPRESS)
    given = arguments.parse_args()
    if given.child:
        print(json.dumps(measure_python(given.child, given.look)))
        return
    print(f"""# Frames in Python, measured

Made by `/usr/bin/python3 bench/python_frames.py > docs/bench/python.md` on {platform.machine()}, Linux {platform.release()},
Python {platform.python_version()}, {given.rounds} rounds. Microseconds of processor that a frame costs the application while the recorder's
stand-in sends as fast as it can: of all its threads, which are the engine's, who reads, and copies into
the queue where there is one, and the application's; and of the application's alone. "Taken" counts the
frames, "looked at" makes the arrays of each, which copies nothing. Who takes slower than is sent has
the queue grow meanwhile, and pays for its new memory too. Absolute figures are this machine's; compare
the ratios, each of them the median of the rounds' own.

| frame | application | all threads | its own | times the callback | times the C queue | dropped |
|---|---|---|---|---|---|---|""")
    for name, what, load, size, frames in KINDS:
        print_rows(what, [one_round(given.build.resolve(), name, load, size, frames)
                          for _ in range(given.rounds)])


if __name__ == "__main__":
    main()
