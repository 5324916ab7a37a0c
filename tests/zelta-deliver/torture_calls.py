# SPDX-License-Identifier: Apache-2.0
"""Recordings that are there, that run and get more files, and that end, as many as are asked for."""

import hashlib
import json
import math
import random
import zlib

PIECE = 1 << 20
OPEN_AT_ONCE = 4
# More files than of which each step comes to the disk at once.
MANY = 250
PICTURE = "1_20260101T000000000.jpg"


class Call:
    def __init__(self, folder, sizes):
        self.folder = folder
        self.sizes = sizes  # of files that are still to come, the next one last
        self.files = []
        folder.mkdir(parents=True)
        (folder / "journal.json").write_text("{}")
        self.write()

    def write(self):
        beside = self.folder / ".recording.json.new"
        beside.write_text(json.dumps({"version": 1, "channel_id": self.folder.name,
                                      "files": self.files}))
        beside.rename(self.folder / "recording.json")


class Calls:
    """`wanted` has the digests of what has to arrive, by folder/name."""

    def __init__(self, root, seed, files, largest):
        self.root = root
        self.seed = seed
        self.dice = random.Random(f"{seed} sizes")
        self.total = files
        self.fed = 0
        self.wanted = {}
        self.open = []
        self.folders = []
        sizes = [self.size(at, largest) for at in range(files)]
        self.bytes = sum(sizes)
        self.dice.shuffle(sizes)
        self.waiting = list(self.split(sizes))

    def size(self, at, largest):
        """As many bytes as a bit of sound, seldom as an hour of video, a few times nothing."""
        if at % 100 == 50:
            return 0
        few = at % 40 == 0 and largest > 1_000_000
        low, high = (1_000_000, largest) if few else (1000, min(largest, 1_000_000))
        return largest if at == 0 else int(math.exp(self.dice.uniform(math.log(low), math.log(high))))

    def split(self, sizes):
        if len(sizes) > 2 * MANY:
            yield sizes[:MANY]
            sizes = sizes[MANY:]
        each = max(10, len(sizes) // 40)
        for at in range(0, len(sizes), each):
            yield sizes[at:at + each]

    def begin(self):
        """Some are over before the program is started for the first time."""
        for _ in range(len(self.waiting) // 4):
            self.open_next()
            while self.open:
                self.add_file(self.open[0])

    def open_next(self):
        call = Call(self.root / f"call{len(self.folders)}", self.waiting.pop(0))
        self.folders.append(call.folder)
        self.open.append(call)

    def feed(self, share):
        """Until so much of all is there; at 1 all are over."""
        while self.fed < share * self.total:
            while self.waiting and len(self.open) < OPEN_AT_ONCE:
                self.open_next()
            self.add_file(self.dice.choice(self.open))

    def add_file(self, call):
        size = call.sizes.pop()
        name = f"{len(call.files)}_{call.folder.name}.{self.dice.choice(['mp4', 'm4a', 'webm'])}"
        digest, crc = hashlib.sha256(), 0
        bits = random.Random(f"{self.seed} {call.folder.name} {name}")
        with open(call.folder / name, "wb") as to:
            for at in range(0, size, PIECE):
                piece = bits.randbytes(min(PIECE, size - at))
                digest.update(piece)
                crc = zlib.crc32(piece, crc)
                to.write(piece)
        call.files.append({"name": name, "uid": len(call.files) + 1, "closed": "user left",
                           "bytes": size, "crc32": f"{crc:08x}"})
        # Before the program can know of it.
        self.wanted[f"{call.folder.name}/{name}"] = digest.hexdigest()
        call.write()
        self.fed += 1
        if not call.sizes:
            self.end(call)

    def end(self, call):
        (call.folder / "messages.jsonl").write_text('{"text": "bye"}\n')
        (call.folder / "recording_engine.log").write_text("ended\n")
        (call.folder / PICTURE).write_bytes(b"jpeg" + call.folder.name.encode())
        for name in ("messages.jsonl", "recording_engine.log", PICTURE, "recording.json"):
            self.wanted[f"{call.folder.name}/{name}"] = hashlib.sha256(
                (call.folder / name).read_bytes()).hexdigest()
        (call.folder / "journal.json").unlink()
        self.open.remove(call)
