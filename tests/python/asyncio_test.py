# SPDX-License-Identifier: Apache-2.0
"""The loop of asyncio: events without threads, and nothing left behind by what is cancelled."""

import asyncio
import os
import signal
import unittest

from recording_test import recorder_pid
from support import PATIENCE_S, Fixture
from zelta_recording import FirstVideo, Joined, Left, Recording, SessionError, UserJoined


def descriptors():
    # Without the one that the folder is read by.
    return {int(name) for name in os.listdir("/proc/self/fd") if os.path.lexists(f"/proc/self/fd/{name}")}


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
