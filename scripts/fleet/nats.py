# SPDX-License-Identifier: Apache-2.0
"""As much of a NATS client as is needed to look at a fleet from outside its own programs."""

import contextlib
import json
import socket
import threading
import time
import uuid

HEARTBEAT_S = 2
PATIENCE_S = 3


class Message:
    def __init__(self, subject, reply, headers, data):
        self.subject = subject
        self.reply = reply
        self.headers = headers
        self.data = data


class Connection:
    """One thread may read while others send."""

    def __init__(self, servers):
        """`servers` are addresses, with ":PORT" where it isn't NATS' own; the first one that is there."""
        self.socket = None
        self.buffer = b""
        self.subscriptions = 0
        self.sending = threading.Lock()
        for one in servers:
            address, _, port = one.partition(":")
            with contextlib.suppress(OSError):
                self.socket = socket.create_connection((address, int(port or 4222)), timeout=1)
                break
        if not self.socket:
            raise ConnectionError("no server")
        self.socket.settimeout(PATIENCE_S)
        self._line()
        self._send('CONNECT {"verbose":false,"pedantic":false,"headers":true,"no_responders":true}')

    def _send(self, line, body=None):
        text = line.encode() + b"\r\n"
        with self.sending:
            self.socket.sendall(text if body is None else text + body + b"\r\n")

    def _more(self):
        got = self.socket.recv(1 << 16)
        if not got:
            raise ConnectionError("the server has gone")
        self.buffer += got

    def _line(self):
        while b"\r\n" not in self.buffer:
            self._more()
        line, _, self.buffer = self.buffer.partition(b"\r\n")
        return line.decode()

    def _bytes(self, count):
        while len(self.buffer) < count + 2:
            self._more()
        got, self.buffer = self.buffer[:count], self.buffer[count + 2:]
        return got

    def next(self):
        """TimeoutError when none came for as long as the patience."""
        while True:
            words = self._line().split(" ")
            if words[0] == "PING":
                self._send("PONG")
            elif words[0] == "MSG":
                reply = words[3] if len(words) == 5 else ""
                return Message(words[1], reply, "", self._bytes(int(words[-1])))
            elif words[0] == "HMSG":
                reply = words[3] if len(words) == 6 else ""
                all_of_it = self._bytes(int(words[-1]))
                length = int(words[-2])
                return Message(words[1], reply, all_of_it[:length].decode(), all_of_it[length:])
            elif words[0] == "-ERR":
                raise ConnectionError(" ".join(words))

    def subscribe(self, subject):
        self.subscriptions += 1
        self._send(f"SUB {subject} {self.subscriptions}")

    def publish(self, subject, data=b"", reply=""):
        self._send(f"PUB {subject} {reply} {len(data)}".replace("  ", " "), data)

    def request(self, subject, asked=None):
        """The answer as JSON. Nothing else may be subscribed to yet."""
        inbox = f"_INBOX.{uuid.uuid4().hex}"
        self.subscribe(inbox)
        self.publish(subject, json.dumps(asked).encode() if asked else b"", inbox)
        message = self.next()
        if " 503" in message.headers:
            raise ConnectionError(f"{subject}: nobody answers")
        answer = json.loads(message.data)
        if "error" in answer:
            raise ConnectionError(f"{subject}: {answer['error']}")
        return answer

    def close(self):
        self.socket.close()


def ask(servers, subject, asked=None):
    connection = Connection(servers)
    try:
        return connection.request(subject, asked)
    finally:
        connection.close()


class Follower(threading.Thread):
    """Tells each message of a stream once, in its order, through deaths of servers: `tell(subject, data,
    headers, utc_ms)` comes on this thread."""

    def __init__(self, servers, stream, tell):
        super().__init__(daemon=True)
        self.servers = list(servers)
        self.stream = stream
        self.tell = tell
        self.last = 0  # sequence in the stream
        self.ending = threading.Event()

    def _begin(self):
        self.servers.append(self.servers.pop(0))
        connection = Connection(self.servers)
        try:
            inbox = f"_INBOX.{uuid.uuid4().hex}"
            connection.subscribe(inbox)
            connection.subscribe(f"{inbox}.made")
            connection.publish(f"$JS.API.CONSUMER.CREATE.{self.stream}", json.dumps({
                "stream_name": self.stream,
                "config": {"deliver_subject": inbox, "ack_policy": "none", "replay_policy": "instant",
                           "deliver_policy": "by_start_sequence", "opt_start_seq": self.last + 1,
                           "idle_heartbeat": int(HEARTBEAT_S * 1e9), "max_deliver": 1,
                           "num_replicas": 1, "mem_storage": True}}).encode(), f"{inbox}.made")
        except BaseException:
            connection.close()
            raise
        return connection

    def _follow(self, connection):
        expected = 1
        while not self.ending.is_set():
            message = connection.next()
            if message.subject.endswith(".made"):
                if b'"error"' in message.data or " 503" in message.headers:
                    raise ConnectionError(message.data.decode())
                continue
            if not message.reply.startswith("$JS.ACK."):
                continue  # that there is nothing
            of_stream, of_consumer, nanoseconds = map(int, message.reply.split(".")[5:8])
            if of_consumer != expected:
                raise ConnectionError("one was lost on the way")
            expected += 1
            self.last = of_stream
            self.tell(message.subject, message.data, message.headers, nanoseconds / 1_000_000)

    def run(self):
        while not self.ending.is_set():
            with contextlib.suppress(OSError, ConnectionError, TimeoutError):
                connection = self._begin()
                try:
                    self._follow(connection)
                finally:
                    connection.close()
            self.ending.wait(0.5)

    def caught_up(self, limit_s):
        """Whether it has told all that is there now."""
        until = time.monotonic() + limit_s
        while time.monotonic() < until:
            with contextlib.suppress(OSError, ConnectionError, TimeoutError):
                if self.last >= ask(self.servers, f"$JS.API.STREAM.INFO.{self.stream}")["state"]["last_seq"]:
                    return True
            self.ending.wait(0.5)
        return False

    def close(self):
        self.ending.set()
        self.join()
