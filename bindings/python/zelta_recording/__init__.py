# SPDX-License-Identifier: Apache-2.0
"""Records the audio and video of real-time channels.

    from zelta_recording import Recording

    with Recording("my-app") as recording:
        recording.join("meeting", cfg_file_path="server.json")
        for event in recording:
            print(event)

docs/python.md has the rest."""

from ._config import Config, Layout, Region
from ._enums import (AudioFormat, AudioProfile, DecodeAudio, DecodeVideo, ErrorKind, LeaveReason,
                     LogLevel, MixedFile, OfflineReason, Stat, VideoFormat, WarningKind)
from ._errors import (AlreadyJoinedError, ArgumentError, ClosedError, ConfigurationError, LeftError,
                      NotJoinedError, RefusedError, ResourceError, SessionError, StateError, ZeltaError)
from ._events import (Dropped, ErrorEvent, Event, FirstAudio, FirstVideo, Interrupted, Joined, Left,
                      Lost, Receiving, Speaker, UserJoined, UserOffline, Volume, Volumes, WarningEvent)
from ._frames import AudioFrame, VideoFrame
from ._native import ffi, lib
from ._recording import Recording

__version__: str = ffi.string(lib.zelta_version()).decode()

__all__ = [
    "AlreadyJoinedError", "ArgumentError", "AudioFormat", "AudioFrame", "AudioProfile", "ClosedError",
    "Config", "ConfigurationError", "DecodeAudio", "DecodeVideo", "Dropped", "ErrorEvent", "ErrorKind",
    "Event", "FirstAudio", "FirstVideo", "Interrupted", "Joined", "Layout", "LeaveReason", "Left",
    "LeftError", "LogLevel", "Lost", "MixedFile", "NotJoinedError", "OfflineReason", "Receiving",
    "Recording", "RefusedError", "Region", "ResourceError", "SessionError", "Speaker", "Stat",
    "StateError", "UserJoined", "UserOffline", "VideoFormat", "VideoFrame", "Volume", "Volumes",
    "WarningEvent", "WarningKind", "ZeltaError",
]
