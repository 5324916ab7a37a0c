#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes docs/bench of what frame_path_bench printed: the table and the data of the plot.

Figures are medians of the rounds; ratios are taken within a round first. Exit status 1 when a
ratio misses its bound."""

import argparse
import json
import pathlib
import platform
import statistics
import subprocess
import sys

BASELINES = ["memcpy", "huge", "splice", "socket", "pipe", "zeromq"]
HEADINGS = {
    "memcpy": "memcpy",
    "huge": "vmsplice, huge pages at both ends",
    "splice": "vmsplice, read into place",
    "socket": "Unix socket",
    "pipe": "plain pipe",
    "zeromq": "ZeroMQ",
}
# What of the engine, against which baseline, and the bound; CPU may not be more, speed not less.
BOUNDS = [
    ("yuv 1920x1080", "gb_per_s", "splice", 0.9),
    ("yuv 640x360", "gb_per_s", "splice", 0.6),
    ("yuv 1920x1080", "gb_per_s", "zeromq", 2.5),
    ("yuv 640x360", "gb_per_s", "zeromq", 2.5),
    ("h264 20 kB", "gb_per_s", "pipe", 2.0),
    ("pcm 1920 B", "gb_per_s", "pipe", 2.0),
    ("yuv 1920x1080", "reader_cpu", "splice", 1.1),
    ("yuv 640x360", "reader_cpu", "splice", 1.1),
]
LATENCY_BOUND = 1.5
USERS_BOUND = 1.2


def median(values):
    return statistics.median(values)


def table(headings, rows):
    lines = ["| " + " | ".join(headings) + " |", "|" + "---|" * len(headings)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


class Run:
    def __init__(self, data):
        self.rounds = data["throughput"]
        self.data = data
        self.missed = []

    def value(self, kind, way, field):
        return median([one[kind][way][field] for one in self.rounds])

    def ratio(self, kind, field, baseline):
        return median([one[kind]["engine"][field] / one[kind][baseline][field]
                       for one in self.rounds])

    def judge(self, good):
        if not good:
            self.missed.append(1)
        return "yes" if good else "**no**"

    def throughput(self):
        rows = []
        for kind in sorted(self.rounds[0], key=self.order):
            there = [b for b in BASELINES if b in self.rounds[0][kind]]
            row = [kind, f"{self.value(kind, 'engine', 'gb_per_s'):.2f}"]
            for baseline in BASELINES:
                row.append(f"{self.value(kind, baseline, 'gb_per_s'):.2f} "
                           f"({self.ratio(kind, 'gb_per_s', baseline):.2f})"
                           if baseline in there else "")
            row.append(f"{self.value(kind, 'engine, plain writes', 'gb_per_s'):.2f}")
            rows.append(row)
        return table(["frames", "engine"] + [HEADINGS[b] for b in BASELINES] +
                     ["engine, nothing spliced"], rows)

    def order(self, kind):
        return list(KINDS).index(kind) if kind in KINDS else len(KINDS)

    def cpu(self):
        rows = []
        for kind in sorted(self.rounds[0], key=self.order):
            row = [kind]
            for way in ["engine", "splice", "pipe"]:
                for side in ["reader_cpu", "writer_cpu"]:
                    row.append(f"{self.value(kind, way, side):.3f}")
            row.append(f"{self.value(kind, 'engine', 'allocations'):.4f}")
            rows.append(row)
        return table(["frames", "application", "recorder", "vmsplice: reader", "writer",
                      "plain pipe: reader", "writer", "allocations a frame"], rows)

    def bounds(self):
        rows = []
        for kind, field, baseline, bound in BOUNDS:
            if kind not in self.rounds[0] or baseline not in self.rounds[0][kind]:
                continue
            got = self.ratio(kind, field, baseline)
            speed = field == "gb_per_s"
            good = got >= bound if speed else got <= bound
            verdict = self.judge(good)
            if not good and speed and baseline != "splice":
                wall = median([one[kind]["splice"][field] / one[kind][baseline][field]
                               for one in self.rounds])
                verdict += f" ({HEADINGS['splice']} alone: {wall:.2f})"
            rows.append([f"{kind}: {'speed' if speed else 'CPU a gigabyte in the application'} "
                         f"to {HEADINGS[baseline]}", f"{got:.2f}",
                         f"{'at least' if speed else 'at most'} {bound}",
                         verdict])
        for kind in sorted(self.rounds[0], key=self.order):
            allocations = self.value(kind, "engine", "allocations")
            if allocations > 0.001:
                rows.append([f"{kind}: allocations a frame", f"{allocations:.4f}", "none",
                             self.judge(False)])
        if "latency" in self.data:
            for what in ["pictures", "sound"]:
                got = median([one["engine"][what]["p99"] / one["pipe"][what]["p99"]
                              for one in self.data["latency"]])
                rows.append([f"{what}: 99th percentile of latency to plain pipe", f"{got:.2f}",
                             f"at most {LATENCY_BOUND}", self.judge(got <= LATENCY_BOUND)])
        if "users" in self.data:
            for field, name in [("ns_a_frame", "time"), ("reader_cpu_ns_a_frame", "CPU")]:
                got = median([one["1000"][field] / one["1"][field] for one in self.data["users"]])
                rows.append([f"{name} a frame with 1,000 users to one", f"{got:.2f}",
                             f"at most {USERS_BOUND}", self.judge(got <= USERS_BOUND)])
        return table(["ratio, median of the rounds", "measured", "bound", "met"], rows)

    def latency(self):
        rows = []
        for what in ["pictures", "sound"]:
            for way in ["engine", "pipe"]:
                rows.append([what, "engine" if way == "engine" else "plain pipe"] +
                            [f"{median([one[way][what][p] for one in self.data['latency']]):.0f}"
                             for p in ["p50", "p99", "p999"]])
        return table(["frames", "way", "p50, µs", "p99, µs", "p99.9, µs"], rows)

    def users(self):
        rows = [[users] + [f"{median([one[users][f] for one in self.data['users']]):.0f}"
                           for f in ["ns_a_frame", "reader_cpu_ns_a_frame"]]
                for users in ["1", "10", "100", "1000"]]
        return table(["users", "ns a frame", "CPU ns a frame in the application"], rows)

    def idle(self):
        cost = self.data["idle"]
        return table(["engines", "CPU, ms a second, each", "memory, kB, each",
                      "descriptors, each", "threads, each"],
                     [[cost["engines"], f"{cost['cpu_ms_per_s']:.3f}",
                       f"{cost['memory_kb']:.0f}", f"{cost['descriptors']:.1f}",
                       f"{cost['threads']:.1f}"]])

    def variants(self):
        kinds = sorted(self.data["variants"], key=self.order)
        ways = list(self.data["variants"][kinds[0]])
        return table(["GB/s"] + kinds,
                     [[way] + [f"{self.data['variants'][kind][way]['gb_per_s']:.2f}"
                               for kind in kinds] for way in sorted(ways)])

    def plot(self, path):
        kinds = sorted(self.rounds[0], key=self.order)
        ways = ["engine"] + [b for b in BASELINES[1:] if b in self.rounds[0][kinds[0]]]
        lines = ["frames " + " ".join('"' + HEADINGS.get(w, w) + '"' for w in ways)]
        for kind in kinds:
            lines.append(f'"{kind}" ' +
                         " ".join(f"{self.value(kind, way, 'gb_per_s'):.3f}" for way in ways))
        script = f"""
set terminal svg size 960,420 font "sans-serif,12" background "#ffffff"
set output "{path}"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.9 border -1
set key top right
set ylabel "GB/s, more is better"
set grid ytics
set yrange [0:*]
$data << END
{chr(10).join(lines)}
END
plot for [i=2:{len(ways) + 1}] $data using i:xtic(1) title columnheader(i)
"""
        subprocess.run(["gnuplot"], input=script, text=True, check=True)


KINDS = ["yuv 1920x1080", "yuv 1280x720", "yuv 640x360", "jpg 100 kB", "h264 20 kB", "h264 5 kB",
         "pcm 1920 B"]


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("measured", type=pathlib.Path, help="what frame_path_bench printed")
    arguments.add_argument("folder", type=pathlib.Path, help="where the report goes")
    given = arguments.parse_args()
    run = Run(json.loads(given.measured.read_text()))
    given.folder.mkdir(parents=True, exist_ok=True)
    run.plot(given.folder / "throughput.svg")
    parts = [
        "# The frame path, measured\n",
        f"Made by `scripts/bench.sh` on {platform.machine()}, Linux {platform.release()}, "
        f"{len(run.rounds)} rounds. The engine's way begins in the recorder's frame code and ends "
        "in the application's callback; a baseline moves the same bytes between two bare "
        "processes in the same run, one frame a call, read into one buffer. The engine's raw "
        "pictures lie in huge pages, as the recorder's decoders make them; a baseline's frames "
        "lie in small ones unless it says otherwise. Absolute figures are this machine's; "
        "compare the ratios.\n",
        "## Bounds\n", run.bounds(),
        "## Throughput, GB/s (in brackets: how many times it the engine does)\n",
        "![Throughput](throughput.svg)\n", run.throughput(),
        "## CPU seconds a gigabyte\n", run.cpu(),
    ]
    if "latency" in run.data:
        parts += ["## From when a frame is due to its callback: 4 users, 1080p30 and sound every "
                  "20 ms\n", run.latency()]
    if "users" in run.data:
        parts += ["## What a PCM frame costs with many users\n", run.users()]
    if "idle" in run.data:
        parts += ["## Engines that are joined and get nothing\n", run.idle()]
    if "variants" in run.data:
        parts += ["## What else the kernel offers for the same contract (one round)\n",
                  run.variants()]
    text = "\n".join(parts)
    (given.folder / "README.md").write_text(text)
    print(text)
    return 1 if run.missed else 0


if __name__ == "__main__":
    sys.exit(main())
