# SPDX-License-Identifier: Apache-2.0
"""What tests of the fleet share: programs whose lines are waited for, NATS servers on the loopback
with ports that they chose, workers with settings of their own, and what the store says."""

import contextlib
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

BIN = Path(os.environ["ZELTA_BIN"])
SANITIZED = any("ASAN" in name or "TSAN" in name for name in os.environ)
# Programs of a sanitizer take seconds to begin.
LIMIT_S = 90 if SANITIZED else 30
# From the end of a worker to the picture of the next one.
AGAIN_S = 30 if SANITIZED else 10
LEASE_MS = 6000 if SANITIZED else 3000
# A recorder that nobody renews has left by then: the lease ends, and most of another one is for
# servers that elect.
LEFT_S = LEASE_MS / 1000 * 1.8 + (10 if SANITIZED else 1)
# Most cases wait most of the time.
AT_ONCE = 2 if SANITIZED else 6
CHANNEL = "test:users=1,size=160x120,fps=5,audio=none"
ENDED = ("ended", "failed", "refused")


class Program:
    """One of a test's own, with the lines that it prints."""

    def __init__(self, *argv, stream="stdout", env=None):
        self.argv = [str(one) for one in argv]
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            self.argv, stdin=subprocess.DEVNULL, text=True, env=env,
            stdout=subprocess.PIPE if stream == "stdout" else subprocess.DEVNULL,
            stderr=subprocess.PIPE if stream == "stderr" else self.errors)
        self.pid = self.process.pid
        self.lines = []
        self.changed = threading.Condition()
        self.reads = True
        self.reader = threading.Thread(target=self.read, daemon=True,
                                       args=(getattr(self.process, stream),))
        self.reader.start()

    def read(self, stream):
        with stream:
            for line in stream:
                with self.changed:
                    self.lines.append(line.rstrip("\n"))
                    self.changed.notify_all()
        with self.changed:
            self.reads = False
            self.changed.notify_all()

    def wait_for(self, what, found, limit_s=LIMIT_S):
        """What `found` makes of the lines so far, as soon as that is something."""
        with self.changed:
            until = time.monotonic() + limit_s
            while not (result := found(self.lines)):
                left = until - time.monotonic()
                if left <= 0 or not self.reads:
                    raise AssertionError(f"no {what} of {self.argv[0]} " +
                                         (f"in {limit_s} s" if self.reads else "until it ended") +
                                         ":\n" + "\n".join(self.lines[-20:]) + self.said())
                self.changed.wait(left)
            return result

    def said(self):
        """On standard error."""
        self.errors.seek(0)
        return self.errors.read()

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, limit_s=LIMIT_S):
        return self.process.wait(limit_s)

    def end(self):
        """More than once, too."""
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.errors.close()


class Server(Program):
    """A NATS server with a folder of its own, at the port that it chose before."""

    def __init__(self, folder, port=-1, configuration=None):
        # Not on the PATH of who isn't root.
        program = shutil.which("nats-server", path=os.environ["PATH"] + ":/usr/sbin")
        argv = [program, "-js", "-sd", folder, "-a", "127.0.0.1", "-p", port]
        if configuration:
            argv += ["-c", configuration]
        super().__init__(*argv, stream="stderr")

        def ready(lines):
            return any("Server is ready" in line for line in lines)
        self.wait_for("server", ready)
        self.port = int(re.search(r"client connections on \S+:(\d+)", "\n".join(self.lines))[1])


class Worker(Program):
    def __init__(self, path, settings, *arguments):
        path.write_text(json.dumps(settings))
        self.name = settings["name"]
        self.root = Path(settings["root"])
        # What a killed one leaves behind goes with the test's folder.
        super().__init__(BIN / "zelta-worker", "--json", "--settings", path, *arguments,
                         env={**os.environ, "TMPDIR": str(path.parent)})

    def wait_event(self, event, job=None, limit_s=LIMIT_S):
        def found(lines):
            for one in map(json.loads, lines):
                if one["event"] == event and (job is None or one.get("job") == job):
                    return one
            return None
        return self.wait_for(f'event "{event}"', found, limit_s)

    def recorders(self):
        return children_of(self.pid)

    def end(self):
        # A worker that is killed leaves its recorders to their leases.
        left = [grown for child in children_of(self.pid) for grown in (child, *children_of(child))]
        self.signal(signal.SIGKILL)
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        super().end()


class States:
    """What `zelta-fleet watch` tells."""

    def __init__(self, nats):
        self.watch = Program(BIN / "zelta-fleet", "--json", *nats, "watch")

    def wait(self, job, what, holds, limit_s=LIMIT_S):
        """The first state of the job's for which that holds."""
        def found(lines):
            for state in map(json.loads, lines):
                if state["id"] == job and holds(state):
                    return state
            return None
        return self.watch.wait_for(f"{what} of {job}", found, limit_s)

    def of(self, job):
        with self.watch.changed:
            return [one for one in map(json.loads, self.watch.lines) if one["id"] == job]


class RawNats:
    """The protocol's own words, for what the project's programs would never say."""

    def __init__(self, port, user=None, password=None):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=LIMIT_S)
        self.file = self.socket.makefile("rb")
        self.file.readline()
        who = {"user": user, "pass": password} if user else {}
        self.say(b"CONNECT " + json.dumps({"verbose": False, "lang": "raw", "version": "0", **who})
                 .encode())
        self.last = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def say(self, line, payload=None):
        self.socket.sendall(line + b"\r\n" + (b"" if payload is None else payload + b"\r\n"))

    def request(self, subject, payload=b""):
        self.last += 1
        inbox = f"_INBOX.raw.{id(self)}.{self.last}"
        self.say(f"SUB {inbox} {self.last}".encode())
        self.say(f"PUB {subject} {inbox} {len(payload)}".encode(), payload)
        while True:
            words = self.file.readline().split()
            if not words or words[0] == b"-ERR":
                raise AssertionError(f"{subject}: {words}")
            if words[0] == b"PING":
                self.say(b"PONG")
            elif words[0] == b"MSG":
                answer = self.file.read(int(words[-1]))
                self.file.readline()
                return json.loads(answer) if answer else {}


def openssl(*arguments):
    return subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True).stdout


def free_port():
    with socket.socket() as tried:
        tried.bind(("127.0.0.1", 0))
        return tried.getsockname()[1]


def children_of(pid):
    try:
        return [int(one) for one in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    except (FileNotFoundError, ProcessLookupError):
        return []


def wait_gone(pid, limit_s):
    """Whether that process, of anybody, has ended by then."""
    try:
        of = os.pidfd_open(pid)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([of], [], [], limit_s)[0])
    finally:
        os.close(of)


def command_line(pid):
    return Path(f"/proc/{pid}/cmdline").read_bytes().decode().split("\0")[:-1]


class FleetTest(unittest.TestCase):
    def setUp(self):
        self.dir = Path(tempfile.mkdtemp(prefix="zelta-fleet-test."))
        self.addCleanup(shutil.rmtree, self.dir, True)
        self.server = None
        self.nats = []
        self.states = None

    # ---- NATS -------------------------------------------------------------------------------

    def serve(self, configuration=None):
        """Again at the same port with the same store, when there was one."""
        port = self.server.port if self.server else -1
        if self.server:
            self.server.end()
        self.server = Server(self.dir / "nats", port, configuration)
        if port == -1:
            self.addCleanup(lambda: self.server.end())
        self.url = f"nats://127.0.0.1:{self.server.port}"
        self.nats = ["--nats", self.url]
        return self.server

    def kill_server(self):
        self.server.signal(signal.SIGKILL)
        self.server.wait()

    def raw(self):
        return RawNats(self.server.port)

    def certificates(self, **signed):
        """Of two authorities, and of those on the loopback that one of them signed."""
        at = self.dir
        new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
        (at / "names").write_text("subjectAltName=IP:127.0.0.1,DNS:localhost")
        for who in ("ca", "other-ca"):
            openssl("req", "-x509", *new_key, "-days", "2", "-subj", f"/CN={who}", "-keyout",
                    at / f"{who}.key", "-out", at / f"{who}.pem")
        for who, by in signed.items():
            openssl("req", *new_key, "-subj", f"/CN={who}", "-keyout", at / f"{who}.key", "-out",
                    at / f"{who}.csr")
            openssl("x509", "-req", "-in", at / f"{who}.csr", "-CA", at / f"{by}.pem", "-CAkey",
                    at / f"{by}.key", "-CAcreateserial", "-days", "2", "-extfile", at / "names",
                    "-out", at / f"{who}.pem")

    # ---- Workers ----------------------------------------------------------------------------

    def settings(self, name, **more):
        root = self.dir / name
        root.mkdir(exist_ok=True)
        # This machine may be busy with all but recordings: whoever tests asks for room to be there.
        room = {"busy_share": 100, "free_memory_share": 0, "free_disk_mib": 0}
        return {"name": name, "root": str(root), "server": CHANNEL, "servers": ["test:"],
                "lease_ms": LEASE_MS, "nats": {"urls": [self.url]}, **room, **more}

    def worker(self, name, *arguments, **more):
        made = Worker(self.dir / f"{name}.json", self.settings(name, **more), *arguments)
        self.addCleanup(made.end)
        made.wait_event("ready")
        return made

    # ---- Whoever sends jobs -----------------------------------------------------------------

    def fleet(self, *arguments, status=0, nats=None):
        """Its standard output, or what it says on standard error when it fails."""
        done = subprocess.run(
            [BIN / "zelta-fleet", *(self.nats if nats is None else nats), *map(str, arguments)],
            capture_output=True, text=True, timeout=LIMIT_S, check=False)
        self.assertEqual(done.returncode, status, f"{arguments}: {done.stdout}{done.stderr}")
        return done.stdout if status == 0 else done.stderr

    def record(self, job, *arguments):
        """With the states from then on."""
        self.watch()
        self.assertEqual(self.fleet("record", "room", "--id", job, *arguments).strip(), job)
        return job

    def send(self, **job):
        """Of a file with all of it."""
        self.watch()
        path = self.dir / f"{job['id']}.job.json"
        path.write_text(json.dumps({"channel": "room", **job}))
        self.fleet("record", "--job", path)
        return job["id"]

    def watch(self, anew=False):
        if anew and self.states:
            self.states.watch.end()
            self.states = None
        if self.states is None:
            self.states = States(self.nats)
            self.addCleanup(self.states.watch.end)

    def show(self, job):
        return json.loads(self.fleet("--json", "show", job))

    def wait_state(self, job, *names, stretches=1, limit_s=LIMIT_S):
        def holds(one):
            return one["state"] in names and len(one["stretches"]) >= stretches
        found = self.states.wait(job, f"{' or '.join(names)} with {stretches} stretches",
                                 lambda one: holds(one) or one["state"] in ENDED, limit_s)
        self.assertTrue(holds(found), found)
        return found

    def wait_over(self, job, state="ended"):
        over = self.wait_state(job, *ENDED, stretches=0)
        self.assertEqual(over["state"], state, over)
        return over

    @staticmethod
    def wait_until(what, holds):
        """Of what nobody is told when it comes."""
        until = time.monotonic() + LIMIT_S
        while not holds():
            if time.monotonic() > until:
                raise AssertionError(f"no {what} in {LIMIT_S} s")
            time.sleep(0.05)

    def wait_file(self, folder):
        self.wait_until(f"file in {folder}", lambda: any(
            one.stat().st_size > 0 for one in Path(folder).glob("**/*.mp4")))

    def wait_empty_queue(self):
        with self.raw() as raw:
            self.wait_until("empty queue", lambda: raw.request(
                "$JS.API.STREAM.INFO.zelta_jobs")["state"]["messages"] == 0)

    # ---- What was recorded ------------------------------------------------------------------

    def files(self, folder):
        """Of all manifests in there, in their order, each of which plays."""
        found = [{**file, "path": one.parent / file["name"]}
                 for one in Path(folder).glob("**/recording*.json")
                 for file in json.loads(one.read_text())["files"]]
        for file in found:
            done = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-i", file["path"],
                                   "-f", "null", "-"], stdin=subprocess.DEVNULL, text=True,
                                  capture_output=True, timeout=LIMIT_S, check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""), file)
        return sorted(found, key=lambda one: one["first_utc_ms"])


def run_case(case, told=threading.Lock()):
    result = unittest.TestResult()
    began = time.monotonic()
    case.run(result)
    faults = [text for _, text in result.failures + result.errors]
    with told:
        print(f"{'FAILED' if faults else 'ok'} {case.id().split('.')[-1]} "
              f"({time.monotonic() - began:.1f} s)", *faults, sep="\n" if faults else "", flush=True)
    return not faults


def run_cases(of, parts):
    """Beside each other, as each has servers and workers of its own; those with a part of `parts` in
    their names, or all. The exit status."""
    cases = [case for case in unittest.defaultTestLoader.loadTestsFromTestCase(of)
             if not parts or any(part in case.id() for part in parts)]
    with ThreadPoolExecutor(AT_ONCE) as pool:
        return 0 if all([*pool.map(run_case, cases)]) and cases else 1
