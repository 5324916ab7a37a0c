# SPDX-License-Identifier: Apache-2.0
"""Prints once a second how loud each user is and how bright the picture, from the decoded frames of three
seconds. The argument is a configuration file that names the channel server."""

import collections
import sys

import numpy as np

from zelta_recording import AudioFrame, DecodeAudio, DecodeVideo, Recording, VideoFrame

SECONDS = 3


def main() -> None:
    loudness, brightness = collections.defaultdict(list), collections.defaultdict(list)
    begin = told = None
    with Recording("my-app") as recording:
        recording.join("meeting", cfg_file_path=sys.argv[1] if len(sys.argv) > 1 else None,
                       decode_audio=DecodeAudio.PCM_FRAMES, decode_video=DecodeVideo.YUV_FRAMES)
        for event in recording:
            if isinstance(event, AudioFrame):
                # Both arrays are views; what is computed of them is new.
                samples = event.samples.astype(np.float32) / 32768
                loudness[event.uid].append(float(np.mean(samples**2)))
            elif isinstance(event, VideoFrame):
                brightness[event.uid].append(float(event.planes[0].mean()))
            else:
                continue
            begin, told = begin or event.time_ms, told or event.time_ms
            if event.time_ms - told >= 1000:
                told = event.time_ms
                for uid in sorted(loudness.keys() | brightness.keys()):
                    level = 10 * np.log10(np.mean(loudness[uid] or [0]) + 1e-10)
                    print(f"user {uid}: {level:.0f} dBFS, brightness {np.mean(brightness[uid] or [0]):.0f}")
                loudness.clear()
                brightness.clear()
            if event.time_ms - begin >= SECONDS * 1000:
                break


if __name__ == "__main__":
    main()
