# SPDX-License-Identifier: Apache-2.0
"""A microphone that several browsers share: a PulseAudio of our own, into which sounds are played."""
import os
import select
import shutil
import subprocess
import tempfile

# Chromium offers no sink's monitor, so one that has another name.
MODULES = ["module-null-sink sink_name=room rate=48000 channels=1",
           "module-remap-source master=room.monitor source_name=microphone"]
END_LIMIT_S = 10


class SoundSource:
    """Lives in a folder of its own, and knows nothing of the machine's sound."""

    def __init__(self):
        self.home = tempfile.mkdtemp(prefix="zelta-sound-")
        socket = f"{self.home}/native"
        self.environment = {"HOME": self.home, "XDG_RUNTIME_DIR": self.home,
                            "PULSE_SERVER": f"unix:{socket}"}
        modules = [f"module-native-protocol-unix socket={socket} auth-anonymous=1", *MODULES]
        # It returns once the daemon can be asked, which ends by itself when nobody asks for long.
        self.run("pulseaudio", "-n", "--daemonize=yes", "--use-pid-file=yes", "--exit-idle-time=30",
                 *(part for module in modules for part in ("-L", module)))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with open(f"{self.home}/pulse/pid", encoding="utf-8") as written:
            gone = os.pidfd_open(int(written.read()))
        self.run("pulseaudio", "--kill")
        # It writes into its folder until the end.
        select.select([gone], [], [], END_LIMIT_S)
        os.close(gone)
        shutil.rmtree(self.home, ignore_errors=True)

    def run(self, *command):
        subprocess.run(command, check=True, env={**os.environ, **self.environment},
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def play(self, path):
        """Until its end."""
        self.run("paplay", "--device=room", path)
