# SPDX-License-Identifier: Apache-2.0
"""Frames: objects over memory that the recording lends.

A frame holds one pointer, which gives the event back when the last reference to it goes. What is asked
of a frame is read at that time, and arrays are made when they are asked for: sound comes a hundred
times a second from each user, and most programs look at two of its members."""

from __future__ import annotations

import functools
from typing import Any

import numpy as np
import numpy.typing as npt

from ._enums import AudioFormat, VideoFormat
from ._native import ffi

_buffer, _gc = ffi.buffer, ffi.gc
_PCM, _YUV = int(AudioFormat.PCM), int(VideoFormat.YUV)


def _let_go(lent: Any, data: Any) -> None:
    """Of an array's memory. Nothing is to be done but to have held `lent` until now."""


def _memory(lent: Any, data: Any, size: int) -> memoryview:
    """`size` bytes at `data`, which nobody can write to, and which keep `lent` alive."""
    held = _gc(data, functools.partial(_let_go, lent))
    return memoryview(_buffer(held, size)).toreadonly()


class _Frame:
    """What sound and pictures have in common."""

    __slots__ = ("_lent", "__weakref__")
    __match_args__ = ("uid",)

    def __init__(self, lent: Any) -> None:
        self._lent = lent

    @property
    def _media(self) -> Any:
        """The member of the event's union that describes it."""
        raise NotImplementedError

    @property
    def uid(self) -> int:
        """The user; 0 for mixed sound."""
        uid: int = self._lent.uid
        return uid

    @property
    def time_ms(self) -> int:
        """Media time of the picture or of the first sample, in milliseconds."""
        time: int = self._media.time_ms
        return time

    @property
    def data(self) -> npt.NDArray[np.uint8]:
        """All bytes of the frame: a read-only view of its memory, which keeps that, as all arrays do."""
        media = self._media
        return np.ndarray((media.data_bytes,), np.uint8, _memory(self._lent, media.data, media.data_bytes))

    def __repr__(self) -> str:
        formats = AudioFormat if isinstance(self, AudioFrame) else VideoFormat
        return (f"{type(self).__name__}(uid={self.uid}, time_ms={self.time_ms}, "
                f"format={formats(self._media.format).name}, {self._media.data_bytes} bytes)")


class AudioFrame(_Frame):
    """Sound of a user, or of all users mixed (uid 0), with the memory that it lies in."""

    __slots__ = ()

    @property
    def _media(self) -> Any:
        return getattr(self._lent, "as").audio

    @property
    def format(self) -> AudioFormat:
        """PCM: 16-bit samples. AAC: one ADTS frame."""
        return AudioFormat(self._media.format)

    @property
    def channels(self) -> int:
        """1 or 2."""
        channels: int = self._media.channels
        return channels

    @property
    def sample_rate(self) -> int:
        """PCM: samples a second and channel; else 0."""
        rate: int = self._media.sample_rate
        return rate

    @property
    def bitrate(self) -> int:
        """AAC: bits a second; else 0."""
        rate: int = self._media.bitrate
        return rate

    @property
    def samples(self) -> npt.NDArray[np.int16]:
        """PCM: a read-only view of the frame's memory, samples × channels.

        It keeps the memory, also after the recording was closed; `np.array(frame.samples)` is a copy.
        Of AAC it is a ValueError."""
        audio = self._media
        if audio.format != _PCM:
            raise ValueError("a frame of AAC has no samples, its bytes are in data")
        channels = audio.channels
        return np.ndarray((audio.samples // channels, channels), np.int16,
                          _memory(self._lent, audio.data, audio.data_bytes))


class VideoFrame(_Frame):
    """A picture of a user, with the memory that it lies in."""

    __slots__ = ()

    @property
    def _media(self) -> Any:
        return getattr(self._lent, "as").video

    @property
    def format(self) -> VideoFormat:
        """YUV: an I420 picture. H264: an access unit in byte-stream format, with the parameter sets in
        front of a key frame. JPG: an image."""
        return VideoFormat(self._media.format)

    @property
    def rotation(self) -> int:
        """Degrees clockwise by which to turn the picture for display."""
        rotation: int = self._media.rotation
        return rotation

    @property
    def frame_number(self) -> int:
        """H264: counts the user's access units; else 0."""
        number: int = self._media.frame_number
        return number

    @property
    def width(self) -> int:
        """YUV: pixels; else 0."""
        width: int = self._media.width
        return width

    @property
    def height(self) -> int:
        """YUV: pixels; else 0."""
        height: int = self._media.height
        return height

    @property
    def planes(self) -> tuple[npt.NDArray[np.uint8], npt.NDArray[np.uint8], npt.NDArray[np.uint8]]:
        """YUV: Y, U and V, read-only views of the frame's memory, rows × columns; U and V have half
        as many of both, rounded up. Rows may lie further apart than they are long.

        They keep the memory, also after the recording was closed; `np.array(plane)` is a copy.
        Of another format it is a ValueError."""
        video = self._media
        if video.format != _YUV:
            raise ValueError(f"a frame of {self.format.name} has no planes, its bytes are in data")
        data, strides = video.data, video.strides
        memory = _memory(self._lent, data, video.data_bytes)
        width, height = video.width, video.height
        half = ((height + 1) // 2, (width + 1) // 2)
        y, u, v = video.planes
        return (np.ndarray((height, width), np.uint8, memory, y - data, (strides[0], 1)),
                np.ndarray(half, np.uint8, memory, u - data, (strides[1], 1)),
                np.ndarray(half, np.uint8, memory, v - data, (strides[2], 1)))
