# SPDX-License-Identifier: Apache-2.0
"""Records all users in one picture, as a grid that is drawn anew whenever one comes or goes, by asyncio.
Arguments: a configuration file that names the channel server, and for how many seconds."""

import asyncio
import math
import sys

from zelta_recording import MixedFile, Recording, Region, UserJoined, UserOffline


def grid(users: list[int]) -> list[Region]:
    columns = math.ceil(math.sqrt(len(users)))
    rows = math.ceil(len(users) / max(columns, 1))
    return [Region(uid, x=place % columns / columns, y=place // columns / rows, width=1 / columns,
                   height=1 / rows, fit=True) for place, uid in enumerate(users)]


async def follow(recording: Recording) -> None:
    users: list[int] = []
    async for event in recording:
        match event:
            case UserJoined(uid=uid) if uid not in users:
                users.append(uid)
            case UserOffline(uid=uid) if uid in users:
                users.remove(uid)
            case _:
                continue
        recording.set_layout(grid(users))
        print(f"{len(users)} users: {users}", flush=True)


async def main() -> None:
    async with Recording("my-app") as recording:
        recording.join("meeting", cfg_file_path=sys.argv[1], is_mixing_enabled=True,
                       mixed_video_audio=MixedFile.HIGH, mix_resolution="1280,720,15,1000")
        try:
            await asyncio.wait_for(follow(recording), timeout=float(sys.argv[2]))
        except asyncio.TimeoutError:
            pass
    print(f"recorded in {recording.folder}")


if __name__ == "__main__":
    asyncio.run(main())
