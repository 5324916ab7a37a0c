# SPDX-License-Identifier: Apache-2.0
"""Where servers run that are tortured: in a network namespace at the end of a cable that can be cut,
or on the loopback where that can't be made."""

import contextlib
import os
import shutil
import subprocess

RULES = """
table inet cut {{
  chain in {{ type filter hook input priority 0; iif lo accept; {rule}; }}
  chain out {{ type filter hook output priority 0; oif lo accept; {rule}; }}
}}
"""
# What stands in the way of each packet.
LOSSES = {"drop": "drop", "loss": "numgen random mod 100 < 30 drop"}


class Loopback:
    address = "127.0.0.1"
    faults = ()

    @staticmethod
    def inside(command):
        return command

    def close(self):
        pass


class Cable:
    """Needs root. `name` is the namespace's, and the cable goes with it."""

    faults = ("down", *LOSSES)

    def __init__(self, name):
        self.name = name
        number = os.getpid()
        # A network of four addresses, of which nobody else is likely to have some.
        net = f"10.{20 + number // 256 % 200}.{number % 256}."
        self.address = net + "2"
        self.there = f"zd{number}t"
        here = f"zd{number}h"
        run("ip", "netns", "add", name)
        try:
            run("ip", "link", "add", here, "type", "veth", "peer", "name", self.there, "netns", name)
            run("ip", "addr", "add", net + "1/30", "dev", here)
            run("ip", "link", "set", here, "up")
            run("ip", "-n", name, "addr", "add", self.address + "/30", "dev", self.there)
            run("ip", "-n", name, "link", "set", "lo", "up")
            run("ip", "-n", name, "link", "set", self.there, "up")
            for fault in self.faults:
                with self.cut(fault):
                    pass
        except BaseException:
            self.close()
            raise

    def inside(self, command):
        return ["ip", "netns", "exec", self.name, *command]

    @contextlib.contextmanager
    def cut(self, fault):
        if fault == "down":
            # At their end: without a route of its own here, 10.… would go to the default one.
            run("ip", "-n", self.name, "link", "set", self.there, "down")
        else:
            run(*self.inside(["nft", "-f", "-"]), input=RULES.format(rule=LOSSES[fault]))
        try:
            yield
        finally:
            if fault == "down":
                run("ip", "-n", self.name, "link", "set", self.there, "up")
            else:
                run(*self.inside(["nft", "delete", "table", "inet", "cut"]))

    def close(self):
        subprocess.run(["ip", "netns", "del", self.name], check=False)


def run(*command, **more):
    subprocess.run(command, check=True, text=True, **more)


def make_net(name):
    """A cable where it can be had; says why it can't."""
    missing = [one for one in ("ip", "nft") if not shutil.which(one)]
    if os.geteuid() != 0 or missing:
        print("the network is not cut: " + (", ".join(missing) + " is missing (iproute2, nftables)"
                                            if missing else "that needs root"), flush=True)
        return Loopback()
    return Cable(name)
