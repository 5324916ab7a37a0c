# SPDX-License-Identifier: Apache-2.0
"""The numbers of zelta_recording.h by name. What each means stands there, and in the comments here
where the name doesn't say it."""

from __future__ import annotations

import enum

from ._native import lib


class _Code(enum.IntEnum):
    """One of a list that may grow: a value that a newer library gives is a member without a name."""

    @classmethod
    def _missing_(cls, value: object) -> _Code | None:
        if not isinstance(value, int):
            return None
        member = int.__new__(cls, value)
        member._name_ = cls._name_of(value)
        member._value_ = value
        return member

    @classmethod
    def _name_of(cls, value: int) -> str:
        return f"UNKNOWN_{value}"


class ErrorKind(_Code):
    """Of an ErrorEvent."""

    FAILED = lib.ZELTA_SESSION_FAILED  # the recorder could not do its work
    USER_FAILED = lib.ZELTA_SESSION_USER_FAILED  # something of one user's is not recorded
    RECORDER_GONE = lib.ZELTA_SESSION_RECORDER_GONE  # and could not be started again


class Stat(_Code):
    """What is added to an ErrorKind. The last three are bits, and may come together."""

    NONE = lib.ZELTA_STAT_NONE
    MEDIA_ENGINE = lib.ZELTA_STAT_MEDIA_ENGINE
    JOIN = lib.ZELTA_STAT_JOIN
    PROCESS = lib.ZELTA_STAT_PROCESS
    MIXED_VIDEO = lib.ZELTA_STAT_MIXED_VIDEO
    NOT_GIVEN = lib.ZELTA_STAT_NOT_GIVEN
    PROXY = lib.ZELTA_STAT_PROXY
    POLL_ERROR = lib.ZELTA_STAT_POLL_ERROR
    POLL_HANG_UP = lib.ZELTA_STAT_POLL_HANG_UP
    POLL_INVALID = lib.ZELTA_STAT_POLL_INVALID

    @classmethod
    def _name_of(cls, value: int) -> str:
        bits = [bit for bit in (cls.POLL_ERROR, cls.POLL_HANG_UP, cls.POLL_INVALID) if value & bit]
        return "|".join(bit.name for bit in bits) if value == sum(bits) else super()._name_of(value)


class WarningKind(_Code):
    """Of a WarningEvent."""

    NO_AVAILABLE_CHANNEL = lib.ZELTA_WARNING_NO_AVAILABLE_CHANNEL
    LOOKUP_TIMEOUT = lib.ZELTA_WARNING_LOOKUP_TIMEOUT
    LOOKUP_REJECTED = lib.ZELTA_WARNING_LOOKUP_REJECTED
    OPEN_TIMEOUT = lib.ZELTA_WARNING_OPEN_TIMEOUT
    OPEN_REJECTED = lib.ZELTA_WARNING_OPEN_REJECTED
    RECOVERED = lib.ZELTA_WARNING_RECOVERED  # the recorder had died and was started again


class LeaveReason(enum.IntFlag):
    """Why a recorder left."""

    SIGNAL = lib.ZELTA_LEAVE_SIGNAL
    NO_USERS = lib.ZELTA_LEAVE_NO_USERS  # for idle_limit_sec
    GUARD = lib.ZELTA_LEAVE_GUARD  # no progress, no disk
    APPLICATION = lib.ZELTA_LEAVE_APPLICATION


class OfflineReason(_Code):
    """Why a user is gone."""

    QUIT = lib.ZELTA_OFFLINE_QUIT
    DROPPED = lib.ZELTA_OFFLINE_DROPPED
    BECOME_AUDIENCE = lib.ZELTA_OFFLINE_BECOME_AUDIENCE


class AudioFormat(_Code):
    PCM = lib.ZELTA_AUDIO_PCM
    AAC = lib.ZELTA_AUDIO_AAC


class VideoFormat(_Code):
    YUV = lib.ZELTA_VIDEO_YUV
    H264 = lib.ZELTA_VIDEO_H264
    JPG = lib.ZELTA_VIDEO_JPG


class DecodeVideo(enum.IntEnum):
    """What is done with video; frames come as VideoFrame."""

    FILES = lib.ZELTA_DECODE_VIDEO_FILES
    H264_FRAMES = lib.ZELTA_DECODE_VIDEO_H264_FRAMES
    YUV_FRAMES = lib.ZELTA_DECODE_VIDEO_YUV_FRAMES
    JPG_FRAMES = lib.ZELTA_DECODE_VIDEO_JPG_FRAMES
    JPG_FILES = lib.ZELTA_DECODE_VIDEO_JPG_FILES
    FILES_AND_JPG_FILES = lib.ZELTA_DECODE_VIDEO_FILES_AND_JPG_FILES


class DecodeAudio(enum.IntEnum):
    """What is done with sound; frames come as AudioFrame."""

    FILES = lib.ZELTA_DECODE_AUDIO_FILES
    AAC_FRAMES = lib.ZELTA_DECODE_AUDIO_AAC_FRAMES
    PCM_FRAMES = lib.ZELTA_DECODE_AUDIO_PCM_FRAMES
    MIXED_PCM_FRAMES = lib.ZELTA_DECODE_AUDIO_MIXED_PCM_FRAMES  # of all users, uid 0


class MixedFile(enum.IntEnum):
    """Whether mixed sound and picture share a file."""

    APART = lib.ZELTA_MIXED_APART
    BASELINE = lib.ZELTA_MIXED_BASELINE
    HIGH = lib.ZELTA_MIXED_HIGH


class AudioProfile(enum.IntEnum):
    """Of mixed sound, at 48 kHz."""

    MONO = lib.ZELTA_AUDIO_PROFILE_MONO  # 48 kbit/s
    HIGH_MONO = lib.ZELTA_AUDIO_PROFILE_HIGH_MONO  # 128 kbit/s
    HIGH_STEREO = lib.ZELTA_AUDIO_PROFILE_HIGH_STEREO  # 192 kbit/s


class LogLevel(enum.IntEnum):
    FATAL = lib.ZELTA_LOG_FATAL
    ERROR = lib.ZELTA_LOG_ERROR
    WARN = lib.ZELTA_LOG_WARN
    NOTICE = lib.ZELTA_LOG_NOTICE
    INFO = lib.ZELTA_LOG_INFO
    DEBUG = lib.ZELTA_LOG_DEBUG
