#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-deliver against servers on the loopback: what arrives, what is told, what stays."""

import contextlib
import fcntl
import getpass
import json
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.request
import zlib
from pathlib import Path

from deliveries import CPU_S, ENVIRONMENT, HERE, LIMIT_S, RETRY, DeliveryTest, Recording, wait_for


class ToolTest(DeliveryTest):
    def start_sshd(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.dir / key],
                           check=True)
        (self.dir / "sshd.conf").write_text(f"""
ListenAddress 127.0.0.1:{port}
HostKey {self.dir}/host
AuthorizedKeysFile {self.dir}/user.pub
PidFile none
StrictModes no
UsePAM no
PasswordAuthentication no
PermitRootLogin yes
Subsystem sftp internal-sftp
""")
        if os.geteuid() == 0:
            Path("/run/sshd").mkdir(exist_ok=True)
        sshd = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", self.dir / "sshd.conf"],
                                stderr=subprocess.PIPE, text=True)

        def end():
            sshd.kill()
            sshd.wait()
            sshd.stderr.close()
        self.addCleanup(end)
        self.assertIn("listening", sshd.stderr.readline())
        hosts = self.dir / "hosts"
        hosts.write_text(f"[127.0.0.1]:{port} " + (self.dir / "host.pub").read_text())
        kept = self.dir / 'kept "by" ssh'
        kept.mkdir()
        return {"name": "sftp", "type": "sftp", "user": getpass.getuser(),
                "url": f"sftp://127.0.0.1:{port}{self.dir}/kept%20%22by%22%20ssh",
                "key_file": str(self.dir / "user"), "known_hosts": str(hosts)}

    def test_sftp_takes_all_once_and_its_server_has_to_be_the_known_one(self):
        target = self.start_sshd()
        made = self.recording()
        hosts = Path(target["known_hosts"])
        right = hosts.read_text()
        other = (self.dir / "user.pub").read_text()
        hosts.write_text(right.split()[0] + " " + other)
        told = self.run_tool(self.settings(target), made.folder, status=4)
        self.assertFalse([one for one in told if one["event"] == "confirmed"])
        hosts.write_text(right)
        self.run_tool(self.settings(target), "--retry-dead", "--give-up", 20, made.folder)
        at = self.dir / 'kept "by" ssh'
        self.assert_arrived(made, at)
        with open(made.folder / "recording_engine.log", "a") as log:
            log.write("went on\n")
        # The same key, kept under a password.
        subprocess.run(["ssh-keygen", "-q", "-p", "-P", "", "-N", "hunter", "-f",
                        self.dir / "user"], check=True)
        (self.dir / "pass").write_text("hunter")
        target["password_file"] = str(self.dir / "pass")
        self.run_tool(self.settings({**target, "verify": "content"}), made.folder)
        self.assert_arrived(made, at)
        self.assertEqual(list(at.rglob("*.part")), [])

    def test_all_arrives_once_at_each_kind_of_target(self):
        for kind, at in self.all_kinds().items():
            for verify in ("size", "content"):
                with self.subTest(kind=kind, verify=verify):
                    shutil.rmtree(self.dir / "a call+1", True)
                    shutil.rmtree(self.kept, True)
                    self.serve()
                    made = self.recording()
                    told = self.run_tool(self.settings(self.target(kind, verify=verify)),
                                         made.folder)
                    self.assert_arrived(made, at)
                    names = [one["file"] for one in told if one["event"] == "confirmed"]
                    self.assertEqual(len(names), 8)
                    self.assertEqual(names[-1], "recording.json")
                    again = self.run_tool(self.settings(self.target(kind)), made.folder)
                    self.assertEqual(again, [])
                    if kind != "folder":
                        self.assertEqual(self.puts(), sorted(set(names)))

    def test_faults_of_servers_cost_time_and_nothing_else(self):
        faults = ["error=0.5", "busy=0.3", "drop=0.5", "deaf=0.5", "lie=0.4",
                  "error=0.1,busy=0.1,drop=0.1,deaf=0.1,lie=0.1,redirect=0.1"]
        for kind in ("http", "s3"):
            for fault in faults + (["bend=0.4"] if kind == "http" else []):
                with self.subTest(kind=kind, fault=fault):
                    shutil.rmtree(self.dir / "a call+1", True)
                    shutil.rmtree(self.kept, True)
                    self.serve(fault)
                    made = self.recording()
                    settings = self.settings(self.target(kind, verify="content"),
                                             retry={**RETRY, "refusals": 50})
                    self.run_tool(settings, made.folder)
                    self.assert_arrived(made, self.all_kinds()[kind])

    def test_what_can_not_work_is_a_dead_letter_until_it_is_asked_for_again(self):
        for kind, fault, says in (("http", "refuse=1", "403"),
                                  ("http", "redirect=1", "127.0.0.1:1/elsewhere"),
                                  ("http", "lie=1", "hasn't got it"),
                                  ("s3", "lie=1", "hasn't got it"),
                                  ("s3", "forge", "holds something else")):
            with self.subTest(kind=kind, fault=fault):
                shutil.rmtree(self.dir / "call", True)
                shutil.rmtree(self.kept, True)
                made = Recording(self.dir).add("7_a.mp4", 1000)
                self.serve(fault)
                settings = self.settings(self.target(kind))
                told = self.run_tool(settings, made.folder, status=4)
                dead = [one for one in told if one["event"] == "dead letter"]
                self.assertEqual([one["file"] for one in dead], ["7_a.mp4", "recording.json"])
                self.assertIn(says, dead[0]["error"])
                self.serve()
                self.assertEqual(self.run_tool(settings, made.folder, status=4), [])
                self.run_tool(settings, "--retry-dead", made.folder)
                self.assert_arrived(made, self.all_kinds()[kind])

    def test_keys_that_are_refused_are_shown_nowhere_and_new_ones_are_taken(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 1000)
        (self.dir / "wrong").write_text("wrong-secret")
        target = self.target("s3", secret_key_file=str(self.dir / "wrong"))
        del target["secret_key_env"]
        told = self.run_tool(self.settings(target), made.folder, status=4)
        state = json.dumps(told) + (made.folder / "delivery.json").read_text()
        self.assertNotIn("wrong-secret", state)
        self.assertIn("403", state)
        (self.dir / "wrong").write_text("not-a-secret")
        self.run_tool(self.settings(target), "--retry-dead", made.folder)
        self.assert_arrived(made, self.kept / "s3/bucket/p q")

    def test_retry_after_is_heard(self):
        self.serve("busy=1")
        made = Recording(self.dir).add("7_a.mp4", 1000)
        settings = self.settings(self.target("http"))
        told = self.run_tool(settings, made.folder, status=3, until="failed")
        self.assertLessEqual(sum(one["event"] == "failed" for one in told), 3)
        self.assertEqual(made.stages(), {"7_a.mp4": {"sending"}, "recording.json": {"pending"}})

    def test_a_file_that_changed_or_went_is_told_and_what_stands_there_is_not_replaced(self):
        self.serve()
        settings = self.settings(self.target("http"))
        made = Recording(self.dir).add("7_a.mp4", 1000).add("7_b.mp4", 1000)
        self.run_tool(settings, made.folder)
        made.add("7_a.mp4", 2000).add("7_c.mp4", 10)
        (made.folder / "7_c.mp4").unlink()
        other = self.kept / "dav/call/8_d.mp4"
        other.write_text("somebody else's")
        made.add("8_d.mp4", 1000)
        self.run_tool(settings, made.folder, status=4)
        self.assertEqual({name: at for name, at in made.stages().items() if at == {"dead"}},
                         {name: {"dead"} for name in ("7_a.mp4", "7_c.mp4", "8_d.mp4")})
        self.assertEqual((self.kept / "dav/call/7_a.mp4").stat().st_size, 1000)
        self.assertEqual(other.read_text(), "somebody else's")
        # The manifest is a new one, and went again.
        self.assertEqual((self.kept / "dav/call/recording.json").read_bytes(),
                         (made.folder / "recording.json").read_bytes())

    def test_parts_that_are_there_are_not_sent_again(self):
        self.serve("deaf=0.5")
        made = Recording(self.dir).add("7_a.mp4", 26_000_000)
        settings = self.settings(self.target("s3"))
        tool = self.start_tool(settings, made.folder)
        parts = self.kept / "parts.txt"
        wait_for("two parts", lambda: parts.exists() and len(parts.read_text().split("\n")) > 3)
        tool.kill()
        tool.wait()
        before = len(made.state()["files"]["7_a.mp4"]["targets"]["s3"].get("parts", []))
        self.serve()
        parts.unlink()
        self.run_tool(settings, made.folder)
        self.assertEqual(len(parts.read_text().splitlines()), 5 - before)
        self.assert_arrived(made, self.kept / "s3/bucket/p q")

    def test_a_running_recording_is_delivered_file_by_file_and_its_manifest_last(self):
        self.serve()
        root = self.dir / "root"
        made = Recording(root).add("7_a.mp4", 1000).add("7_b.mp4", 1000, closed="").runs(True)
        tool = self.start_tool(self.settings(self.target("http")), "--watch", root)
        there = self.kept / "dav/call"
        wait_for("the first file", lambda: (there / "7_a.mp4").exists())
        self.assertFalse((there / "7_b.mp4").exists())
        made.add("7_b.mp4", 5000)
        wait_for("the second", lambda: (there / "7_b.mp4").exists())
        self.assertFalse((there / "recording.json").exists())
        with open(made.folder / "journal.json") as _:
            folder = os.open(made.folder, os.O_RDONLY)
            fcntl.flock(folder, fcntl.LOCK_EX)
            made.runs(False)
            later = Recording(root / "deeper", "other").add("9_c.mp4", 100)
            wait_for("a folder that came", lambda:
                     (self.kept / "dav/deeper/other/recording.json").exists())
            self.assertFalse((there / "recording.json").exists(), "the folder is held")
            os.close(folder)
        wait_for("the manifest", lambda: (there / "recording.json").exists())
        wait_for("its confirmation", lambda:
                 made.stages().get("recording.json") == {"confirmed"} and
                 later.stages().get("recording.json") == {"confirmed"})
        wait_for("folders of which all is done are let go", lambda: self.locks_of(tool) == 0)
        gone = Recording(root, "gone").add("7_a.mp4", 10).runs(True)
        wait_for("one that runs", lambda: self.locks_of(tool) == 1)
        gone.folder.rename(self.dir / "away")
        wait_for("the folder that went is let go", lambda: self.locks_of(tool) == 0)
        made.add("7_d.mp4", 10)
        wait_for("one that was done goes on", lambda: (there / "7_d.mp4").exists())
        tool.send_signal(signal.SIGTERM)
        self.assertEqual(tool.wait(LIMIT_S), 0)

    def test_who_delivers_a_running_recording_once_is_told_that_it_isnt_all(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 1000).runs(True)
        told = self.run_tool(self.settings(self.target("http")), made.folder, status=3)
        self.assertEqual([(one["event"], one.get("folder")) for one in told],
                         [("confirmed", str(made.folder)), ("unfinished", str(made.folder))])

    def test_two_processes_share_folders_without_sending_twice(self):
        self.serve()
        root = self.dir / "root"
        made = [Recording(root, f"call{at}").add("7_a.mp4", 300_000) for at in range(6)]
        settings = self.settings(self.target("http"))
        tools = [self.start_tool(settings, "--root", root, *[one.folder for one in made])
                 for _ in range(3)]
        self.assertTrue({tool.wait(LIMIT_S) for tool in tools} <= {0, 3})
        self.run_tool(settings, "--root", root, *[one.folder for one in made])
        self.assertEqual(self.puts(), ["7_a.mp4"] * 6 + ["recording.json"] * 6)

    def test_only_what_every_target_has_is_deleted(self):
        self.serve("refuse=1")
        made = Recording(self.dir).add("7_a.mp4", 1000)
        both = self.settings(self.target("http"), self.target("folder"), keep={"minutes": 0})
        self.run_tool(both, made.folder, status=4)
        self.assertTrue((made.folder / "7_a.mp4").exists())
        self.serve()
        told = self.run_tool(both, "--retry-dead", made.folder)
        self.assertIn("deleted", {one["event"] for one in told})
        self.assertFalse((made.folder / "7_a.mp4").exists())
        self.assertTrue((made.folder / "recording.json").exists())
        self.assertEqual((self.dir / "nas/call/7_a.mp4").stat().st_size, 1000)
        self.assertEqual(self.run_tool(both, made.folder), [])

    def test_a_quota_takes_the_oldest_confirmed_first(self):
        made = Recording(self.dir)
        settings = self.settings(self.target("folder"), keep={"quota_mib": 1}, connections=1)
        for name in ("7_b.mp4", "7_a.mp4", "7_c.mp4"):
            made.add(name, 500_000)
            self.run_tool(settings, made.folder)
        self.assertEqual(sorted(one.name for one in made.folder.glob("*.mp4")),
                         ["7_a.mp4", "7_c.mp4"])

    def test_hooks_and_webhook_are_told_in_order_and_at_least_once(self):
        self.serve("deaf=0.4")
        made = Recording(self.dir).add("7_a.mp4", 1000).add("7_b.mp4", 1000)
        script = self.dir / "hook.sh"
        script.write_text(f"""#!/bin/sh
read -r line
echo "$ZELTA_EVENT $ZELTA_FILE ${{S3_SECRET:-hidden}} $line" >> {self.dir}/ran.txt
echo it ran
""")
        script.chmod(0o755)
        settings = self.settings(
            self.target("s3"), connections=1,
            hooks={"file": [str(script)], "session": [str(script)]},
            webhook={"url": f"http://127.0.0.1:{self.port}/hook", "secret_env": "HOOK_KEY"})
        told = self.run_tool(settings, made.folder)
        self.assertIn("it ran", [one.get("says") for one in told])
        heard = self.hooks()
        self.assertTrue(all(one["signed"] for one in heard))
        first = list(dict.fromkeys(one["id"] for one in heard))
        self.assertEqual([one.rsplit("-", 1)[1] for one in first],
                         sorted((one.rsplit("-", 1)[1] for one in first), key=int))
        events = {one["id"]: one["body"] for one in heard}
        self.assertEqual([events[one]["event"] for one in first], ["file"] * 3 + ["session"])
        ran = (self.dir / "ran.txt").read_text().splitlines()
        self.assertEqual([line.split("{")[0].split() for line in ran],
                         [[body["event"], *filter(None, [body.get("file")]), "hidden"]
                          for body in (events[one] for one in first)])
        self.assertEqual(json.loads(ran[0][ran[0].index("{"):])["bytes"], 1000)

    def test_who_ignores_its_children_or_puts_a_pipe_in_the_way_holds_nothing_up(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        os.mkfifo(made.folder / "delivery.json.new")
        settings = self.settings(self.target("folder"), hooks={"session": ["/bin/true"], "limit_s": 30})
        began = time.monotonic()
        told = self.run_tool(settings, made.folder,
                             preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assertLess(time.monotonic() - began, 20)
        self.assertEqual(self.count(told, "failed"), 0, told)
        self.assertEqual(made.stages()["7_a.mp4"], {"confirmed"})

    def test_a_hook_that_hangs_is_ended_with_its_children_and_given_up(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        settings = self.settings(self.target("folder"), hooks={
            "session": ["/bin/sh", "-c", f"sleep 1000 & echo $! > {self.dir}/pid; sleep 1000"],
            "limit_s": 1}, retry={**RETRY, "refusals": 1})
        told = self.run_tool(settings, made.folder)
        self.assertIn("took more than 1 s", [one for one in told if one["event"] == "given up"]
                      [0]["error"])
        stat = Path(f"/proc/{(self.dir / 'pid').read_text().strip()}/stat")
        self.assertTrue(not stat.exists() or stat.read_text().split()[2] == "Z")

    def test_bandwidth_has_its_bound(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 300_000).add("7_b.mp4", 300_000)
        began = time.monotonic()
        self.run_tool(self.settings(self.target("http"), kbps=4000), made.folder)
        self.assertGreater(time.monotonic() - began, 600_000 * 8 / 4_000_000 * 0.85)

    def test_a_state_that_is_none_stops_the_folder_and_a_left_journal_can_be_overruled(self):
        made = Recording(self.dir).add("7_a.mp4", 10).runs(True)
        settings = self.settings(self.target("folder"))
        self.run_tool(settings, made.folder, status=3)
        self.assertNotIn("recording.json", made.stages())
        self.run_tool(settings, "--left-over", made.folder)
        self.assertEqual(made.stages()["recording.json"], {"confirmed"})
        (made.folder / "delivery.json").write_text("{\"version\": 1, ")
        self.run_tool(settings, made.folder, status=1)

    # What can't be done now is tried seldom, not all the time.
    def assert_idle(self, told):
        self.assertLess(len(told), 60, told[-3:])
        self.assertLess(self.cpu_s, CPU_S)

    def test_a_file_that_can_not_be_opened_is_tried_again_and_told(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 1000)
        settings = self.settings(self.target("http"))
        # As root may read anything: a lease, which an open that doesn't wait meets with EWOULDBLOCK.
        before = signal.signal(signal.SIGIO, signal.SIG_IGN)
        self.addCleanup(signal.signal, signal.SIGIO, before)
        with open(made.folder / "7_a.mp4", "r+b") as leased:
            fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_WRLCK)
            told = self.run_tool(settings, made.folder, status=3, until="failed")
            fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_UNLCK)
        self.assertIn("7_a.mp4: Resource temporarily unavailable", told[0]["error"])
        self.assert_idle(told)
        self.run_tool(settings, made.folder)
        self.assert_arrived(made, self.kept / "dav")

    def test_a_log_that_grows_on_goes_to_two_targets_once_a_second_at_most(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 10)
        log = made.folder / "recording_engine.log"
        log.write_text("began\n")
        ended = threading.Event()

        def grow():
            while not ended.wait(0.001):
                with open(log, "a") as more:
                    more.write("more\n" * 100)
        growing = threading.Thread(target=grow)
        growing.start()
        try:
            settings = self.settings(self.target("http"), self.target("s3"))
            told = self.run_tool(settings, "--give-up", 4, made.folder, status=3)
        finally:
            ended.set()
            growing.join()
        self.assert_idle(told)
        self.assertLess(len(self.puts()), 24)
        self.run_tool(settings, made.folder)
        self.assert_arrived(made, self.kept / "dav")
        self.assert_arrived(made, self.kept / "s3/bucket/p q")

    def test_without_room_for_the_state_nothing_spins_and_what_may_go_makes_room(self):
        self.serve()

        def no_room():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
        made = Recording(self.dir).add("7_a.mp4", 1000)
        more = {"webhook": {"url": f"http://127.0.0.1:{self.port}/hook", "secret_env": "HOOK_KEY"},
                "hooks": {"file": ["/bin/true"], "session": ["/bin/true"]}}
        settings = self.settings(self.target("http"), **more)
        self.run_tool(settings, made.folder)
        made.add("7_b.mp4", 1000)
        told = self.run_tool(self.settings(self.target("http"), keep={"minutes": 0}, **more),
                             made.folder, until="broken", status=1, preexec_fn=no_room)
        self.assert_idle(told)
        self.assertIn("File too large", told[0]["error"])
        self.assertFalse((made.folder / "7_a.mp4").exists(), "its confirmation was on disk")
        self.assertTrue((made.folder / "7_b.mp4").exists())
        self.run_tool(settings, made.folder)
        self.assertEqual(made.stages()["7_b.mp4"], {"confirmed"})

    def test_a_target_that_never_answers_keeps_no_other_one_waiting(self):
        self.serve()
        made = Recording(self.dir)
        for at in range(40):
            made.add(f"{at}_a.mp4", 1000)
        with socket.socket() as deaf:
            deaf.bind(("127.0.0.1", 0))
            deaf.listen(64)
            dead = {"name": "dead", "type": "http", "url": f"http://127.0.0.1:{deaf.getsockname()[1]}"}
            settings = self.settings(dead, self.target("http"), connections=2, stall_s=3)
            begun = time.monotonic()
            told = self.run_tool(settings, made.folder, status=3, until="confirmed", times=41)
            stalls = (time.monotonic() - begun) / 3
        self.assertLessEqual(self.count(told, "failed"), stalls + 1)

    @contextlib.contextmanager
    def answering(self, answer):
        """A server that treats each connection, one after the other, as `answer` does; its URL."""
        def serve(server):
            with contextlib.suppress(OSError):  # it is shut down
                while True:
                    with server.accept()[0] as one, contextlib.suppress(OSError):
                        one.settimeout(LIMIT_S)
                        answer(one)
        with socket.socket() as server:
            server.bind(("127.0.0.1", 0))
            server.listen()
            serving = threading.Thread(target=serve, args=(server,))
            serving.start()
            try:
                yield f"http://127.0.0.1:{server.getsockname()[1]}"
            finally:
                server.shutdown(socket.SHUT_RDWR)
                serving.join()

    def test_an_answer_without_an_end_is_left(self):
        made = Recording(self.dir).add("7_a.mp4", 10)

        def answer(one):
            one.sendall(b"HTTP/1.1 200 OK\r\n")
            while True:
                one.sendall(b"X-More: and more\r\n" * 100)
        with self.answering(answer) as url:
            told = self.run_tool(self.settings({"name": "endless", "type": "http", "url": url}),
                                 made.folder, status=3, until="failed")
        self.assertIn("more than 64 KiB", told[0]["error"])
        self.assert_idle(told)

    def test_an_answer_that_only_trickles_is_left(self):
        ended = threading.Event()

        def trickle(one):
            # Five bytes a second: never silent, and never done.
            while not ended.wait(0.2):
                one.sendall(b"x")

        def answer(one):
            head = b""
            while b"\r\n\r\n" not in head:
                head += one.recv(65536)
            method = head.split()[0].decode()
            if method == slow:
                one.sendall(f"HTTP/1.1 {status} So\r\nContent-Length: 1000\r\n\r\n".encode())
                trickle(one)
            elif method == "HEAD" and slow == "GET":
                one.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nConnection: close\r\n\r\n")
            else:
                one.sendall(b"HTTP/1.1 404 No\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
        # Of a large file nothing, or not all, is sent to who refuses it.
        for slow, status, size in (("PUT", 200, 1000), ("GET", 200, 1000), ("PUT", 503, 3_000_000)):
            with self.subTest(slow, status=status):
                made = Recording(self.dir, f"{slow}{status}").add("7_a.mp4", size)
                ended.clear()
                with self.answering(answer) as url:
                    settings = self.settings({"name": "slow", "type": "http", "url": url,
                                              "verify": "content"}, stall_s=1)
                    try:
                        told = self.run_tool(settings, made.folder, status=3, until="failed")
                    finally:
                        ended.set()
                self.assertGreaterEqual(self.count(told, "failed"), 1)
                self.assert_idle(told)

    def test_a_redirect_is_followed_nowhere(self):
        (self.dir / "password").write_text("hunter")
        with socket.socket() as elsewhere:
            elsewhere.bind(("127.0.0.1", 0))
            elsewhere.listen()
            place = f"http://127.0.0.1:{elsewhere.getsockname()[1]}/dav"

            def answer(one):
                one.recv(65536)
                one.sendall(f"HTTP/1.1 {status} Go\r\nLocation: {place}\r\nContent-Length: 0\r\n"
                            "Connection: close\r\n\r\n".encode())
            for status in (301, 302, 303, 307, 308):
                with self.subTest(status), self.answering(answer) as url:
                    made = Recording(self.dir, str(status)).add("7_a.mp4", 10)
                    told = self.run_tool(self.settings(
                        {"name": "moved", "type": "http", "url": url, "user": "me",
                         "password_file": str(self.dir / "password")}), made.folder, status=4)
                    self.assertIn(place, told[0]["error"])
            elsewhere.setblocking(False)
            with self.assertRaises(BlockingIOError):
                elsewhere.accept()

    def test_a_target_whose_disk_is_full_is_waited_for(self):
        made = Recording(self.dir).add("7_a.mp4", 600_000).add("7_b.mp4", 3_000_000)
        with self.small_disk(self.dir / "nas", "2m") as grow:
            settings = self.settings(self.target("folder"), connections=1)
            told = self.run_tool(settings, made.folder, status=3, until="failed")
            self.assertIn("No space left", [one for one in told if one["event"] == "failed"][0]["error"])
            self.assert_idle(told)
            self.assertEqual(made.stages()["7_a.mp4"], {"confirmed"})
            self.assertEqual(list((self.dir / "nas").rglob("*.part")), [])
            grow("8m")
            self.run_tool(settings, made.folder)
            self.assert_arrived(made, self.dir / "nas")

    def test_a_full_disk_of_recordings_loses_nothing_and_goes_on_with_room(self):
        self.serve()
        with self.small_disk(self.dir / "root", "1m") as grow:
            made = Recording(self.dir / "root").add("7_a.mp4", 100_000)
            settings = self.settings(self.target("http"), keep={"minutes": 0})
            with open(self.dir / "root/filler", "wb", buffering=0) as filler, \
                    contextlib.suppress(OSError):
                while True:
                    filler.write(bytes(4096))
            told = self.run_tool(settings, made.folder, until="failed", status=1)
            self.assertIn("No space left", json.dumps(told))
            self.assert_idle(told)
            self.assertTrue((made.folder / "7_a.mp4").exists())
            grow("4m")
            self.run_tool(settings, made.folder)
            self.assertFalse((made.folder / "7_a.mp4").exists())
            self.assertEqual((self.kept / "dav/call/7_a.mp4").stat().st_size, 100_000)

    def test_more_events_than_are_kept_hide_no_folder(self):
        root = self.dir / "root"
        settings = self.settings(self.target("folder"))
        Recording(root).add("7_a.mp4", 10)
        tool = self.start_tool(settings, "--watch", root)
        wait_for("the first", lambda: (self.dir / "nas/call/recording.json").exists())
        most = int(Path("/proc/sys/fs/inotify/max_queued_events").read_text())
        if most > 100_000:
            self.skipTest(f"the queue has room for {most} events")
        tool.send_signal(signal.SIGSTOP)
        began = time.monotonic()
        for at in range(most // 2 + 1000):
            (root / f"{at}").touch()  # made, and closed
        later = Recording(root, "later").add("7_b.mp4", 10)
        tool.send_signal(signal.SIGCONT)
        wait_for("the one that was made unseen", lambda: (self.dir / "nas/later/7_b.mp4").exists())
        # Without the event of the overflow it would be found a minute after the start.
        self.assertLess(time.monotonic() - began, 40)
        wait_for("its manifest", lambda: (later.folder / "delivery.json").exists() and
                 later.stages().get("recording.json") == {"confirmed"})

    def test_a_manifest_or_a_state_leads_nowhere_else(self):
        victim = self.dir / "victim.mp4"
        victim.write_text("not a recording's")
        made = Recording(self.dir).add("7_a.mp4", 10)
        settings = self.settings(self.target("folder"), keep={"minutes": 0})
        names = ["../victim.mp4", ".delivery.lock", "journal_2.json", "recording.json", "delivery.json"]
        made.files += [{"name": name, "uid": 7, "closed": "user left"} for name in names]
        made.write()
        (made.folder / ".delivery.lock").write_text("")
        self.run_tool(settings, made.folder)
        self.assertEqual(sorted(made.stages()), ["7_a.mp4", "recording.json"])
        self.assertTrue((made.folder / "recording.json").exists())
        state = made.state()
        state["files"]["../victim.mp4"] = state["files"].pop("7_a.mp4")
        (made.folder / "delivery.json").write_text(json.dumps(state))
        told = self.run_tool(settings, made.folder, status=1)
        self.assertIn("\"../victim.mp4\" is no name", told[0]["error"])
        self.assertTrue(victim.exists())

    def test_a_target_in_what_is_delivered_and_two_folders_of_one_name_are_refused(self):
        root = self.dir / "root"
        made = Recording(root).add("7_a.mp4", 10)
        other = Recording(root / "deeper").add("7_a.mp4", 10)
        (made.folder / "in").mkdir()
        for path, arguments, says in (
                (root, ["--watch", root], "should not lie in"),
                (root / "copies", ["--watch", root], "should not lie in"),
                (made.folder / "in", [made.folder], "should not lie in"),
                (root, [made.folder], "should not lie in"),
                (self.dir, [made.folder, other.folder], "would both be called call")):
            with self.subTest(path=path, arguments=arguments):
                settings = self.settings(self.target("folder", path=str(path)))
                self.run_tool(settings, *arguments, status=2)
                self.assertIn(says, self.said)
        self.assertFalse((made.folder / ".delivery.lock").exists())
        link = self.dir / "link"
        link.symlink_to(root)
        self.run_tool(self.settings(self.target("folder", path=str(link))), made.folder, status=2)
        self.run_tool(self.settings(self.target("folder")), self.dir / "id", status=2)
        (self.dir / "empty").mkdir()
        self.run_tool(self.settings(self.target("folder")), self.dir / "empty", status=1)
        self.assertEqual(list((self.dir / "empty").iterdir()), [])

    def test_what_is_to_be_mounted_is_waited_for(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        settings = self.settings(self.target("folder", mount=str(self.dir / "nas")))
        told = self.run_tool(settings, made.folder, status=3, until="failed")
        self.assertIn("isn't mounted", told[0]["error"])
        self.assertEqual(list((self.dir / "nas").iterdir()), [])
        self.run_tool(self.settings(self.target("folder")), made.folder)
        self.assertIn("on the same disk", self.said)
        if os.path.ismount("/dev/shm"):
            nas = Path(tempfile.mkdtemp(dir="/dev/shm", prefix="zelta-test."))
            self.addCleanup(shutil.rmtree, nas, True)
            made = Recording(self.dir, "other").add("7_a.mp4", 10)
            self.run_tool(self.settings(self.target("folder", path=str(nas), mount="/dev/shm")),
                          made.folder)
            self.assert_arrived(made, nas)
            self.assertEqual(self.said, "")

    def test_what_comes_to_stand_there_meanwhile_is_left_alone(self):
        for kind, sizes in (("http", [1000]), ("s3", [1000, 6_000_000])):
            for size in sizes:
                with self.subTest(kind=kind, size=size):
                    shutil.rmtree(self.dir / "call", True)
                    shutil.rmtree(self.kept, True)
                    made = Recording(self.dir).add("7_a.mp4", size)
                    self.serve("squat=1")
                    self.run_tool(self.settings(self.target(kind)), made.folder, status=4)
                    self.assertEqual((self.all_kinds()[kind] / "call/7_a.mp4").read_text(),
                                     "somebody else's")
                    self.assertEqual(list(self.kept.glob("uploads/*")), [])
        self.serve("old")
        made = Recording(self.dir, "old").add("7_a.mp4", 1000).add("7_b.mp4", 6_000_000)
        self.run_tool(self.settings(self.target("s3")), made.folder)
        self.assert_arrived(made, self.kept / "s3/bucket/p q")

    def test_a_server_without_folders_may_have_trouble_for_a_while(self):
        made = Recording(self.dir).add("7_a.mp4", 1000)
        self.serve("plain,error=1")
        settings = self.settings(self.target("http"), retry={**RETRY, "refusals": 1})
        told = self.run_tool(settings, made.folder, status=3, until="failed")
        self.assertIn("PUT: the server answers 500", told[0]["error"])
        self.serve("plain")
        self.run_tool(settings, made.folder)
        self.assert_arrived(made, self.kept / "dav")

    def test_an_upload_that_the_server_breaks_begins_anew_and_none_is_left(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 16_000_000)
        settings = self.settings(self.target("s3"), kbps=100_000)
        tool = self.start_tool(settings, made.folder)
        wait_for("a part", lambda: (self.kept / "parts.txt").exists())
        wait_for("its note", lambda: (made.folder / "delivery.json").exists() and
                 made.state()["files"]["7_a.mp4"]["targets"]["s3"].get("parts"))
        tool.kill()
        tool.wait()
        next(self.kept.glob("uploads/*/1")).write_bytes(b"another one")
        told = self.run_tool(settings, made.folder)
        self.assertIn("400", told[0]["error"])
        self.assert_arrived(made, self.kept / "s3/bucket/p q")
        self.assertEqual(list(self.kept.glob("uploads/*")), [])

    def test_credentials_are_in_no_line_state_or_process(self):
        secrets = {"password": "hunter-one", "hook": "hunter-two", "key": "not-a-secret",
                   "token": "hunter-three"}
        for name, value in secrets.items():
            (self.dir / name).write_text(value)
        self.serve("any-refuse=0.3,plain")
        keyed = self.target("s3", secret_key_file=str(self.dir / "key"))
        del keyed["secret_key_env"]
        root = self.dir / "root"
        made = Recording(root).add("7_a.mp4", 1000)
        settings = self.settings(
            self.target("http", user="me", password_file=str(self.dir / "password")),
            self.target("http", name="bearer", token_file=str(self.dir / "token"),
                        url=f"http://127.0.0.1:{self.port}/dav/bearer"), keyed,
            hooks={"file": ["/bin/sh", "-c", "(env; cat /proc/$$/cmdline /proc/$PPID/cmdline) > "
                                             f"{self.dir}/seen; cat /proc/self/environ"]},
            webhook={"url": f"http://127.0.0.1:{self.port}/hook", "secret_file": str(self.dir / "hook")},
            retry={**RETRY, "refusals": 50})
        tool = subprocess.Popen(self.command(settings, "--watch", root), env=os.environ, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(tool.kill)
        wait_for("the hook", (self.dir / "seen").exists)
        seen = "".join(Path(f"/proc/{tool.pid}/{part}").read_text(errors="replace")
                       for part in ("cmdline", "environ"))
        tool.send_signal(signal.SIGTERM)
        seen += "".join(tool.communicate(timeout=LIMIT_S))
        seen += (made.folder / "delivery.json").read_text() + (self.dir / "seen").read_text()
        for value in secrets.values():
            self.assertNotIn(value, seen)

    def test_hooks_have_our_values_no_sockets_and_an_end(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 10)
        script = self.dir / "hook.sh"
        script.write_text(f"""#!/bin/sh
echo "$ZELTA_FILE" > {self.dir}/file; ls -l /proc/$$/fd > {self.dir}/fds
setsid sh -c 'echo $$ > {self.dir}/pid; while echo {"on" * 400}; do :; done' &
until [ -s {self.dir}/pid ]; do :; done
""")
        script.chmod(0o755)
        settings = self.settings(self.target("http"), hooks={"file": [str(script)]}, connections=1)
        began = time.monotonic()
        done = subprocess.run(self.command(settings, made.folder), timeout=LIMIT_S, text=True,
                              env={**ENVIRONMENT, "ZELTA_FILE": "inherited"}, capture_output=True)
        self.assertLess(time.monotonic() - began, 20)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual((self.dir / "file").read_text(), "recording.json\n")
        fds = (self.dir / "fds").read_text()
        self.assertIn("memfd:notice", fds)
        self.assertNotIn("socket:", fds)

    def test_without_standard_streams_nothing_is_written_into_what_is_delivered(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        command = [*map(str, self.command(self.settings(self.target("folder")), made.folder))]
        done = subprocess.run(["/bin/sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *command],
                              timeout=LIMIT_S, check=False)
        self.assertEqual(done.returncode, 0)
        self.assert_arrived(made, self.dir / "nas")
        self.assertEqual((made.folder / ".delivery.lock").read_bytes(), b"")

    def test_left_over_recordings_wait_for_their_caller_and_give_all_they_have(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        stat = Path(f"/proc/{os.getpid()}/stat").read_text()
        name = f"{os.getpid()}@{stat[stat.rindex(')') + 2:].split()[19]}"
        journal = made.folder / "journal.json"
        journal.write_text(json.dumps({"session": f"{name} 7 c"}))
        (made.folder / "8_b.mp4").write_bytes(b"unlisted")
        settings = self.settings(self.target("folder"))
        self.run_tool(settings, "--left-over", made.folder, status=3)
        self.assertEqual(sorted(made.stages()), ["7_a.mp4"])
        journal.write_text(json.dumps({"session": "1@1 7 c"}))
        self.run_tool(settings, "--left-over", made.folder)
        self.assertEqual(made.stages()["8_b.mp4"], {"confirmed"})

    def test_a_folder_that_is_replaced_has_a_state_of_its_own(self):
        root = self.dir / "root"
        made = Recording(root).add("7_a.mp4", 10).runs(True)
        self.start_tool(self.settings(self.target("folder")), "--watch", root)
        wait_for("the first", lambda: (made.folder / "delivery.json").exists() and
                 made.stages().get("7_a.mp4") == {"confirmed"})
        first = made.state()["id"]
        made.folder.rename(self.dir / "away")
        made = Recording(root).add("7_b.mp4", 10)
        wait_for("the second", lambda: (made.folder / "delivery.json").exists() and
                 made.stages().get("recording.json"))
        self.assertNotEqual(made.state()["id"], first)
        self.assertEqual(sorted(made.stages()), ["7_b.mp4", "recording.json"])

    def test_folders_that_may_not_be_read_and_damaged_manifests_are_told_and_passed(self):
        root = self.dir / "root"
        Recording(root, "damaged").folder.joinpath("recording.json").write_text("{")
        made = Recording(root).add("7_a.mp4", 10)
        (root / "lost+found").mkdir(mode=0)
        tool = subprocess.Popen(
            self.command(self.settings(self.target("folder")), "--watch", root), text=True,
            stdout=subprocess.PIPE, env=ENVIRONMENT)
        self.addCleanup(tool.kill)
        wait_for("the good one", lambda: (made.folder / "delivery.json").exists() and
                 made.stages().get("recording.json") == {"confirmed"})
        tool.send_signal(signal.SIGTERM)
        told = tool.communicate(timeout=LIMIT_S)[0]
        self.assertIn("damaged/recording.json is no manifest", told)

    def test_numbers_are_those_of_the_states(self):
        self.serve()
        call = Recording(self.dir).add("1_a.mp4", 1000).add("2_b.mp4", 2000)
        call.add("3_c.mp4", 500, closed="").runs(True)
        with socket.socket() as tried:
            tried.bind(("127.0.0.1", 0))
            port = tried.getsockname()[1]
        # Nobody is there.
        away = {"name": "away", "type": "http", "url": f"http://127.0.0.1:{port}/dav"}
        with socket.socket() as tried:
            tried.bind(("127.0.0.1", 0))
            served = tried.getsockname()[1]
        self.start_tool(self.settings(self.target("http"), away), "--metrics", str(served),
                        call.folder)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))

        def numbers():
            try:
                with opener.open(f"http://127.0.0.1:{served}/metrics", timeout=10) as answer:
                    text = answer.read().decode()
            except OSError:
                return {}
            return {name: float(value) for name, value in
                    re.findall(r"^(zelta_deliver\S+) (\S+)$", text, re.MULTILINE)}

        wait_for("all that is closed delivered", lambda: numbers().get(
            'zelta_deliver_confirmed_total{target="http"}') == 2 and numbers()[
            'zelta_deliver_failures_total{target="away"}'] > 0)
        now = numbers()
        for name, value in {
                "zelta_deliver_folders": 1,
                'zelta_deliver_files{target="http",state="confirmed"}': 2,
                'zelta_deliver_bytes{target="http",state="confirmed"}': 3000,
                'zelta_deliver_confirmed_bytes_total{target="http"}': 3000,
                'zelta_deliver_files{target="away",state="pending"}': 2,
                'zelta_deliver_files{target="away",state="confirmed"}': 0,
                'zelta_deliver_oldest_seconds{target="http"}': 0,
                'zelta_deliver_dead_letters_total{target="away"}': 0}.items():
            self.assertEqual(now[name], value, name)
        self.assertGreater(now['zelta_deliver_oldest_seconds{target="away"}'], 0)
        told = {re.sub(r"{.*", "", name) for name in now}
        docs = (HERE.parents[1] / "docs")
        described = re.findall(r"^\| `(zelta_deliver_\w+)` \|", (docs / "metrics.md").read_text(),
                               re.MULTILINE)
        self.assertEqual(told, set(described))
        dashboard = (docs / "grafana-dashboard.json").read_text()
        self.assertEqual(told, set(re.findall(r"zelta_deliver_\w+", dashboard)))
        refused = subprocess.run(self.command(self.settings(away), call.folder, "--metrics", "x"),
                                 env=ENVIRONMENT, timeout=LIMIT_S, capture_output=True, text=True)
        self.assertEqual(refused.returncode, 2, refused)
        self.assertIn('--metrics: "x" should be an IP address', refused.stderr)

    def test_media_that_the_disk_damaged_is_a_dead_letter_that_names_both_checksums(self):
        self.serve()
        made = Recording(self.dir).add_with_crc("7_a.mp4", 100_000)
        made.add_with_crc("7_b.mp4", 1000).add_with_crc("7_c.mp4", 1000)
        whole = (made.folder / "7_a.mp4").read_bytes()
        (made.folder / "7_a.mp4").write_bytes(b"!" + whole[1:])
        (made.folder / "7_b.mp4").write_bytes(whole[:999])
        settings = self.settings(self.target("http"), keep={"minutes": 0})
        told = self.run_tool(settings, made.folder, status=4)
        dead = {one["file"]: one["error"] for one in told if one["event"] == "dead letter"}
        self.assertEqual(sorted(dead), ["7_a.mp4", "7_b.mp4"])
        for crc in (zlib.crc32(whole), zlib.crc32(b"!" + whole[1:])):
            self.assertIn(f"100000 bytes with the CRC-32 {crc:08x}", dead["7_a.mp4"])
        self.assertIn("1000 bytes", dead["7_b.mp4"])
        self.assertIn("999 bytes", dead["7_b.mp4"])
        self.assertEqual(self.puts(), ["7_c.mp4", "recording.json"])
        self.assertTrue((made.folder / "7_a.mp4").exists())
        self.assertEqual(self.run_tool(settings, made.folder, status=4), [])
        self.run_tool(settings, "--retry-dead", made.folder, status=4)
        (made.folder / "7_a.mp4").write_bytes(whole)
        made.add_with_crc("7_b.mp4", 1000)
        self.run_tool(settings, "--retry-dead", made.folder)
        self.assertEqual((self.kept / "dav/call/7_a.mp4").read_bytes(), whole)

    def test_status_tells_what_is_dead_and_what_is_not_yet_there(self):
        made = Recording(self.dir).add("7_a.mp4", 10)
        settings = self.settings(self.target("folder"))
        os.rmdir(self.dir / "nas")
        self.run_tool(settings, made.folder, status=3, until="failed")
        told = self.run_tool(settings, "--status", made.folder, status=3)
        self.assertIn("mounted", told[0]["error"])


if __name__ == "__main__":
    unittest.main()
