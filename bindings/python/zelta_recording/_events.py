# SPDX-License-Identifier: Apache-2.0
"""Events: a small class for each kind, and what makes one of them of what the library hands out."""

from __future__ import annotations

import os
import pathlib
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, NamedTuple, Union

from ._enums import ErrorKind, LeaveReason, OfflineReason, Stat, WarningKind
from ._frames import AudioFrame, VideoFrame
from ._native import ffi, lib


@dataclass(frozen=True, slots=True)
class ErrorEvent:
    """Something failed: the session, or something of one user's."""

    error: ErrorKind
    stat: Stat

    @property
    def ends_session(self) -> bool:
        """False: it is one user's, and all else is recorded."""
        return self.error != ErrorKind.USER_FAILED


@dataclass(frozen=True, slots=True)
class WarningEvent:
    warning: WarningKind


@dataclass(frozen=True, slots=True)
class Joined:
    """The recorder is in the channel, as `uid`; comes again after it had to be started anew."""

    uid: int
    channel_id: str


@dataclass(frozen=True, slots=True)
class Left:
    """The recorder left by itself; its files are complete."""

    reason: LeaveReason


@dataclass(frozen=True, slots=True)
class UserJoined:
    uid: int
    storage_dir: pathlib.Path  # the recording folder


@dataclass(frozen=True, slots=True)
class UserOffline:
    uid: int
    reason: OfflineReason


@dataclass(frozen=True, slots=True)
class Speaker:
    """Another user speaks loudest."""

    uid: int


class Volume(NamedTuple):
    uid: int
    volume: int  # 0 to 255


@dataclass(frozen=True, slots=True)
class Volumes:
    """Comes every `audio_indication_interval`."""

    speakers: tuple[Volume, ...]


@dataclass(frozen=True, slots=True)
class FirstVideo:
    uid: int
    width: int  # pixels
    height: int
    elapsed_ms: int  # since the channel was joined


@dataclass(frozen=True, slots=True)
class FirstAudio:
    uid: int
    elapsed_ms: int  # since the channel was joined


@dataclass(frozen=True, slots=True)
class Receiving:
    """Whether sound and pictures of any user are coming in."""

    audio: bool
    video: bool


@dataclass(frozen=True, slots=True)
class Lost:
    """The connection to the channel is lost for good."""


@dataclass(frozen=True, slots=True)
class Interrupted:
    """The connection is interrupted; the recorder tries again."""


@dataclass(frozen=True, slots=True)
class Dropped:
    """Stands where frames are missing, because there was no room in the queue."""

    audio_frames: int
    video_frames: int
    other_events: int  # there was no memory for them
    frames_so_far: int  # that the recording has dropped, these included


Event = Union[ErrorEvent, WarningEvent, Joined, Left, UserJoined, UserOffline, AudioFrame, VideoFrame,
              Speaker, Volumes, FirstVideo, FirstAudio, Receiving, Lost, Interrupted, Dropped]


def _path(text: Any) -> pathlib.Path:
    return pathlib.Path(os.fsdecode(ffi.string(text)))


def _volumes(uid: int, of: Any) -> Volumes:
    speakers = of.volumes.speakers
    return Volumes(tuple(Volume(speakers[i].uid, speakers[i].volume) for i in range(of.volumes.count)))


def _dropped(uid: int, of: Any) -> Dropped:
    lost = of.dropped
    return Dropped(lost.audio_frames, lost.video_frames, lost.other_events, lost.frames_so_far)


# Of all kinds but frames, from the event's user and its union.
_MAKERS: dict[int, Callable[[int, Any], Event]] = {
    lib.ZELTA_EVENT_ERROR: lambda uid, of: ErrorEvent(
        ErrorKind(of.error.error), Stat(of.error.stat_code)),
    lib.ZELTA_EVENT_WARNING: lambda uid, of: WarningEvent(WarningKind(of.warning.warning)),
    lib.ZELTA_EVENT_JOINED: lambda uid, of: Joined(
        uid, ffi.string(of.joined.channel_id).decode(errors="replace")),
    lib.ZELTA_EVENT_LEFT: lambda uid, of: Left(LeaveReason(of.left.reason)),
    lib.ZELTA_EVENT_USER_JOINED: lambda uid, of: UserJoined(uid, _path(of.user_joined.storage_dir)),
    lib.ZELTA_EVENT_USER_OFFLINE: lambda uid, of: UserOffline(
        uid, OfflineReason(of.user_offline.reason)),
    lib.ZELTA_EVENT_SPEAKER: lambda uid, of: Speaker(uid),
    lib.ZELTA_EVENT_VOLUMES: _volumes,
    lib.ZELTA_EVENT_FIRST_VIDEO: lambda uid, of: FirstVideo(
        uid, of.first_video.width, of.first_video.height, of.first_video.elapsed_ms),
    lib.ZELTA_EVENT_FIRST_AUDIO: lambda uid, of: FirstAudio(uid, of.first_audio.elapsed_ms),
    lib.ZELTA_EVENT_RECEIVING: lambda uid, of: Receiving(
        bool(of.receiving.audio), bool(of.receiving.video)),
    lib.ZELTA_EVENT_LOST: lambda uid, of: Lost(),
    lib.ZELTA_EVENT_INTERRUPTED: lambda uid, of: Interrupted(),
    lib.ZELTA_EVENT_DROPPED: _dropped,
}

_gc, _take = ffi.gc, lib.zelta_python_take
_AUDIO, _VIDEO = lib.ZELTA_EVENT_AUDIO_FRAME, lib.ZELTA_EVENT_VIDEO_FRAME


def take_event(handle: Any, give_back: Callable[[Any], object]) -> Event | None:
    """The oldest event of a kind that is known, or None and the reason in zelta_python_code().

    A frame keeps its memory until it goes; of the rest all is copied, and the event given back."""
    while lent := _take(handle):
        kind = lent.kind
        if kind == _AUDIO:
            return AudioFrame(_gc(lent, give_back))
        if kind == _VIDEO:
            return VideoFrame(_gc(lent, give_back))
        try:
            if make := _MAKERS.get(kind):
                return make(lent.uid, getattr(lent, "as"))
        finally:
            give_back(lent)
    return None
