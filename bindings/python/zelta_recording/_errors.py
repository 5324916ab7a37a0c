# SPDX-License-Identifier: Apache-2.0
"""Exceptions: one class for each sort of failure, all of them a ZeltaError."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from ._native import ffi, lib

if TYPE_CHECKING:
    from ._events import ErrorEvent

# Longer than any detail that the library has.
_DETAIL_BYTES = 1024


class ZeltaError(Exception):
    """A call that had no effect.

    `code` is one of the header's zelta_result, `text` says what that means, and `detail` which value
    was wrong and what would be right; it may be empty."""

    def __init__(self, code: int, detail: str = "", text: str | None = None) -> None:
        self.code = code
        self.text: str = text or ffi.string(lib.zelta_error_text(code)).decode()
        self.detail = detail
        super().__init__(f"{self.text}: {detail}" if detail else self.text)

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.code, self.detail)


class ArgumentError(ZeltaError, ValueError):
    """An argument, or a member of a configuration or layout, can't be."""


class ConfigurationError(ZeltaError, ValueError):
    """Members of the configuration that don't go together; the log says which."""


class RefusedError(ZeltaError):
    """The engine could not do it; the log says why."""


class StateError(ZeltaError):
    """Not now: the recording is not in the state for that."""


class NotJoinedError(StateError):
    """It needs a channel: join first."""


class AlreadyJoinedError(StateError):
    """A recording joins once."""


class LeftError(StateError):
    """The recording was left, and a new one is needed."""


class ClosedError(StateError):
    """The recording was closed, or is another process's: after a fork the child has none."""


class ResourceError(ZeltaError):
    """No memory, or the system refused something."""


class SessionError(ZeltaError):
    """The session failed: raised by a loop over the events, when it has had all of them.

    `event` is the ErrorEvent that ended the session, the first one where more came. `code` is that of a
    RefusedError, as the header has none for it."""

    def __init__(self, event: ErrorEvent) -> None:
        self.event = event
        stat = f", {event.stat.name}" if event.stat else ""
        super().__init__(lib.ZELTA_ERROR_REFUSED, event.error.name + stat, "the session failed")

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.event,)


_CLASSES: dict[int, type[ZeltaError]] = {
    lib.ZELTA_ERROR_HANDLE: ClosedError,
    lib.ZELTA_ERROR_ARGUMENT: ArgumentError,
    lib.ZELTA_ERROR_CONFIGURATION: ConfigurationError,
    lib.ZELTA_ERROR_REFUSED: RefusedError,
    lib.ZELTA_ERROR_NOT_JOINED: NotJoinedError,
    lib.ZELTA_ERROR_JOINED: AlreadyJoinedError,
    lib.ZELTA_ERROR_LEFT: LeftError,
    lib.ZELTA_ERROR_MEMORY: ResourceError,
    lib.ZELTA_ERROR_SYSTEM: ResourceError,
}


def check(code: int, handle: Any = ffi.NULL) -> None:
    """Raises what `code` of a call of `handle` means, and nothing where it is no failure."""
    if code >= 0:
        return
    buffer = ffi.new("char[]", _DETAIL_BYTES)
    # Of a handle that isn't one there is no detail either; the buffer stays empty.
    lib.zelta_error_detail(handle, buffer, _DETAIL_BYTES)
    raise _CLASSES.get(code, ZeltaError)(code, ffi.string(buffer).decode(errors="replace"))


def wrong_argument(detail: str) -> ArgumentError:
    return ArgumentError(lib.ZELTA_ERROR_ARGUMENT, detail)
