# SPDX-License-Identifier: Apache-2.0
"""Records the channel "meeting" below the current folder until it ends, or Ctrl-C. The argument is a
configuration file that names the channel server. Exit status 0: recorded, 1: not."""

import sys

from zelta_recording import Left, Recording, UserJoined, ZeltaError


def main() -> int:
    with Recording("my-app") as recording:
        try:
            recording.join("meeting", cfg_file_path=sys.argv[1] if len(sys.argv) > 1 else None)
            for event in recording:
                match event:
                    case UserJoined(uid=uid):
                        print(f"user {uid} is recorded in {event.storage_dir}", flush=True)
                    case Left(reason=reason):
                        print(f"the recorder has left: {reason!r}")
        except KeyboardInterrupt:
            print("stopping")
        except ZeltaError as error:
            print(error, file=sys.stderr)
            return 1
    # Here the files are complete.
    for file in sorted(recording.folder.iterdir()):
        print(file)
    return 0


if __name__ == "__main__":
    sys.exit(main())
