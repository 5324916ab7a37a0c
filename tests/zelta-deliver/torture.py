#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-deliver, its servers and the network between them are killed at random moments, while
recordings come, run and end, whose files go to nginx, to s3rver, to a store that fails in every way
(store.py), as they are and sealed, to a folder and to an SSH server. At the end every file has to be at
every target, byte for byte, none may ever have been deleted that wasn't there, each has been told as
confirmed once, and webhook and hooks were told of each at least once, repeats by the same id.

    torture.py FOLDER [--kills N] [--seed N] [--files N] [--largest MB] [--interval S] [--s3rver PATH]

s3rver checks no signatures, knows neither conditions nor checksums, and ends no upload; the store checks
all that.
A kill may leave untold what was confirmed just before it. Of folders with more than 200 files it may have
some told again: their confirmations come to the disk in groups, seconds apart.
"""

import argparse
import collections
import getpass
import hashlib
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

import torture_net
from torture_calls import Calls

HERE = Path(__file__).resolve().parent
TOOL = Path(os.environ["ZELTA_BIN"]) / "zelta-deliver"
FAULTS = ("error=0.05,busy=0.03,redirect=0.03,drop=0.1,deaf=0.1,lie=0.1,"
          "any-error=0.03,any-busy=0.01,any-drop=0.03")
SECRETS = {"S3_SECRET": "not-a-secret", "HOOK_KEY": "hook-key"}
CONNECTIONS = 8
STALL_S = 5
LAZY_FILES = 200
FULL_KILLS = 500
# The longest time between such groups, and what their writing takes on a busy disk.
LOST_MS = 8000

NGINX = """
daemon off; master_process off; error_log {dir}/nginx.log; pid {dir}/nginx.pid;
events {{ worker_connections 64; }}
http {{
  access_log off; client_max_body_size 0; client_body_temp_path {dir}/body;
  proxy_temp_path {dir}/t1; fastcgi_temp_path {dir}/t2; uwsgi_temp_path {dir}/t3;
  scgi_temp_path {dir}/t4;
  server {{
    listen {address}:{port};
    location / {{ root {dir}/dav; dav_methods PUT MKCOL; }}
  }}
}}
"""

SSHD = """
ListenAddress {address}:{port}
HostKey {dir}/host
AuthorizedKeysFile {dir}/user.pub
PidFile none
StrictModes no
UsePAM no
PasswordAuthentication no
PermitRootLogin yes
MaxStartups 100
Subsystem sftp internal-sftp
"""


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


def digest_of(path):
    if not path.exists():
        return "none"
    with open(path, "rb") as read:
        return hashlib.file_digest(read, "sha256").hexdigest()


class Torture:
    def __init__(self, folder, asked, net):
        self.dir = folder
        self.asked = asked
        self.net = net
        self.dice = random.Random(asked.seed)
        self.root = folder / "recordings"
        self.root.mkdir(parents=True)
        self.calls = Calls(self.root, asked.seed, asked.files, asked.largest * 1_000_000)
        self.servers = {}
        self.tool = None
        self.died = collections.Counter()
        self.bad = []
        self.proved = set()
        self.kills_ms = []  # UTC, of the program's
        names = ["nginx", "store", "sshd"] + (["s3rver"] if asked.s3rver else [])
        self.ports = {name: free_port() for name in names}
        self.kept = {"nginx": folder / "dav", "store": folder / "store/s3/bucket",
                     "vault": folder / "store/s3/vault", "nas": folder / "nas", "ssh": folder / "ssh"}
        if asked.s3rver:
            self.kept["s3rver"] = folder / "s3rver/bucket"
        for one in ("dav", "nas", "ssh", "s3rver/bucket"):
            (folder / one).mkdir(parents=True)
        self.write_servers()
        self.write_settings()

    def write_servers(self):
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.dir / key],
                           check=True)
        subprocess.run(["age-keygen", "-o", self.dir / "age-key"], check=True, capture_output=True)
        if os.geteuid() == 0:
            Path("/run/sshd").mkdir(exist_ok=True)
        where = {"dir": self.dir, "address": self.net.address}
        (self.dir / "sshd.conf").write_text(SSHD.format(port=self.ports["sshd"], **where))
        (self.dir / "hosts").write_text(f"[{self.net.address}]:{self.ports['sshd']} "
                                        + (self.dir / "host.pub").read_text())
        (self.dir / "nginx.conf").write_text(NGINX.format(port=self.ports["nginx"], **where))

    def url(self, name):
        return f"http://{self.net.address}:{self.ports[name]}"

    def write_settings(self):
        (self.dir / "id").write_text("tester")
        (self.dir / "s3rver-id").write_text("S3RVER")
        # A line at a time is appended whole.
        (self.dir / "hook.sh").write_text(
            f'#!/bin/sh\necho "$ZELTA_ID $ZELTA_EVENT $ZELTA_FOLDER/$ZELTA_FILE" >> {self.dir}/ran.txt\n')
        (self.dir / "hook.sh").chmod(0o755)
        hook = [str(self.dir / "hook.sh")]
        public = subprocess.run(["age-keygen", "-y", self.dir / "age-key"], check=True, text=True,
                                capture_output=True).stdout.strip()
        s3 = {"type": "s3", "verify": "content", "bucket": "bucket", "part_bytes": 5 << 20,
              "secret_key_env": "S3_SECRET"}
        targets = [
            {"name": "nginx", "type": "http", "verify": "content", "url": self.url("nginx")},
            {**s3, "name": "store", "endpoint": self.url("store") + "/s3",
             "access_key_file": str(self.dir / "id")},
            {**s3, "name": "vault", "endpoint": self.url("store") + "/s3", "bucket": "vault",
             "access_key_file": str(self.dir / "id"), "encrypt_for": [public]},
            {"name": "nas", "type": "folder", "path": str(self.dir / "nas"), "verify": "content"},
            {"name": "ssh", "type": "sftp", "user": getpass.getuser(), "verify": "content",
             "url": f"sftp://{self.net.address}:{self.ports['sshd']}{self.dir}/ssh",
             "key_file": str(self.dir / "user"), "known_hosts": str(self.dir / "hosts")}]
        if self.asked.s3rver:
            targets.append({**s3, "name": "s3rver", "endpoint": self.url("s3rver"),
                            "access_key_file": str(self.dir / "s3rver-id")})
        (self.dir / "settings.json").write_text(json.dumps({
            "targets": targets, "hooks": {"file": hook, "session": hook},
            "webhook": {"url": self.url("store") + "/hook", "secret_env": "HOOK_KEY"},
            "connections": CONNECTIONS, "stall_s": STALL_S, "keep": {"minutes": 0},
            "retry": {"first_ms": 20, "longest_ms": 200, "refusals": 1000}}))

    def start(self, name):
        command = {
            "nginx": ["nginx", "-p", self.dir, "-c", self.dir / "nginx.conf"],
            "store": [sys.executable, HERE / "store.py", self.dir / "store",
                      str(self.ports["store"]), "--address", self.net.address, "--faults", FAULTS,
                      "--seed", str(self.dice.randrange(1 << 30))],
            "s3rver": ["node", HERE / "s3rver_whole.js", str(self.asked.s3rver), self.dir / "s3rver",
                       self.net.address, str(self.ports.get("s3rver"))],
            "sshd": ["/usr/sbin/sshd", "-D", "-f", self.dir / "sshd.conf"]}[name]
        with open(self.dir / f"{name}.out", "a") as log:
            self.servers[name] = subprocess.Popen(self.net.inside(command), stdout=log, stderr=log)

    def kill_server(self, name):
        self.servers[name].kill()
        self.servers[name].wait()

    def start_tool(self, *what):
        with open(self.dir / "out.jsonl", "a") as out, open(self.dir / "err.txt", "a") as err:
            out.write("\n")  # what was cut off by a kill has its own line
            out.flush()
            self.tool = subprocess.Popen(
                [TOOL, "--json", "--settings", self.dir / "settings.json", *what], stdout=out,
                stderr=err, env={**os.environ, **SECRETS})

    def watch(self):
        self.start_tool("--watch", self.root)

    def kill_tool(self):
        if self.tool and self.tool.poll() is not None:
            self.bad.append(f"it ended by itself with {self.tool.returncode}")
        if self.tool:
            self.tool.kill()
            self.tool.wait()
            self.kills_ms.append(time.time() * 1000)

    def just_before_a_kill(self, at_ms):
        return any(0 <= kill - at_ms <= LOST_MS for kill in self.kills_ms)

    def digest_at(self, target, key):
        there = self.kept[target] / key
        if target == "s3rver":
            return digest_of(there.with_name(there.name + "._S3rver_object"))
        if target != "vault":
            return digest_of(there)
        with subprocess.Popen(["age", "-d", "-i", self.dir / "age-key", f"{there}.age"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as opened:
            digest = hashlib.file_digest(opened.stdout, "sha256").hexdigest()
        return digest if opened.returncode == 0 else "none"

    def prove(self, only_gone):
        """What isn't at a target as it should be; of what is gone here and was not yet looked at,
        or of all."""
        for key, digest in self.calls.wanted.items():
            if only_gone and (key in self.proved or (self.root / key).exists()):
                continue
            self.proved.add(key)
            for target in self.kept:
                if self.digest_at(target, key) != digest:
                    self.bad.append(f"{target} {key}")

    def strike(self):
        """Kills one; now and then the program, too, while that is away."""
        victim = self.dice.choice(["tool", "tool", *self.ports, *(["network"] * 2 if self.net.faults
                                                                  else [])])
        both = victim != "tool" and self.dice.random() < 0.3
        if victim == "network":
            fault = self.dice.choice(self.net.faults)
            victim = f"network {fault}"
            long = self.dice.random() < 0.1
            with self.net.cut(fault):
                time.sleep(STALL_S + 2 if long else self.dice.uniform(0.1, 2))  # an outage
                if both:
                    self.kill_tool()
        elif victim != "tool":
            self.kill_server(victim)
            time.sleep(self.dice.uniform(0, 0.5))  # an outage
            if both:
                self.kill_tool()
            self.start(victim)
        else:
            self.kill_tool()
        self.died[victim] += 1
        self.died["tool, too"] += both
        if victim == "tool" or both:
            self.prove(only_gone=True)
            self.watch()

    def told_wrong(self):
        """What was told too often, too seldom, or by two ids."""
        told = collections.defaultdict(list)  # moments
        for line in (self.dir / "out.jsonl").read_text().splitlines():
            try:
                one = json.loads(line)
            except ValueError:  # cut by a kill
                continue
            if one["event"] == "confirmed":
                told[f"{one['target']} {Path(one['folder']).name}/{one['file']}"].append(one["utc_ms"])
            elif one["event"] in ("dead letter", "broken"):
                self.bad.append(line)
        confirmed = self.confirmed_ms()
        every = {f"{target} {key}" for target in self.kept for key in self.calls.wanted}
        self.bad += [f"untold: {what}" for what in every - set(told)
                     if not self.just_before_a_kill(confirmed.get(what, 0))]
        files = collections.Counter(key.split("/")[0] for key in self.calls.wanted)
        again = {what for what, moments in told.items() if len(moments) > 1}
        for what in again:
            is_lazy = files[what.split(" ")[1].split("/")[0]] > LAZY_FILES
            if not is_lazy or not all(map(self.just_before_a_kill, told[what][:-1])):
                self.bad.append(f"told {len(told[what])} times: {what}")
        self.bad += [f"told, and not wanted: {what}" for what in set(told) - every]
        ids = {"webhook": collections.defaultdict(set), "hook": collections.defaultdict(set)}
        for line in (self.dir / "store/hooks.txt").read_text().splitlines():
            body = json.loads(line)["body"]
            what = f"{body['event']} {Path(body['folder']).name}/{body.get('file', '')}"
            ids["webhook"][what].add(json.loads(line)["id"])
        for line in (self.dir / "ran.txt").read_text().splitlines():
            name, event, path = line.split(" ", 2)
            folder, _, file = path.rpartition("/")
            ids["hook"][f"{event} {Path(folder).name}/{file}"].add(name)
        needed = {f"file {key}" for key in self.calls.wanted}
        needed |= {f"session {one.name}/" for one in self.calls.folders}
        for kind, heard in ids.items():
            self.bad += [f"{kind} lacks {what}" for what in needed - set(heard)]
            self.bad += [f"{kind} has {names} for {what}" for what, names in heard.items()
                         if len(names) > 1]
        print(f"told as confirmed: {len(told)} of {len(every)}, again {len(again)}; "
              f"webhook {len(ids['webhook'])}, hook {len(ids['hook'])} of {len(needed)}")

    def states(self):
        return [folder / "delivery.json" for folder in self.calls.folders]

    def confirmed_ms(self):
        return {f"{target} {path.parent.name}/{name}": at["confirmed_utc_ms"]
                for path in self.states() for name, one in json.loads(path.read_text())["files"].items()
                for target, at in one["targets"].items()}

    def look_for_secrets(self):
        for path in [self.dir / "out.jsonl", self.dir / "err.txt", *self.states()]:
            text = path.read_text(errors="replace")
            self.bad += [f"{path.name} has {name}" for name, value in SECRETS.items() if value in text]

    def run(self):
        began = time.monotonic()
        self.calls.begin()
        for name in self.ports:
            self.start(name)
        self.watch()
        for at in range(self.asked.kills):
            self.calls.feed((at + 1) / self.asked.kills)
            time.sleep(self.dice.uniform(0.01, self.asked.interval))  # the moment of the kill
            self.strike()
            if at % 50 == 49:
                print(f"{at + 1} kills after {time.monotonic() - began:.0f} s, {self.calls.fed} "
                      f"files came, {len(self.proved)} were delivered and deleted; "
                      f"wrong: {len(self.bad)}", flush=True)
        self.calls.feed(1)
        self.kill_tool()
        killed = time.monotonic()
        self.start_tool("--root", self.root, *self.calls.folders)
        try:
            status = self.tool.wait(300 + self.asked.files)
        except subprocess.TimeoutExpired:
            status = "a kill: it took too long"
            self.kill_tool()
        ended = time.monotonic()
        self.prove(only_gone=False)
        self.told_wrong()
        self.look_for_secrets()
        states = collections.Counter(
            at["state"] for path in self.states() for one in
            json.loads(path.read_text())["files"].values() for at in one["targets"].values())
        wanted = len(self.calls.wanted)
        needed = len(self.kept) * wanted
        stored = len((self.dir / "store/puts.txt").read_text().splitlines())
        print(f"{wanted} files of {self.calls.bytes / 1e6:.0f} MB in {len(self.calls.folders)} folders"
              f" to {len(self.kept)} targets; {self.asked.kills} kills: {dict(self.died)} in "
              f"{killed - began:.0f} s; the last run ended with {status} after "
              f"{ended - killed:.1f} s, and all was compared in {time.monotonic() - ended:.0f} s")
        print(f"states: {dict(states)} of {needed}; wrong, deleted early or told wrong: "
              f"{len(self.bad)} {self.bad[:5]}; the store took {stored}, {2 * wanted} are needed")
        left = [str(one) for one in self.root.glob("*/.delivery/**/*")]
        print(f"left of sealed copies: {len(left)} {left[:5]}")
        is_whole = status == 0 and not self.bad and not left and states == {"confirmed": needed}
        return 0 if is_whole else 1

    def close(self):
        if self.tool:
            self.tool.kill()
            self.tool.wait()
        for name in self.servers:
            self.kill_server(name)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("--kills", type=int, default=100)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("--files", type=int, help="40, from 500 kills on 2000")
    parser.add_argument("--largest", type=int, help="MB; 10, from 500 kills on 300")
    parser.add_argument("--interval", type=float,
                        help="the longest time between kills in s; 0.4, from 500 kills on 8")
    parser.add_argument("--s3rver", type=Path, help="its absolute folder; without it goes without")
    parser.add_argument("--namespace", default=f"zelta-deliver-{os.getpid()}")
    asked = parser.parse_args()
    usual = (2000, 300, 8) if asked.kills >= FULL_KILLS else (40, 10, 0.4)
    for name, value in zip(("files", "largest", "interval"), usual):
        if getattr(asked, name) is None:
            setattr(asked, name, value)
    print(f"seed {asked.seed}", flush=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    net = torture_net.make_net(asked.namespace)
    torture = None
    try:
        torture = Torture(asked.folder, asked, net)
        free = shutil.disk_usage(asked.folder).free
        needed = torture.calls.bytes * (len(torture.kept) + 3)
        if free < needed:
            print(f"{asked.folder} has {free >> 20} MiB, {needed >> 20} are needed: fewer --files, or "
                  "another TMPDIR", file=sys.stderr)
            return 2
        return torture.run()
    finally:
        if torture:
            torture.close()
        net.close()


if __name__ == "__main__":
    sys.exit(main())
