# SPDX-License-Identifier: Apache-2.0
"""Machines as network namespaces, whose cables end at one bridge in a namespace of its own. A cable can
be cut, lose packets, or be slow."""

import contextlib
import ctypes
import fcntl
import heapq
import os
import pathlib
import select
import signal
import struct
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/zelta-deliver"))
from torture_net import LOSSES, RULES, run  # noqa: E402  pylint: disable=wrong-import-position

CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TAP, IFF_NO_PI = 0x0002, 0x1000
LONGEST_FRAME = 65536
HUB = "10.0.0.254"


def enter(name):
    """From here on this thread, and what it starts, is in that namespace."""
    with open(f"/run/netns/{name}", "rb") as at:
        if ctypes.CDLL(None, use_errno=True).setns(at.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"setns {name}")


def pids_in(name):
    """Without this process; and without one that looks, which would be in there, too."""
    try:
        there = os.stat(f"/run/netns/{name}").st_ino
    except FileNotFoundError:
        return []
    found = []
    for at in pathlib.Path("/proc").glob("[0-9]*/ns/net"):
        with contextlib.suppress(OSError):
            if os.stat(at).st_ino == there and at.parts[2] != str(os.getpid()):
                found.append(int(at.parts[2]))
    return found


def kill_all_in(name, number=signal.SIGKILL):
    """What they start meanwhile, too."""
    hit = set()
    while fresh := set(pids_in(name)) - hit:
        for pid in fresh:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, number)
        hit |= fresh
    return len(hit)


def remove(name):
    kill_all_in(name)
    subprocess.run(["ip", "netns", "del", name], check=False, capture_output=True)


def tap(name):
    """An end of a cable that is in our hands."""
    end = os.open("/dev/net/tun", os.O_RDWR | os.O_CLOEXEC | os.O_NONBLOCK)
    fcntl.ioctl(end, TUNSETIFF, struct.pack("16sH", name.encode(), IFF_TAP | IFF_NO_PI))
    return end


class Machine:
    """Its cable ends at a bridge of its own, so that the way out can be changed under connections that go
    on. The hub's end of it is in the namespace of whoever makes one."""

    def __init__(self, prefix, name, number):
        self.name = name
        self.namespace = f"{prefix}-{name}"
        self.address = f"10.0.0.{number}"
        self.taps = []
        run("ip", "netns", "add", self.namespace)
        run("ip", "link", "add", f"{name}h", "type", "veth", "peer", "name", f"{name}m", "netns",
            self.namespace)
        self.taps = [tap(f"{name}x"), tap(f"{name}y")]
        run("ip", "link", "set", f"{name}y", "netns", self.namespace)
        self.here("link", "add", "lan", "type", "bridge")
        self.here("addr", "add", f"{self.address}/24", "dev", "lan")
        for device in ("lo", "lan", f"{name}m", f"{name}y"):
            self.here("link", "set", device, "up")
        for device in (f"{name}h", f"{name}x"):
            run("ip", "link", "set", device, "up")
        self.plug("h", "m")

    def here(self, *what):
        run("ip", "-n", self.namespace, *what)

    def inside(self, command):
        return ["ip", "netns", "exec", self.namespace, *map(str, command)]

    def plug(self, outer, inner):
        run("ip", "link", "set", f"{self.name}{outer}", "master", "hub")
        self.here("link", "set", f"{self.name}{inner}", "master", "lan")

    def unplug(self, outer, inner):
        run("ip", "link", "set", f"{self.name}{outer}", "nomaster")
        self.here("link", "set", f"{self.name}{inner}", "nomaster")

    def cut(self):
        run("ip", "link", "set", f"{self.name}h", "down")

    def join(self):
        run("ip", "link", "set", f"{self.name}h", "up")

    def lose(self, percent):
        rule = LOSSES["loss"].replace("30", str(percent))
        run(*self.inside(["nft", "-f", "-"]), input=RULES.format(rule=rule))

    def lose_none(self):
        run(*self.inside(["nft", "delete", "table", "inet", "cut"]))

    def slow(self):
        self.unplug("h", "m")
        self.plug("x", "y")

    def fast(self):
        self.unplug("x", "y")
        self.plug("h", "m")

    def close(self):
        remove(self.namespace)
        for end in self.taps:
            os.close(end)


class SlowCables(threading.Thread):
    """Carries what comes to one tap of a machine to its other one, later."""

    def __init__(self, machines, delay_s):
        super().__init__(daemon=True)
        self.delay_s = delay_s
        self.others = {}
        for machine in machines:
            outer, inner = machine.taps
            self.others.update({outer: inner, inner: outer})
        self.stop_read, self.stop_write = os.pipe()

    def run(self):
        waiting = []
        order = 0
        while True:
            pause = max(0, waiting[0][0] - time.monotonic()) if waiting else None
            ready, _, _ = select.select([*self.others, self.stop_read], [], [], pause)
            if self.stop_read in ready:
                return
            for end in ready:
                # A tap that is down has nothing, and says so by an error.
                with contextlib.suppress(OSError):
                    order += 1
                    frame = os.read(end, LONGEST_FRAME)
                    heapq.heappush(waiting, (time.monotonic() + self.delay_s, order, end, frame))
            while waiting and waiting[0][0] <= time.monotonic():
                _, _, end, frame = heapq.heappop(waiting)
                with contextlib.suppress(OSError):
                    os.write(self.others[end], frame)

    def close(self):
        os.close(self.stop_write)
        self.join()
        os.close(self.stop_read)


class Network:
    """Needs root. All namespaces' names begin with `prefix`."""

    def __init__(self, prefix, names, delay_s):
        self.hub = f"{prefix}-hub"
        self.machines = {}
        self.slow = None
        run("ip", "netns", "add", self.hub)
        try:
            enter(self.hub)
            run("ip", "link", "set", "lo", "up")
            run("ip", "link", "add", "hub", "type", "bridge")
            run("ip", "addr", "add", f"{HUB}/24", "dev", "hub")
            run("ip", "link", "set", "hub", "up")
            for number, name in enumerate(names, 1):
                self.machines[name] = Machine(prefix, name, number)
            self.slow = SlowCables(self.machines.values(), delay_s)
            self.slow.start()
        except BaseException:
            self.close()
            raise

    def close(self):
        if self.slow:
            self.slow.close()
        for machine in self.machines.values():
            machine.close()
        remove(self.hub)
