# SPDX-License-Identifier: Apache-2.0
"""The loop of asyncio: events without threads, and nothing left behind by what is cancelled."""

import asyncio
import concurrent.futures
import os
import signal
import threading
import unittest

from recording_test import recorder_pid
from support import PATIENCE_S, Fixture
from zelta_recording import ErrorEvent, FirstVideo, Joined, Left, Recording, SessionError, UserJoined
from zelta_recording._native import lib


def descriptors():
    # Without the one that the folder is read by.
    return {int(name) for name in os.listdir("/proc/self/fd") if os.path.lexists(f"/proc/self/fd/{name}")}


class Held:
    """A method of a recording that waits, when it is called, to be let go on."""

    def __init__(self, recording, name):
        self.begun, self.go_on = threading.Event(), threading.Event()
        self.method = getattr(recording, name)
        setattr(recording, name, self)

    def __call__(self):
        self.begun.set()
        self.go_on.wait(PATIENCE_S)
        self.method()


class Asyncio(Fixture, unittest.IsolatedAsyncioTestCase):
    async def test_async_with_and_async_for(self):
        async with Recording("test") as recording:
            recording.join("meeting", **self.settings())
            async for event in recording:
                if isinstance(event, FirstVideo):
                    break
            self.assertFalse(recording.ended)
        self.assertTrue((recording.folder / "recording.json").exists())
        self.assertEqual([event async for event in recording], [])

    async def test_others_have_their_turn_while_it_closes(self):
        recording = self.joined()
        await self.until(recording, UserJoined)
        turns = 0

        async def count():
            nonlocal turns
            while True:
                turns += 1
                await asyncio.sleep(0.01)
        counting = asyncio.create_task(count())
        async with recording:
            await asyncio.sleep(0)
            before = turns
        self.assertGreater(turns, before)
        counting.cancel()

    async def test_what_is_cancelled_leaves_nothing(self):
        recording = self.joined("test:users=0")
        await self.until(recording, Joined)
        before = descriptors()
        for _ in range(3):
            task = asyncio.create_task(anext(recording))
            await self.waits(before, 1)
            waited_for = descriptors() - before
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            self.assertEqual(descriptors(), before)
            for descriptor in waited_for:
                self.assertFalse(asyncio.get_running_loop().remove_reader(descriptor))
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(anext(recording), 0.05)
        self.assertEqual(descriptors(), before)
        # The next one waits as if there had been no other.
        task = asyncio.create_task(self.all(recording))
        await self.waits(before, 1)
        recording.leave()
        self.assertEqual(await asyncio.wait_for(task, PATIENCE_S), [])

    async def test_several_tasks_wait_and_all_end(self):
        recording = self.joined("test:users=0")
        await self.until(recording, Joined)

        async def take():
            return [event async for event in recording]
        before = descriptors()
        tasks = [asyncio.create_task(take()) for _ in range(3)]
        await self.waits(before, 3)
        await asyncio.to_thread(recording.close)
        self.assertEqual(await asyncio.wait_for(asyncio.gather(*tasks), PATIENCE_S), [[], [], []])

    async def test_loop_ends_when_the_recorder_has_left(self):
        recording = self.joined()
        await self.until(recording, Joined)
        os.kill(recorder_pid(), signal.SIGTERM)
        events = await asyncio.wait_for(self.all(recording), PATIENCE_S)
        self.assertTrue(any(isinstance(event, Left) for event in events))

    async def test_loop_raises_what_ended_the_session(self):
        with self.assertRaises(SessionError):
            await asyncio.wait_for(self.all(self.joined("nonsense:")), PATIENCE_S)

    async def test_it_has_been_left_when_its_end_is_handed_out(self):
        recording = self.joined("nonsense:")
        await self.until(recording, ErrorEvent)
        self.assertEqual(lib.zelta_recording_leave(recording._lender[0]), lib.ZELTA_ERROR_LEFT)

    async def test_cancelled_while_it_leaves_it_loses_no_event(self):
        recording = self.joined("test:users=0")
        await self.until(recording, Joined)
        leaves = Held(recording, "_leave_now")
        os.kill(recorder_pid(), signal.SIGTERM)
        await self.cancelled_while(self.all(recording), leaves)
        self.assertFalse(recording.ended)
        events = await asyncio.wait_for(self.all(recording), PATIENCE_S)
        self.assertTrue(any(isinstance(event, Left) for event in events))

    async def test_cancelled_while_it_closes_it_is_closed(self):
        recording = self.joined()
        closes = Held(recording, "close")

        async def record():
            async with recording:
                await self.until(recording, FirstVideo)
        await self.cancelled_while(record(), closes)
        self.assertEqual(repr(recording), "<Recording, closed>")

    async def test_it_closes_though_all_threads_of_the_executor_wait_for_that(self):
        executor = concurrent.futures.ThreadPoolExecutor(1)
        self.addCleanup(executor.shutdown)
        recording = self.joined("test:users=0")
        loop = asyncio.get_running_loop()
        loop.set_default_executor(executor)

        async def record():
            async with recording:
                loop.run_in_executor(None, list, recording)
        await asyncio.wait_for(record(), PATIENCE_S)

    async def cancelled_while(self, work, held):
        """Cancels `work` when it is inside the held method, and checks that it waits for the end of that."""
        task = asyncio.create_task(work)
        self.assertTrue(await asyncio.to_thread(held.begun.wait, PATIENCE_S))
        for _ in range(2):
            task.cancel()
            await asyncio.sleep(0.02)
            self.assertFalse(task.done())
        held.go_on.set()
        with self.assertRaises(asyncio.CancelledError):
            await asyncio.wait_for(asyncio.shield(task), PATIENCE_S)

    async def waits(self, before, tasks):
        """Until so many tasks wait, each of which has a descriptor for that."""
        async def look():
            while len(descriptors() - before) < tasks:
                await asyncio.sleep(0.01)
        await asyncio.wait_for(look(), PATIENCE_S)

    async def all(self, recording):
        return [event async for event in recording]

    async def until(self, recording, kind):
        async def look():
            async for event in recording:
                if isinstance(event, kind):
                    return
        await asyncio.wait_for(look(), PATIENCE_S)


if __name__ == "__main__":
    unittest.main()
