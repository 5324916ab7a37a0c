#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-deliver and its servers are killed at random moments, while files go to nginx, to a store that
fails in every way (store.py), as they are and sealed, to a folder and to an SSH server. At the end
every file has to be at every target, byte for byte, none may ever have been deleted that wasn't there, each has been told as
confirmed once, and webhook and hooks were told of each at least once, repeats by the same id.

    torture.py FOLDER KILLS [SEED]
"""

import collections
import getpass
import hashlib
import json
import os
import random
import socket
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
TOOL = Path(os.environ["ZELTA_BIN"]) / "zelta-deliver"
FAULTS = ("error=0.05,busy=0.03,redirect=0.03,drop=0.1,deaf=0.1,lie=0.1,"
          "any-error=0.03,any-busy=0.01,any-drop=0.03")
LAST_RUN_S = 300

NGINX = """
daemon off; master_process off; error_log {dir}/nginx.log; pid {dir}/nginx.pid;
events {{ worker_connections 64; }}
http {{
  access_log off; client_max_body_size 0; client_body_temp_path {dir}/body;
  proxy_temp_path {dir}/t1; fastcgi_temp_path {dir}/t2; uwsgi_temp_path {dir}/t3;
  scgi_temp_path {dir}/t4;
  server {{
    listen 127.0.0.1:{port};
    location / {{ root {dir}/dav; dav_methods PUT MKCOL; }}
  }}
}}
"""


SSHD = """
ListenAddress 127.0.0.1:{port}
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


class Torture:
    def __init__(self, folder, seed):
        self.dir = folder
        self.dice = random.Random(seed)
        self.faults = FAULTS
        self.servers = {}
        self.ports = {"nginx": free_port(), "store": free_port(), "sshd": free_port()}
        self.kept = {"nginx": folder / "dav", "store": folder / "store/s3/bucket",
                     "nas": folder / "nas", "ssh": folder / "ssh",
                     "vault": folder / "store/s3/vault"}
        for one in ("dav", "nas", "ssh"):
            (folder / one).mkdir(parents=True)
        (folder / "id").write_text("tester")
        (folder / "hook-key").write_text("hook-key")
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / key],
                           check=True)
        subprocess.run(["age-keygen", "-o", folder / "age-key"], check=True, capture_output=True)
        public = subprocess.run(["age-keygen", "-y", folder / "age-key"], check=True, text=True,
                                capture_output=True).stdout.strip()
        if os.geteuid() == 0:
            Path("/run/sshd").mkdir(exist_ok=True)
        (folder / "sshd.conf").write_text(SSHD.format(dir=folder, port=self.ports["sshd"]))
        (folder / "hosts").write_text(
            f"[127.0.0.1]:{self.ports['sshd']} " + (folder / "host.pub").read_text())
        # A line at a time is appended whole.
        (folder / "hook.sh").write_text(
            f'#!/bin/sh\necho "$ZELTA_ID $ZELTA_EVENT $ZELTA_FOLDER/$ZELTA_FILE" >> {folder}/ran.txt\n')
        (folder / "hook.sh").chmod(0o755)
        (folder / "nginx.conf").write_text(NGINX.format(dir=folder, port=self.ports["nginx"]))
        retry = {"first_ms": 20, "longest_ms": 200, "refusals": 1000}
        (folder / "settings.json").write_text(json.dumps({
            "targets": [
                {"name": "nginx", "type": "http", "verify": "content",
                 "url": f"http://127.0.0.1:{self.ports['nginx']}"},
                {"name": "store", "type": "s3", "verify": "content", "bucket": "bucket",
                 "endpoint": f"http://127.0.0.1:{self.ports['store']}/s3", "part_bytes": 5 << 20,
                 "access_key_file": str(folder / "id"), "secret_key_env": "S3_SECRET"},
                {"name": "vault", "type": "s3", "verify": "content", "bucket": "vault",
                 "endpoint": f"http://127.0.0.1:{self.ports['store']}/s3", "part_bytes": 5 << 20,
                 "access_key_file": str(folder / "id"), "secret_key_env": "S3_SECRET",
                 "encrypt_for": [public]},
                {"name": "nas", "type": "folder", "path": str(folder / "nas"), "verify": "content"},
                {"name": "ssh", "type": "sftp", "user": getpass.getuser(), "verify": "content",
                 "url": f"sftp://127.0.0.1:{self.ports['sshd']}{folder}/ssh",
                 "key_file": str(folder / "user"), "known_hosts": str(folder / "hosts")}],
            "hooks": {"file": [str(folder / "hook.sh")], "session": [str(folder / "hook.sh")]},
            "webhook": {"url": f"http://127.0.0.1:{self.ports['store']}/hook",
                        "secret_file": str(folder / "hook-key")},
            "connections": 8, "retry": retry, "stall_s": 5, "keep": {"minutes": 0}}))

    def make_files(self):
        """Digests of what has to arrive, by folder and name."""
        wanted = {}
        self.folders = []
        for call in range(4):
            folder = self.dir / "recordings" / f"call{call}"
            folder.mkdir(parents=True)
            self.folders.append(folder)
            files = []
            for at in range(10):
                name = f"{at}_{call}.mp4"
                size = self.dice.choice([0, 1000, 30_000, 300_000, 2_000_000, 7_000_000])
                (folder / name).write_bytes(self.dice.randbytes(size))
                files.append({"name": name, "uid": at, "closed": "user left"})
            (folder / "recording.json").write_text(json.dumps({"files": files}))
            for one in folder.iterdir():
                wanted[f"{call}/{one.name}"] = hashlib.sha256(one.read_bytes()).hexdigest()
        return wanted

    def start(self, name):
        command = {
            "nginx": ["nginx", "-p", self.dir, "-c", self.dir / "nginx.conf"],
            "store": [sys.executable, HERE / "store.py", self.dir / "store",
                      str(self.ports["store"]), "--faults", self.faults, "--seed",
                      str(self.dice.randrange(1 << 30))],
            "sshd": ["/usr/sbin/sshd", "-D", "-f", self.dir / "sshd.conf"]}[name]
        self.servers[name] = subprocess.Popen(command, stdout=subprocess.DEVNULL,
                                              stderr=subprocess.DEVNULL)

    def kill(self, name):
        self.servers[name].kill()
        self.servers[name].wait()

    def tool(self, out):
        return subprocess.Popen(
            [TOOL, "--json", "--settings", self.dir / "settings.json", "--root",
             self.dir / "recordings", *self.folders], stdout=out, stderr=subprocess.DEVNULL,
            env={**os.environ, "S3_SECRET": "not-a-secret"})

    def digest_at(self, target, there):
        if target == "vault":
            done = subprocess.run(["age", "-d", "-i", self.dir / "age-key", f"{there}.age"],
                                  capture_output=True)
            return hashlib.sha256(done.stdout).hexdigest() if done.returncode == 0 else "none"
        return hashlib.sha256(there.read_bytes()).hexdigest() if there.exists() else "none"

    def faulty(self, wanted, only_gone):
        """What isn't at a target as it should be; of what is gone here, or of all."""
        bad = []
        for key, digest in wanted.items():
            if only_gone and (self.dir / "recordings" / f"call{key}").exists():
                continue
            for target, kept in self.kept.items():
                if self.digest_at(target, kept / f"call{key}") != digest:
                    bad.append(f"{target} {key}")
        return bad

    def told_wrong(self, wanted, kills):
        """What was told too often, too seldom, or by two ids."""
        bad = []
        folders = {str(folder): folder.name.removeprefix("call") for folder in self.folders}
        times = collections.Counter()
        for line in (self.dir / "out.jsonl").read_text().splitlines():
            try:
                one = json.loads(line)
            except ValueError:  # cut by a kill
                continue
            if one["event"] == "confirmed":
                times[f"{one['target']} {folders[one['folder']]}/{one['file']}"] += 1
        every = {f"{target} {key}" for target in self.kept for key in wanted}
        # A kill after a confirmation came to the disk, and before its line, leaves that untold.
        untold = every - set(times)
        if len(untold) > kills:
            bad.append(f"untold: {sorted(untold)}")
        bad += [f"told {count} times: {what}" for what, count in times.items() if count > 1]
        ids = {"webhook": collections.defaultdict(set), "hook": collections.defaultdict(set)}
        for line in (self.dir / "store/hooks.txt").read_text().splitlines():
            body = json.loads(line)["body"]
            what = f"{body['event']} {folders[body['folder']]}/{body.get('file', '')}"
            ids["webhook"][what].add(json.loads(line)["id"])
        for line in (self.dir / "ran.txt").read_text().splitlines():
            name, event, path = line.split(" ", 2)
            folder, _, file = path.rpartition("/")
            ids["hook"][f"{event} {folders[folder]}/{file}"].add(name)
        needed = {f"file {key}" for key in wanted} | {f"session {one}/" for one in folders.values()}
        for kind, told in ids.items():
            bad += [f"{kind} lacks {what}" for what in needed - set(told)]
            bad += [f"{kind} has {names} for {what}" for what, names in told.items()
                    if len(names) > 1]
        print(f"told as confirmed: {sum(times.values())} of {len(every)}, untold {len(untold)}; "
              f"webhook {len(ids['webhook'])}, hook {len(ids['hook'])} of {len(needed)}")
        return bad

    def run(self, kills):
        wanted = self.make_files()
        for name in self.ports:
            self.start(name)
        died = {"tool": 0, **dict.fromkeys(self.ports, 0)}
        bad = []
        with open(self.dir / "out.jsonl", "a") as out:
            for _ in range(kills):
                tool = self.tool(out)
                time.sleep(self.dice.uniform(0.01, 0.4))  # the moment of the kill
                victim = self.dice.choice(["tool", "tool", *self.ports])
                if victim != "tool":
                    self.kill(victim)
                    time.sleep(self.dice.uniform(0, 0.2))
                    self.start(victim)
                tool.kill()
                tool.wait()
                # What was cut off has its own line.
                out.write("\n")
                out.flush()
                died["tool"] += 1
                died[victim] += victim != "tool"
                bad += self.faulty(wanted, only_gone=True)
            began = time.monotonic()
            tool = self.tool(out)
            try:
                status = tool.wait(LAST_RUN_S)
            finally:
                tool.kill()
        bad += self.faulty(wanted, only_gone=False)
        bad += self.told_wrong(wanted, kills)
        states = [at["state"] for folder in self.folders for one in json.loads(
            (folder / "delivery.json").read_text())["files"].values()
                  for at in one["targets"].values()]
        all_states = len(self.kept) * len(wanted)
        stored = len((self.dir / "store/puts.txt").read_text().splitlines())
        print(f"{len(wanted)} files to {len(self.kept)} targets; killed: {died}; the last run ended "
              f"with {status} after {time.monotonic() - began:.1f} s")
        print(f"confirmed {states.count('confirmed')} of {all_states}; wrong, deleted early or told "
              f"wrong: {len(bad)} {bad[:5]}; stored {stored} times, {2 * len(wanted)} are needed")
        left = [str(one) for folder in self.folders for one in folder.glob(".delivery/**/*")]
        print(f"left of sealed copies: {len(left)} {left[:5]}")
        is_whole = status == 0 and not bad and not left and states.count("confirmed") == all_states
        return 0 if is_whole else 1


def main():
    folder, kills = Path(sys.argv[1]), int(sys.argv[2])
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(1 << 30)
    print(f"seed {seed}", flush=True)
    torture = Torture(folder, seed)
    try:
        return torture.run(kills)
    finally:
        for name in torture.servers:
            torture.kill(name)


if __name__ == "__main__":
    sys.exit(main())
