#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a frame costs an application in each language: processor time of the application, from the first
frame to the last, with the recorder's stand-in sending as fast as it can.

The C++ application is frame_path_bench, which counts the frames in the engine's callback; all others,
queue_frames in C first, take them from a queue. "Taken" is a loop that counts them and gives them back,
"looked at" one that makes the arrays of each. All are measured in turns, and ratios are taken within a
round. Prints docs/bench/bindings.md. A language that wasn't built is left out.

Needs a build with -DZELTA_BUILD_BENCH=ON and what is to be compared of -DZELTA_BUILD_PYTHON=ON,
-DZELTA_BUILD_JAVA=ON and -DZELTA_BUILD_NODE=ON, and Debian's Python."""

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
HERE = pathlib.Path(__file__).resolve().parent


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


def first_line(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()[0]


def languages(build):
    """What is measured, with its version."""
    yield f"Python {platform.python_version()}"
    if (build / "java").is_dir():
        yield first_line("java", "--version")
    if (build / "node").is_dir():
        yield f"Node.js {first_line('node', '--version')}"


def commands(build, folder, frames):
    """What takes frames from a queue, by its name: the command, and its environment beside the stand-in's."""
    arguments = [folder, frames]
    yield "C, queue", [build / "bin/queue_frames", *arguments], {}
    python = {"PYTHONPATH": str(build / "python"), "PYTHONDONTWRITEBYTECODE": "1"}
    java = ["java", f"-Djava.library.path={build}/java", "-cp", build / "java/zelta-recording.jar",
            HERE / "QueueFrames.java", *arguments]
    # Packages are looked for beside a script, and above.
    node = build / "node/queue_frames.mjs"
    for way, option in ("taken", []), ("looked at", ["--look"]):
        if (build / "python").is_dir():
            yield f"Python, {way}", [sys.executable, __file__, "--child", frames, *option], python
        if (build / "java").is_dir():
            yield f"Java, {way}", [*java, *option], {}
        if (build / "node").is_dir():
            node.write_text((HERE / node.name).read_text())
            yield f"Node.js, {way}", ["node", node, *arguments, *option], {}


def one_round(build, name, load, size, frames):
    callback = output([build / "bin/frame_path_bench", "--rounds", 1, "--latency-seconds", 0,
                       "--idle-engines", 0, "--engine-only", "--only", name])
    found = {"C++, callback": {
        "process": callback["throughput"][0][name]["engine"]["reader_cpu"] * size, "dropped": 0}}
    sender = {"ZELTA_SERVICE_DIR": str(build / "bench/service"),
              "ZELTA_BENCH_LOAD": f"{load} {frames} 1 1 0"}
    with tempfile.TemporaryDirectory() as folder:
        for way, command, environment in commands(build, folder, frames):
            found[way] = output(command, **sender, **environment)
    return found


def print_rows(what, rounds):
    for way in sorted(rounds[0], key=lambda name: (not name.startswith("C"), name)):
        def median(value, way=way):
            return statistics.median(value(one[way], one) for one in rounds)
        loop = f"{median(lambda run, _: run['thread']) / 1e3:.2f}" if "thread" in rounds[0][way] else ""
        print(f"| {what} | {way} | {median(lambda run, _: run['process']) / 1e3:.2f} | {loop} "
              f"| {median(lambda run, one: run['process'] / one['C++, callback']['process']):.1f} "
              f"| {median(lambda run, one: run['process'] / one['C, queue']['process']):.1f} "
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
    print(f"""# Frames in each language, measured

Made by `/usr/bin/python3 bench/bindings/frames.py > docs/bench/bindings.md` on {platform.machine()}, Linux {platform.release()},
{", ".join(languages(given.build))}, {given.rounds} rounds.
Microseconds of processor that a frame costs the application while the recorder's stand-in sends as fast as it can: of all
its threads, which are the engine's, who reads, and copies into the queue where there is one, the application's, and
those that a language brings along; and of the application's alone. "Taken" counts the frames and gives them back,
"looked at" makes the arrays or buffers of each, which copies nothing. Who takes slower than is sent has the queue grow
meanwhile, and pays for its new memory too. Absolute figures are this machine's; compare the ratios, each of them the
median of the rounds' own.

| frame | application | all threads | its own | times the callback | times the C queue | dropped |
|---|---|---|---|---|---|---|""")
    for name, what, load, size, frames in KINDS:
        print_rows(what, [one_round(given.build.resolve(), name, load, size, frames)
                          for _ in range(given.rounds)])


if __name__ == "__main__":
    main()
