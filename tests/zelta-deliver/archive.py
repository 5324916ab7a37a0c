#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What an archive of finished folders costs zelta-deliver under --watch: the time until it has
delivered what is new, and the processor's time and memory while nothing happens.

    archive.py FOLDER [FOLDERS]
"""

import json
import os
import subprocess
import sys
import time
from pathlib import Path

TOOL = Path(os.environ["ZELTA_BIN"]) / "zelta-deliver"
LIMIT_S = 1800
# Longer than the minute after which all folders are looked at anew.
IDLE_S = 150


def make_call(root, name):
    folder = root / name
    folder.mkdir(parents=True)
    (folder / "7_a.mp4").write_bytes(name.encode() * 100)
    (folder / "recording.json").write_text(json.dumps(
        {"version": 1, "channel_id": name, "files": [{"name": "7_a.mp4", "uid": 7,
                                                      "closed": "user left"}]}))


class Watch:
    def __init__(self, folder, root):
        self.began = time.monotonic()
        self.tool = subprocess.Popen([TOOL, "--json", "--settings", folder / "settings.json",
                                      "--watch", root], stdout=subprocess.PIPE, text=True)

    def until_confirmed(self, name):
        for line in self.tool.stdout:
            one = json.loads(line)
            if one["event"] == "confirmed" and one["folder"].endswith("/" + name) and \
                    one["file"] == "recording.json":
                return time.monotonic() - self.began
        raise SystemExit(f"it ended with {self.tool.wait()}")

    def cpu_s(self):
        words = Path(f"/proc/{self.tool.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")

    def memory_mib(self):
        status = Path(f"/proc/{self.tool.pid}/status").read_text()
        return int(status.split("VmRSS:")[1].split()[0]) / 1024

    def end(self):
        self.tool.terminate()
        self.tool.stdout.read()
        return self.tool.wait()


def main():
    folder, count = Path(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else 10_000
    root = folder / "recordings"
    for at in range(count):
        make_call(root, f"2026{at % 100:04}/call{at}")
    (folder / "nas").mkdir()
    (folder / "settings.json").write_text(json.dumps({
        "targets": [{"name": "nas", "type": "folder", "path": str(folder / "nas")}]}))
    began = time.monotonic()
    subprocess.run([TOOL, "--settings", folder / "settings.json", "--root", root,
                    *[one.parent for one in root.glob("*/*/recording.json")]], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=LIMIT_S)
    print(f"{count} folders delivered to a folder in {time.monotonic() - began:.1f} s", flush=True)
    make_call(root, "new/first")
    watch = Watch(folder, root)
    try:
        print(f"started among them: the new one confirmed after {watch.until_confirmed('first'):.1f} s,"
              f" {watch.cpu_s():.1f} s of a processor, {watch.memory_mib():.0f} MiB", flush=True)
        before = watch.cpu_s()
        time.sleep(IDLE_S)  # what is measured
        print(f"idle for {IDLE_S} s: {(watch.cpu_s() - before) / IDLE_S:.2%} of a processor, "
              f"{watch.memory_mib():.0f} MiB, "
              f"{len(list(Path(f'/proc/{watch.tool.pid}/fd').iterdir()))} descriptors", flush=True)
        make_call(root, "new/second")
        watch.began = time.monotonic()
        print(f"another new one confirmed after {watch.until_confirmed('second'):.2f} s", flush=True)
    finally:
        status = watch.end()
    return status


if __name__ == "__main__":
    sys.exit(main())
