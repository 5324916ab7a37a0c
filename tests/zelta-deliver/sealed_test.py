#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-deliver with encrypt_for: what arrives opens by age as what it was, and nothing else arrives."""

import hashlib
import json
import os
import resource
import shutil
import signal
import subprocess
import unittest

from deliveries import ENVIRONMENT, LIMIT_S, DeliveryTest, Recording, wait_for

AGE = shutil.which("age")


class SealedTest(DeliveryTest):
    def setUp(self):
        super().setUp()
        self.key = self.dir / "key"
        subprocess.run(["age-keygen", "-o", self.key], check=True, capture_output=True)
        self.public = self.public_of(self.key)

    @staticmethod
    def public_of(key):
        return subprocess.run(["age-keygen", "-y", key], check=True, capture_output=True,
                              text=True).stdout.strip()

    def sealed(self, kind, **more):
        return self.target(kind, **{"encrypt_for": [self.public], **more})

    def opened(self, path, key=None):
        done = subprocess.run([AGE, "-d", "-i", key or self.key, path], capture_output=True,
                              timeout=LIMIT_S)
        return done.stdout if done.returncode == 0 else done.stderr.decode()

    def assert_sealed(self, recording, at):
        """Everything is there under its other name, opens as it was, and nothing else is there."""
        names = {one.name for one in recording.folder.iterdir()
                 if not one.name.startswith((".", "delivery", "journal"))}
        there = {one.name for one in (at / recording.folder.name).iterdir()
                 if not one.name.endswith("\u00b7meta")}
        self.assertEqual(there, {name + ".age" for name in names})
        for name in names:
            self.assertEqual(self.opened(at / recording.folder.name / (name + ".age")),
                             (recording.folder / name).read_bytes(), name)

    @staticmethod
    def copies(recording):
        return sorted(str(one.relative_to(recording.folder)) for one in
                      recording.folder.glob(".delivery/**/*") if one.is_file())

    def slow_age(self, body):
        """A program age that does BODY when it is to seal a file, and is age when keys are tried."""
        folder = self.dir / "bin"
        folder.mkdir(exist_ok=True)
        script = folder / "age"
        script.write_text(f"""#!/bin/sh
[ "$(readlink /proc/self/fd/0)" = /dev/null ] && exec {AGE} "$@"
{body}
""")
        script.chmod(0o755)
        return {**ENVIRONMENT, "PATH": f"{folder}:{os.environ['PATH']}"}

    def kill(self, tool):
        tool.kill()
        tool.wait()

    def test_all_arrives_sealed_once_at_each_kind_of_target(self):
        for kind, at in self.all_kinds().items():
            for verify in ("size", "content"):
                with self.subTest(kind=kind, verify=verify):
                    for old in (self.dir / "a call+1", self.kept, self.dir / "nas"):
                        shutil.rmtree(old, True)
                    self.serve()
                    made = self.recording()
                    settings = self.settings(self.sealed(kind, verify=verify))
                    told = self.run_tool(settings, made.folder)
                    self.assert_sealed(made, at)
                    names = [one["file"] for one in told if one["event"] == "confirmed"]
                    self.assertEqual((len(names), names[-1]), (8, "recording.json"))
                    self.assertFalse((made.folder / ".delivery").exists())
                    self.assertEqual(self.run_tool(settings, made.folder), [])
                    if kind != "folder":
                        self.assertEqual(self.puts(), sorted(name + ".age" for name in names))

    def test_each_of_several_keys_opens_it_and_no_other(self):
        keys = [self.key]
        for name in ("ed25519", "rsa"):
            keys.append(self.dir / name)
            subprocess.run(["ssh-keygen", "-q", "-t", name, "-N", "", "-f", keys[-1]], check=True)
        public = [self.public] + [key.with_suffix(".pub").read_text().strip() for key in keys[1:]]
        other = self.dir / "other"
        subprocess.run(["age-keygen", "-o", other], check=True, capture_output=True)
        made = Recording(self.dir).add("7_a.mp4", 100_000)
        self.run_tool(self.settings(self.sealed("folder", encrypt_for=public)), made.folder)
        there = self.dir / "nas/call/7_a.mp4.age"
        for key in keys:
            self.assertEqual(self.opened(there, key), (made.folder / "7_a.mp4").read_bytes(), key)
        self.assertIn("no identity matched", self.opened(there, other))

    def test_one_target_has_it_sealed_and_the_other_as_it_is(self):
        self.serve()
        made = self.recording()
        settings = self.settings(self.sealed("http"), self.target("folder"), keep={"minutes": 0})
        wanted = {one.name: one.read_bytes() for one in made.folder.iterdir()}
        self.run_tool(settings, made.folder)
        for name, content in wanted.items():
            self.assertEqual((self.dir / "nas/a call+1" / name).read_bytes(), content)
            self.assertEqual(self.opened(self.kept / f"dav/a call+1/{name}.age"), content)
        self.assertFalse((made.folder / "8_c.m4a").exists(), "both have it")

    def test_faults_of_servers_cost_time_and_nothing_else(self):
        for kind in ("http", "s3"):
            with self.subTest(kind):
                shutil.rmtree(self.dir / "a call+1", True)
                shutil.rmtree(self.kept, True)
                self.serve("error=0.1,busy=0.1,drop=0.2,deaf=0.2,lie=0.1")
                made = self.recording()
                self.run_tool(self.settings(self.sealed(kind, verify="content"),
                                            retry={"first_ms": 20, "longest_ms": 200,
                                                   "refusals": 50}), made.folder)
                self.assert_sealed(made, self.all_kinds()[kind])

    def test_killed_while_it_seals_it_has_sent_nothing_and_begins_anew(self):
        made = Recording(self.dir).add("7_a.mp4", 1_000_000)
        pid = self.dir / "pid"
        environment = self.slow_age(f"""head -c 1000
echo $$ > {pid}.new; mv {pid}.new {pid}; exec cat {self.dir}/fifo""")
        os.mkfifo(self.dir / "fifo")
        settings = self.settings(self.sealed("folder"))
        tool = self.start_tool(settings, made.folder, env=environment)
        wait_for("the copy is begun", pid.exists)
        self.kill(tool)
        os.kill(int(pid.read_text()), signal.SIGKILL)
        self.assertEqual(self.copies(made), [".delivery/folder/7_a.mp4.age.part"])
        self.assertFalse((self.dir / "nas/call").exists())
        self.run_tool(settings, made.folder)
        self.assert_sealed(made, self.dir / "nas")
        self.assertEqual(self.copies(made), [])

    def test_stopped_while_it_seals_it_ends_age_and_leaves_no_part(self):
        made = Recording(self.dir).add("7_a.mp4", 1_000_000)
        pid = self.dir / "pid"
        os.mkfifo(self.dir / "fifo")
        environment = self.slow_age(
            f"echo $$ > {pid}.new; mv {pid}.new {pid}; exec cat {self.dir}/fifo")
        tool = self.start_tool(self.settings(self.sealed("folder")), made.folder, env=environment)
        wait_for("the copy is begun", pid.exists)
        tool.send_signal(signal.SIGTERM)
        self.assertEqual(tool.wait(LIMIT_S), 3)
        self.assertFalse(os.path.exists(f"/proc/{pid.read_text().strip()}"))
        self.assertEqual(self.copies(made), [])

    def test_an_age_that_does_nothing_is_ended_and_told(self):
        made = Recording(self.dir).add("7_a.mp4", 1000)
        os.mkfifo(self.dir / "fifo")
        environment = self.slow_age(f"exec cat {self.dir}/fifo")
        settings = self.settings(self.sealed("folder"), stall_s=1)
        told = self.run_tool(settings, made.folder, until="failed", status=3, env=environment)
        self.assertIn("age did nothing for 1 s", told[0]["error"])
        self.assertEqual(told[0]["event"], "failed")

    def test_killed_while_it_sends_parts_it_goes_on_with_the_same_copy(self):
        self.serve("deaf=0.5")
        made = Recording(self.dir).add("7_a.mp4", 26_000_000)
        # So slow that it isn't over before it is killed.
        tool = self.start_tool(self.settings(self.sealed("s3"), kbps=20_000), made.folder)
        parts = self.kept / "parts.txt"
        wait_for("two parts", lambda: parts.exists() and len(parts.read_text().split("\n")) > 3)
        self.kill(tool)
        before = made.state()["files"]["7_a.mp4"]["targets"]["s3"]
        self.assertEqual(self.copies(made), [".delivery/s3/7_a.mp4.age"])
        self.serve()
        parts.unlink()
        self.run_tool(self.settings(self.sealed("s3")), made.folder)
        sent = [line for line in parts.read_text().splitlines() if line.startswith("7_a")]
        self.assertEqual(len(sent), 5 - len(before.get("parts", [])))
        self.assert_sealed(made, self.kept / "s3/bucket/p q")

    def test_a_copy_is_noted_before_its_first_byte_goes(self):
        made = Recording(self.dir).add("7_a.mp4", 100_000)
        tool = self.start_tool(self.settings(self.sealed("folder"), kbps=64), made.folder)
        part = self.dir / "nas/call/7_a.mp4.age.part"
        wait_for("the first byte", lambda: part.exists() and part.stat().st_size > 0)
        self.kill(tool)
        copy = (made.folder / ".delivery/folder/7_a.mp4.age").read_bytes()
        noted = made.state()["files"]["7_a.mp4"]["targets"]["folder"]
        self.assertEqual((noted["sealed_sha256"], noted["sealed_bytes"], noted["state"]),
                         (hashlib.sha256(copy).hexdigest(), len(copy), "sending"))
        self.run_tool(self.settings(self.sealed("folder")), made.folder)
        self.assertEqual((self.dir / "nas/call/7_a.mp4.age").read_bytes(), copy)

    def test_killed_between_sending_and_noting_it_is_not_sent_again(self):
        for kind, lost in ((kind, lost) for kind in ("http", "s3") for lost in (False, True)):
            with self.subTest(kind=kind, copy_is_lost=lost):
                shutil.rmtree(self.dir / "call", True)
                shutil.rmtree(self.kept, True)
                self.serve("deaf=1")
                made = Recording(self.dir).add("7_a.mp4", 1000)
                # It is stored, and no answer comes: as to whoever dies just then.
                retry = {"first_ms": 60_000, "longest_ms": 60_000}
                tool = self.start_tool(self.settings(self.sealed(kind), retry=retry), made.folder)
                wait_for("it is there", lambda: self.puts() == ["7_a.mp4.age"])
                self.kill(tool)
                self.serve()
                if lost:
                    shutil.rmtree(made.folder / ".delivery")
                state = made.state()
                state["files"]["7_a.mp4"]["targets"][kind]["next_utc_ms"] = 0
                (made.folder / "delivery.json").write_text(json.dumps(state))
                self.run_tool(self.settings(self.sealed(kind)), made.folder)
                self.assertEqual(self.puts(), ["7_a.mp4.age", "recording.json.age"])
                self.assert_sealed(made, self.all_kinds()[kind])

    def test_a_copy_that_is_damaged_lost_or_for_other_keys_is_made_anew(self):
        other = self.dir / "other"
        subprocess.run(["age-keygen", "-o", other], check=True, capture_output=True)

        def flip(copy):
            content = bytearray(copy.read_bytes())
            content[-1] ^= 1
            copy.write_bytes(content)
        for name, spoil, key in (("damaged", flip, self.key), ("lost", os.unlink, self.key),
                                 ("short", lambda copy: os.truncate(copy, 10), self.key),
                                 ("for other keys", lambda copy: None, other)):
            with self.subTest(name):
                shutil.rmtree(self.dir / "call", True)
                shutil.rmtree(self.kept, True)
                self.serve("drop=1")
                made = Recording(self.dir).add("7_a.mp4", 100_000)
                self.run_tool(self.settings(self.sealed("http")), made.folder, until="failed",
                              status=3)
                spoil(made.folder / ".delivery/http/7_a.mp4.age")
                # What came of it before, cut.
                there = self.kept / "dav/call"
                there.mkdir(parents=True, exist_ok=True)
                (there / "7_a.mp4.age").write_bytes(b"age-encryption.org/v1\n")
                self.serve()
                self.run_tool(self.settings(self.sealed(
                    "http", encrypt_for=[self.public_of(key)])), made.folder)
                self.assertEqual(self.opened(there / "7_a.mp4.age", key),
                                 (made.folder / "7_a.mp4").read_bytes())
                self.assertEqual(self.copies(made), [])

    def test_what_others_have_put_there_is_left_alone_and_nothing_is_sealed_for_it(self):
        self.serve()
        made = Recording(self.dir).add("7_a.mp4", 1000)
        there = self.kept / "dav/call"
        there.mkdir(parents=True)
        (there / "7_a.mp4.age").write_text("somebody else's")
        told = self.run_tool(self.settings(self.sealed("http")), made.folder, status=4)
        self.assertIn("another file stands there as call/7_a.mp4.age", told[0]["error"])
        self.assertEqual((there / "7_a.mp4.age").read_text(), "somebody else's")
        self.assertEqual(self.copies(made), [])

    def test_while_a_target_is_away_the_disk_is_not_filled_with_copies(self):
        made = self.recording()
        settings = self.settings(self.sealed("folder"))
        (self.dir / "nas").rmdir()
        self.run_tool(settings, "--give-up", 2, made.folder, status=3)
        self.assertEqual(self.copies(made), [])

    def test_a_full_target_has_no_more_copies_made_than_may_be_under_way(self):
        made = Recording(self.dir)
        for at in range(10):
            made.add(f"7_{at}.mp4", 300_000)
        with self.small_disk(self.dir / "nas", "1m") as grow:
            settings = self.settings(self.sealed("folder"), connections=1)
            self.run_tool(settings, made.folder, until="failed", status=3)
            self.assertGreater(made.state()["files"]["7_9.mp4"]["targets"]["folder"]["attempts"], 0)
            # Two that stay, and one that was just made when it ended.
            self.assertLessEqual(len(self.copies(made)), 3)
            grow("8m")
            self.run_tool(settings, made.folder)
            self.assert_sealed(made, self.dir / "nas")
        self.assertEqual(self.copies(made), [])

    def test_without_room_it_is_later_told_and_no_plain_byte_goes(self):
        def little_room():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))
        made = Recording(self.dir).add("7_a.mp4", 1_000_000)
        settings = self.settings(self.sealed("folder"))
        told = self.run_tool(settings, made.folder, until="failed", status=3,
                             preexec_fn=little_room)
        self.assertEqual({one["event"] for one in told if one.get("file") == "7_a.mp4"}, {"failed"})
        self.assertIn("file too large", told[0]["error"])
        self.assertEqual(self.copies(made), [])
        self.assertEqual([one for one in (self.dir / "nas").rglob("*") if one.is_file()], [])
        self.run_tool(settings, made.folder)
        self.assert_sealed(made, self.dir / "nas")

    def test_a_target_that_becomes_sealed_is_asked_for_its_other_names(self):
        self.serve("drop=1")
        made = Recording(self.dir).add("7_a.mp4", 100_000)
        self.run_tool(self.settings(self.target("http")), made.folder, until="failed", status=3)
        self.assertTrue(made.state()["files"]["7_a.mp4"]["targets"]["http"]["ours"])
        self.serve()
        other = self.kept / "dav/call"
        other.mkdir(parents=True, exist_ok=True)
        (other / "7_a.mp4.age").write_text("somebody else's")
        told = self.run_tool(self.settings(self.sealed("http")), made.folder, status=4)
        self.assertEqual([one["file"] for one in told if one["event"] == "dead letter"],
                         ["7_a.mp4"])
        self.assertEqual((other / "7_a.mp4.age").read_text(), "somebody else's")

    def test_a_link_in_place_of_the_copies_folder_leads_nowhere(self):
        made = Recording(self.dir).add("7_a.mp4", 1000)
        away = self.dir / "away/folder"
        away.mkdir(parents=True)
        (away / "kept").write_text("kept")
        (made.folder / ".delivery").symlink_to(self.dir / "away")
        told = self.run_tool(self.settings(self.sealed("folder")), made.folder, until="failed",
                             status=3)
        self.assertIn("sealing: ", told[0]["error"])
        self.assertEqual([one.name for one in away.iterdir()], ["kept"])

    def test_without_age_or_with_keys_that_are_none_nothing_is_begun(self):
        made = Recording(self.dir).add("7_a.mp4", 1000)
        secret = self.key.read_text().split("\n")[2]
        mistyped = self.public[:-1] + ("q" if self.public[-1] != "q" else "p")
        for keys, path, says in (
                ([self.public], str(self.dir), "install the package age"),
                ([mistyped], None, "malformed recipient"),
                (["ssh-ed25519 AAAA"], None, "malformed"),
                ([secret], None, "holds a secret key"),
                (secret, None, "should be a list")):
            with self.subTest(says):
                environment = {**ENVIRONMENT, **({"PATH": path} if path else {})}
                settings = self.settings(self.sealed("folder", encrypt_for=keys))
                self.run_tool(settings, made.folder, status=2, env=environment)
                self.assertIn("encrypt_for", self.said)
                self.assertIn(says, self.said)
                self.assertNotIn(secret[15:], self.said)
                self.assertFalse((made.folder / "delivery.json").exists())


if __name__ == "__main__":
    unittest.main()
