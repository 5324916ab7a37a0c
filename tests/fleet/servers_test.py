#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""zelta-fleet and zelta-worker with NATS servers that aren't the simplest: who demand certificates
of their clients, who know users by signed credentials, and three of which one dies.

  ZELTA_BIN=build/release/bin tests/fleet/servers_test.py [PART OF A CASE'S NAME…]
"""

import base64
import binascii
import json
import os
import signal
import sys
import time

from fleets import (BIN, SANITIZED, FleetTest, Program, RawNats, Server, Worker, free_port, openssl,
                    run_cases, wait_gone)

# Workers begin and take a job before it is over.
SHORT_LIVED_S = 40 if SANITIZED else 12
LONG_LEASE_MS = 15_000
# -1: no limit. What isn't named is 0.
UNLIMITED = dict.fromkeys(("subs", "data", "payload"), -1)
ACCOUNT = {**UNLIMITED, **dict.fromkeys(("imports", "exports", "conn", "leaf"), -1)}
JETSTREAM = dict.fromkeys(("mem_storage", "disk_storage", "streams", "consumer"), -1)


class Signer:
    """An Ed25519 key as NATS writes them, of an operator, an account or a user."""
    KINDS = {"operator": 14 << 3, "account": 0, "user": 20 << 3}
    SEED = 18 << 3
    # Of a private key of 32 bytes.
    PKCS8 = bytes.fromhex("302e020100300506032b657004220420")

    def __init__(self, folder, kind):
        self.kind = kind
        seed = os.urandom(32)
        self.path = folder / f"{kind}-{seed.hex()[:8]}"
        self.path.write_bytes(self.PKCS8 + seed)
        of = self.KINDS[kind]
        self.name = self.text(bytes([of]) + openssl(
            "pkey", "-inform", "DER", "-in", self.path, "-pubout", "-outform", "DER")[-32:])
        self.seed = self.text(bytes([self.SEED | of >> 5, of << 3 & 0xFF]) + seed)

    @staticmethod
    def text(key):
        return base64.b32encode(
            key + binascii.crc_hqx(key, 0).to_bytes(2, "little")).decode().rstrip("=")

    def sign(self, whom, exp=None, **nats):
        """What NATS calls a JWT: who that is, and what they may, until then."""
        claims = {"iat": int(time.time()), "iss": self.name, "sub": whom.name, "name": whom.kind,
                  "nats": {"version": 2, "type": whom.kind, **nats}}
        if exp:
            claims["exp"] = exp

        def packed(part):
            return base64.urlsafe_b64encode(part).rstrip(b"=").decode()
        text = ".".join(packed(json.dumps(one).encode())
                        for one in ({"typ": "JWT", "alg": "ed25519-nkey"}, claims))
        path = self.path.with_suffix(".text")
        path.write_text(text)
        return f"{text}." + packed(openssl("pkeyutl", "-sign", "-keyform", "DER", "-inkey",
                                           self.path, "-rawin", "-in", path))

    def credentials(self, path, exp=None):
        """Of a user of this account; whole or not at all."""
        user = Signer(path.parent, "user")
        parts = {"NATS USER JWT": self.sign(user, exp, **UNLIMITED), "USER NKEY SEED": user.seed}
        new = path.with_suffix(".new")
        new.write_text("".join(f"-----BEGIN {what}-----\n{text}\n------END {what}------\n"
                               for what, text in parts.items()))
        new.rename(path)


class ServersTest(FleetTest):
    def configured(self, text, name="nats.conf"):
        path = self.dir / name
        path.write_text(text)
        return path

    def nats_of(self, **files):
        """Settings, and the same as options."""
        settings = {name: str(self.dir / file) for name, file in files.items()}
        options = [f"--{name.replace('_', '-')}={path}" for name, path in settings.items()]
        return {"urls": [self.url], **settings}, ["--nats", self.url, *options]

    def assert_refused(self, says, **files):
        """To both programs, in the same words."""
        settings, options = self.nats_of(**files)
        with self.subTest(**files):
            self.assertRegex(self.fleet("list", status=1, nats=options), says)
            worker = Worker(self.dir / "refused.json", self.settings("refused", nats=settings))
            self.addCleanup(worker.end)
            self.assertEqual(worker.wait(), 1)
            self.assertRegex(worker.said(), says)

    def test_servers_that_demand_certificates_let_in_who_has_one(self):
        at = self.dir
        self.certificates(server="ca", client="ca", stranger="other-ca")
        self.serve(self.configured(f"""
            authorization {{ user: worker, password: w }}
            tls {{ cert_file: "{at}/server.pem", key_file: "{at}/server.key",
                   ca_file: "{at}/ca.pem", verify: true }}"""))
        self.url = f"tls://worker:w@127.0.0.1:{self.server.port}"
        (at / "junk.pem").write_text("junk")
        for ca, certificate, key, says in (
                ("ca.pem", None, None, "may want certificate_file and key_file"),
                ("ca.pem", "stranger.pem", "stranger.key", "not trust who signed .*stranger.pem"),
                ("ca.pem", "none.pem", "client.key", "certificate_file: .*none.pem.*No such file"),
                ("ca.pem", "client.pem", "none.key", "key_file: .*none.key.*No such file"),
                ("ca.pem", "client.pem", "server.key", "server.key.*mismatch"),
                ("ca.pem", "junk.pem", "client.key", "junk.pem.*no start line"),
                ("other-ca.pem", "client.pem", "client.key", "local issuer certificate"),
                ("none.pem", "client.pem", "client.key", "ca_file: .*none.pem.*No such file")):
            own = {"certificate_file": certificate, "key_file": key} if certificate else {}
            self.assert_refused(says, ca_file=ca, **own)
        settings, self.nats = self.nats_of(ca_file="ca.pem", certificate_file="client.pem",
                                           key_file="client.key")
        worker = self.worker("w1", nats=settings)
        job = self.record("call", "--duration", 1)
        self.wait_over(job)
        self.assertTrue(self.files(worker.root / job))

    def serve_accounts(self):
        """Known by an operator's word: the fleet's account, and one that may store nothing."""
        operator = Signer(self.dir, "operator")
        system, ours, poor = (Signer(self.dir, "account") for _ in range(3))
        known = "".join(f"{one.name}: {operator.sign(one, limits={**ACCOUNT, **more})}\n"
                        for one, more in ((system, {}), (ours, JETSTREAM), (poor, {})))
        self.serve(self.configured(f"""
            operator: {operator.sign(operator)}
            system_account: {system.name}
            resolver: MEMORY
            resolver_preload: {{ {known} }}"""))
        return ours, poor

    def test_credentials_are_good_until_they_expire_and_their_file_is_read_anew(self):
        ours, poor = self.serve_accounts()
        at = self.dir
        ours.credentials(at / "good")
        ours.credentials(at / "expired", int(time.time()) - 10)
        poor.credentials(at / "poor")
        Signer(at, "account").credentials(at / "stranger")
        (at / "junk").write_text("junk")
        for files, says in (({}, "Authorization"),
                            ({"credentials_file": "expired"}, "expired.* has expired"),
                            ({"credentials_file": "stranger"}, "stranger.* know its account"),
                            ({"credentials_file": "poor"}, "JetStream not enabled"),
                            ({"credentials_file": "junk"}, "no nkey user seed.*junk"),
                            ({"credentials_file": "none"}, "none.*No such file")):
            self.assert_refused(says, **files)
        self.nats = self.nats_of(credentials_file="good")[1]
        ends = int(time.time()) + SHORT_LIVED_S
        for name in ("short", "renewed"):
            ours.credentials(at / name, ends)
        settings, options = self.nats_of(credentials_file="short")
        metrics = Program(BIN / "zelta-fleet", *options, "metrics", free_port())
        self.addCleanup(metrics.end)
        first = self.worker("w1", nats=settings, labels=["left"])
        left = self.record("left", "--label", "left")
        self.wait_state(left, "recording")
        second = self.worker("w2", nats=self.nats_of(credentials_file="renewed")[0],
                             labels=["kept", "left"])
        kept = self.record("kept", "--label", "kept")
        self.wait_state(kept, "recording")
        ours.credentials(at / "renewed")
        self.assertLess(time.time(), ends)
        # Whoever isn't let in any more says so and ends, so that it may be started anew.
        for one in (first, metrics):
            self.assertEqual(one.wait(), 1)
            self.assertRegex(one.said(), "no more: .*short.* has expired")
        self.assertEqual(self.wait_state(left, "recording", stretches=2)["stretches"][1]["worker"],
                         "w2")
        for job, stretches in ((left, 2), (kept, 1)):
            self.fleet("stop", job)
            self.assertEqual(len(self.wait_over(job)["stretches"]), stretches)
            self.assertTrue(self.files(second.root / job))

    def test_a_recording_goes_on_in_one_stretch_when_one_of_three_servers_dies(self):
        # They have to know each other's before they begin.
        ports = [free_port() for _ in range(3)]
        routes = json.dumps([f"nats-route://127.0.0.1:{port}" for port in ports])
        servers = {}
        for name, port in zip(("n0", "n1", "n2"), ports):
            path = self.configured(f"""
                server_name: {name}
                cluster {{ name: fleet, listen: "127.0.0.1:{port}", routes: {routes} }}""", name)
            servers[name] = Server(self.dir / f"{name}.store", -1, path)
            self.addCleanup(servers[name].end)
        urls = {name: f"nats://127.0.0.1:{one.port}" for name, one in servers.items()}
        self.fleet("--replicas", 3, "list", nats=["--nats", ",".join(urls.values())])
        with RawNats(servers["n0"].port) as raw:
            kept = raw.request("$JS.API.STREAM.INFO.zelta_jobs")
        self.assertEqual(kept["config"]["num_replicas"], 3)
        # The worst to lose; it tells the worker of the others.
        dies = kept["cluster"]["leader"]
        self.url = urls[dies]
        others = [url for name, url in urls.items() if name != dies]
        self.nats = ["--nats", ",".join(others)]
        worker = self.worker("w1", lease_ms=LONG_LEASE_MS)
        job = self.record("call")
        self.wait_state(job, "recording")
        self.worker("w2", lease_ms=LONG_LEASE_MS, nats={"urls": others})
        tool, = worker.recorders()
        servers[dies].signal(signal.SIGKILL)
        servers[dies].wait()
        expired = time.monotonic() + LONG_LEASE_MS / 1000 + 1
        self.watch(anew=True)
        # What is sent meanwhile is recorded, too.
        later = self.record("later", "--duration", 1)
        self.wait_over(later)
        self.assertIn(job, self.fleet("list"))
        # The other worker would have it by then if nobody had renewed it.
        self.assertFalse(wait_gone(tool, max(0, expired - time.monotonic())))
        self.fleet("stop", job)
        over = self.wait_over(job)
        self.assertEqual([one["worker"] for one in over["stretches"]], ["w1"], over)
        file, = self.files(worker.root / job)
        self.assertGreater(file["last_utc_ms"] - file["first_utc_ms"], LONG_LEASE_MS)


if __name__ == "__main__":
    sys.exit(run_cases(ServersTest, sys.argv[1:]))
