#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Manifests of real recordings are what docs/recording.schema.json says, and true of the files:
their bytes and their checksums. Volumes are of those who were heard, at their times. Collected
numbers are those of the manifest, and all of those that docs/metrics.md and the dashboard name.

  ZELTA_BIN=build/release/bin tests/zelta-record/manifest_test.py
"""
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request
import zlib

import jsonschema

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = os.environ.get("ZELTA_BIN", ROOT / "build/release/bin")
SCHEMA = json.loads((ROOT / "docs/recording.schema.json").read_text())
LIMIT_S = 60


def record(root, *arguments, settings=None, during=None):
    if settings is not None:
        (root / "settings.json").write_text(json.dumps(settings))
        arguments += ("--settings", root / "settings.json")
    tool = subprocess.Popen([f"{BIN}/zelta-record", "room", "--record-file-root-dir", root,
                             *arguments], stdout=subprocess.DEVNULL)
    try:
        if during:
            during(tool)
        tool.wait(LIMIT_S)
    finally:
        tool.kill()
        tool.wait()
    return sorted(root.glob("**/recording.json"))


def read(path):
    manifest = json.loads(path.read_text())
    jsonschema.validate(manifest, SCHEMA)
    return manifest


def check_files(path, manifest):
    assert manifest["files"], manifest
    for file in manifest["files"]:
        content = (path.parent / file["name"]).read_bytes()
        assert file["bytes"] == len(content), file
        assert file["crc32"] == f"{zlib.crc32(content):08x}", file


def files_of_all_containers_are_as_told(root):
    for server in ("test:users=2,video=h264,audio=aac", "test:users=2,video=vp8,audio=opus"):
        (root / server[5:]).mkdir()
        path, = record(root / server[5:], "--server", server, "--duration", "3")
        manifest = read(path)
        check_files(path, manifest)
        session, = manifest["sessions"]
        assert session["ended"] == "application left", session
        assert session["began_utc_ms"] <= manifest["files"][0]["first_utc_ms"]
        # A last picture is shown for a while.
        assert manifest["files"][-1]["last_utc_ms"] <= session["ended_utc_ms"] + 200


def a_relaunch_goes_on_with_the_session(root):
    def kill(tool):
        while not any(file.stat().st_size > 0 for file in root.glob("**/1_*.mp4")):
            time.sleep(0.1)  # nobody tells that something is in a file
        recorder = subprocess.run(["pgrep", "-P", str(tool.pid), "ZeltaCoreServi"],
                                  capture_output=True, text=True, check=True).stdout
        os.kill(int(recorder), signal.SIGKILL)

    path, = record(root, "--server", "test:users=1", "--duration", "8", during=kill)
    manifest = read(path)
    assert len(manifest["sessions"]) == 1, manifest["sessions"]
    died = [file for file in manifest["files"] if file["closed"] == "recorder died"]
    lived = [file for file in manifest["files"] if file["closed"] != "recorder died"]
    assert died and lived, manifest["files"]
    for file in died:
        assert "crc32" not in file and file["bytes"] == (path.parent / file["name"]).stat().st_size
    check_files(path, {"files": lived})


def volumes_are_kept_of_all_when_asked_for(root):
    path, = record(root, "--server", "test:users=2", "--duration", "4",
                   settings={"volumes": "all"})
    lines = [json.loads(line) for line in (path.parent / "volumes.jsonl").read_text().splitlines()]
    first = min(file["first_utc_ms"] for file in read(path)["files"])
    assert 3 <= len(lines) <= 6, lines
    for line in lines:
        assert line["channel_id"] == "room" and line["step_ms"] == 200, line
        assert first - 1000 <= line["utc_ms"] <= first + 6000, (first, line)
    assert {uid for line in lines for uid in line["volumes"]} == {"1", "2"}, lines
    assert all(len(line["volumes"][uid]) == 5 for line in lines[1:-1] for uid in line["volumes"])


def free_port():
    with socket.socket() as tried:
        tried.bind(("127.0.0.1", 0))
        return tried.getsockname()[1]


def collected(port):
    url = f"http://127.0.0.1:{port}/metrics"
    # No proxy of the machine's.
    with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(url, timeout=10) as answer:
        text = answer.read().decode()
    # Those of the server itself are the library's.
    return {name: float(value) for name, value in
            re.findall(r"^(zelta_\S+) (\S+)$", text, re.MULTILINE)}


def numbers_are_those_of_the_manifest(root):
    port = free_port()
    seen = []

    def collect(tool):
        while not seen or not seen[-1].get('zelta_recording_bytes_total{channel="room"}'):
            assert tool.poll() is None
            try:
                seen.append(collected(port))
            except OSError:
                pass
            time.sleep(0.1)  # nobody tells that the server is there

    path, = record(root, "--server", "test:users=3", "--duration", "4", "--metrics", str(port),
                   during=collect)
    last = seen[-1]
    files = {file["name"] for file in read(path)["files"]}
    assert last['zelta_recording_users{channel="room"}'] == 3, last
    assert last['zelta_recording_joined{channel="room"}'] == 1, last
    assert last['zelta_recording_files_total{channel="room"}'] == len(files) == 3, last
    assert last['zelta_recording_open_files{channel="room"}'] == 3, last
    assert last['zelta_recording_missing_total{channel="room"}'] == 0, last
    told = {re.sub(r"{.*", "", name) for name in last}
    docs = (ROOT / "docs/metrics.md").read_text()
    assert told == set(re.findall(r"^\| `(zelta_recording_\w+)` \|", docs, re.MULTILINE)), told
    dashboard = (ROOT / "docs/grafana-dashboard.json").read_text()
    json.loads(dashboard)
    assert told == set(re.findall(r"zelta_recording_\w+", dashboard))


def an_address_that_cant_be_served_starts_nothing(root):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = str(taken.getsockname()[1])
        for address, reason in ((port, f"can't listen at 127.0.0.1:{port}"),
                                ("localhost:80", '"localhost:80" should be an IP address'),
                                ("127.0.0.1:0", "should be"), ("[::1:9", "should be")):
            ran = subprocess.run([f"{BIN}/zelta-record", "room", "--server", "test:users=1",
                                  "--record-file-root-dir", root, "--metrics", address],
                                 capture_output=True, text=True, timeout=LIMIT_S)
            assert ran.returncode == 2 and reason in ran.stderr, (address, ran)
    assert not list(root.iterdir())


def nothing_is_decoded_for_volumes_unless_asked_for(root):
    path, = record(root, "--server", "test:users=1", "--duration", "2")
    assert not (path.parent / "volumes.jsonl").exists()


if __name__ == "__main__":
    for case in (files_of_all_containers_are_as_told, a_relaunch_goes_on_with_the_session,
                 volumes_are_kept_of_all_when_asked_for, numbers_are_those_of_the_manifest,
                 an_address_that_cant_be_served_starts_nothing,
                 nothing_is_decoded_for_volumes_unless_asked_for):
        with tempfile.TemporaryDirectory(prefix="zelta-manifest-") as folder:
            case(pathlib.Path(folder))
        print(f"ok {case.__name__}", flush=True)
