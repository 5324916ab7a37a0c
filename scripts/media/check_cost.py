#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""CPU and memory of the recorder beside a bare gst-launch pipeline that does the same work, and a
channel of many users. See check-cost.sh."""
import argparse
import glob
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import marks
from check_media import Recording, Sender

PORT = 24000
PORTS_A_USER = 10
TICKS = os.sysconf("SC_CLK_TCK")
CAPS = {
    "h264": "encoding-name=H264,packetization-mode=(string)1",
    "vp8": "encoding-name=VP8",
}


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def resident_mb(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS")) / 1024


def used(pid, seconds):
    """CPU seconds a minute, and MB at the end, after the start has passed."""
    time.sleep(4)
    before = cpu_seconds(pid)
    time.sleep(seconds)
    return (cpu_seconds(pid) - before) * 60 / seconds, resident_mb(pid)


def source_bins(number, codec):
    """Receives one user as the recorder does: RTP session with reports, depayload."""
    port = PORT + number * PORTS_A_USER
    video, audio = "96", "97"
    rtp = "application/x-rtp,payload="
    return (
        f"rtpbin name=r{number} latency=400 do-lost=true "
        f"udpsrc port={port} caps={rtp}{video},media=video,clock-rate=90000,{CAPS[codec]} "
        f"! r{number}.recv_rtp_sink_0 udpsrc port={port + 1} ! r{number}.recv_rtcp_sink_0 "
        f"udpsrc port={port + 2} caps={rtp}{audio},media=audio,clock-rate=48000,encoding-name=OPUS "
        f"! r{number}.recv_rtp_sink_1 udpsrc port={port + 3} ! r{number}.recv_rtcp_sink_1 ")


SOUND = "opusdec ! audioconvert ! audioresample ! audiorate ! audio/x-raw,rate=48000,channels=1"


def bare_individual(users, codec, folder):
    text = ""
    for number in range(users):
        if codec == "h264":
            mux = "mp4mux fragment-duration=500 fragment-mode=first-moov-then-finalise"
            depay, encode = "rtph264depay ! h264parse", "avenc_aac bitrate=64000 ! aacparse"
        else:
            mux, depay, encode = "webmmux", "rtpvp8depay", "opusenc bitrate=64000"
        text += (f"{source_bins(number, codec)} r{number}. ! {depay} ! queue ! m{number}.video_0 "
                 f"r{number}. ! rtpopusdepay ! {SOUND} ! audioconvert ! queue ! {encode} ! queue "
                 f"! m{number}.audio_0 {mux} name=m{number} ! filesink buffer-mode=2 "
                 f"location={folder}/{number}.mp4 ")
    return text


def bare_mix(users, codec, folder, size, fps):
    width, height = (int(side) for side in size.split("x"))
    columns = 2
    pads = " ".join(
        f"sink_{n}::xpos={n % columns * width // 2} sink_{n}::ypos={n // columns * height // 2} "
        f"sink_{n}::width={width // 2} sink_{n}::height={height // 2}" for n in range(users))
    decode = {"h264": "rtph264depay ! h264parse ! queue ! avdec_h264",
              "vp8": "rtpvp8depay ! queue ! vp8dec"}[codec]
    text = (f"compositor name=c background=black latency=700000000 {pads} ! video/x-raw,format=I420,"
            f"width={width},height={height},framerate={fps}/1 ! queue ! x264enc tune=zerolatency "
            f"bframes=0 speed-preset=veryfast bitrate=800 key-int-max={2 * fps} ! "
            "video/x-h264,profile=constrained-baseline ! h264parse ! queue ! m.video_0 "
            "audiomixer name=a latency=700000000 output-buffer-duration=20000000 ! "
            "audio/x-raw,rate=48000,channels=1 ! audioconvert ! avenc_aac bitrate=48000 ! aacparse "
            "! queue ! m.audio_0 mp4mux name=m fragment-duration=500 "
            f"fragment-mode=first-moov-then-finalise ! filesink buffer-mode=2 location={folder}/m.mp4 ")
    for number in range(users):
        text += (f"{source_bins(number, codec)} r{number}. ! {decode} ! queue ! c.sink_{number} "
                 f"r{number}. ! rtpopusdepay ! {SOUND} ! queue ! a. ")
    return text


def start_senders(work, channel, users, source):
    os.makedirs(channel, exist_ok=True)
    return [Sender(work, channel, number + 1, source, PORT + number * PORTS_A_USER, {})
            for number in range(users)]


def with_recorder(work, users, source, arguments, seconds):
    recording = Recording(work, arguments)
    senders = start_senders(work, f"{recording.channels}/room", users, source)
    result = used(recording.recorder_pid(), seconds)
    for sender in senders:
        sender.leave()
    recording.end()
    return result


def with_gst_launch(work, users, source, pipeline, seconds):
    for _ in range(5):
        process = subprocess.Popen(["gst-launch-1.0", "-q", *pipeline.split()],
                                   stderr=subprocess.DEVNULL)
        time.sleep(1)
        senders = start_senders(work, f"{work}/unread", users, source)
        time.sleep(2)
        # Now and then its muxer stumbles over the first buffers of a mix and ends.
        result = used(process.pid, seconds) if process.poll() is None else None
        for sender in senders:
            sender.leave()
        process.kill()
        process.wait()
        if result:
            return result
    sys.exit("the bare pipeline doesn't run")


def compare(work, seconds, rounds, wanted):
    users = 4
    print("| case | CPU s a user and minute | bare pipeline | ratio | MB a user | bare |\n"
          "|---|---|---|---|---|---|")
    good = True
    folder = tempfile.mkdtemp(dir=work)
    for size, fps in (("640x360", 15), ("1280x720", 25)):
        for kind, codec in (("individual", "h264"), ("individual", "vp8"), ("mix", "h264")):
            name = f"{kind} {codec} {size}x{fps}"
            if wanted not in name:
                continue
            source = marks.make(work, seconds + 10, codec, "opus", size, fps=fps)
            if kind == "mix":
                arguments = ["--is-mixing-enabled", "--mixed-video-audio", "1", "--mix-resolution",
                             f"{size.replace('x', ',')},{fps},800"]
                pipeline = bare_mix(users, codec, folder, size, fps)
            else:
                arguments, pipeline = [], bare_individual(users, codec, folder)
            ours, theirs = [], []
            for _ in range(rounds):
                ours.append(with_recorder(work, users, source, arguments, seconds))
                theirs.append(with_gst_launch(work, users, source, pipeline, seconds))
            cpu, bare = (statistics.median(r[0] for r in runs) / users for runs in (ours, theirs))
            memory, bare_memory = (statistics.median(r[1] for r in runs) / users
                                   for runs in (ours, theirs))
            ratio = cpu / bare
            good = good and ratio <= 1.15
            print(f"| {name} | {cpu:.2f} | {bare:.2f} | {ratio:.2f} | "
                  f"{memory:.1f} | {bare_memory:.1f} |", flush=True)
    shutil.rmtree(folder)
    return good


def crowd(work, users, seconds):
    """Many users at once, with nothing dropped."""
    source = marks.make(work, seconds, "h264", "opus", fps=15)
    recording = Recording(work, [])
    senders = start_senders(work, f"{recording.channels}/room", users, source)
    pid = recording.recorder_pid()
    before = cpu_seconds(pid)
    began = time.time()
    def end(sender):
        sender.wait()
        sender.leave()

    ends = [threading.Thread(target=end, args=(sender,)) for sender in senders]
    for thread in ends:
        thread.start()
    for thread in ends:
        thread.join()
    share = (cpu_seconds(pid) - before) / (time.time() - began)
    files = recording.end()
    sent = marks.frames(source)
    lost = sum(sent - marks.frames(f"{recording.folder}/{f['name']}") for f in files)
    beeps = [len(marks.beeps(f"{recording.folder}/{f['name']}")) for f in files]
    errors = sum(marks.decode_errors(f"{recording.folder}/{f['name']}") for f in files)
    wanted = seconds - marks.FIRST_MARK_S + 1
    print(f"{users} users: {len(files)} files, {lost} frames lost, {errors} decode errors, "
          f"{sum(b != wanted for b in beeps)} files without all {wanted} beeps, "
          f"{share:.2f} cores used")
    return len(files) == users and lost == 0 and errors == 0 and all(b == wanted for b in beeps)


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--seconds", type=int, default=20, help="length of each measurement")
    options.add_argument("--rounds", type=int, default=3, help="of which the median counts")
    options.add_argument("--users", type=int, default=20, help="of the crowd")
    options.add_argument("--cases", default="", help="those whose name has this in it")
    options.add_argument("--only", choices=["cost", "crowd"])
    options.add_argument("--work", default=tempfile.gettempdir() + "/zelta-check")
    asked = options.parse_args()
    os.makedirs(asked.work, exist_ok=True)
    good = asked.only == "crowd" or compare(
        asked.work, asked.seconds, asked.rounds, asked.cases)
    if asked.only != "cost":
        good = crowd(asked.work, asked.users, asked.seconds) and good
    for left in glob.glob(f"{asked.work}/unread/*"):
        os.remove(left)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
