# SPDX-License-Identifier: Apache-2.0
"""Recordings: what comes of them, how they end, and what each wrong use is told."""

import gc
import json
import os
import pathlib
import pickle
import select
import signal
import threading
import time
import unittest
from unittest import mock

from support import PATIENCE_S, Fixture, files, next_of, take_until_files
from zelta_recording import (AlreadyJoinedError, ArgumentError, AudioFrame, ClosedError, Config,
                             ConfigurationError, DecodeAudio, ErrorEvent, ErrorKind, FirstAudio, FirstVideo, Joined, Layout,
                             LeaveReason, Left, LeftError, LogLevel, MixedFile, NotJoinedError, Receiving,
                             Recording, RefusedError, Region, SessionError, Stat, StateError, UserJoined,
                             Volumes, ZeltaError)
from zelta_recording._events import take_event
from zelta_recording._native import lib


class Sessions(Fixture, unittest.TestCase):
    def test_events_of_a_recording_and_its_files(self):
        with Recording("test") as recording:
            recording.join("meeting", uid=77, config=Config(**self.settings()),
                           audio_indication_interval=200)
            seen, users = {}, set()
            for event in recording:
                seen.setdefault(type(event), event)
                if isinstance(event, UserJoined):
                    users.add(event.uid)
                    self.assertEqual(event.storage_dir.resolve(), recording.folder.resolve())
                if {Joined, FirstAudio, FirstVideo, Receiving, Volumes} <= set(seen) and len(users) == 2:
                    break
            take_until_files(recording, 2)
        self.assertEqual(seen[Joined], Joined(77, "meeting"))
        self.assertEqual(users, {1, 2})
        self.assertEqual((seen[FirstVideo].width, seen[FirstVideo].height), (160, 90))
        self.assertTrue(all(0 <= one.volume <= 255 for one in seen[Volumes].speakers))
        # Complete at once: with what is at the end of an MP4 file, and told as such.
        recorded = files(recording.folder)
        self.assertEqual(len(recorded), 2)
        self.assertTrue(all(b"moov" in file.read_bytes() for file in recorded))
        self.assertIn("ended_utc_ms", json.dumps(json.loads((recording.folder / "recording.json").read_text())))

    def test_leaving_inside_the_loop_ends_it(self):
        recording = self.joined()
        for event in recording:
            if isinstance(event, UserJoined):
                recording.leave()
                break
        for event in recording:
            pass
        self.assertTrue(recording.ended)
        self.assertIsNone(recording.next_event())

    def test_loop_ends_by_itself_when_the_recorder_has_left(self):
        recording = self.joined()
        next_of(recording, Joined)
        os.kill(recorder_pid(), signal.SIGTERM)
        events = list(recording)
        self.assertEqual([event for event in events if isinstance(event, Left)], [Left(LeaveReason.SIGNAL)])
        self.assertTrue(recording.ended)

    def test_loop_raises_what_ended_the_session(self):
        recording = self.joined("nonsense:")
        events = []
        with self.assertRaises(SessionError) as raised:
            for event in recording:
                events.append(event)
        self.assertEqual(raised.exception.event, ErrorEvent(ErrorKind.FAILED, Stat.JOIN))
        self.assertIn(raised.exception.event, events)
        self.assertEqual(str(raised.exception), "the session failed: FAILED, JOIN")
        self.assertTrue(recording.ended)

    def test_first_failure_is_the_one_that_is_told(self):
        recording = self.joined("test:users=0")
        next_of(recording, Joined)
        first, second = ErrorEvent(ErrorKind.FAILED, Stat.JOIN), ErrorEvent(ErrorKind.RECORDER_GONE, Stat.NONE)
        recording._held.extend([first, second])
        with self.assertRaises(SessionError) as raised:
            for _ in recording:
                pass
        self.assertEqual(raised.exception.event, first)

    def test_it_has_been_left_when_its_end_is_handed_out(self):
        for server, kind in [("test:users=0", Left), ("nonsense:", ErrorEvent)]:
            for title, take in [("for", next), ("next_event", lambda of: of.next_event(PATIENCE_S))]:
                with self.subTest(f"{kind.__name__} by {title}"):
                    recording = self.joined(server)
                    if kind is Left:
                        next_of(recording, Joined)
                        os.kill(recorder_pid(), signal.SIGTERM)
                    while not isinstance(take(recording), kind):
                        pass
                    self.assertEqual(lib.zelta_recording_leave(recording._lender[0]), lib.ZELTA_ERROR_LEFT)
                    recording.close()

    def test_interrupted_while_it_leaves_it_loses_no_event(self):
        recording = self.joined("test:users=0")
        next_of(recording, Joined)
        os.kill(recorder_pid(), signal.SIGTERM)
        with mock.patch.object(recording, "_leave_now", side_effect=KeyboardInterrupt), \
                self.assertRaises(KeyboardInterrupt):
            while True:
                next(recording)
        self.assertFalse(recording.ended)
        self.assertIn(Left(LeaveReason.SIGNAL), list(recording))

    def test_interrupted_at_the_end_of_its_join_it_has_joined(self):
        recording = Recording("test")
        with mock.patch("zelta_recording._recording.check", side_effect=KeyboardInterrupt), \
                self.assertRaises(KeyboardInterrupt):
            recording.join("meeting", **self.settings("test:users=0"))
        next_of(recording, Joined)
        recording.close()
        self.assertTrue((recording.folder / "recording.json").exists())

    def test_forgotten_it_ends_though_a_frame_is_kept(self):
        recording = self.joined(decode_audio=DecodeAudio.PCM_FRAMES, cleanup=False)
        frame = next_of(recording, AudioFrame)
        samples = frame.samples.copy()
        recorder = pathlib.Path(f"/proc/{recorder_pid()}")
        with self.assertWarns(ResourceWarning):
            del recording
            gc.collect()
        deadline = time.monotonic() + PATIENCE_S
        while recorder.exists():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.02)
        self.assertTrue((frame.samples == samples).all())

    def test_made_without_its_arguments_it_says_one_thing(self):
        with mock.patch("sys.unraisablehook") as also_said:
            with self.assertRaises(TypeError):
                Recording()
            gc.collect()
        also_said.assert_not_called()

    def test_next_event_waits_no_longer_than_it_was_told(self):
        recording = self.joined("test:users=0")
        next_of(recording, Joined)
        self.assertIsNone(recording.next_event(0))
        self.assertIsNone(recording.next_event(0.05))
        self.assertFalse(recording.ended)

    def test_next_event_waits_however_long_it_is_told(self):
        recording = self.joined(audio_indication_interval=200)
        for timeout in (3e6, 1e300, float("inf")):
            next_of(recording, Volumes)
            while recording.next_event(0):
                pass
            self.assertIsNotNone(recording.next_event(timeout))

    def test_what_waits_can_be_taken_after_a_finish(self):
        recording = self.joined()
        take_until_files(recording, 1)
        recording.finish()
        recording.finish()
        self.assertTrue(all(b"moov" in file.read_bytes() for file in files(recording.folder)))
        for _ in recording:
            pass
        self.assertTrue(recording.ended)

    def test_what_has_no_frame_is_given_back_at_once(self):
        recording = self.joined()
        handle, give_back = recording._lender
        given = []
        deadline = time.monotonic() + PATIENCE_S
        seen = 0
        while seen < 5:
            self.assertLess(time.monotonic(), deadline)
            if take_event(handle, lambda lent: given.append(give_back(lent))):
                seen += 1
            else:
                select.select([recording._fd], [], [], 1)
        self.assertEqual(given, [lib.ZELTA_OK] * seen)

    def test_each_event_goes_to_one_of_several_threads_and_all_end(self):
        recording = self.joined()
        taken, waiting = [], threading.Barrier(3)

        def take():
            waiting.wait()
            taken.extend(recording)
        threads = [threading.Thread(target=take) for _ in range(2)]
        for thread in threads:
            thread.start()
        waiting.wait()
        deadline = threading.Event()
        for _ in range(200):
            if sum(isinstance(event, UserJoined) for event in list(taken)) == 2:
                break
            deadline.wait(0.1)
        recording.close()
        for thread in threads:
            thread.join(PATIENCE_S)
            self.assertFalse(thread.is_alive())
        users = [event.uid for event in taken if isinstance(event, UserJoined)]
        self.assertEqual(sorted(users), [1, 2])

    def test_mixed_recording_takes_layouts_and_backgrounds(self):
        recording = self.joined(is_mixing_enabled=True, mixed_video_audio=MixedFile.BASELINE,
                                mix_resolution="320,180,15,200")
        next_of(recording, FirstVideo)
        for layout in ([Region(1, width=0.5), Region(2, x=0.5, width=0.5, alpha=0.5, fit=True)],
                       Layout((Region(uid) for uid in (1, 2)), "#102030", b"\0as it is"), Layout(), []):
            recording.set_layout(layout)
        for layout, detail in [([Region(1), Region(2, x=3.0)], "region 1.x is 3"),
                               (Layout(background_color="blue"), "background_color")]:
            with self.subTest(detail), self.assertRaises(ArgumentError) as raised:
                recording.set_layout(layout)
            self.assertIn(detail, raised.exception.detail)
        recording.set_user_background(1, None)
        recording.set_log_level(LogLevel.INFO)
        take_until_files(recording, 1)
        recording.close()
        self.assertEqual(len(files(recording.folder)), 1)

    def test_service_starts_and_stops_by_hand(self):
        recording = self.joined(trigger_mode=1)
        next_of(recording, Joined)
        recording.start_service()
        next_of(recording, FirstVideo)
        recording.stop_service()
        with self.assertRaises(RefusedError):
            recording.stop_service()


class WrongUses(Fixture, unittest.TestCase):
    def test_before_the_join(self):
        recording = Recording("test")
        self.addCleanup(recording.close)
        settings = self.settings()
        for call, error, detail in [
            (lambda: Recording(""), ArgumentError, "options.app_id is null or empty"),
            (lambda: Recording("a\0b"), ArgumentError, "app_id has a null character"),
            (lambda: Recording("a", queue_bytes=-1), ArgumentError, "queue_bytes is -1"),
            (lambda: Recording("a", queue_bytes=1 << 41), ArgumentError, "it should be at most"),
            (lambda: recording.join(""), ArgumentError, "length of channel_id is 0"),
            (lambda: recording.join("a" * 65), ArgumentError, "it should be 1 to 64"),
            (lambda: recording.join("a", uid=-1), ArgumentError, "uid is -1"),
            (lambda: recording.join("a", **settings, low_udp_port=5000, high_udp_port=5001),
             ConfigurationError, "says why"),
            (lambda: recording.join("a", **settings, idle_limit_sec=1 << 40), ArgumentError,
             "config.idle_limit_sec is 1099511627776"),
            (lambda: recording.join("a", secret="a\0b"), ArgumentError, "config.secret has a null"),
            (lambda: recording.join("a", no_such_member=1), TypeError, "no_such_member"),
            (lambda: recording.join("a", uid="1"), TypeError, "'str'"),
            (lambda: recording.folder, NotJoinedError, "no folder yet"),
            (lambda: recording.leave(), NotJoinedError, "a leave before a join"),
            (lambda: recording.set_layout([]), NotJoinedError, "a layout before a join"),
            (lambda: recording.set_layout(Layout(background_color="a\0b")), ArgumentError,
             "layout.background_color has a null"),
            (lambda: recording.set_layout([Region(-1)]), ArgumentError, "region 0.uid is -1"),
            (lambda: recording.set_user_background(-1, None), ArgumentError, "uid is -1"),
            (lambda: recording.set_user_background(1, "x.png"), NotJoinedError, "a background before"),
            (lambda: recording.start_service(), NotJoinedError, "a start before a join"),
            (lambda: recording.set_log_level(9), ArgumentError, "level is 9"),
            (lambda: recording.set_log_level(1 << 40), ArgumentError, "level is 1099511627776"),
            (lambda: recording.next_event(-1), ArgumentError, "timeout is -1"),
            (lambda: recording.next_event(float("nan")), ArgumentError, "timeout is nan"),
            (lambda: recording.next_event(), NotJoinedError, "no event comes before a join"),
            (lambda: next(recording), NotJoinedError, "no event comes before a join"),
        ]:
            with self.subTest(detail), self.assertRaises(error) as raised:
                call()
            self.assertIn(detail, str(raised.exception))
        # None of it has spoilt anything.
        recording.join("meeting", **settings)

    def test_after_the_join_the_leave_and_the_close(self):
        recording = self.joined()
        commands = {
            "join": lambda: recording.join("meeting"),
            "layout": lambda: recording.set_layout([]),
            "finish": recording.finish,
            "folder": lambda: recording.folder,
            "close": recording.close,
        }
        folder = recording.folder
        for step, expected in [
            (lambda: None, {"join": AlreadyJoinedError}),
            (recording.leave, {"join": LeftError, "layout": LeftError}),
            (recording.close, {"join": ClosedError, "layout": ClosedError, "finish": ClosedError}),
        ]:
            step()
            step()  # Which does nothing more.
            for name, error in expected.items():
                with self.subTest(name), self.assertRaises(error) as raised:
                    commands[name]()
                self.assertIsInstance(raised.exception, StateError)
                self.assertTrue(raised.exception.detail)
        recording.leave()
        self.assertEqual(recording.folder, folder)
        self.assertEqual(list(recording), [])
        self.assertIsNone(recording.next_event(1))
        self.assertTrue(recording.ended)

    def test_errors_survive_pickling_with_all_they_have(self):
        for error in (ArgumentError(-2, "that is so"),
                      SessionError(ErrorEvent(ErrorKind.FAILED, Stat.JOIN))):
            again = pickle.loads(pickle.dumps(error))
            self.assertEqual((type(again), again.code, again.text, str(again)),
                             (type(error), error.code, error.text, str(error)))
            self.assertIsInstance(again, ZeltaError)


def recorder_pid():
    """Of this process's only recorder."""
    children = [int(pid) for task in pathlib.Path("/proc/self/task").iterdir()
                for pid in (task / "children").read_text().split()]
    recorders = [pid for pid in children
                 if pathlib.Path(f"/proc/{pid}/comm").read_text().startswith("ZeltaCore")]
    assert len(recorders) == 1, recorders
    return recorders[0]


if __name__ == "__main__":
    unittest.main()
