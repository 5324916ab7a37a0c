# SPDX-License-Identifier: Apache-2.0
"""Draws faults, tries them, and tells which of them no test notices."""
import argparse
import collections
import fnmatch
import json
import math
import os
import queue
import random
import subprocess
import sys
import threading

from faults import apply, difference, faults_of
from suites import COVERED_BY, SUITES
from tree import Tree

GOAL = 95
EQUIVALENT = os.path.join(os.path.dirname(__file__), "equivalent.txt")


def covering(path):
    return next((suites.split() for pattern, suites in COVERED_BY if fnmatch.fnmatch(path, pattern)), None)


def equivalents():
    """Blocks of four lines: file, - before, + after, = why nobody can notice."""
    known = {}
    with open(EQUIVALENT, encoding="utf-8") as file:
        for block in file.read().split("\n\n"):
            rows = [row for row in block.splitlines() if row and row[0] != "#"]
            if rows:
                path, before, after, why = rows
                known[path, before[2:], after[2:]] = why[2:]
    return known


def draw(paths, texts, count, seed):
    """For every file its share, with more in reserve for those that don't compile. A file's draw depends on the
    file alone, and takes one rule after the other."""
    found = {path: faults_of(path, texts[path]) for path in paths}
    weight = {path: math.sqrt(sum(map(len, rules.values()))) for path, rules in found.items()}
    drawn = {}
    for path, rules in found.items():
        chance = random.Random(f"{seed} {path}")
        stacks = [chance.sample(faults, len(faults)) for faults in rules.values() if faults]
        chance.shuffle(stacks)
        order = [stack[i] for i in range(max(map(len, stacks), default=0)) for stack in stacks if i < len(stack)]
        share = math.ceil(count * weight[path] / sum(weight.values())) if order else 0
        if order:
            drawn[path] = (share, order)
    return drawn


def try_fault(tree, text, fault):
    tree.write(fault.path, apply(text, fault))
    try:
        for name in covering(fault.path):
            if not tree.make([SUITES[name].target or name] + (["fake_recorder"] if name in ("leave_test", "link_test", "hostile_test", "fault_test") else [])):
                return "refused", "does not compile"
            failed = tree.run(SUITES[name])
            if failed:
                return "killed", f"{name}: {failed}"
        return "survived", ""
    finally:
        tree.write(fault.path, text)


def refuse_what_always_fails(tree, names):
    """A suite that fails without any fault would seem to notice all of them."""
    for name in sorted(names):
        failed = tree.run(SUITES[name])
        if failed:
            print(f"{name} fails on the sources as they are: {failed}", file=sys.stderr, flush=True)
            os._exit(2)  # From a thread; the others have not begun.


def folder_of(path):
    parts = path.split("/")
    return parts[0] if parts[0] == "include" else "/".join(parts[:2])


def report(results):
    table = collections.defaultdict(collections.Counter)
    for one in results:
        table[folder_of(one["file"])][one["what"]] += 1
        table["all"][one["what"]] += 1
    print("| folder | killed | survived | equivalent | % killed |\n|---|---|---|---|---|")
    share = 100.0
    for folder in sorted(table, key=lambda name: (name == "all", name)):
        row = table[folder]
        share = 100 * row["killed"] / max(1, row["killed"] + row["survived"])
        print(f"| {folder} | {row['killed']} | {row['survived']} | {row['equivalent']} | {share:.1f} |")
    for one in results:
        if one["what"] == "survived":
            print(f"\n{one['file']}\n- {one['before']}\n+ {one['after']}")
    return share


def main():
    parser = argparse.ArgumentParser(prog="mutate.sh", description=__doc__)
    parser.add_argument("--count", type=int, default=300, help="faults that compile, at least")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--only", default="*", help="files, as a pattern")
    parser.add_argument("--jobs", type=int, default=4, help="faults at a time; the suites mostly wait")
    parser.add_argument("--list", action="store_true", help="what is drawn, and nothing is tried")
    parser.add_argument("--resume", help="what was killed in these results is not tried again")
    parser.add_argument("--again", help="only what survived in these results")
    arguments = parser.parse_args()

    root = os.getcwd()
    tracked = subprocess.run(["git", "ls-files", "include", "src", "tools"], check=True, capture_output=True, text=True).stdout
    paths = [path for path in tracked.split() if covering(path) and fnmatch.fnmatch(path, arguments.only)]
    texts = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            texts[path] = file.read()
    known = equivalents()
    suites = {name for path in paths for name in covering(path)}
    results, lock, work, waiting = [], threading.Lock(), queue.Queue(), {}
    if arguments.again:
        with open(arguments.again, encoding="utf-8") as file:
            wanted = {(one["file"], one["before"], one["after"]) for one in map(json.loads, file)
                      if one["what"] == "survived"}
        for path in paths:
            for fault in sum(faults_of(path, texts[path]).values(), []):
                if (path, *difference(texts[path], fault)) in wanted:
                    wanted.discard((path, *difference(texts[path], fault)))
                    work.put(fault)
        for path, before, after in sorted(wanted):
            print(f"gone from the source: {path}: {before}", file=sys.stderr)
    else:
        for path, (share, order) in draw(paths, texts, arguments.count, arguments.seed).items():
            for fault in order[:share]:
                work.put(fault)
            waiting[path] = order[share:]
    if arguments.list:
        while not work.empty():
            fault = work.get()
            before, after = difference(texts[fault.path], fault)
            print(f"{fault.path} {fault.rule}\n- {before}\n+ {after}")
        return 0

    killed = {}
    if arguments.resume:
        with open(arguments.resume, encoding="utf-8") as file:
            for one in map(json.loads, file):
                if one["what"] == "killed":
                    killed[one["file"], one["before"], one["after"]] = one["by"]

    folder = f"{root}/build/mutation"
    os.makedirs(folder, exist_ok=True)
    with open(f"{folder}/results.jsonl", "w", encoding="utf-8") as log:
        def serve(index):
            tree = Tree(root, f"{folder}/{index}", f"{folder}/ccache")
            with lock:  # The first fills the cache for the others.
                tree.set_up(sorted({SUITES[name].target or name for name in suites}) + ["fake_recorder"])
                if index == 0:
                    refuse_what_always_fails(tree, suites)
            while True:
                with lock:
                    if work.empty():
                        return
                    fault = work.get()
                before, after = difference(texts[fault.path], fault)
                if (fault.path, before, after) in known:
                    what, by = "equivalent", known[fault.path, before, after]
                elif (fault.path, before, after) in killed:
                    what, by = "killed", killed[fault.path, before, after]
                else:
                    what, by = try_fault(tree, texts[fault.path], fault)
                with lock:
                    if what == "refused":
                        if waiting.get(fault.path):
                            work.put(waiting[fault.path].pop(0))
                        continue
                    one = {"file": fault.path, "rule": fault.rule, "before": before, "after": after, "what": what,
                           "by": by}
                    results.append(one)
                    log.write(json.dumps(one) + "\n")
                    log.flush()
                    print(f"{len(results):4} {what:10} {fault.path}: {by[:100]}", file=sys.stderr, flush=True)

        servers = [threading.Thread(target=serve, args=(index,)) for index in range(arguments.jobs)]
        for server in servers:
            server.start()
        for server in servers:
            server.join()
    return 0 if report(results) >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
