# SPDX-License-Identifier: Apache-2.0
"""Folders of recordings that are made by hand, so that their files are as a case needs them."""
import json
import os
import shutil
import subprocess
import tempfile

BEGIN_MS = 1_700_000_000_000

ENCODERS = {
    "h264": ["libx264", "-preset", "ultrafast", "-bf", "0", "-sc_threshold", "0"],
    "vp8": ["libvpx", "-deadline", "realtime", "-cpu-used", "12"],
}
SOURCES = {
    "test": "testsrc2=s={size}:r={fps}:d={seconds}",
    # As many bytes in the first twentieth as in all of the others.
    "uneven": "testsrc2=s={size}:r={fps}:d={seconds},noise=alls=70:allf=t:enable='lt(t,{seconds}/20)'",
    "noise": "color=gray:s={size}:r={fps}:d={seconds},noise=alls=60:allf=t",
}
# A row of fragments, which nobody has completed.
CUT = {"mp4": ["-movflags", "empty_moov+default_base_moof+skip_trailer", "-frag_duration", "200000"],
       "webm": ["-cluster_time_limit", "200"]}


def encode(path, *, seconds, codec="h264", source="test", gop_s=1, bitrate="300k", fps=10, size="160x90", cut=False):
    picture = SOURCES[source].format(size=size, fps=fps, seconds=seconds)
    subprocess.run(
        ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", picture, "-f", "lavfi", "-i",
         f"sine=frequency=440:sample_rate=48000:duration={seconds}", "-c:v", *ENCODERS[codec],
         "-g", str(gop_s * fps), "-keyint_min", str(gop_s * fps), "-b:v", bitrate, "-pix_fmt", "yuv420p",
         "-c:a", "libopus", *(CUT[path.rsplit(".", 1)[1]] if cut else []), path],
        check=True, timeout=120)


class Crafted:
    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="zelta-view-crafted-")
        self.files = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path, ignore_errors=True)

    def add(self, name, uid, begin_ms, end_ms, closed="user left", codec="h264"):
        """An entry and, unless it is there, an empty file. Times from the recording's beginning."""
        self.files[name] = {
            "name": name, "uid": uid, "kind": "audio_video", "video_codec": codec, "audio_codec": "opus",
            "first_utc_ms": BEGIN_MS + begin_ms, "last_utc_ms": BEGIN_MS + end_ms, "closed": closed}
        self.write()
        path = f"{self.path}/{name}"
        with open(path, "ab"):
            pass
        return path

    def film(self, name, uid, *, seconds, begin_ms=0, end_ms=None, cut=False, codec="h264", **how):
        """The same with media in it, which nobody writes any more."""
        path = self.add(name, uid, begin_ms, begin_ms + seconds * 1000 if end_ms is None else end_ms,
                        closed="" if cut else "user left", codec=codec)
        encode(path, seconds=seconds, cut=cut, codec=codec, **how)
        os.utime(path, (1, 1))
        return path

    def write(self):
        text = {"channel_id": "room", "files": list(self.files.values())}
        with open(f"{self.path}/fresh", "w", encoding="utf-8") as file:
            json.dump(text, file)
        os.rename(f"{self.path}/fresh", f"{self.path}/recording.json")

    def close(self, name, reason):
        self.files[name]["closed"] = reason
        self.write()
