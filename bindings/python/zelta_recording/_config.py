# SPDX-License-Identifier: Apache-2.0
"""What to record and how, and where users stand on a mixed picture: values of Python's, and the structs
that they become for a call."""

from __future__ import annotations

import dataclasses
import os
from collections.abc import Iterable
from typing import Any, Union

from ._enums import AudioProfile, DecodeAudio, DecodeVideo, MixedFile
from ._errors import wrong_argument
from ._native import ffi

Text = Union[str, "os.PathLike[str]"]


def c_string(name: str, value: Text) -> Any:
    """Null-terminated, as long as the result lives."""
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise wrong_argument(f"{name} has a null character in it")
    return ffi.new("char[]", encoded)


def set_number(struct: Any, place: str, name: str, value: float) -> None:
    try:
        setattr(struct, name, value)
    except OverflowError as error:
        raise wrong_argument(f"{place}.{name} is {value}, it should fit its type: {error}") from None


@dataclasses.dataclass(frozen=True, slots=True, kw_only=True)
class Config:
    """The members of zelta_config in zelta_recording.h, by the same names and with the same defaults.
    docs/c-interface.md and the C++ header say what goes with what."""

    is_audio_only: bool = False
    is_video_only: bool = False
    is_mixing_enabled: bool = False
    mixed_video_audio: MixedFile = MixedFile.APART
    decode_video: DecodeVideo = DecodeVideo.FILES
    decode_audio: DecodeAudio = DecodeAudio.FILES
    low_udp_port: int = 0  # 0: not restricted
    high_udp_port: int = 0  # 0: not restricted; else at least low_udp_port + 3
    idle_limit_sec: int = 0  # at least 3; 0: 300 seconds
    capture_interval: int = 0  # seconds between JPEGs; 0: 5
    audio_indication_interval: int = 0  # milliseconds between Volumes; 0: none
    channel_profile: int = 0  # 0 communication, 1 live broadcasting
    stream_type: int = 0  # 0 the large picture, 1 the small one
    trigger_mode: int = 0  # 0 recording starts with the join, 1 with start_service()
    audio_profile: AudioProfile = AudioProfile.MONO
    mix_resolution: str | None = None  # "width,height,fps,kbps"
    decryption_mode: str | None = None
    secret: str | None = dataclasses.field(default=None, repr=False)
    applite_dir: Text | None = None  # folder of ZeltaCoreService
    record_file_root_dir: Text | None = None  # an existing folder; None: the current one
    cfg_file_path: Text | None = None  # JSON, which names the channel server
    proxy_server: str | None = None
    default_video_bg: Text | None = None
    default_user_bg: Text | None = None


_TEXTS = ("mix_resolution", "decryption_mode", "secret", "applite_dir", "record_file_root_dir",
          "cfg_file_path", "proxy_server", "default_video_bg", "default_user_bg")
_NUMBERS = tuple(field.name for field in dataclasses.fields(Config) if field.name not in _TEXTS)


def config_struct(config: Config) -> tuple[Any, list[Any]]:
    """A zelta_config, and what has to live as long as it does."""
    struct = ffi.new("zelta_config *", {"size": ffi.sizeof("zelta_config")})
    kept = []
    for name in _NUMBERS:
        set_number(struct, "config", name, getattr(config, name))
    for name in _TEXTS:
        value = getattr(config, name)
        if value is not None:
            kept.append(c_string(f"config.{name}", value))
            setattr(struct, name, kept[-1])
    return struct, kept


@dataclasses.dataclass(frozen=True, slots=True)
class Region:
    """Where a user stands on the mixed picture, in shares of it; what lies outside is cut off."""

    uid: int
    x: float = 0.0  # left edge, -2 to 2
    y: float = 0.0  # upper edge, -2 to 2
    width: float = 1.0  # 0 to 2
    height: float = 1.0  # 0 to 2
    alpha: float = 1.0  # 0 (invisible) to 1
    fit: bool = False  # True: all of the picture is in the region; False: it fills it, and is cropped


@dataclasses.dataclass(frozen=True, slots=True)
class Layout:
    """Regions, of which later ones lie on top; none: the background alone."""

    regions: Iterable[Region] = ()
    background_color: str | None = None  # "#rrggbb"; None is black
    app_data: bytes = b""  # passed through


def layout_struct(layout: Layout) -> tuple[Any, list[Any]]:
    """A zelta_layout, and what has to live as long as it does."""
    given = tuple(layout.regions)
    regions = ffi.new("zelta_region[]", len(given))
    for i, (region, struct) in enumerate(zip(given, regions)):
        place = f"region {i}"
        for name in ("uid", "x", "y", "width", "height", "alpha"):
            set_number(struct, place, name, getattr(region, name))
        struct.render_mode = int(region.fit)
    app_data = ffi.new("char[]", layout.app_data)
    kept = [regions, app_data]
    struct = ffi.new("zelta_layout *", {
        "size": ffi.sizeof("zelta_layout"), "region_size": ffi.sizeof("zelta_region"),
        "region_count": len(given), "regions": regions,
        "app_data_bytes": len(layout.app_data), "app_data": app_data})
    if layout.background_color is not None:
        kept.append(c_string("layout.background_color", layout.background_color))
        struct.background_color = kept[-1]
    return struct, kept
