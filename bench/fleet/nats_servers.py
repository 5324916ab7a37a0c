# SPDX-License-Identifier: Apache-2.0
"""nats-servers on loopback, for measurements: the one of the PATH, one or a cluster of them."""

import contextlib
import dataclasses
import json
import os
import shutil
import socket
import subprocess
import sys
import threading
import time
import urllib.request


@dataclasses.dataclass
class Server:
    process: subprocess.Popen
    port: int
    monitor_port: int

    def numbers(self):
        """What it counts of itself."""
        with urllib.request.urlopen(f"http://127.0.0.1:{self.monitor_port}/varz", timeout=5) as answer:
            return json.load(answer)


def program():
    # Not on the PATH of who isn't root.
    found = shutil.which("nats-server", path=os.environ["PATH"] + ":/usr/sbin")
    return found or sys.exit("no nats-server is installed")


def version():
    return subprocess.check_output([program(), "--version"], text=True).strip()


def free_ports(count):
    with contextlib.ExitStack() as stack:
        held = [stack.enter_context(socket.socket()) for _ in range(count)]
        for one in held:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in held]


def wait_for(port):
    until = time.monotonic() + 10
    while time.monotonic() < until:
        with contextlib.suppress(OSError):
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        threading.Event().wait(0.05)
    sys.exit(f"no nats-server answers on port {port}")


@contextlib.contextmanager
def running(folder, count):
    """`count` of them, which are killed at the end. They are called n0, n1 and so on."""
    free = free_ports(3 * count)
    ports, monitors, between = free[:count], free[count:2 * count], free[2 * count:]
    addresses = [f"127.0.0.1:{port}" for port in between]
    routes = ", ".join(f'"nats://{one}"' for one in addresses)
    with contextlib.ExitStack() as stack:
        servers = []
        for at in range(count):
            path = f"{folder}/n{at}.conf"
            with open(path, "w", encoding="utf-8") as file:
                file.write(f'server_name: n{at}\nlisten: "127.0.0.1:{ports[at]}"\n'
                           f'http: "127.0.0.1:{monitors[at]}"\n'
                           f'jetstream {{ store_dir: "{folder}/n{at}" }}\n')
                if count > 1:
                    file.write(f'cluster {{ name: c, listen: "{addresses[at]}", routes: [{routes}] }}\n')
            with open(f"{folder}/n{at}.log", "w", encoding="utf-8") as log:
                process = subprocess.Popen([program(), "-c", path], stdout=log, stderr=log)
            stack.callback(process.wait)
            stack.callback(process.kill)
            servers.append(Server(process, ports[at], monitors[at]))
        for one in servers:
            wait_for(one.port)
        yield servers
