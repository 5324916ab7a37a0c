#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A job that the example sends, without our code, is recorded by a worker; what the fleet tells of it
is what the schemas in docs/ say, and what a schema refuses the programs refuse as well.

  ZELTA_BIN=build/release/bin tests/fleet/example_test.py
"""
import json
import os
import pathlib
import subprocess
import tempfile
import threading
import time
import unittest

import jsonschema

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZELTA_BIN", ROOT / "build/release/bin"))
LIMIT_S = 90
# A machine that is busy with other tests still has room for this one.
ROOMY = {"busy_share": 100, "free_memory_share": 0, "free_disk_mib": 0, "network_mbit": 1e9}


def schema(name):
    made = json.loads((ROOT / f"docs/{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(made)
    return jsonschema.Draft202012Validator(made)


JOB, STATE = schema("fleet-job"), schema("fleet-state")
WORKER, SETTINGS = schema("fleet-worker"), schema("worker-settings")


class ExampleTest(unittest.TestCase):
    def start(self, *command, **more):
        """Ends with the test, and at the latest with its limit, so that no read of it waits for ever."""
        made = subprocess.Popen([str(one) for one in command], stdout=subprocess.PIPE, text=True,
                                **more)
        limit = threading.Timer(LIMIT_S, made.kill)
        limit.start()

        def end():
            limit.cancel()
            made.kill()
            made.wait()
            made.stdout.close()
        self.addCleanup(end)
        return made

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zelta-test.")
        self.addCleanup(folder.cleanup)
        self.dir = pathlib.Path(folder.name)
        for name in ("ports", "kept"):
            (self.dir / name).mkdir()
        self.start("nats-server", "-js", "-sd", self.dir / "store", "-a", "127.0.0.1", "-p", "-1",
                   "--ports_file_dir", self.dir / "ports", stderr=subprocess.DEVNULL)
        until = time.monotonic() + LIMIT_S
        found = []
        while not found:  # a file system has no event that a test could have
            self.assertLess(time.monotonic(), until, "nats-server tells no port")
            time.sleep(0.02)
            found = [one for one in (self.dir / "ports").iterdir() if one.read_text().endswith("}")]
        url, = json.loads(found[0].read_text())["nats"]
        self.url, self.address = url, url.removeprefix("nats://")

    def settings(self, **more):
        made = {"nats": {"urls": [self.url]}, "name": "tester", "root": str(self.dir / "kept"),
                "server": "test:users=1", **ROOMY, **more}
        path = self.dir / "worker.json"
        path.write_text(json.dumps(made))
        return made, path

    def fleet(self, *arguments):
        return subprocess.run([BIN / "zelta-fleet", "--nats", self.url, "--json", *arguments],
                              capture_output=True, text=True, timeout=LIMIT_S)

    def test_a_job_of_a_stranger_is_recorded(self):
        made, path = self.settings()
        SETTINGS.validate(made)
        worker = self.start(BIN / "zelta-worker", "--json", "--settings", path)
        self.assertEqual(json.loads(worker.stdout.readline())["event"], "ready")
        watch = self.start(BIN / "zelta-fleet", "--nats", self.url, "--json", "watch")
        send = [ROOT / "examples/fleet/send_job.py", self.address, "sent", "room"]
        subprocess.run(send, check=True, timeout=LIMIT_S)
        # Whoever isn't sure sends it again.
        subprocess.run(send, check=True, timeout=LIMIT_S)
        states = []
        for line in watch.stdout:
            state = json.loads(line)
            STATE.validate(state)
            states.append(state["state"])
            if states[-1] in ("ended", "failed", "refused"):
                break
        self.assertEqual(states[-1], "ended", state)
        self.assertEqual(states.count("taken"), 1, states)
        stretch, = state["stretches"]
        self.assertEqual((stretch["worker"], stretch["status"]), ("tester", 0), state)
        files = list(pathlib.Path(stretch["folder"]).rglob("*.mp4"))
        self.assertTrue(files and all(one.stat().st_size > 0 for one in files), state)
        report, = self.fleet("workers").stdout.splitlines()
        WORKER.validate(json.loads(report))

    def test_without_a_queue_the_example_says_so(self):
        told = subprocess.run([ROOT / "examples/fleet/send_job.py", self.address, "sent", "room"],
                              capture_output=True, text=True, timeout=LIMIT_S)
        self.assertEqual(told.returncode, 1)
        self.assertIn("not in the queue", told.stderr)

    def test_jobs_are_taken_as_the_schema_says(self):
        path = self.dir / "job.json"
        rows = [
            (True, {}),
            (True, {"id": "a-1_B", "server": "whip:127.0.0.1:0", "key": "k", "secret": "s",
                    "settings": "n", "root": "nas", "duration_s": 0.5, "expect": {"users": 3}}),
            (True, {"options": {"is-mixing-enabled": True, "chunk": 60, "stream-type": "low",
                                "trigger-mode": "manual", "uid": 4294967295}}),
            (True, {"layout": {"regions": []}}),
            (False, {"id": "a/b"}),
            (False, {"id": ""}),
            (False, {"id": "x" * 65}),
            (False, {"channel": ""}),
            (False, {"channel": "a\nb"}),
            (False, {"duration_s": -1}),
            (False, {"duration_s": "10"}),
            (False, {"expect": 3}),
            (False, {"expect": {"users": 100001}}),
            (False, {"options": {"cfg-file-path": "/etc/passwd"}}),
            (False, {"options": {"is-mixing-enabled": 1}}),
            (False, {"options": {"chunk": "60"}}),
            (False, {"options": {"stream-type": "--low"}}),
            (False, {"layout": []}),
            (False, {"folder": "/srv"}),
        ]
        for fits, change in rows:
            # A label that nobody works for.
            job = {"id": f"job{rows.index((fits, change))}", "channel": "room",
                   "label": "nobody", **change}
            with self.subTest(change=change):
                path.write_text(json.dumps(job))
                told = self.fleet("record", "--job", path)
                self.assertEqual(told.returncode, 0 if fits else 1, told.stderr)
                self.assertEqual(JOB.is_valid(job), fits)
        for line in self.fleet("list").stdout.splitlines():
            STATE.validate(json.loads(line))

    def test_settings_that_the_schema_refuses_a_worker_refuses(self):
        for change in ({"labels": []}, {"labels": ["a b"]}, {"name": "a.b"}, {"lease_ms": 999},
                       {"most_tries": 0}, {"busy_share": 101}, {"free_memory_share": 1},
                       {"roots": {"nas": "srv"}}, {"credentials": {"a/b": "/k"}},
                       {"servers": "whip:"}, {"nats": {"url": "nats://h:4222"}},
                       {"nats": {"replicas": 7}}, {"nats": {"certificate_file": "/c"}},
                       {"rooot": "/srv"}):
            with self.subTest(change=change):
                made, path = self.settings(**change)
                told = subprocess.run([BIN / "zelta-worker", "--settings", path], timeout=LIMIT_S,
                                      capture_output=True, text=True)
                self.assertEqual(told.returncode, 2, told.stderr)
                self.assertFalse(SETTINGS.is_valid(made))


if __name__ == "__main__":
    unittest.main()
