# SPDX-License-Identifier: Apache-2.0
"""What disturbs a recording: losses that are wanted, in a network namespace of our own, and a busy
machine."""
import contextlib
import subprocess


@contextlib.contextmanager
def drop(percent):
    """So many of all UDP packets, in both directions."""
    if percent:
        subprocess.run(["nft", "-f", "-"], check=True, text=True, input=f"""
            table inet loss {{
              chain in {{
                type filter hook input priority 0;
                meta l4proto udp numgen random mod 1000 < {round(percent * 10)} drop;
              }}
            }}
            """)
    try:
        yield
    finally:
        if percent:
            subprocess.run(["nft", "delete", "table", "inet", "loss"], check=True)


def was_busy(recording):
    """Whether the recorder told of too little time or room."""
    with open(f"{recording.folder}/recording_engine.log", encoding="utf-8") as log:
        return any("too busy" in line for line in log)
