#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures what figures.json needs of brokers, on three nats-servers of its own, on loopback.

    brokers.py [KILLS]

For how long nobody answers when the one that leads is killed, or told to end, KILLS times each (5),
and how many of twenty jobs, whose leases of 5 s are renewed each second all the while, the next one
that leads gives out again, as it finds them over; and how many leases a second one consumer renews,
each replicated to the two others. All share this machine's processors with the client, so that
brokers of their own do more.
"""
import contextlib
import json
import secrets
import signal
import socket
import statistics
import sys
import tempfile
import threading
import time

import nats_servers

SUBJECT = "jobs.any"
NEXT = "$JS.API.CONSUMER.MSG.NEXT.jobs.any"
RENEW = b"+WPI"
JOBS = 20
LEASE_NS = 5_000_000_000


class Client:
    """As much of the protocol as asking needs."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=5)
        self.file = self.socket.makefile("rb")
        self.file.readline()
        self.socket.settimeout(None)
        self.inbox = "_INBOX." + secrets.token_hex(8)
        self.last = 0
        self.answers = {}  # by subject: header, text, whom to answer
        self.given = {}  # jobs, by their number in the queue: whom to answer, once each time
        self.changed = threading.Condition()
        self.send(b'CONNECT {"verbose":false,"headers":true,"no_responders":true}\r\n')
        self.send(f"SUB {self.inbox}.* 1\r\n".encode())
        threading.Thread(target=self.read, daemon=True).start()

    def send(self, line):
        self.socket.sendall(line)

    def read(self):
        with contextlib.suppress(OSError):
            while line := self.file.readline():
                words = line.decode().split()
                if words[0] == "PING":
                    self.send(b"PONG\r\n")
                if words[0] not in ("MSG", "HMSG"):
                    continue
                body = self.file.read(int(words[-1]) + 2)[:-2]
                header = int(words[-2]) if words[0] == "HMSG" else 0
                to = words[3] if len(words) == (6 if header else 5) else ""
                with self.changed:
                    if words[1] == SUBJECT:
                        self.given.setdefault(to.split(".")[5], []).append(to)
                    else:
                        self.answers[words[1]] = (body[:header], body[header:], to)
                    self.changed.notify_all()

    def ask(self, subject, text=b""):
        """The subject that the answer comes to."""
        self.last += 1
        to = f"{self.inbox}.{self.last}"
        self.send(f"PUB {subject} {to} {len(text)}\r\n".encode() + text + b"\r\n")
        return to

    def answer(self, to, patience=5):
        with self.changed:
            self.changed.wait_for(lambda: to in self.answers, patience)
            return self.answers.get(to)

    def call(self, name, of=None):
        """Asks until servers that are just electing answer."""
        until = time.monotonic() + 30
        while time.monotonic() < until:
            found = self.answer(self.ask("$JS.API." + name, json.dumps(of).encode() if of else b""))
            told = json.loads(found[1]) if found and found[1] else {"error": "no answer"}
            if "error" not in told:
                return told
            threading.Event().wait(0.25)
        sys.exit(f"brokers.py: {name}: {told['error']}")

    def is_renewed(self, to):
        header, text, _ = self.answers.get(to, (b"503", b"", ""))
        return b"503" not in header and text == b""


@contextlib.contextmanager
def cluster():
    """Three servers with jobs that are given out: the one that leads, and a client of another one."""
    with tempfile.TemporaryDirectory() as folder, nats_servers.running(folder, 3) as servers:
        client = Client(servers[0].port)
        client.call("STREAM.CREATE.jobs", {"name": "jobs", "subjects": ["jobs.*"], "num_replicas": 3,
                                           "retention": "workqueue", "storage": "file"})
        client.call("CONSUMER.DURABLE.CREATE.jobs.any", {"stream_name": "jobs", "config": {
            "durable_name": "any", "ack_policy": "explicit", "ack_wait": LEASE_NS,
            "max_ack_pending": -1, "filter_subject": SUBJECT}})
        for _ in range(JOBS):
            client.answer(client.ask(SUBJECT, b"a job"))
        leads = int(client.call("CONSUMER.INFO.jobs.any")["cluster"]["leader"][1:])
        other = Client(servers[(leads + 1) % 3].port)
        other.ask(NEXT, b'{"batch":%d,"expires":5000000000}' % JOBS)
        with other.changed:
            if not other.changed.wait_for(lambda: len(other.given) == JOBS, 5):
                sys.exit("brokers.py: jobs aren't given out")
        yield servers[leads].process, other


def end_leader(how):
    """Seconds between two renewals that were answered, around its end; jobs that were given out again."""
    with cluster() as (leader, client):
        jobs = [given[0] for given in client.given.values()]
        asked = {}
        ends = time.monotonic() + 2
        until = ends + 12
        while time.monotonic() < until:
            # Each of them once a second.
            asked[client.ask(jobs[len(asked) % JOBS], RENEW)] = time.monotonic()
            client.ask(NEXT, b'{"batch":1,"expires":1000000000}')
            threading.Event().wait(1 / JOBS)
            if leader.returncode is None and time.monotonic() > ends:
                leader.send_signal(how)
                ends = until
        client.answer(client.ask(jobs[0], RENEW))
        renewed = sorted(at for to, at in asked.items() if client.is_renewed(to))
        silence = max(later - sooner for sooner, later in zip(renewed, renewed[1:]))
        return silence, sum(len(given) > 1 for given in client.given.values())


def renewals_a_second(count=50_000):
    with cluster() as (_, client):
        job = next(iter(client.given.values()))[0]
        begun = time.monotonic()
        last = [client.ask(job, RENEW) for _ in range(count)][-1]
        if not client.answer(last, 60):
            sys.exit("brokers.py: renewals aren't answered")
        return count / (time.monotonic() - begun)


def main():
    kills = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    print(nats_servers.version())
    for name, how in (("killed", signal.SIGKILL), ("told to end", signal.SIGTERM)):
        ends = [end_leader(how) for _ in range(kills)]
        took = [silence for silence, _ in ends]
        print(f"{name}: nobody answers for {min(took):.1f} to {max(took):.1f} s, half of them {statistics.median(took):.1f} s")
        for silence, again in sorted(ends):
            print(f"  {silence:.1f} s: {again} of {JOBS} jobs were given out again")
    print(f"renewals a second: {renewals_a_second():,.0f}")


if __name__ == "__main__":
    main()
