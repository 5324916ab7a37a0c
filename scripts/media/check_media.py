#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Records marked media of real senders in every mode and measures the files. See check-media.sh."""
import argparse
import base64
import datetime
import glob
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import marks

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SYNC_LIMIT_MS = 40
WALL_LIMIT_MS = 100


class Sender:
    """One user: ffmpeg sends a file in real time to the ports of a session description."""

    def __init__(self, folder, channel, uid, source, port, options):
        self.sdp = f"{channel}/{uid}.sdp"
        self.relay = None
        to = port
        if options.get("relay"):
            to = port + 1000
            pairs = [f"{to + i}:{port + i}" for i in range(4)]
            self.relay = subprocess.Popen(
                [sys.executable, f"{HERE}/impair_udp.py", *options["relay"], *pairs],
                stdout=subprocess.PIPE, text=True)
            self.relay.stdout.readline()
        command = self.command(source, to, options)
        # A first short run, which nobody hears, writes the description; the real one starts when
        # the recorder listens.
        written = f"{folder}/{uid}.sdp"
        marks.run(*self.command(source, port + 2000, options, ["-t", "0.1"]), "-sdp_file", written)
        with open(written, encoding="utf-8") as description:
            text = description.read()
        for index in range(2):
            text = text.replace(f" {port + 2000 + 2 * index} RTP/", f" {port + 2 * index} RTP/")
        with open(written, "w", encoding="utf-8") as out:
            out.write(text)
        os.rename(written, self.sdp)
        time.sleep(0.3)
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL)

    @staticmethod
    def command(source, port, options, limit=()):
        host = "[::1]" if options.get("ipv6") else "127.0.0.1"
        crypto = []
        scheme = "rtp"
        if options.get("key"):
            scheme = "srtp"
            crypto = ["-srtp_out_suite", "AES_CM_128_HMAC_SHA1_80", "-srtp_out_params", options["key"]]
        command = ["ffmpeg", "-v", "error", "-re", *limit, "-i", source]
        for index, stream in enumerate(["v", "a"]):
            if options.get("only", stream) == stream:
                command += ["-map", f"0:{stream}?", "-c", "copy", "-strict", "experimental", "-f",
                            "rtp", *crypto, f"{scheme}://{host}:{port + 2 * index}?pkt_size=1200"]
        return command

    def wait(self):
        self.process.wait()

    def leave(self):
        self.process.kill()
        self.process.wait()
        if os.path.exists(self.sdp):
            os.remove(self.sdp)
        if self.relay:
            self.relay.kill()
            self.relay.wait()
        return time.time() * 1000


def recording_root(work):
    return f"{work}/recordings"


class Recording:
    def __init__(self, work, arguments):
        self.channels = f"{work}/channels"
        shutil.rmtree(self.channels, ignore_errors=True)
        os.makedirs(f"{self.channels}/room")
        self.root = recording_root(work)
        shutil.rmtree(self.root, ignore_errors=True)
        os.makedirs(self.root)
        self.process = subprocess.Popen(
            [f"{ROOT}/build/release/bin/zelta-record", "room", "--json", "--server",
             f"dir:{self.channels}", "--record-file-root-dir", self.root, *arguments],
            stdout=subprocess.PIPE, text=True)
        self.wait_joined()
        self.folder = os.path.dirname(glob.glob(f"{self.root}/**/recording.json", recursive=True)[0])

    def wait_joined(self):
        for line in self.process.stdout:
            if json.loads(line)["event"] == "joined":
                return
        raise RuntimeError("zelta-record ended, and did not join")

    def kill_recorder(self):
        """Until the one that the engine starts in its place has joined."""
        os.kill(self.recorder_pid(), signal.SIGKILL)
        self.wait_joined()

    def recorder_pid(self):
        return int(subprocess.check_output(
            ["pgrep", "-P", str(self.process.pid), "ZeltaCoreServic"], text=True))

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        rest, _ = self.process.communicate(timeout=60)
        self.events = [json.loads(line) for line in rest.splitlines()]
        with open(f"{self.folder}/recording.json", encoding="utf-8") as manifest:
            self.manifest = json.load(manifest)
        self.ended_ms = self.told_to_end_ms()
        return self.manifest["files"]

    def told_to_end_ms(self):
        """When the recorder heard of the end: the engine tells it at its next tick."""
        with open(f"{self.folder}/recording_engine.log", encoding="utf-8") as log:
            line, = [line for line in log if "core_service recording ends, reason" in line]
        at = datetime.datetime.strptime(line.split()[0], "%Y-%m-%dT%H:%M:%S.%fZ")
        return at.replace(tzinfo=datetime.timezone.utc).timestamp() * 1000


def mode_table(seconds, loss_seconds):
    """name: (video, audio, sender's options, recorder's arguments, what to expect)"""
    key = base64.b64encode(bytes(range(30))).decode()
    srtp = ["--decryption-mode", "aes-128-cm-sha1-80", "--secret", key]
    mix = ["--is-mixing-enabled", "--mix-resolution", "640,360,25,800"]
    chunks = ["--cfg-file-path", "CHUNKS", "--channel-profile", "1"]
    lossy = {"relay": ["0.02", "30", "0.01", "7"]}
    return {
        "h264_opus": ("h264", "opus", {}, [], {}),
        "h264_pcmu": ("h264", "pcmu", {}, [], {}),
        "h264_pcma": ("h264", "pcma", {}, [], {}),
        "vp8_opus": ("vp8", "opus", {}, [], {}),
        "vp8_pcmu": ("vp8", "pcmu", {}, [], {}),
        "vp9_opus": ("vp9", "opus", {}, [], {}),
        "vp9_pcma": ("vp9", "pcma", {}, [], {}),
        "audio_only": ("h264", "opus", {}, ["--is-audio-only"], {"video": False}),
        "video_only": ("h264", "opus", {}, ["--is-video-only"], {"audio": False}),
        "sound_sent": ("h264", "opus", {"only": "a"}, [], {"video": False}),
        "video_sent": ("h264", "opus", {"only": "v"}, [], {"audio": False}),
        "ipv6": ("h264", "opus", {"ipv6": True}, [], {}),
        "srtp": ("h264", "opus", {"key": key}, srtp, {}),
        "chunks": ("h264", "opus", {}, chunks, {"chunks": True, "seconds": 24}),
        "chunks_vp8": ("vp8", "opus", {}, chunks, {"chunks": True, "seconds": 24}),
        "mix_v1": ("h264", "opus", {}, [*mix, "--mixed-video-audio", "1"], {"mix": True}),
        "mix_v2_stereo": ("vp8", "opus", {},
                          [*mix, "--mixed-video-audio", "2", "--audio-profile", "2"], {"mix": True}),
        "mix_apart": ("h264", "opus", {}, [*mix, "--mixed-video-audio", "apart"],
                      {"mix": True, "apart": True}),
        "lossy": ("h264", "opus", lossy, [], {"lossy": True, "seconds": loss_seconds}),
        "lossy_vp8": ("vp8", "opus", lossy, [], {"lossy": True, "seconds": loss_seconds}),
        "lossy_mix": ("h264", "opus", lossy, [*mix, "--mixed-video-audio", "1"],
                      {"mix": True, "lossy": True, "seconds": loss_seconds}),
    }


def laid_together(files, folder, first_ms):
    """All marks of a recording's files on its one timeline, seconds after `first_ms`."""
    flash, beep, count, errors = [], [], 0, 0
    for entry in files:
        path = f"{folder}/{entry['name']}"
        offset = (entry["first_utc_ms"] - first_ms) / 1000
        if entry["video_codec"]:
            found = marks.flashes(path)
            # One in whose midst the file was cut is found in the one before, too.
            if flash and found and found[0] < 0.05 and offset - flash[-1] < 0.2:
                found = found[1:]
            flash += [at + offset for at in found]
            count += marks.frames(path)
        if entry["audio_codec"]:
            beep += [at + offset for at in marks.beeps(path)]
        errors += marks.decode_errors(path)
    return flash, beep, count, errors


def measure(name, work, seconds, row):
    video, audio, options, arguments, expect = row
    seconds = expect.get("seconds", seconds)
    source = marks.make(work, seconds, video, audio)
    config = f"{work}/chunks.json"
    with open(config, "w", encoding="utf-8") as out:
        json.dump({"Recording_Dir": recording_root(work), "Chunk_Time_Span": "10"}, out)
    recording = Recording(work, [config if a == "CHUNKS" else a for a in arguments])
    sender = Sender(work, f"{recording.channels}/room", 1, source, 21000, options)
    sender.wait()
    left_ms = sender.leave()
    time.sleep(0.3)
    files = [f for f in recording.end() if f["kind"] != "picture"]
    first_ms = min(f["first_utc_ms"] for f in files)
    flash, beep, count, errors = laid_together(files, recording.folder, first_ms)
    worst, mean = marks.sync_ms(flash, beep, expect.get("lossy", False))
    wanted = seconds - marks.FIRST_MARK_S + 1
    span = sum(marks.duration(f"{recording.folder}/{f['name']}") for f in files)
    if expect.get("apart"):
        span /= 2
    # A user's file ends when the user leaves, a mix when its recording does.
    wall = ((recording.ended_ms if expect.get("mix") else left_ms) - first_ms) / 1000
    off = (span - wall) * 1000
    faults = []
    has_video, has_audio = expect.get("video", True), expect.get("audio", True)
    if has_video and has_audio and (worst is None or abs(worst) > SYNC_LIMIT_MS):
        faults.append("sync")
    # Of what was lost on the way some flashes are the victims.
    if has_video and not expect.get("lossy") and len(flash) != wanted:
        faults.append(f"flashes, not {wanted}")
    if has_audio and len(beep) != wanted:
        faults.append(f"beeps, not {wanted}")
    if abs(off) > WALL_LIMIT_MS:
        faults.append("duration")
    sent = marks.frames(source) if has_video else 0
    lost = sent - count if has_video and not expect.get("mix") else 0
    if lost < 0:
        faults.append("pictures doubled")
    if errors and not expect.get("lossy"):
        faults.append("decode errors")
    if expect.get("chunks") and len(files) < 3:
        faults.append("no chunks")
    print(f"| {name} | {len(files)} | {'' if worst is None else f'{worst:+.1f}'} | "
          f"{'' if mean is None else f'{mean:+.1f}'} | {off:+.0f} | {len(flash)}/"
          f"{wanted if has_video else 0} | {len(beep)}/{wanted if has_audio else 0} | {lost} | "
          f"{errors} | {'ok' if not faults else ', '.join(faults)} |", flush=True)
    shutil.rmtree(recording.root)
    return not faults


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("modes", nargs="*", help="which; none: all")
    options.add_argument("--seconds", type=int, default=12, help="length of each recording")
    options.add_argument("--loss-seconds", type=int, default=30,
                         help="length of those with loss and jitter; 600 is the real thing")
    options.add_argument("--work", default=tempfile.gettempdir() + "/zelta-check")
    asked = options.parse_args()
    os.makedirs(asked.work, exist_ok=True)
    table = mode_table(asked.seconds, asked.loss_seconds)
    unknown = [name for name in asked.modes if name not in table]
    if unknown:
        options.error(f"unknown mode {unknown[0]}: there are {', '.join(table)}")
    print("| mode | files | worst sync ms | mean sync ms | length - wall ms | flashes | beeps | "
          "frames lost | decode errors | verdict |\n|---|---|---|---|---|---|---|---|---|---|")
    good = [measure(name, asked.work, asked.seconds, table[name])
            for name in (asked.modes or table)]
    print(f"{sum(good)} passed, {len(good) - sum(good)} failed")
    return 0 if all(good) else 1


if __name__ == "__main__":
    sys.exit(main())
