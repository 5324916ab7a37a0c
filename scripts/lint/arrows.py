#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that includes in src/ go one way: each room knows those that its row names, and no other.

Prints every include that doesn't, and exits 1.
"""

import re
import subprocess
import sys
from pathlib import Path

# In the order of knowing: a room's row names rooms of rows above it alone.
ROOMS = {
    "include": "",
    "base": "",
    "packets": "base",  # include/protocol, and the decoder base that stands in src/base/protocol
    "protocol": "include base",
    "link": "base packets",
    "rec_engine": "include base packets protocol link",
    "c_interface": "include base",
    "recordings": "base",
    "metrics": "",
    "fleet": "base",
    "core_service/engine": "include base packets link",
    "core_service/folder": "base recordings",
    "core_service/media": "base core_service/folder",
    "core_service/load": "base core_service/media",
    "core_service/task": "include base core_service/media",
    "core_service/rtp": "base core_service/folder core_service/load core_service/media",
    "core_service/webrtc": "base core_service/folder core_service/media core_service/rtp",
    "core_service/channel": "base core_service/folder core_service/media core_service/rtp "
                            "core_service/webrtc",
    "core_service/files": "base core_service/folder core_service/load core_service/media",
    "core_service/frames": "base packets core_service/engine core_service/media core_service/task",
    "core_service/mix": "base protocol core_service/engine core_service/files core_service/frames "
                        "core_service/media core_service/task",
    "core_service/session": "include base protocol core_service/engine core_service/folder "
                            "core_service/media core_service/load core_service/task "
                            "core_service/channel core_service/files core_service/frames "
                            "core_service/mix",
    "core_service": "base core_service/load core_service/session core_service/task",
}


def room_of(path):
    if path.startswith(("protocol/ipc_protocol", "base/protocol/")):
        return "packets"
    parts = path.split("/")
    if len(parts) == 1:
        return "include"
    return "/".join(parts[:2]) if parts[0] == "core_service" and len(parts) > 2 else parts[0]


def main():
    bad = []
    seen = set()
    for room, known in ROOMS.items():
        bad += [f"{room} names {name}, whose row isn't above" for name in known.split()
                if name not in seen]
        seen.add(room)
    files = subprocess.check_output(["git", "ls-files", "-co", "--exclude-standard", "src"],
                                    text=True)
    for name in files.split():
        if not name.endswith((".h", ".cpp")) or not Path(name).exists():
            continue
        room = room_of(name[len("src/"):])
        for number, line in enumerate(Path(name).read_text().splitlines(), 1):
            found = re.match(r'#include "([^"]+)"', line)
            if not found:
                continue
            known = room_of(found[1])
            if known != room and known not in ROOMS[room].split():
                bad.append(f"{name}:{number}: {room} includes {found[1]} of {known}")
    print("\n".join(bad), end="\n" if bad else "")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
