#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Puts a recording into the fleet's queue, by NATS' text protocol alone: send_job.py HOST:PORT ID CHANNEL"""
import json
import secrets
import socket
import sys

(host, port), name, inbox = sys.argv[1].rsplit(":", 1), sys.argv[2], f"_INBOX.{secrets.token_hex(8)}"
job = json.dumps({"id": name, "channel": sys.argv[3], "duration_s": 3}).encode()
head = f"NATS/1.0\r\nNats-Msg-Id: {name}\r\n\r\n".encode()  # sent twice within two minutes, it is kept once
with socket.create_connection((host, int(port)), timeout=10) as way, way.makefile("rwb") as nats:
    nats.write(b'CONNECT {"verbose": false, "headers": true, "no_responders": true}\r\n'
               b"SUB %s 1\r\nHPUB zelta.jobs.any %s %d %d\r\n%s%s\r\n"
               % (inbox.encode(), inbox.encode(), len(head), len(head + job), head, job))
    nats.flush()
    for line in nats:  # INFO and PING come first
        if line.startswith((b"MSG", b"HMSG", b"-ERR")):
            answer = nats.readline() if line.startswith(b"MSG") else line  # HMSG: no such queue
            sys.exit(None if b'"seq"' in answer else f"not in the queue: {answer.decode()}")
