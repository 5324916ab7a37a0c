# SPDX-License-Identifier: Apache-2.0
"""Frames: arrays are views of lent memory, and stay what they are whatever goes before them."""

import gc
import unittest
import weakref

import numpy as np

from support import Fixture, next_of
from zelta_recording import (AudioFormat, AudioFrame, DecodeAudio, DecodeVideo, Dropped, VideoFormat,
                             VideoFrame)

FRAMES = {"decode_audio": DecodeAudio.PCM_FRAMES, "decode_video": DecodeVideo.YUV_FRAMES}


class Views(Fixture, unittest.TestCase):
    def test_sound_is_a_view_of_all_samples(self):
        frame = next_of(self.joined(**FRAMES), AudioFrame)
        samples = frame.samples
        self.assertEqual(frame.format, AudioFormat.PCM)
        self.assertEqual((samples.dtype, samples.shape[1]), (np.int16, frame.channels))
        self.assertGreater(samples.shape[0], 0)
        self.assertEqual(frame.sample_rate % 8000, 0)
        self.assertEqual(samples.nbytes, frame.data.nbytes)
        self.assertTrue(np.array_equal(samples.reshape(-1).view(np.uint8), frame.data))
        for view in (samples, frame.samples[3:], frame.data):
            self.assertTrue(np.shares_memory(view, frame.data))
        self.assertFalse(np.shares_memory(np.array(samples), samples))

    def test_pictures_are_views_of_three_planes(self):
        # An odd size: half of it is rounded up, and rows lie further apart than they are long.
        frame = next_of(self.joined("test:users=1,size=162x90,fps=15", **FRAMES), VideoFrame)
        y, u, v = frame.planes
        self.assertEqual((frame.format, frame.width, frame.height), (VideoFormat.YUV, 162, 90))
        self.assertEqual([plane.shape for plane in (y, u, v)], [(90, 162), (45, 81), (45, 81)])
        for plane in (y, u, v):
            self.assertTrue(np.shares_memory(plane, frame.data))
        for one, other in ((y, u), (u, v), (y, v)):
            self.assertFalse(np.shares_memory(one, other))
        # The first row is the beginning of all bytes.
        self.assertTrue(np.array_equal(y[0], frame.data[:162]))
        # A generated picture is no plain area.
        self.assertGreater(float(y.std()), 1)

    def test_nobody_writes_to_lent_memory(self):
        frame = next_of(self.joined(**FRAMES), AudioFrame)
        for view in (frame.samples, frame.data):
            with self.assertRaises(ValueError):
                view[0] = 1
        with self.assertRaises(AttributeError):
            frame.uid = 3

    def test_encoded_frames_have_their_bytes(self):
        for members, kind, begins, missing in [
            ({"decode_video": DecodeVideo.H264_FRAMES}, VideoFrame, b"\0\0\0\1", "planes"),
            ({"decode_video": DecodeVideo.JPG_FRAMES, "capture_interval": 1}, VideoFrame, b"\xff\xd8",
             "planes"),
            ({"decode_audio": DecodeAudio.AAC_FRAMES}, AudioFrame, b"\xff", "samples"),
        ]:
            with self.subTest(members):
                recording = self.joined(**members)
                frame = next_of(recording, kind)
                self.assertEqual(frame.data[:len(begins)].tobytes(), begins)
                with self.assertRaisesRegex(ValueError, "its bytes are in data"):
                    getattr(frame, missing)
                recording.close()


class Lifetimes(Fixture, unittest.TestCase):
    def test_kept_arrays_stay_as_they_are(self):
        recording = self.joined(**FRAMES)
        frames = [next_of(recording, AudioFrame), next_of(recording, VideoFrame)]
        kept = [frames[0].samples, frames[0].data[10:20], *frames[1].planes]
        copies = [np.array(array) for array in kept]
        frames.clear()
        gc.collect()

        def unchanged():
            return all(np.array_equal(array, copy) for array, copy in zip(kept, copies))
        for _ in range(100):
            next_of(recording, (AudioFrame, VideoFrame)[_ % 2])
        self.assertTrue(unchanged())
        recording.close()
        self.assertTrue(unchanged())
        del recording
        self.doCleanups()
        gc.collect()
        self.assertTrue(unchanged())

    def test_frames_stay_after_the_recording_is_gone(self):
        recording = self.joined(**FRAMES)
        frame = next_of(recording, VideoFrame)
        before = frame.data.tobytes()
        gone = weakref.ref(recording)
        recording.close()
        del recording
        self.doCleanups()
        gc.collect()
        self.assertIsNone(gone())
        self.assertEqual(frame.data.tobytes(), before)
        self.assertGreater(frame.planes[0].size, 0)

    def test_who_keeps_frames_is_told_what_was_dropped_and_gets_more_for_what_is_let_go(self):
        # Room for two pictures of 160 x 90.
        recording = self.joined(queue_bytes=60_000, decode_video=DecodeVideo.YUV_FRAMES)
        kept = []
        while True:
            event = recording.next_event(20)
            self.assertIsNotNone(event)
            if isinstance(event, VideoFrame):
                kept.append(event.planes)
            if isinstance(event, Dropped) and kept:
                break
        self.assertGreaterEqual(event.frames_so_far, event.video_frames)
        self.assertGreater(event.video_frames, 0)
        held = len(kept)
        self.assertLessEqual(held, 2)
        # Arrays alone hold it, and their end gives it back.
        kept.clear()
        for _ in range(20):
            next_of(recording, VideoFrame)


if __name__ == "__main__":
    unittest.main()
