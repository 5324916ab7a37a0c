#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Crowds of users by RTP or WebRTC: what is recorded of them, and what a packet costs. See check-crowd.sh."""
import argparse
import base64
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import crowd_files

# From so many users on the figures have bounds; that all files are whole is wanted of every number.
BOUNDED_USERS = 500
MOST_US_A_PACKET = 10.0
MOST_TIMES_BARE = 4.0
MOST_THREADS_MORE = 16
MOST_KB_A_USER = 300

FFMPEG_USERS = 20
REORDERED_PERCENT = 1
START_LIMIT_S = 60
PORTS_LIMIT_S = 60
END_LIMIT_S = 120
SAMPLE_S = 0.2
SENDER_PRIORITY = -10
# A sender that is later measures the machine, not the recorder.
MOST_LATE_MS = 200
TOLD_FAULTS = 3
TICKS = os.sysconf("SC_CLK_TCK")
ROOT = pathlib.Path(__file__).resolve().parents[2]
KEY = base64.b64encode(bytes(range(30))).decode()

# Whatever happens, none of them outlives this.
children = []


def start(command, **options):
    process = subprocess.Popen([str(one) for one in command], stdin=subprocess.DEVNULL, **options)
    children.append(process.pid)
    return process


def kill_children():
    for pid in list(children):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        children.remove(pid)


def end(process, number, limit_s):
    """CPU seconds of a process and its children, and how long it took to end; None: it was killed."""
    began = time.monotonic()
    # Not by Popen, which would reap one that has ended, and with it what it has used.
    os.kill(process.pid, number)
    # By a thread, because Python has no wait4 with a limit.
    killer = threading.Timer(limit_s, os.kill, (process.pid, signal.SIGKILL))
    killer.start()
    _, status, used = os.wait4(process.pid, 0)
    killer.cancel()
    process.returncode = os.waitstatus_to_exitcode(status)
    children.remove(process.pid)
    took = time.monotonic() - began
    return used.ru_utime + used.ru_stime, None if process.returncode == -signal.SIGKILL else took


def cpu_seconds(pid):
    try:
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rsplit(")", 1)[1].split()
    except OSError:
        return 0.0
    return sum(int(one) for one in fields[11:15]) / TICKS


def status_of(pid):
    """Threads, resident kB, and the most that was ever resident."""
    try:
        lines = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8").splitlines()
    except OSError:
        return None
    values = {line.split(":")[0]: line.split()[1] for line in lines if len(line.split()) > 1}
    if "VmHWM" not in values:
        return None
    return int(values["Threads"]), int(values["VmRSS"]), int(values["VmHWM"])


def udp_drops(ports):
    """What sockets on these ports had no room for, by port, of those that are there."""
    found = {}
    for name in ("udp", "udp6"):
        for line in pathlib.Path(f"/proc/net/{name}").read_text(encoding="utf-8").splitlines()[1:]:
            fields = line.split()
            port = int(fields[1].rsplit(":", 1)[1], 16)
            if port in ports:
                found[port] = found.get(port, 0) + int(fields[-1])
    return found


def answered_ports(channel):
    """RTP and RTCP ports of all answers."""
    ports = set()
    for answer in channel.glob("*.sdp.answer"):
        for line in answer.read_text(encoding="utf-8").splitlines():
            if line.startswith("m="):
                ports.update((int(line.split()[1]), int(line.split()[1]) + 1))
    return ports


class Run:
    """A folder of a channel, and what plays into it."""

    def __init__(self, work, asked, users):
        self.asked = asked
        self.users = users
        self.folder = pathlib.Path(tempfile.mkdtemp(dir=work))
        self.channel = self.folder / "channels/room"
        self.out = self.folder / "out"
        self.channel.mkdir(parents=True)
        self.out.mkdir()

    def begin_sender(self, whip=None):
        """Into the folder, or to the URL that is given."""
        asked = self.asked
        place = ["--folder", self.channel] if whip is None else ["--whip", whip]
        command = [asked.bin / "crowd_sender", "--users", self.users, "--seconds", asked.seconds,
                   *place, "--video", "vp8" if asked.vp8 else "h264", "--wait", PORTS_LIMIT_S]
        if asked.srtp:
            command += ["--srtp", KEY]
        if asked.loss:
            command += ["--loss", asked.loss, "--reorder", REORDERED_PERCENT]
        sender = start(command, stdout=subprocess.PIPE, text=True)
        # Elsewhere it would have processors of its own. Without the right to it, it may be late, and is told.
        try:
            os.setpriority(os.PRIO_PROCESS, sender.pid, SENDER_PRIORITY)
        except PermissionError:
            pass
        return sender

    def finish_sender(self, sender):
        text, _ = sender.communicate(timeout=self.asked.seconds + 2 * PORTS_LIMIT_S)
        children.remove(sender.pid)
        if sender.returncode != 0:
            sys.exit("the sender failed")
        return json.loads(text)

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def run_bare(work, asked, users):
    """CPU µs a packet of the least that can be done."""
    run = Run(work, asked, users)
    receiver = start([asked.bin / "bare_receiver", run.channel, run.out],
                     stdout=subprocess.PIPE, text=True)
    receiver.stdout.readline()
    run.finish_sender(run.begin_sender())
    end(receiver, signal.SIGTERM, END_LIMIT_S)
    result = json.loads(receiver.stdout.read())
    run.remove()
    result["us_a_packet"] = 1e6 * result["cpu_seconds"] / max(1, result["packets"])
    return result


def free_pair():
    """An even port that is free, and the next one with it."""
    while True:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as first, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as second:
            first.bind(("127.0.0.1", 0))
            port = first.getsockname()[1]
            try:
                second.bind(("127.0.0.1", port + 1))
            except OSError:
                continue
            if port % 2 == 0:
                return port


def wait_for(ready, what):
    limit = time.monotonic() + START_LIMIT_S
    while not ready():
        if time.monotonic() > limit:
            sys.exit(f"{what}: not within {START_LIMIT_S} s")
        time.sleep(0.02)


def start_ffmpeg(run, uid, taken):
    """One that records the user; its description, which is an answer, and its ports."""
    source = run.channel / f"{uid}.sdp"
    wait_for(source.exists, source.name)
    ports, lines = set(), []
    for line in source.read_text(encoding="utf-8").splitlines():
        if line.startswith("m="):
            port = free_pair()
            while port in taken:
                port = free_pair()
            taken.add(port)
            ports.add(port)
            line = line.replace(" 9 ", f" {port} ", 1)
        lines.append(line)
    described = run.folder / f"{uid}.sdp"
    described.write_text("\n".join(lines) + "\n", encoding="utf-8")
    fragments = ["-movflags", "+frag_keyframe+empty_moov+default_base_moof", "-frag_duration", "200000"]
    process = start(["ffmpeg", "-v", "error", "-nostdin", "-protocol_whitelist", "file,udp,rtp",
                     "-i", described, "-c", "copy", *([] if run.asked.vp8 else fragments),
                     run.out / f"{uid}.{'webm' if run.asked.vp8 else 'mp4'}"],
                    stderr=subprocess.DEVNULL)
    return process, described, ports


def run_ffmpeg(work, asked, users):
    """CPU µs a packet of a process a user that puts packets into fragments; None: one ended early."""
    run = Run(work, asked, users)
    sender = run.begin_sender()
    taken = set()
    # All at once, since one to whom nothing is sent for ten seconds ends.
    started = [start_ffmpeg(run, uid, taken) for uid in range(1, users + 1)]
    wait_for(lambda: len(udp_drops(taken)) == len(taken), "ffmpeg's ports")
    before = sum(cpu_seconds(process.pid) for process, _, _ in started)
    for _, described, _ in started:
        described.rename(run.channel / f"{described.name}.answer")
    report = run.finish_sender(sender)
    lost = sum(udp_drops(answered_ports(run.channel)).values())
    early = [uid for uid, (_, _, ports) in enumerate(started, 1) if len(udp_drops(ports)) < len(ports)]
    used = sum(end(process, signal.SIGINT, 10)[0] for process, _, _ in started) - before
    run.remove()
    if early:
        print(f"(ffmpeg of user {early[0]} ended early: no comparison)", file=sys.stderr)
        return None
    return 1e6 * used / max(1, report["packets"] - lost)


def free_tcp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Recorder:
    """zelta-record and its recorder, and what both need while they run."""

    def __init__(self, run):
        self.events = run.folder / "events"
        self.whip = None
        server = f"dir:{run.channel.parent}"
        if run.asked.whip:
            place = f"127.0.0.1:{free_tcp_port()}"
            server, self.whip = f"whip:{place}", f"http://{place}/room"
        command = [run.asked.bin / "zelta-record", "room", "--json", "--server", server,
                   "--record-file-root-dir", run.out]
        if run.asked.srtp:
            command += ["--decryption-mode", "aes-128-cm-sha1-80", "--secret", KEY]
        with open(self.events, "wb") as out:
            self.tool = start(command, stdout=out, stderr=subprocess.DEVNULL)
        wait_for(lambda: b'"joined"' in self.events.read_bytes(), "the join")
        self.pid = int(subprocess.check_output(
            ["pgrep", "-P", str(self.tool.pid), "ZeltaCoreServic"], text=True))
        children.append(self.pid)
        self.cpu_before = self.cpu_now = self.cpu()
        self.first = self.last = status_of(self.pid)
        self.threads = self.first[0]
        self.over = threading.Event()
        self.watcher = threading.Thread(target=self.watch, daemon=True)
        self.watcher.start()

    def cpu(self):
        return cpu_seconds(self.tool.pid) + cpu_seconds(self.pid)

    def watch(self):
        while not self.over.wait(SAMPLE_S):
            now = status_of(self.pid)
            if now is not None:
                self.last = now
                self.threads = max(self.threads, now[0])
                self.cpu_now = max(self.cpu_now, self.cpu())

    def end(self):
        """CPU seconds since the join, and seconds that it took to end; None: too many."""
        used, took = end(self.tool, signal.SIGINT, END_LIMIT_S)
        # The tool doesn't wait for ever; a recorder whom it has left alone completes its files.
        limit = time.monotonic() + END_LIMIT_S
        while took is not None and status_of(self.pid) is not None and time.monotonic() < limit:
            time.sleep(SAMPLE_S)
        self.over.set()
        self.watcher.join()
        if status_of(self.pid) is not None:
            os.kill(self.pid, signal.SIGKILL)
        children.remove(self.pid)
        return max(used, self.cpu_now) - self.cpu_before, took


def run_recorder(work, asked, users):
    run = Run(work, asked, users)
    recorder = Recorder(run)
    report = run.finish_sender(run.begin_sender(recorder.whip))
    ports = {report["port"]} if asked.whip else answered_ports(run.channel)
    lost = sum(udp_drops(ports).values())
    end_ms = time.time() * 1000
    used, took = recorder.end()
    # The recording ends somewhere in between.
    last_ms = end_ms + 1000 * (took or 0)
    faults, missing = crowd_files.judge(run.out, report, users, last_ms, bool(asked.loss))
    run.remove()
    return {
        "late_ms": report["late_ms"], "status": recorder.tool.returncode, "took": took,
        "faults": faults, "missing": missing, "lost": lost,
        "packets_s": report["packets"] / report["seconds"],
        "us_a_packet": 1e6 * used / max(1, report["packets"] - lost),
        "threads": recorder.threads, "more_threads": recorder.threads - recorder.first[0],
        "most_kb": recorder.last[2], "kb_a_user": (recorder.last[2] - recorder.first[1]) / users,
    }


def missed_bounds(users, row, times_bare):
    found = []
    if row["late_ms"] > MOST_LATE_MS:
        found.append(f"the sender was {row['late_ms']:.0f} ms late: this machine has not enough left for it")
    if row["faults"]:
        some = [f"user {uid}: {fault}" for uid, fault in row["faults"].items()][:TOLD_FAULTS]
        found.append(f"{len(row['faults'])} users' files aren't whole: {'; '.join(some)}")
    if row["took"] is None:
        found.append(f"the recorder didn't end within {END_LIMIT_S} s")
    elif row["status"] != (5 if row["missing"] and users > crowd_files.MOST_FOR_ALL else 0):
        found.append(f"zelta-record ended with {row['status']}")
    if users < BOUNDED_USERS:
        return found
    for value, most, what in ((row["us_a_packet"], MOST_US_A_PACKET, "µs a packet"),
                              (times_bare, MOST_TIMES_BARE, "times the bare receiver"),
                              (row["more_threads"], MOST_THREADS_MORE, "threads more than at the start"),
                              (row["kb_a_user"], MOST_KB_A_USER, "kB a user")):
        if value > most:
            found.append(f"{value:.1f} {what}, at most {most} are wanted")
    return found


def measure(work, asked, users):
    bare = run_bare(work, asked, users)
    ffmpeg = None
    if users == FFMPEG_USERS and not asked.srtp and not asked.whip:
        ffmpeg = run_ffmpeg(work, asked, users)
    row = run_recorder(work, asked, users)
    times_bare = row["us_a_packet"] / max(bare["us_a_packet"], 1e-9)
    leave = "killed" if row["took"] is None else f"{1000 * row['took']:.0f}"
    print(f"| {users} | {users - len(row['faults']) - row['missing']} | {row['packets_s']:.0f} | "
          f"{row['us_a_packet']:.1f} | {bare['us_a_packet']:.1f} | {times_bare:.1f} | "
          f"{'' if ffmpeg is None else format(row['us_a_packet'] / ffmpeg, '.2f')} | "
          f"{row['most_kb'] / 1024:.0f} | {row['kb_a_user']:.0f} | {row['threads']} | {row['lost']} | "
          f"{bare['drops']} | {row['missing']} | {leave} |", flush=True)
    return [f"{users} users: {one}" for one in missed_bounds(users, row, times_bare)]


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("users", nargs="*", type=int, help="how many; none: 20 100 500")
    options.add_argument("--vp8", action="store_true", help="instead of H.264")
    options.add_argument("--srtp", action="store_true", help="encrypted")
    options.add_argument("--whip", action="store_true",
                         help="by WHIP and WebRTC, beside a bare receiver of plain RTP")
    options.add_argument("--loss", type=float, default=0, metavar="PERCENT",
                         help=f"of the packets are lost, and {REORDERED_PERCENT} overtaken")
    options.add_argument("--seconds", type=int, default=30, help="length of each recording")
    options.add_argument("--bin", type=pathlib.Path, default=ROOT / "build/release/bin")
    options.add_argument("--work", default=tempfile.gettempdir() + "/zelta-check")
    asked = options.parse_args()
    if asked.whip and (asked.srtp or asked.loss):
        options.error("--whip has keys of its own and sends again what is lost: neither --srtp nor --loss goes with it")
    # A background job's SIGINT is ignored, and so would be that of the programs that it starts.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by SIGTERM"))
    os.makedirs(asked.work, exist_ok=True)
    work = tempfile.mkdtemp(dir=asked.work)
    print("| users | whole files | packets/s | µs a packet | bare receiver | times it | times ffmpeg | "
          "MB at most | kB a user | threads | lost by sockets | by the bare receiver's | turned away | "
          "ms to end |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    missed = []
    try:
        for users in asked.users or (20, 100, 500):
            missed += measure(work, asked, users)
    finally:
        kill_children()
        shutil.rmtree(work, ignore_errors=True)
    for one in missed:
        print(f"missed: {one}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
