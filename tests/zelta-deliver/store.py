#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A server that keeps files, for tests of zelta-deliver: PUT and MKCOL as WebDAV has them under
/dav/, and under /s3/BUCKET/ the part of S3 that a delivery needs, signatures checked.

    store.py FOLDER PORT [--address ADDRESS] [--faults NAME=SHARE,…] [--seed N]

What is stored stands in FOLDER and outlives the server; PORT 0 is any, and the first line of
standard output says which. Faults befall a share of the requests that carry something, of all kinds
of requests as any-NAME: error (500), busy (503, Retry-After), redirect (307), refuse (403), drop (the
connection ends in the middle), lie (taken, not stored), bend (a byte is another, of WebDAV's alone),
deaf (stored, and the answer is lost), squat (just before, somebody else puts a file there). With
"plain" it makes folders by itself and knows no MKCOL; with "old" it refuses conditions by 501; with
"forge" it tells checksums that are others.
FOLDER/puts.txt has a line for each file that became whole.
"""

import argparse
import hashlib
import hmac
import http.server
import json
import os
import random
import re
import shutil
import sys
import threading
import urllib.parse
import uuid
from pathlib import Path

KEYS = {"tester": "not-a-secret"}
LOCK = threading.Lock()


def sign(secret, scope, text):
    key = ("AWS4" + secret).encode()
    for part in scope.split("/"):
        key = hmac.new(key, part.encode(), hashlib.sha256).digest()
    return hmac.new(key, text.encode(), hashlib.sha256).hexdigest()


class Store(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = 60

    def log_message(self, *_):
        pass

    # Answers.
    def answer(self, status, body=b"", headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        if not any(name == "Content-Length" for name, _ in headers):
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def error(self, status, code):
        self.answer(status, f"<Error><Code>{code}</Code></Error>".encode())

    def hang_up(self):
        self.close_connection = True
        self.connection.shutdown(2)

    # Requests.
    def body(self, most=None):
        left = int(self.headers.get("Content-Length", 0))
        if most is not None:
            left = min(left, most)
        got = self.rfile.read(left)
        if most is None and len(got) < left:
            raise ConnectionError
        return got

    def fault(self):
        with LOCK:
            at = self.server.dice.random()
        carries = self.command in ("PUT", "POST")
        for name, share in self.server.faults:
            if not carries and not name.startswith("any-"):
                continue
            if at < share:
                return name.removeprefix("any-")
            at -= share
        return ""

    def condition(self, path, fault):
        """Whether what may only go where nothing stands may go; answers if not."""
        if fault == "squat":
            path.write_text("somebody else's")
        if self.headers.get("If-None-Match") != "*":
            return True
        if self.server.has("old"):
            self.error(501, "NotImplemented")
            return False
        if path.exists():
            self.error(412, "PreconditionFailed")
            return False
        return True

    def signed(self, body):
        """Whether the signature is the one of this request and of this body."""
        found = re.match(r"AWS4-HMAC-SHA256 Credential=([^/]+)/([^,]+), ?SignedHeaders=([^,]+), ?"
                         r"Signature=(\w+)$", self.headers.get("Authorization", ""))
        if not found or found[1] not in KEYS:
            return False
        scope, names, digest = found[2], found[3].split(";"), self.headers["x-amz-content-sha256"]
        if digest != hashlib.sha256(body).hexdigest() or names != sorted(names):
            return False
        path, _, query = self.path.partition("?")
        canonical = "\n".join(
            [self.command, path, "&".join(sorted(query.split("&")))]
            + [f"{name}:{' '.join(self.headers[name].split())}" for name in names]
            + ["", ";".join(names), digest])
        text = "\n".join(["AWS4-HMAC-SHA256", self.headers["x-amz-date"], scope,
                          hashlib.sha256(canonical.encode()).hexdigest()])
        # Everything that says what is meant has to be under the signature.
        loose = [name for name in self.headers
                 if name.lower().startswith("x-amz-") and name.lower() not in names]
        return not loose and hmac.compare_digest(sign(KEYS[found[1]], scope, text), found[4])

    def handle_any(self):
        try:
            self.serve()
        except (ConnectionError, TimeoutError):
            self.close_connection = True

    do_GET = do_HEAD = do_PUT = do_POST = do_MKCOL = do_DELETE = handle_any

    def serve(self):
        split = urllib.parse.urlsplit(self.path)
        path = urllib.parse.unquote(split.path)
        if ".." in path.split("/"):
            return self.answer(400)
        fault = self.fault()
        if fault == "drop":
            self.body(most=random.randrange(1, 2000))
            return self.hang_up()
        body = self.body()
        refusals = {"error": (500, ()), "busy": (503, [("Retry-After", "1")]),
                    "redirect": (307, [("Location", "http://127.0.0.1:1/elsewhere")]),
                    "refuse": (403, ())}
        if fault in refusals:
            status, headers = refusals[fault]
            return self.answer(status, b"no", headers)
        if path.startswith("/s3/"):
            if not self.signed(body):
                return self.error(403, "SignatureDoesNotMatch")
            return self.s3(self.server.root / "s3" / path[4:],
                           urllib.parse.parse_qs(split.query, keep_blank_values=True), body, fault)
        if path.startswith("/hook"):
            return self.hook(body, fault)
        return self.dav(self.server.root / "dav" / path[5:], body, fault)

    def store(self, path, body, fault, meta=""):
        if fault == "lie":
            return
        if fault == "bend" and body:
            body = bytes([body[0] ^ 1]) + body[1:]
        beside = path.parent / f".{uuid.uuid4()}"
        beside.write_bytes(body)
        Path(str(path) + "\u00b7meta").write_text(meta)
        os.replace(beside, path)
        with LOCK, open(self.server.root / "puts.txt", "a") as log:
            log.write(path.name + "\n")

    def hook(self, body, fault):
        signature = "sha256=" + hmac.new(b"hook-key", body, hashlib.sha256).hexdigest()
        with LOCK, open(self.server.root / "hooks.txt", "a") as log:
            log.write(json.dumps({"id": self.headers["X-Zelta-Delivery"], "body": json.loads(body),
                                  "signed": self.headers["X-Zelta-Signature"] == signature}) + "\n")
        if fault == "deaf":
            return self.hang_up()
        return self.answer(204)

    def fetch(self, path):
        if not path.is_file():
            return self.error(404, "NoSuchKey")
        body = path.read_bytes()
        meta = Path(str(path) + "\u00b7meta")
        digest = meta.read_text() if meta.exists() else ""
        if self.server.has("forge"):
            digest = hashlib.sha256(b"forged").hexdigest()
        headers = [("Content-Length", str(len(body)))]
        return self.answer(200, body, headers + ([("x-amz-meta-sha256", digest)] if digest else []))

    def dav(self, path, body, fault):
        if self.command in ("GET", "HEAD"):
            return self.fetch(path)
        if self.server.has("plain"):
            if self.command == "MKCOL":
                return self.answer(501)
            path.parent.mkdir(parents=True, exist_ok=True)
        if self.command == "MKCOL":
            if path.is_dir():
                return self.answer(405)
            if not path.parent.is_dir():
                return self.answer(409)
            path.mkdir()
            return self.answer(201)
        if not path.parent.is_dir():
            return self.answer(409)
        if not self.condition(path, fault):
            return None
        self.store(path, body, fault)
        return self.hang_up() if fault == "deaf" else self.answer(201)

    def s3(self, path, query, body, fault):
        if self.command in ("GET", "HEAD"):
            return self.fetch(path)
        meta = self.headers.get("x-amz-meta-sha256", "")
        path.parent.mkdir(parents=True, exist_ok=True)
        if "uploads" in query:
            upload = str(uuid.uuid4()) + "+/="
            folder = self.upload(upload)
            folder.mkdir(parents=True)
            (folder / "meta").write_text(meta)
            answer = f"<R><UploadId>{upload}</UploadId></R>".encode()
            return self.answer(200, answer)
        if "uploadId" in query:
            return self.part(path, query, body, fault)
        if not self.condition(path, fault):
            return None
        self.store(path, body, fault, meta)
        return self.hang_up() if fault == "deaf" else self.answer(200)

    def upload(self, name):
        return self.server.root / "uploads" / hashlib.sha1(name.encode()).hexdigest()

    def part(self, path, query, body, fault):
        folder = self.upload(query["uploadId"][0])
        if not folder.is_dir():
            return self.error(404, "NoSuchUpload")
        if self.command == "DELETE":
            shutil.rmtree(folder)
            return self.answer(204)
        tag = f'"{hashlib.md5(body).hexdigest()}"'
        if self.command == "PUT":
            (folder / query["partNumber"][0]).write_bytes(body)
            with LOCK, open(self.server.root / "parts.txt", "a") as log:
                log.write(f"{path.name} {query['partNumber'][0]}\n")
            if fault == "deaf":
                return self.hang_up()
            return self.answer(200, b"", [("ETag", tag)])
        if fault == "lie":  # it begins its answer before it knows
            return self.answer(200, b"<?xml?><Error><Code>InternalError</Code></Error>")
        whole = b""
        for number, said in re.findall(
                r"<PartNumber>(\d+)</PartNumber><ETag>(.*?)</ETag>", body.decode()):
            part = (folder / number).read_bytes() if (folder / number).exists() else b""
            if said.replace("&quot;", '"') != f'"{hashlib.md5(part).hexdigest()}"':
                return self.error(400, "InvalidPart")
            whole += part
        if not self.condition(path, fault):
            return None
        self.store(path, whole, "", (folder / "meta").read_text())
        shutil.rmtree(folder)
        return self.hang_up() if fault == "deaf" else self.answer(200, b"<R/>")


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, *_):
        pass  # clients that are killed

    def has(self, trait):
        return any(name == trait for name, _ in self.faults)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("port", type=int)
    parser.add_argument("--address", default="127.0.0.1")
    parser.add_argument("--faults", default="")
    parser.add_argument("--seed", type=int, default=1)
    asked = parser.parse_args()
    for part in ("dav", "s3", "uploads"):
        (asked.folder / part).mkdir(parents=True, exist_ok=True)
    server = Server((asked.address, asked.port), Store)
    server.root = asked.folder
    server.dice = random.Random(asked.seed)
    server.faults = [(name, float(share or 0)) for name, _, share in
                     (one.partition("=") for one in asked.faults.split(",") if one)]
    print(server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    sys.exit(main())
