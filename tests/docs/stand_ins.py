# SPDX-License-Identifier: Apache-2.0
"""What stands for servers and ports that a page names, so that its commands can be run here."""

import contextlib
import getpass
import os
import re
import socket
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
# Ports that pages name. Somebody may have them here, so each page gets others.
PORTS = re.compile(r"\b(4222|4333|8080|9464|9465)\b")
STORE = "https://s3.example.org"
SSH = "sftp://backup.example.org/srv/calls"
SSH_SETTINGS = """
ListenAddress 127.0.0.1:{port}
HostKey {work}/host
AuthorizedKeysFile {work}/user.pub
PidFile none
StrictModes no
UsePAM no
PasswordAuthentication no
PermitRootLogin yes
Subsystem sftp internal-sftp
"""


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


def ended(process):
    process.kill()
    process.wait()


class StandIns(contextlib.ExitStack):
    """Of one page with this text; `work` is a folder of theirs."""

    def __init__(self, text, work):
        super().__init__()
        self.work = work
        self.ports = {port: str(free_port()) for port in set(PORTS.findall(text))}
        self.others = []
        if STORE in text:
            self.others.append((STORE, self.start_store()))
        if SSH in text:
            self.others += self.start_ssh()

    def put_in(self, text):
        for said, here in self.others:
            text = text.replace(said, here)
        return PORTS.sub(lambda found: self.ports[found[1]], text)

    def start_store(self):
        store = subprocess.Popen(
            [sys.executable, ROOT / "tests/zelta-deliver/store.py", self.work / "store", "0"],
            stdout=subprocess.PIPE, text=True)
        self.callback(ended, store)
        with store.stdout as said:
            return f"http://127.0.0.1:{int(said.readline())}/s3"

    def start_ssh(self):
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.work / key],
                           check=True)
        port, kept = free_port(), self.work / "kept"
        kept.mkdir()
        (self.work / "sshd.conf").write_text(SSH_SETTINGS.format(port=port, work=self.work))
        if os.geteuid() == 0:
            Path("/run/sshd").mkdir(exist_ok=True)
        server = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", self.work / "sshd.conf"],
                                  stderr=subprocess.PIPE, text=True)
        self.callback(server.stderr.close)
        self.callback(ended, server)
        if "listening" not in (said := server.stderr.readline()):
            raise AssertionError(said)
        (self.work / "known_hosts").write_text(f"[127.0.0.1]:{port} " +
                                               (self.work / "host.pub").read_text())
        return [(SSH, f"sftp://127.0.0.1:{port}{kept}"),
                ('"user": "calls"', f'"user": "{getpass.getuser()}"'),
                ("/etc/zelta/ssh/key", str(self.work / "user")),
                ("/etc/zelta/ssh/known_hosts", str(self.work / "known_hosts"))]
