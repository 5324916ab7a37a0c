# SPDX-License-Identifier: Apache-2.0
"""Runs of zelta-record and zelta-view, and what is told of a page that is open."""
import glob
import json
import os
import resource
import shutil
import subprocess
import tempfile
import urllib.error
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("ZELTA_BIN", f"{ROOT}/build/release/bin")

# When each user's picture turns white, in ms of the page's clock.
WATCH = """
window.seen = {};
window.lags = {};
window.faults = [];
addEventListener('error', event => faults.push(event.message));
addEventListener('unhandledrejection', event => faults.push(String(event.reason)));
// What a user's place says went wrong, if only for a moment.
addEventListener('load', () => setInterval(() => {
  for (const track of tracks) for (const layer of track.layers) if (layer.fault) faults.push(layer.fault);
}, 10));
const watchLayer = (layer, list) => {
  const paint = new OffscreenCanvas(8, 8).getContext('2d', {willReadFrequently: true});
  let lit = true;
  const look = (now, frame) => {
    paint.drawImage(layer.video, 0, 0, 8, 8);
    const white = paint.getImageData(4, 4, 1, 1).data[0] > 128;
    const at = clock.at + (frame.expectedDisplayTime - clock.since) * clock.speed;
    if (white && !lit && clock.runs) list.push(at);
    lit = white;
    // How late the picture is, and how late the player says that it is.
    if (clock.runs && layer.file) list.lag.push([at, at - layer.file.begin_ms - frame.mediaTime * 1000, clock.now() - layer.atMs]);
    layer.video.requestVideoFrameCallback(look);
  };
  layer.video.requestVideoFrameCallback(look);
};
window.watch = () => {
  for (const track of tracks) {
    const list = seen[track.user.uid] = [];
    list.lag = lags[track.user.uid] = [];
    for (const layer of track.layers) watchLayer(layer, list);
  }
};
"""


def require(holds, what):
    if not holds:
        raise AssertionError(what)


class Recorder:
    """A run of zelta-record in a folder of its own."""

    def __init__(self, server, *arguments):
        self.root = tempfile.mkdtemp(prefix="zelta-view-")
        self.process = subprocess.Popen(
            [f"{BIN}/zelta-record", "room", "--json", "--server", server,
             "--record-file-root-dir", self.root, *arguments],
            stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.communicate(timeout=30)
        shutil.rmtree(self.root, ignore_errors=True)

    def wait_for(self, name, count=1):
        for line in self.process.stdout:
            count -= json.loads(line)["event"] == name
            if count == 0:
                return
        raise AssertionError(f"the recording ended before {name}")

    def folder(self):
        path, = glob.glob(f"{self.root}/**/recording.json", recursive=True)
        return os.path.dirname(path)

    def end(self):
        self.process.communicate(timeout=40)
        return self.folder()


class Viewer:
    """A run of zelta-view."""

    def __init__(self, folder, *arguments, environment=None, descriptors=None):
        def bound():
            if descriptors:
                resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))

        self.cache = tempfile.mkdtemp(prefix="zelta-view-cache-")
        self.process = subprocess.Popen(
            [f"{BIN}/zelta-view", folder, "--json", "--cache", self.cache, *arguments],
            stdout=subprocess.PIPE, text=True, env={**os.environ, **(environment or {})},
            preexec_fn=bound)
        line = self.process.stdout.readline()
        require(line, "zelta-view didn't start")
        self.event = json.loads(line)
        self.url = self.event.get("url")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.communicate(timeout=10)
        shutil.rmtree(self.cache, ignore_errors=True)

    def get(self, path, **headers):
        """Status, headers, body."""
        ask = urllib.request.Request(self.url + path, headers=headers)
        try:
            with urllib.request.urlopen(ask, timeout=10) as answer:
                return answer.status, answer.headers, answer.read()
        except urllib.error.HTTPError as error:
            return error.code, error.headers, error.read()
