#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Relays UDP between ports of this machine with loss, jitter, reordering and doubled packets.

usage: impair_udp.py LOSS JITTER_MS DOUBLED SEED FROM:TO [FROM:TO …]

LOSS and DOUBLED are shares of the packets, 0 to 1. Every packet is held back by up to JITTER_MS, so
that packets overtake each other. Nothing is lost of RTCP, whose ports are odd. Runs until killed.
"""
import asyncio
import random
import sys


class Relay(asyncio.DatagramProtocol):
    def __init__(self, settings, out_port):
        self.loss, self.jitter, self.doubled, self.random = settings
        self.out = ("127.0.0.1", out_port)
        self.reports = out_port % 2 == 1

    def connection_made(self, transport):
        self.transport = transport

    def datagram_received(self, data, _):
        if self.reports:
            return self.transport.sendto(data, self.out)
        if self.random.random() < self.loss:
            return
        copies = 2 if self.random.random() < self.doubled else 1
        for _ in range(copies):
            delay = self.random.random() * self.jitter
            asyncio.get_running_loop().call_later(delay, self.transport.sendto, data, self.out)


async def main():
    loss, jitter_ms, doubled, seed = (float(value) for value in sys.argv[1:5])
    settings = (loss, jitter_ms / 1000, doubled, random.Random(seed))
    loop = asyncio.get_running_loop()
    for pair in sys.argv[5:]:
        source, target = (int(port) for port in pair.split(":"))
        await loop.create_datagram_endpoint(
            lambda target=target: Relay(settings, target), local_addr=("127.0.0.1", source))
    print("ready", flush=True)
    await asyncio.Event().wait()


asyncio.run(main())
