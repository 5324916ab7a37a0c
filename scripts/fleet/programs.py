# SPDX-License-Identifier: Apache-2.0
"""The programs of a fleet, each on a machine of its own with a folder of its own as its disk."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import urllib.request

from network import ROOT, kill_all_in, pids_in

sys.path.insert(0, str(ROOT / "scripts/reliability"))
from farm import size_of  # noqa: E402  pylint: disable=wrong-import-position

BIN = pathlib.Path(os.environ.get("ZELTA_BIN") or ROOT / "build/release/bin")
CLIENT_PORT, CLUSTER_PORT, MONITOR_PORT = 4222, 6222, 8222
# What a worker reads of how busy the processors are: those here belong to all machines and to who checks
# them. How many jobs it takes is settled by a number instead.
IDLE = "cpu 0 0 0 1000 0 0 0 0 0 0\n"
# As the kernel cuts them off.
SERVICE, RECORDER = "ZeltaCoreServic", "zelta-record"


def name_of(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="utf-8").strip()
    except OSError:
        return ""


class Program:
    """`command` is one word a list item; its output goes to its folder."""

    def __init__(self, machine, folder):
        self.machine = machine
        self.name = machine.name
        self.folder = folder
        self.process = None
        folder.mkdir(parents=True)

    def command(self):
        raise NotImplementedError

    def start(self):
        with open(self.folder / "out.txt", "a", encoding="utf-8") as out:
            self.process = subprocess.Popen(  # pylint: disable=consider-using-with
                self.machine.inside(self.command()), stdout=out, stderr=out, stdin=subprocess.DEVNULL,
                start_new_session=True)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def kill_machine(self):
        """Whoever was connected hears nothing of it: the cable is cut before."""
        self.machine.cut()
        kill_all_in(self.machine.namespace)
        self.process.wait()

    def start_machine(self):
        self.machine.join()
        self.start()

    def send(self, number):
        self.process.send_signal(number)

    def send_all(self, number):
        kill_all_in(self.machine.namespace, number)

    def ended(self):
        return self.process.poll()


class NatsServer(Program):
    def __init__(self, machine, folder, all_servers):
        super().__init__(machine, folder)
        routes = [f"nats://{one.address}:{CLUSTER_PORT}" for one in all_servers if one is not machine]
        (folder / "nats.conf").write_text(json.dumps({
            "server_name": machine.name, "listen": f"{machine.address}:{CLIENT_PORT}",
            "http": f"{machine.address}:{MONITOR_PORT}",
            "jetstream": {"store_dir": str(folder / "store")},
            "cluster": {"name": "fleet", "listen": f"{machine.address}:{CLUSTER_PORT}",
                        "routes": routes}}), encoding="utf-8")

    def command(self):
        return ["nats-server", "-c", self.folder / "nats.conf"]

    def end(self):
        self.process.terminate()
        self.process.wait()

    def empty(self):
        """What it stored is lost; it gets the others' copies when it starts."""
        shutil.rmtree(self.folder / "store")

    def copies(self):
        """What this server's own copy of each stream has: messages, and the last one's number."""
        url = f"http://{self.machine.address}:{MONITOR_PORT}/jsz?streams=1&accounts=1"
        with urllib.request.urlopen(url, timeout=5) as answer:
            accounts = json.load(answer)["account_details"]
        return {stream["name"]: (stream["state"]["messages"], stream["state"]["last_seq"])
                for account in accounts for stream in account.get("stream_detail", [])}


class Worker(Program):
    def __init__(self, machine, folder, urls, most_jobs):
        super().__init__(machine, folder)
        self.root = folder / "recordings"
        self.root.mkdir()
        (folder / "stat").write_text(IDLE, encoding="utf-8")
        (folder / "settings.json").write_text(json.dumps({
            "nats": {"urls": urls, "replicas": 3}, "name": machine.name, "root": str(self.root),
            "servers": ["test:", "janus:"], "most_jobs": most_jobs, "busy_share": 1,
            "free_memory_share": 0, "free_disk_mib": 0}), encoding="utf-8")

    def command(self):
        # The namespace of mounts is the program's own.
        return ["sh", "-c", 'mount --bind "$1/stat" /proc/stat && exec "$2" --settings '
                '"$1/settings.json" --handover --json', "worker", self.folder, BIN / "zelta-worker"]

    def recorders(self, name):
        return [pid for pid in pids_in(self.machine.namespace) if name_of(pid) == name]

    def size(self):
        return size_of(self.process.pid)

    def drain(self):
        self.send(signal.SIGTERM)


def channel_of(pid):
    """Of a zelta-record or its service; "" when it has gone."""
    try:
        words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().decode().split("\0")
    except OSError:
        return ""
    after = "--channel_id" if "--channel_id" in words else "--"
    return words[words.index(after) + 1] if after in words else ""


def fleet(urls, *words, limit_s=30):
    """zelta-fleet's status, standard output and error."""
    done = subprocess.run([BIN / "zelta-fleet", "--nats", ",".join(urls), "--replicas", "3", *words],
                          capture_output=True, text=True, check=False, timeout=limit_s)
    return done.returncode, done.stdout, done.stderr.strip()
