# SPDX-License-Identifier: Apache-2.0
"""Whether what was recorded of a crowd is whole."""
import concurrent.futures
import json
import pathlib
import struct
import subprocess

SOUND_LIMIT_S = 0.1
START_LIMIT_S = 0.04
# Between two key frames of what is played.
KEY_FRAMES_S = 2.0
# Of more users some may be turned away, or let go, if they are told.
MOST_FOR_ALL = 1000
# So many users' files are read packet by packet, the others' looked at.
SAMPLED_USERS = 40
PROBES_AT_ONCE = 2
PROBE_LIMIT_S = 120


def manifest_of(root):
    """The recording's folder and manifest; None and an empty one when there is none that can be read."""
    for path in pathlib.Path(root).glob("**/recording.json"):
        try:
            return path.parent, json.loads(path.read_text(encoding="utf-8"))
        except (OSError, ValueError):
            continue
    return None, {"files": [], "missing": []}


def packets_of(path):
    """Begin and end of every packet, seconds, by medium."""
    found = {"video": [], "audio": []}
    try:
        text = subprocess.run(
            ["ffprobe", "-v", "error", "-show_entries", "packet=codec_type,pts_time,duration_time",
             "-of", "csv=p=0", str(path)],
            capture_output=True, text=True, check=False, timeout=PROBE_LIMIT_S).stdout
    except subprocess.TimeoutExpired:
        return found
    for line in text.splitlines():
        fields = line.split(",")
        if len(fields) >= 3 and fields[0] in found and fields[1] != "N/A":
            length = float(fields[2]) if fields[2] not in ("N/A", "") else 0
            found[fields[0]].append((float(fields[1]), float(fields[1]) + length))
    return found


def boxes_are_whole(path):
    """Whether an MP4 file's boxes fill it and its index is one of them."""
    names, at, size = [], 0, path.stat().st_size
    with open(path, "rb") as file:
        while at + 8 <= size and len(names) < 100000:
            file.seek(at)
            head = file.read(16)
            length, name = struct.unpack(">I4s", head[:8])
            if length == 1 and len(head) == 16:
                length = struct.unpack(">Q", head[8:])[0]
            if length < 8:
                return False
            names.append(name)
            at += length
    return at == size and b"moov" in names


def looks_whole(path, least_bytes):
    if not path.exists() or path.stat().st_size < least_bytes:
        return "too small"
    if path.suffix == ".webm":
        with open(path, "rb") as file:
            return "" if file.read(4) == b"\x1a\x45\xdf\xa3" else "no WebM"
    return "" if boxes_are_whole(path) else "boxes"


def fault_in(paths, sent, end_ms, lossy):
    """What a user's files lack of what was sent; empty: nothing."""
    pictures, sound, starts = 0, 0.0, None
    for path in paths:
        packets = packets_of(path)
        pictures += len(packets["video"])
        if not packets["audio"]:
            return "no sound"
        # What an AAC encoder puts in front of the first sample lies before zero.
        begin = max(0.0, packets["audio"][0][0])
        sound += max(end for _, end in packets["audio"]) - begin
        if starts is None and packets["video"]:
            starts = packets["video"][0][0] - begin
    least = sent["whole_pictures"] if lossy else sent["pictures"]
    if not least <= pictures <= sent["pictures"]:
        return f"{pictures} pictures of {sent['pictures']}"
    # A first key frame that is lost costs what needs it; who plays captured packets sends no other.
    if starts is None or not -START_LIMIT_S <= starts <= START_LIMIT_S + (KEY_FRAMES_S if lossy else 0):
        return f"video begins {starts} s after sound"
    # Between the last packet and the end of the recording there was nothing to record.
    clock = (end_ms - sent["begin_utc_ms"]) / 1000
    if not sent["sound"] * 0.02 - SOUND_LIMIT_S <= sound <= clock + SOUND_LIMIT_S:
        return f"{sound:.3f} s of sound in {clock:.3f} s"
    return ""


def judge(root, report, users, end_ms, lossy):
    """User by user what is wrong, as text."""
    folder, manifest = manifest_of(root)
    sent = {one["uid"]: one for one in report["users"]}
    told = {one["uid"] for one in manifest["missing"] if one["medium"] == "all"}
    files = {}
    for entry in manifest["files"]:
        files.setdefault(entry["uid"], []).append(entry)
    least_bytes = report["bytes"] / max(1, len(sent)) / 3
    step = max(1, users // SAMPLED_USERS)

    def fault_of(uid):
        if uid in told and users > MOST_FOR_ALL:
            return ""
        if uid not in sent:
            return "has got no ports"
        entries = files.get(uid, [])
        if not entries:
            return "no file"
        if len(entries) > 1 and not lossy:
            return f"{len(entries)} files"
        unclosed = [one["name"] for one in entries if not one["closed"]]
        if unclosed:
            return f"{unclosed[0]} is not complete"
        paths = [folder / one["name"] for one in entries]
        fault = looks_whole(paths[0], 0 if lossy else least_bytes)
        if not fault and (uid - 1) % step == 0:
            fault = fault_in(paths, sent[uid], end_ms, lossy)
        return fault

    with concurrent.futures.ThreadPoolExecutor(PROBES_AT_ONCE) as pool:
        faults = dict(zip(range(1, users + 1), pool.map(fault_of, range(1, users + 1))))
    return {uid: fault for uid, fault in faults.items() if fault}, len(told)
