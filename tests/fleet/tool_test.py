#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-fleet, zelta-worker and a real NATS server on the loopback: what becomes of recordings when
whoever makes them, or keeps their queue, is killed, stopped, full or lied to.

Cases run beside each other, as each has a server and workers of its own:

  ZELTA_BIN=build/release/bin tests/fleet/tool_test.py [PART OF A CASE'S NAME…]
"""

import json
import os
import re
import signal
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request
from pathlib import Path

from fleets import (AGAIN_S, BIN, CHANNEL, LEASE_MS, LEFT_S, LIMIT_S, FleetTest, Program, Worker,
                    children_of, command_line, free_port, run_cases, wait_gone)

LAYOUT = {"backgroundColor": "#204060",
          "regions": [{"uid": 1, "x": 0, "y": 0, "width": 0.5, "height": 1}]}
MIXED = {"is-mixing-enabled": True, "trigger-mode": "manual", "mix-resolution": "160,120,5,100"}


class ToolTest(FleetTest):
    # ---- A recording that nothing happens to ------------------------------------------------

    def test_a_job_becomes_files_that_play(self):
        self.serve()
        worker = self.worker("w1")
        job = self.record("call", "--duration", 2)
        self.wait_state(job, "recording")
        self.assertIn(job, self.fleet("list"))
        over = self.wait_over(job)
        stretch, = over["stretches"]
        self.assertEqual((stretch["worker"], stretch["folder"]), ("w1", str(worker.root / job)))
        # 5: a busy machine lost some of it, and said so.
        self.assertIn(stretch["status"], (0, 5))
        file, = self.files(stretch["folder"])
        self.assertGreater(file["bytes"], 0)
        self.assertEqual(over["files"], 1)
        names = list(dict.fromkeys(one["state"] for one in self.states.of(job)))
        # A worker may be faster than who wanted to say that it waits.
        self.assertEqual([one for one in names if one not in ("waiting", "ending")],
                         ["taken", "recording", "ended"])
        # It is over for good, and its queue knows.
        worker.wait_event("over", job)
        self.assertNotIn(job, self.fleet("list"))
        self.assertIn("ended", self.fleet("list", "--all"))
        # Whoever delivers its folder says so.
        self.fleet("delivered", stretch["folder"])
        self.assertGreater(self.show(job)["stretches"][0]["delivered_utc_ms"], 0)
        # The same id again is another recording in the same folder; what is there stays.
        self.record(job, "--duration", 1)
        again = self.states.wait(job, "a second end", lambda one: one["state"] == "ended" and
                                 len(one["stretches"]) == 2)
        self.assertEqual(again["stretches"][1]["folder"], stretch["folder"])
        self.assertEqual(len(self.files(stretch["folder"])), 2)
        # What happened is kept as events, by job.
        with self.raw() as raw:
            kept = raw.request("$JS.API.STREAM.INFO.zelta_events",
                               json.dumps({"subjects_filter": "zelta.events.call"}).encode())
            self.assertGreater(kept["state"]["subjects"]["zelta.events.call"], 3)
        self.wait_empty_queue()

    # ---- Whoever records it is gone ----------------------------------------------------------

    def manual_recording(self, job):
        """By w1, which was told to begin and how to arrange it; w2 is there then."""
        first = self.worker("w1")
        self.send(id=job, options=MIXED, layout=LAYOUT)
        self.wait_state(job, "recording")
        self.fleet("resume", job)
        other = {**LAYOUT, "backgroundColor": "#123456"}
        (self.dir / "other.json").write_text(json.dumps(other))
        self.fleet("layout", job, self.dir / "other.json")
        self.wait_file(first.root / job)
        return first, self.worker("w2")

    def assert_taken_up(self, job, first, second, died):
        """By `second`, soon, with all that was asked of the first one, and to an end in order."""
        state = self.wait_state(job, "recording", stretches=2)
        self.assertEqual([one["worker"] for one in state["stretches"]], [first.name, second.name])
        tool, = second.recorders()
        layout, = [one for one in command_line(tool) if one.startswith("--layout=")]
        self.assertEqual(json.loads(Path(layout.split("=", 1)[1]).read_text())["backgroundColor"],
                         "#123456")
        self.wait_file(second.root / job)
        self.fleet("stop", job)
        over = self.wait_over(job)
        self.assertEqual([Path(one["folder"]).name for one in over["stretches"]], [job, job])
        new = self.files(second.root / job)
        self.assertLess(new[0]["first_utc_ms"] / 1000 - died, AGAIN_S)

    def test_another_worker_takes_up_what_a_killed_one_had(self):
        self.serve()
        first, second = self.manual_recording("call")
        tool, = first.recorders()
        first.signal(signal.SIGKILL)
        died = time.time()
        # What it recorded goes on until its lease is over, and is completed.
        self.assertTrue(wait_gone(tool, LIMIT_S))
        self.assertLess(time.time() - died, LEFT_S + 2)
        self.assert_taken_up("call", first, second, died)
        old = self.files(first.root / "call")
        self.assertTrue(old and all(one["closed"] for one in old), old)
        self.assertGreaterEqual(old[-1]["last_utc_ms"] / 1000, died - 1)

    def test_another_worker_takes_up_what_a_dead_machine_had(self):
        self.serve()
        first, second = self.manual_recording("call")
        all_of = [pid for tool in first.recorders() for pid in (tool, *children_of(tool))]
        for pid in (first.pid, *all_of):
            os.kill(pid, signal.SIGKILL)
        self.assert_taken_up("call", first, second, time.time())

    def test_a_stopped_worker_loses_its_recording_and_does_no_harm_when_it_goes_on(self):
        self.serve()
        first, second = self.manual_recording("call")
        tool, = first.recorders()
        died = time.time()
        first.signal(signal.SIGSTOP)
        # And the time to complete its files.
        self.assertTrue(wait_gone(tool, LEFT_S + 2), "it records on without a lease")
        self.wait_state("call", "recording", stretches=2)
        first.signal(signal.SIGCONT)
        first.wait_event("lost", "call")
        # Two seconds are two reports of it, in which it could do harm.
        with self.assertRaises(AssertionError):
            self.states.wait("call", "harm", lambda one: len(one["stretches"]) > 2 or
                             (one["state"] != "recording" and len(one["stretches"]) == 2 and
                              one["stretches"][1]["joined_utc_ms"]), 2)
        self.assert_taken_up("call", first, second, died)
        # It is as good as any other again.
        second.signal(signal.SIGTERM)
        self.assertEqual(second.wait(), 0)
        self.record("next", "--duration", 1)
        self.assertEqual(self.wait_over("next")["stretches"][0]["worker"], "w1")

    def test_one_that_is_told_to_end_while_its_worker_hangs_is_over_once(self):
        self.serve()
        first, _ = self.manual_recording("call")
        first.signal(signal.SIGSTOP)
        self.fleet("stop", "call")
        self.wait_over("call")
        first.signal(signal.SIGCONT)
        first.wait_event("lost", "call")
        self.files(first.root / "call")
        self.assertEqual(self.states.of("call")[-1]["state"], "ended")
        self.assertEqual([one["state"] for one in self.states.of("call")].count("ended"), 1)

    def test_a_recorder_that_is_killed_begins_again(self):
        self.serve()
        worker = self.worker("w1")
        job = self.record("call")
        self.wait_state(job, "recording")
        self.wait_file(worker.root / job)
        tool, = worker.recorders()
        died = time.time()
        os.kill(tool, signal.SIGKILL)
        state = self.wait_state(job, "recording", stretches=2)
        self.assertEqual(state["stretches"][0]["status"], 128 + signal.SIGKILL)
        self.fleet("stop", job)
        over = self.wait_over(job)
        again = [one for one in self.files(worker.root / job)
                 if one["first_utc_ms"] / 1000 > died]
        self.assertTrue(again)
        self.assertLess(again[0]["first_utc_ms"] / 1000 - died, AGAIN_S)
        self.assertEqual(over["tries"], 0)

    def test_a_channel_that_cant_be_joined_is_tried_so_often_and_fails(self):
        self.serve()
        self.worker("w1", most_tries=2, servers=["dir:"])
        job = self.record("call", "--server", "dir:/nowhere/at/all")
        over = self.wait_over(job, "failed")
        self.assertEqual(len(over["stretches"]), 2)
        self.assertIn("/nowhere/at/all", over["reason"])

    # ---- Workers that end in order ------------------------------------------------------------

    def test_a_worker_that_drains_ends_what_it_has_and_takes_nothing(self):
        self.serve()
        worker = self.worker("w1")
        job = self.record("call", "--duration", 4)
        self.wait_state(job, "recording")
        worker.signal(signal.SIGTERM)
        later = self.record("later", "--duration", 1)
        self.assertEqual(worker.wait(), 0)
        over = self.wait_over(job)
        self.assertEqual(len(over["stretches"]), 1)
        file, = self.files(worker.root / job)
        self.assertGreater(file["last_utc_ms"] - file["first_utc_ms"], 2500)
        self.assertEqual(self.show(later)["state"], "waiting")
        self.worker("w2")
        self.wait_over(later)

    def assert_handed_over(self, first, signals):
        """To a second worker, and nobody has to wait for a lease."""
        job = self.record("call")
        self.wait_state(job, "recording")
        self.wait_file(first.root / job)
        second = self.worker("w2")
        told = time.time()
        for one in signals:
            first.signal(one)
        self.assertEqual(first.wait(), 0)
        self.wait_state(job, "recording", stretches=2)
        self.wait_file(second.root / job)
        self.fleet("stop", job)
        over = self.wait_over(job)
        self.assertEqual([one["worker"] for one in over["stretches"]], ["w1", "w2"])
        self.assertLess(over["stretches"][1]["taken_utc_ms"] / 1000 - told, LEASE_MS / 1000)
        for one in (first, second):
            self.assertTrue(self.files(one.root / job))

    def test_a_worker_hands_over_at_once_when_it_is_told_to(self):
        self.serve()
        self.assert_handed_over(self.worker("w1", "--handover"), [signal.SIGTERM])

    def test_a_worker_that_drains_hands_over_when_it_is_told_twice(self):
        self.serve()
        # Two of the same could come as one.
        self.assert_handed_over(self.worker("w1"), [signal.SIGTERM, signal.SIGINT])

    def test_a_worker_drains_by_command(self):
        self.serve()
        first = self.worker("w1")
        job = self.record("call")
        self.wait_state(job, "recording")
        self.fleet("drain", "w1")
        self.assertIn("drains", self.fleet("workers"))
        self.worker("w2")
        self.fleet("drain", "w1", "--handover")
        self.assertEqual(first.wait(), 0)
        state = self.wait_state(job, "recording", stretches=2)
        self.assertEqual(state["stretches"][1]["worker"], "w2")
        self.assertIn("w1", self.fleet("drain", "w1", status=1))

    # ---- The NATS server is gone --------------------------------------------------------------

    def test_a_recording_goes_on_while_its_server_comes_back_within_the_lease(self):
        self.serve()
        worker = self.worker("w1", lease_ms=15_000)
        job = self.record("call")
        state = self.wait_state(job, "recording")
        tool, = worker.recorders()
        self.kill_server()
        # Long enough for renewals to be missed.
        self.assertFalse(wait_gone(tool, 4))
        self.serve()
        self.watch(anew=True)
        self.assertFalse(wait_gone(tool, 4))
        self.fleet("stop", job)
        over = self.wait_over(job)
        self.assertEqual(len(over["stretches"]), 1, over)
        self.assertEqual(over["first_joined_utc_ms"], state["first_joined_utc_ms"])
        self.files(worker.root / job)

    def two_recordings(self):
        self.serve()
        worker = self.worker("w1")
        jobs = [self.record(f"call{at}") for at in range(2)]
        for job in jobs:
            self.wait_state(job, "recording")
        return worker, jobs

    def test_a_recording_ends_with_its_lease_and_goes_on_when_its_server_is_back(self):
        worker, jobs = self.two_recordings()
        tools = worker.recorders()
        self.kill_server()
        for tool in tools:
            self.assertTrue(wait_gone(tool, LEFT_S))
        for job in jobs:
            worker.wait_event("lost", job)
            self.files(worker.root / job)
        self.serve()
        self.watch(anew=True)
        for job in jobs:
            self.wait_state(job, "recording", stretches=2)
            self.fleet("stop", job)
            self.wait_over(job)

    def test_a_queue_that_is_asked_anew_settles_what_came_before(self):
        worker, jobs = self.two_recordings()
        with self.raw() as raw:
            name, = raw.request("$JS.API.CONSUMER.NAMES.zelta_jobs")["consumers"]
            self.assertTrue(raw.request(f"$JS.API.CONSUMER.DELETE.zelta_jobs.{name}")["success"])
            worker.wait_event("fault")
            worker.wait_event("taken", self.record("later"))
            for job in (*jobs, "later"):
                self.fleet("stop", job)
                over = self.wait_over(job)
                self.assertEqual(len(over["stretches"]), 1, over)
                self.files(worker.root / job)
            self.wait_until("empty queue", lambda: raw.request(
                "$JS.API.STREAM.INFO.zelta_jobs")["state"]["messages"] == 0)
        worker.signal(signal.SIGTERM)
        self.assertEqual(worker.wait(), 0, worker.said())

    def test_nobody_is_reached_where_nobody_is(self):
        self.serve()
        nowhere = ["--nats", "nats://127.0.0.1:1"]
        for arguments in (["list"], ["record", "room"], ["stop", "call"], ["workers"]):
            said = self.fleet(*arguments, status=1, nats=nowhere)
            self.assertIn("no connection to NATS at nats://127.0.0.1:1", said)
        path = self.dir / "lost.json"
        settings = self.settings("lost", nats={"urls": ["nats://127.0.0.1:1"]})
        worker = Worker(path, settings)
        self.addCleanup(worker.end)
        self.assertEqual(worker.wait(), 1)
        self.assertIn("no connection to NATS at nats://127.0.0.1:1", worker.said())
        wrong = Worker(path, {**settings, "lease_ms": 1, "extra": 1})
        self.addCleanup(wrong.end)
        self.assertEqual(wrong.wait(), 2)
        self.assertIn("lease_ms: 1 should be", wrong.said())
        self.assertIn("\"extra\" isn't known", wrong.said())
        self.fleet("record", status=2)
        self.fleet("no-such-thing", status=2)
        self.fleet("record", "room", "--set", "frames=/etc", status=1)
        self.fleet("record", "room", "--id", "../up", status=1)

    # ---- What isn't recorded ------------------------------------------------------------------

    def test_what_a_worker_isnt_allowed_is_refused_for_good(self):
        self.serve()
        worker = self.worker("w1", servers=["dir:/srv/"])
        rows = (({"server": "whip:0.0.0.0:80"}, ["whip:0.0.0.0:80", "dir:/srv/"]),
                ({"server": "dir:/srvother"}, ["dir:/srvother"]),
                ({"key": "unknown-key"}, ["unknown-key"]),
                ({"secret": "unknown-secret"}, ["unknown-secret"]),
                ({"settings": "unknown-settings"}, ["unknown-settings"]),
                ({"root": "unknown-root"}, ["unknown-root"]),
                # What zelta-record finds wrong.
                ({"options": {**MIXED, "mix-resolution": "nonsense"}}, ["nonsense"]),
                ({"options": {"chunk": 4_294_967_295}}, ["chunk"]),
                ({"options": MIXED, "layout": {"regions": 7}}, ["regions"]))
        for number, (more, says) in enumerate(rows):
            with self.subTest(**more):
                job = self.send(id=f"row{number}", **more)
                over = self.wait_over(job, "refused")
                for part in says:
                    self.assertIn(part, over["reason"])
        worker.wait_event("refused", "row0")
        self.wait_empty_queue()

    def test_hostile_jobs_cost_nobody_anything(self):
        self.serve()
        worker = self.worker("w1")
        self.watch()
        hostile = [b"", b"\xff\xfe\x00", b"7", b"[" * 100_000, b"{}",
                   b'{"channel": "room"}',
                   b'{"id": "../../up", "channel": "room"}',
                   b'{"id": "a", "channel": "room", "recorder": "/bin/sh"}',
                   b'{"id": "a", "channel": "room", "options": {"frames": "/etc"}}',
                   b'{"id": "a", "channel": "' + b"x" * 500_000 + b'"}']
        with self.raw() as raw:
            for one in hostile:
                self.assertIn("seq", raw.request("zelta.jobs.any", one))
            self.record("good", "--duration", 1)
            self.wait_over("good")

            def all_refused(lines):
                return sum(json.loads(one)["event"] == "refused" for one in lines) == len(hostile)
            worker.wait_for("refusals", all_refused)
            self.assertFalse([one for one in worker.root.iterdir() if one.name != "good"])
            self.assertFalse((worker.root.parent / "up").exists())
            kept = raw.request("$JS.API.STREAM.INFO.zelta_events",
                               json.dumps({"subjects_filter": "zelta.events.unreadable"}).encode())
            self.assertEqual(kept["state"]["subjects"]["zelta.events.unreadable"], len(hostile))
            # Commands and orders from strangers are no harm either.
            self.record("later")
            self.wait_state("later", "recording")
            for subject in ("zelta.command.later", "zelta.worker.w1"):
                for text in (b"", b"[" * 10_000, b"7", b'{"command": 7}', b'{"command": "x\\ny"}',
                             b'{"command": "layout", "layout": "/etc/passwd"}',
                             b'{"command": "background", "uid": "1 /etc/x", "image": "/etc/x"}'):
                    with self.subTest(subject=subject, text=text[:40]):
                        self.assertIs(raw.request(subject, text).get("ok"), False)
            # A state that nobody can read, of a job that comes then.
            raw.request("$KV.zelta_recordings.odd", b"[" * 10_000)
            raw.request("$KV.zelta_wishes.odd", b'{"layout": 7, "started": "x", "backgrounds": []}')
        self.send(id="odd", duration_s=1)
        self.wait_over("odd")
        self.fleet("stop", "later")
        self.wait_over("later")

    # ---- Room and labels ----------------------------------------------------------------------

    def test_jobs_wait_visibly_until_there_is_room(self):
        self.serve()
        worker = self.worker("w1", most_jobs=1)
        first = self.record("first")
        self.wait_state(first, "recording")
        second = self.record("second", "--duration", 1)
        third = self.record("third")
        # It says that, and how many there are.
        self.wait_until("a full worker", lambda: "1 jobs run" in self.fleet("workers"))
        self.assertEqual([self.show(one)["state"] for one in (second, third)], ["waiting"] * 2)
        self.assertRegex(self.fleet("queue"), r"(?m)^any\b.*\b2\b.*\b1\b")
        # One that waits may be stopped: nothing is recorded of it.
        self.fleet("stop", third)
        self.fleet("stop", first)
        self.wait_over(first)
        over = self.wait_over(second)
        self.assertEqual(len(over["stretches"]), 1)
        over = self.wait_over(third)
        self.assertEqual(over["reason"], "it was asked to leave")
        self.assertFalse([one for one in over["stretches"] if one["joined_utc_ms"]])
        self.assertFalse(list(worker.root.glob("third/**/*.mp4")))

    def test_what_is_refused_takes_no_room(self):
        """Of a network that two such jobs would fill for seconds."""
        self.serve()
        worker = self.worker("w1", network_mbit=40)
        for job in ("first", "second"):
            self.send(id=job, settings="none", expect={"users": 30})
            self.wait_over(job, "refused")
        worker.wait_event("refused", "second")

        def report():
            return json.loads(self.fleet("--json", "workers"))
        before = report()["utc_ms"]
        self.wait_until("next report", lambda: report()["utc_ms"] > before)
        self.assertEqual(report()["lacks"], "")

    def test_a_machine_that_cant_isnt_the_jobs_fault(self):
        """A folder that can't be written to, until it can."""
        self.serve()
        worker = self.worker("w1")
        (worker.root / "call").write_text("in the way")
        job = self.record("call", "--duration", 1)
        worker.wait_event("put back", job)
        self.assertIn(self.show(job)["state"], ("waiting", "taken"))
        self.worker("w2")
        over = self.wait_over(job)
        self.assertEqual(over["stretches"][-1]["worker"], "w2")

    def test_labels_say_whose_a_job_is(self):
        self.serve()
        self.worker("usual")
        gpu = self.record("for-gpu", "--label", "gpu", "--duration", 1)
        usual = self.record("for-any", "--duration", 1)
        self.assertEqual(self.wait_over(usual)["stretches"][0]["worker"], "usual")
        self.assertEqual(self.show(gpu)["state"], "waiting")
        self.worker("special", labels=["gpu", "any"])
        over = self.wait_over(gpu)
        self.assertEqual((over["label"], over["stretches"][0]["worker"]), ("gpu", "special"))

    # ---- Commands -----------------------------------------------------------------------------

    def test_commands_reach_whoever_records_it(self):
        self.serve()
        (self.dir / "grey.png").write_bytes(subprocess.run(
            ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=gray:s=16x16", "-frames:v", "1",
             "-f", "image2pipe", "-c:v", "png", "-"], capture_output=True, check=True).stdout)
        worker = self.worker("w1", images={"grey": str(self.dir / "grey.png")})
        job = self.send(id="call", options=MIXED)
        self.wait_state(job, "recording")
        layout = self.dir / "layout.json"
        layout.write_text(json.dumps(LAYOUT))
        bad = self.dir / "bad.json"
        bad.write_text(json.dumps({"regions": 7}))
        torn = self.dir / "torn.json"
        torn.write_text("{")
        self.fleet("resume", job)
        self.wait_file(worker.root / job)
        rows = ((["pause", job], 0, ""), (["resume", job], 0, ""),
                (["layout", job, layout], 0, ""),
                (["layout", job, bad], 1, "regions"),
                (["layout", job, torn], 1, str(torn)),
                (["layout", job, self.dir / "none.json"], 1, "none.json"),
                (["background", job, 1, "grey"], 0, ""),
                (["background", job, 1], 0, ""),
                (["background", job, 1, "unknown"], 1, "image"),
                (["background", job, "x", "grey"], 1, "uid"),
                (["show", "unknown"], 1, "unknown"), (["stop", "unknown"], 1, "unknown"),
                (["pause", "unknown"], 1, "unknown"),
                (["drain", "unknown"], 1, "unknown"),
                (["record", "room", "--id", job], 1, "recording already"))
        for arguments, status, says in rows:
            with self.subTest(arguments[0], arguments=arguments):
                self.assertIn(says, self.fleet(*arguments, status=status))
        self.wait_until("second file", lambda: sum(
            one.stat().st_size > 0 for one in (worker.root / job).glob("**/*.mp4")) == 2)
        self.fleet("stop", job)
        self.assertEqual(self.wait_over(job)["reason"], "it was asked to leave")
        self.assertIn("over", self.fleet("pause", job, status=1))
        self.assertEqual(len(self.files(worker.root / job)), 2)

    # ---- What it tells, and a first try ------------------------------------------------------

    def collected(self, port):
        """Nothing, while nobody serves there."""
        try:
            # No proxy of the machine's.
            opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
            with opener.open(f"http://127.0.0.1:{port}/metrics", timeout=LIMIT_S) as answer:
                text = answer.read().decode()
        except urllib.error.URLError:
            return {}
        return {name: float(value) for name, value in
                re.findall(r"^(zelta_\S+) (\S+)$", text, re.MULTILINE)}

    def test_numbers_are_those_of_the_fleet(self):
        self.serve()
        port = free_port()
        worker = self.worker("w1", "--metrics", str(port))
        job = self.record("call")
        self.record("for-gpu", "--label", "gpu")
        self.states.wait(job, "user", lambda one: one["users"] == 1)
        # It counts once a second.
        self.wait_until("recording in its numbers",
                        lambda: self.collected(port)["zelta_worker_recordings"] == 1)
        self.assertEqual(self.collected(port)["zelta_worker_connected"], 1)
        fleet_port = free_port()
        fleet = Program(BIN / "zelta-fleet", *self.nats, "metrics", fleet_port)
        self.addCleanup(fleet.end)
        self.wait_until("metrics", lambda: self.collected(fleet_port))
        found = self.collected(fleet_port)
        for name, value in (("zelta_fleet_up", 1), ("zelta_fleet_users", 1),
                            ("zelta_fleet_workers", 1), ('zelta_fleet_taken{label="any"}', 1),
                            ('zelta_fleet_waiting{label="gpu"}', 1),
                            ('zelta_fleet_recordings{state="recording"}', 1),
                            ('zelta_fleet_recordings{state="waiting"}', 1)):
            self.assertEqual(found.get(name), value, (name, found))
        self.fleet("stop", job)
        self.wait_over(job)
        worker.wait_event("over", job)
        self.wait_until("end in its numbers",
                        lambda: self.collected(port)["zelta_worker_recordings"] == 0)

    def test_a_first_try_needs_one_command_and_leaves_nothing_running(self):
        port = free_port()
        up = Program(BIN / "zelta-fleet", "up", "--folder", self.dir / "fleet", "--port", port)
        self.addCleanup(up.end)
        up.wait_for("fleet", lambda lines: any("The fleet is up" in line for line in lines))
        self.nats = ["--nats", f"nats://127.0.0.1:{port}"]
        self.wait_until("worker", lambda: "here" in self.fleet("workers"))
        self.fleet("record", "room", "--id", "first", "--server", CHANNEL)
        self.assertIn("first", self.fleet("list"))
        children = children_of(up.pid)
        up.signal(signal.SIGINT)
        self.assertEqual(up.wait(), 0)
        for child in children:
            self.assertTrue(wait_gone(child, 0))
        # A port that somebody has is told, and ends it.
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", port))
            taken.listen()
            again = Program(BIN / "zelta-fleet", "up", "--folder", self.dir / "fleet", "--port",
                            port)
            self.addCleanup(again.end)
            self.assertEqual(again.wait(), 1)
            self.assertIn("nats-server ended by itself", again.said())

    # ---- Who may ------------------------------------------------------------------------------

    def test_servers_with_tls_and_users_have_each_do_what_is_theirs(self):
        self.certificates(server="ca")
        configuration = self.dir / "nats.conf"
        # No consumer of the queue's, by which whoever only reads could take jobs.
        reads = [f"$JS.API.{one}" for one in (
            "INFO", "STREAM.NAMES", "STREAM.INFO.*", "STREAM.MSG.GET.*", "DIRECT.GET.>",
            "CONSUMER.LIST.*")] + ["$JS.FC.>"]
        for bucket in ("recordings", "workers", "deliveries"):
            for one in ("CREATE", "DELETE"):
                at = f"$JS.API.CONSUMER.{one}.KV_zelta_{bucket}"
                reads += [at, f"{at}.>"]
        users = {
            "worker": ([*reads, "$JS.API.STREAM.CREATE.*", "$JS.API.CONSUMER.DURABLE.CREATE.>",
                        "$JS.API.CONSUMER.INFO.>", "$JS.API.CONSUMER.MSG.NEXT.>",
                        "$JS.ACK.zelta_jobs.>", "$KV.>", "zelta.events.*", "zelta.command.*",
                        "_INBOX.>"],
                       ["zelta.command.*", "zelta.worker.*", "_INBOX.>"]),
            "sender": ([*reads, "zelta.jobs.any", "$KV.zelta_recordings.*", "$KV.zelta_wishes.*",
                        "zelta.command.*"], ["_INBOX.>"]),
            "reader": (reads, ["_INBOX.>"])}
        # A password is the name's first letter.
        rows = "".join(f"""
    {{ user: {name}, password: {name[0]}, permissions: {{
        publish: {json.dumps(publish)}, subscribe: {json.dumps(subscribe)} }} }}"""
                       for name, (publish, subscribe) in users.items())
        configuration.write_text(f"""
tls {{ cert_file: "{self.dir}/server.pem", key_file: "{self.dir}/server.key" }}
authorization {{ users = [{rows}
] }}
""")
        self.serve(configuration)
        at = f"127.0.0.1:{self.server.port}"
        ca = ["--ca-file", str(self.dir / "ca.pem")]
        self.url = f"tls://worker:w@{at}"
        worker = self.worker("w1", nats={"urls": [self.url], "ca_file": str(self.dir / "ca.pem")})
        self.nats = ["--nats", f"tls://sender:s@{at}", *ca]
        job = self.record("call")
        self.wait_state(job, "recording")
        # A reader sees it, and that is all.
        reader = ["--nats", f"tls://reader:r@{at}", *ca]
        self.assertIn("recording", self.fleet("list", nats=reader))
        for arguments in (["record", "room", "--id", "mine"], ["stop", job]):
            said = self.fleet(*arguments, status=1, nats=reader)
            self.assertRegex(said, "(?i)permission|may not|allowed")
        # As is who has another label's right, no name, or trusts somebody else.
        said = self.fleet("record", "room", "--label", "gpu", status=1)
        self.assertRegex(said, "(?i)permission|may not|allowed")
        said = self.fleet("list", status=1, nats=["--nats", f"tls://{at}", *ca])
        self.assertRegex(said, "(?i)authenti|authori")
        other = ["--nats", f"tls://sender:s@{at}", "--ca-file", str(self.dir / "other-ca.pem")]
        said = self.fleet("list", status=1, nats=other)
        self.assertRegex(said, "(?i)ssl|certificate")
        self.assertFalse([line for line in self.server.lines if 'Violation - User "worker"' in line])
        # No password is shown.
        for text in (said, worker.said(), "\n".join(worker.lines)):
            self.assertNotRegex(text, ":[ws]@")
        self.fleet("stop", job)
        self.wait_over(job)
        self.assertEqual(self.show(job)["stretches"][0]["worker"], "w1")
        self.assertTrue(self.files(worker.root / job))


if __name__ == "__main__":
    sys.exit(run_cases(ToolTest, sys.argv[1:]))
