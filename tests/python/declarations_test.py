# SPDX-License-Identifier: Apache-2.0
"""The package has what zelta_recording.h has: each number has a name, and each member of a struct that an
application fills can be filled."""

import dataclasses
import enum
import inspect
import re
import unittest

import zelta_recording
from zelta_recording import Config, Layout, Region, _enums, _events
from zelta_recording._enums import Stat
from zelta_recording._native import ffi, lib

# The header's name of an enumeration, and the class here.
ENUMS = {
    "session_error": "ErrorKind", "stat": "Stat", "warning": "WarningKind", "leave_reason": "LeaveReason",
    "offline_reason": "OfflineReason", "audio_format": "AudioFormat", "video_format": "VideoFormat",
    "decode_video": "DecodeVideo", "decode_audio": "DecodeAudio", "mixed_file": "MixedFile",
    "audio_profile": "AudioProfile", "log": "LogLevel",
}
# What the package sets itself, and what no application needs: kinds of delivery, and results, which are
# exceptions.
INSIDE = {"result", "event_kind", "delivery"}


def members(struct):
    return {name for name, _ in ffi.typeof(struct).fields}


class Declarations(unittest.TestCase):
    def test_every_enumeration_is_there_with_every_value(self):
        for name, here in ENUMS.items():
            with self.subTest(name):
                theirs = ffi.typeof(f"enum zelta_{name}").elements
                self.assertEqual(set(theirs), {int(member) for member in getattr(_enums, here)})
        constants = {name for name in dir(lib) if re.match("ZELTA_[A-Z]", name)}
        named = {value for name in [*ENUMS, *INSIDE] for value in ffi.typeof(f"enum zelta_{name}").relements}
        self.assertEqual(constants, named)

    def test_every_kind_of_event_is_made(self):
        frames = {lib.ZELTA_EVENT_AUDIO_FRAME, lib.ZELTA_EVENT_VIDEO_FRAME}
        self.assertEqual(set(ffi.typeof("enum zelta_event_kind").elements), set(_events._MAKERS) | frames)

    def test_every_member_can_be_given(self):
        for struct, cls, inside in [
            ("zelta_config", Config, {"size", "reserved", "lang"}),
            # fit is render_mode, in a word.
            ("zelta_region", Region, set()),
            # Sizes and counts follow from what is given; those of a canvas have no effect.
            ("zelta_layout", Layout, {"size", "region_size", "region_count", "app_data_bytes",
                                      "canvas_width", "canvas_height"}),
        ]:
            with self.subTest(struct):
                here = {field.name for field in dataclasses.fields(cls)}
                self.assertEqual(members(struct) - inside, {"render_mode" if name == "fit" else name
                                                            for name in here})

    def test_every_failure_has_a_class(self):
        # Only what the package itself would have to do wrong has no class of its own.
        inside = {"STRUCT_SIZE", "UNKNOWN_FIELD", "IN_CALLBACK", "NO_QUEUE", "FULL", "UNKNOWN_EVENT"}
        for value, name in ffi.typeof("enum zelta_result").elements.items():
            if value < 0:
                has = value in zelta_recording._errors._CLASSES
                self.assertEqual(has, name.removeprefix("ZELTA_ERROR_") not in inside, name)

    def test_unknown_values_keep_their_number(self):
        self.assertEqual((int(Stat(24)), Stat(24).name), (24, "POLL_ERROR|POLL_HANG_UP"))
        self.assertEqual((int(Stat(99)), Stat(99).name), (99, "UNKNOWN_99"))
        self.assertEqual(zelta_recording.WarningKind(7).name, "UNKNOWN_7")
        self.assertEqual(int(zelta_recording.LeaveReason(6)), 6)

    def test_all_that_is_public_is_listed_and_documented(self):
        for name in zelta_recording.__all__:
            value = getattr(zelta_recording, name)
            if inspect.isclass(value) and not issubclass(value, enum.Enum):
                self.assertTrue(inspect.getdoc(value), name)


if __name__ == "__main__":
    unittest.main()
