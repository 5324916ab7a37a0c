# SPDX-License-Identifier: Apache-2.0
"""A recording, from its making to its close.

The handle of the library is owned by a cffi object that releases it when the last reference goes. The
recording has one until it is closed, each frame has one, and each call one while it runs: so nothing
that somebody still looks at is freed, whatever is closed meanwhile, and on whatever thread."""

from __future__ import annotations

import asyncio
import atexit
import collections
import concurrent.futures
import contextlib
import dataclasses
import functools
import os
import pathlib
import select
import sys
import threading
import time
import warnings
import weakref
from collections.abc import AsyncIterator, Callable, Iterable, Iterator
from types import TracebackType
from typing import Any, Union

from ._config import Config, Layout, Region, Text, c_string, config_struct, layout_struct
from ._enums import LogLevel
from ._errors import (AlreadyJoinedError, ClosedError, LeftError, NotJoinedError, SessionError, StateError,
                      ZeltaError, check, wrong_argument)
from ._events import ErrorEvent, Event, Left, take_event
from ._frames import AudioFrame, VideoFrame
from ._native import ffi, lib

# The longest that the system opens.
_PATH_BYTES = 4096
# Events that a task takes before others have their turn, though more are there.
_EVENTS_A_TURN = 64
_FRAMES = frozenset((AudioFrame, VideoFrame))
# At a time; poll() takes no more than 24.8 days.
_LONGEST_WAIT_MS = 24 * 3600 * 1000

_open: weakref.WeakSet[Recording] = weakref.WeakSet()


def _on_a_thread(work: Callable[[], object]) -> concurrent.futures.Future[None]:
    """Of its own, and not of an executor, whose threads may all wait for what is done here. The
    interpreter's end waits for it."""
    done: concurrent.futures.Future[None] = concurrent.futures.Future()
    done.set_running_or_notify_cancel()

    def run() -> None:
        try:
            work()
        except BaseException as error:
            done.set_exception(error)
        else:
            done.set_result(None)
    try:
        threading.Thread(target=run, name="zelta_recording").start()
    except RuntimeError:
        # None can be made: Python 3.12 and later make no more when the interpreter ends.
        run()
    return done


async def _whole(work: Callable[[], object]) -> None:
    """Awaits `work`, done on a thread. A cancel waits for the end of it, and is raised then."""
    done = asyncio.wrap_future(_on_a_thread(work))
    cancelled = None
    while not done.done():
        try:
            await asyncio.shield(done)
        except asyncio.CancelledError as error:
            cancelled = error
    if cancelled is not None:
        raise cancelled
    done.result()


def _check_uid(uid: int) -> None:
    if not 0 <= uid < 1 << 32:
        raise wrong_argument(f"uid is {uid}, it should be 0 to {(1 << 32) - 1}")


class Recording(Iterator[Event], AsyncIterator[Event]):
    """Records one channel; a new one is needed for the next. The files are complete when a `with` or
    `async with` is left, or close() returns.

    Its events come by a loop over it, `for` or `async for`. When a Left, or an ErrorEvent that ends the
    session, is handed out, the recording has been left: what waits is still handed out, and then loops
    end, with a SessionError where it was an error.

    Every method may be called from any thread. Of several loops each event goes to one."""

    # The handle, and what gives an event of it back. Both go with the close, and whoever is in the
    # middle of something then has taken both before.
    _lender: tuple[Any, Callable[[Any], object]] | None = None

    def __init__(self, app_id: str, *, queue_bytes: int = 0) -> None:
        """`queue_bytes`: what frames may hold that wait or are still referred to; those beyond it are
        dropped, and told as Dropped. 0: 64 MiB. Nothing is started yet."""
        name = c_string("app_id", app_id)
        options = ffi.new("zelta_options *", {
            "size": ffi.sizeof("zelta_options"), "delivery": lib.ZELTA_DELIVERY_QUEUE, "app_id": name})
        try:
            options.queue_bytes = queue_bytes
        except OverflowError:
            raise wrong_argument(f"queue_bytes is {queue_bytes}, it should be 0 or more") from None
        made = ffi.new("zelta_recording **")
        check(lib.zelta_recording_create(options, made))
        handle = ffi.gc(made[0], lib.zelta_recording_release)
        descriptor = ffi.new("int *")
        check(lib.zelta_event_fd(handle, descriptor), handle)
        self._fd: int = descriptor[0]
        self._folder: pathlib.Path | None = None
        self._joined = False
        self._failure: ErrorEvent | None = None
        # Of who was interrupted while it left for an event; the next call hands it out.
        self._held: collections.deque[Event] = collections.deque()
        self._ended = False
        self._taken = 0
        self._lender = handle, functools.partial(lib.zelta_event_release, handle)
        _open.add(self)

    def __repr__(self) -> str:
        state = "closed" if self._lender is None else "joined" if self._joined else "not joined"
        return f"<Recording, {state}>"

    def _handle(self) -> Any:
        lender = self._lender
        if lender is None:
            raise ClosedError(lib.ZELTA_ERROR_HANDLE, "the recording was closed")
        return lender[0]

    # ---- Joined ----------------------------------------------------------------------------

    def join(self, channel_id: str, *, uid: int = 0, channel_key: str | None = None,
             config: Config = Config(), **members: Any) -> None:
        """Prepares the folder and starts the recorder; Joined or an ErrorEvent follows.

        `channel_id`: 1 to 64 bytes, a part of the folder's name. `uid`: the recorder's own; 0: it
        chooses. `channel_key`: None: the app id is used. `members` are members of Config, in place of
        those of `config`. ArgumentError, ConfigurationError, RefusedError, AlreadyJoinedError,
        LeftError, ClosedError; after one of the first three it may be tried again."""
        handle = self._handle()
        channel = c_string("channel_id", channel_id)
        key = ffi.NULL if channel_key is None else c_string("channel_key", channel_key)
        _check_uid(uid)
        struct, kept = config_struct(dataclasses.replace(config, **members))
        # Before the call, as Ctrl-C may come between its end and here.
        self._joined = True
        try:
            check(lib.zelta_recording_join(handle, key, channel, uid, struct), handle)
        except (AlreadyJoinedError, LeftError):
            raise
        except ZeltaError:
            self._joined = False
            raise
        del kept

    @property
    def folder(self) -> pathlib.Path:
        """The recording folder, from the join on, also after the close. NotJoinedError."""
        if self._lender is None and self._folder is not None:
            return self._folder
        return self._folder_of(self._handle())

    def _folder_of(self, handle: Any) -> pathlib.Path:
        buffer = ffi.new("char[]", _PATH_BYTES)
        check(lib.zelta_recording_folder(handle, buffer, _PATH_BYTES), handle)
        return pathlib.Path(os.fsdecode(ffi.string(buffer)))

    # ---- Commands: NotJoinedError, LeftError, RefusedError, ClosedError ------------------------

    def set_layout(self, layout: Union[Layout, Iterable[Region]]) -> None:
        """Arranges the users on the mixed picture; regions alone are a layout with a black background.
        ArgumentError."""
        handle = self._handle()
        struct, kept = layout_struct(layout if isinstance(layout, Layout) else Layout(layout))
        check(lib.zelta_recording_set_layout(handle, struct), handle)
        del kept

    def set_user_background(self, uid: int, image: Text | None) -> None:
        """Shows the image (png or jpeg) in place of a user's video; None: no image any more.
        ArgumentError."""
        handle = self._handle()
        _check_uid(uid)
        path = ffi.NULL if image is None else c_string("image", image)
        check(lib.zelta_recording_set_user_background(handle, uid, path), handle)

    def start_service(self) -> None:
        """Starts to record, with trigger_mode 1."""
        handle = self._handle()
        check(lib.zelta_recording_start_service(handle), handle)

    def stop_service(self) -> None:
        """Records no more until start_service(), with trigger_mode 1."""
        handle = self._handle()
        check(lib.zelta_recording_stop_service(handle), handle)

    def set_log_level(self, level: LogLevel) -> None:
        """What is logged from here on, in all recordings of the process; also before the join.
        ArgumentError."""
        handle = self._handle()
        try:
            code = lib.zelta_recording_set_log_level(handle, level)
        except OverflowError:
            raise wrong_argument(f"level is {level}, it should be one of LogLevel") from None
        check(code, handle)

    # ---- Events ----------------------------------------------------------------------------

    @property
    def ended(self) -> bool:
        """No event will come any more: the recording was left, and all were taken; or it was closed."""
        return (self._ended and not self._held) or self._lender is None

    def next_event(self, timeout: float | None = None) -> Event | None:
        """The oldest event that waits, or the next that comes within `timeout` seconds; None: no limit.

        The result is None when none came in time, and when `ended`. NotJoinedError before the join."""
        if timeout is not None and not timeout >= 0:
            raise wrong_argument(f"timeout is {timeout}, it should be at least 0, or None for no limit")
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            handle, event = self._take()
            if event is not None:
                return self._left_for(event)
            if handle is None:
                return None
            left_ms = None if deadline is None else (deadline - time.monotonic()) * 1000
            if left_ms is not None and left_ms <= 0:
                return None
            # In poll(), because a signal of Python's interrupts that. It may return early by the part
            # of a millisecond that it doesn't know, and then the rest is waited for.
            poller = select.poll()
            poller.register(self._fd, select.POLLIN)
            poller.poll(None if left_ms is None else min(left_ms, _LONGEST_WAIT_MS))

    def _take(self) -> tuple[Any, Event | None]:
        """An event, or None and the handle to wait with; None for that as well at the end. The caller
        holds the handle while it waits, as the descriptor is closed with it."""
        lender = self._lender
        if lender is None:
            return None, None
        handle = lender[0]
        with contextlib.suppress(IndexError):
            return handle, self._held.popleft()
        event = take_event(*lender)
        if event is not None:
            return handle, event
        code = lib.zelta_python_code()
        check(code, handle)
        if code == lib.ZELTA_END:
            self._ended = True
            return None, None
        if not self._joined:
            raise NotJoinedError(lib.ZELTA_ERROR_NOT_JOINED, "no event comes before a join")
        return handle, None

    def _ends_session(self, event: Event) -> bool:
        """Whether the recording has to be left before the event is handed out: so that nobody who
        breaks out of a loop by it leaves another loop waiting."""
        if not isinstance(event, ErrorEvent):
            return isinstance(event, Left)
        if event.ends_session and self._failure is None:
            self._failure = event
        return event.ends_session

    def _left_for(self, event: Event) -> Event:
        if self._ends_session(event):
            try:
                self._leave_now()
            except BaseException:  # Ctrl-C
                self._held.append(event)
                raise
        return event

    def _leave_now(self) -> None:
        lender = self._lender
        if lender is not None:
            # Where somebody else has left or closed it meanwhile, that is as good.
            lib.zelta_recording_leave(lender[0])

    def __iter__(self) -> Recording:
        return self

    def __next__(self) -> Event:
        lender = self._lender
        # By the shortest way while frames wait, as theirs are the numbers.
        if lender is not None and not self._held:
            event = take_event(*lender)
            if event is not None:
                return event if event.__class__ in _FRAMES else self._left_for(event)
        event = self.next_event()
        if event is not None:
            return event
        if self._failure is not None:
            raise SessionError(self._failure)
        raise StopIteration

    def __aiter__(self) -> Recording:
        return self

    async def __anext__(self) -> Event:
        loop = asyncio.get_running_loop()
        self._taken += 1
        if self._taken % _EVENTS_A_TURN == 0:
            await asyncio.sleep(0)
        while True:
            handle, event = self._take()
            if event is not None:
                if self._ends_session(event):
                    try:
                        await _whole(self._leave_now)
                    except BaseException:  # Cancelled
                        self._held.append(event)
                        raise
                return event
            if handle is not None:
                await self._readable(loop)
            elif self._failure is not None:
                raise SessionError(self._failure)
            else:
                raise StopAsyncIteration

    async def _readable(self, loop: asyncio.AbstractEventLoop) -> None:
        # One of its own, as a loop knows one reader of a descriptor, and several tasks may wait.
        descriptor = os.dup(self._fd)
        try:
            readable = asyncio.Event()
            loop.add_reader(descriptor, readable.set)
            try:
                await readable.wait()
            finally:
                loop.remove_reader(descriptor)
        finally:
            os.close(descriptor)

    # ---- Left ------------------------------------------------------------------------------

    def leave(self) -> None:
        """Ends the session, within half a second. What waits can still be taken, then loops end. Does
        nothing where it was left, by a call or by itself, or closed. NotJoinedError; RefusedError;
        ClosedError in another process."""
        lender = self._lender
        if lender is None:
            return
        code = lib.zelta_recording_leave(lender[0])
        if code != lib.ZELTA_ERROR_LEFT:
            check(code, lender[0])

    def finish(self) -> None:
        """Leaves, and waits for the recorder to complete its files: 13 s at most, then it is ended by
        force. What waits can still be taken, then loops end. ClosedError."""
        handle = self._handle()
        check(lib.zelta_recording_finish(handle), handle)

    def close(self) -> None:
        """finish(), and drops the events that wait; more than one does nothing. Frames that somebody
        refers to stay as they are: the recording's memory goes with the last of them."""
        lender = self._lender
        if lender is None:
            return
        try:
            # Not joined, it has none; nor in a process that was forked from the recording's.
            with contextlib.suppress(StateError):
                self._folder = self._folder_of(lender[0])
        finally:
            # Whatever came before; and Ctrl-C that comes meanwhile is told once the files are complete.
            try:
                lib.zelta_recording_finish(lender[0])
            finally:
                self._lender = None
                _open.discard(self)

    def __enter__(self) -> Recording:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    async def __aenter__(self) -> Recording:
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        traceback: TracebackType | None) -> None:
        await _whole(self.close)

    def __del__(self) -> None:
        lender = self._lender
        if lender is None or not self._joined:
            return
        try:
            warnings.warn(f"{self!r} was not closed", ResourceWarning, source=self)
        finally:
            # The handle's release would do it, too, but waits for the last frame that somebody keeps.
            # On a thread, as it takes up to 13 s and whoever collects knows nothing of it.
            finish = functools.partial(lib.zelta_recording_finish, lender[0])
            if sys.is_finalizing():
                finish()  # No thread that is started runs any more.
            else:
                _on_a_thread(finish)


@atexit.register
def _close_all() -> None:
    """All at a time, so that a recorder that hangs holds up no other. After Ctrl-C it goes on."""
    still, closing = list(_open), []
    interrupt = None
    while True:
        try:
            while still:
                # A second close, where Ctrl-C comes between, does no harm.
                closing.append(_on_a_thread(still[-1].close))
                still.pop()
            concurrent.futures.wait(closing)
            break
        except KeyboardInterrupt as error:
            interrupt = error
    if interrupt is not None:
        raise interrupt
