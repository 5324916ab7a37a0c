# SPDX-License-Identifier: Apache-2.0
"""A headless Chromium with a camera that flashes and a microphone that beeps, driven by its
DevTools protocol."""
import base64
import json
import os
import shutil
import signal
import subprocess
import tempfile
import urllib.request

import websocket

FLAGS = [
    "--headless", "--no-sandbox", "--use-fake-ui-for-media-stream",
    "--use-fake-device-for-media-stream", "--allow-loopback-in-peer-connection",
    "--disable-features=WebRtcHideLocalIpsWithMdns", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--no-first-run", "--disable-gpu",
    "--autoplay-policy=no-user-gesture-required", "--disable-background-timer-throttling",
    "--disable-renderer-backgrounding", "--disable-backgrounding-occluded-windows",
    "--disable-dev-shm-usage", "--remote-debugging-port=0", "--remote-allow-origins=*",
]

# In place of the camera and the microphone: each second, on the wall clock, a white picture and a
# tone of 1 kHz, 100 ms long, begin together.
MARKED_MEDIA = """
navigator.mediaDevices.getUserMedia = async wanted => {
  const canvas = document.createElement('canvas');
  canvas.width = 640;
  canvas.height = 360;
  const paint = canvas.getContext('2d');
  const sound = new AudioContext({sampleRate: 48000, latencyHint: 'interactive'});
  const tone = sound.createOscillator();
  const gain = sound.createGain();
  const out = sound.createMediaStreamDestination();
  tone.frequency.value = 1000;
  gain.gain.value = 0;
  tone.connect(gain).connect(out);
  tone.start();
  await sound.resume();
  let frame = 0;
  let next = 0;
  setInterval(() => {
    const now = Date.now();
    const into = now % 1000;
    // The tone is put into the sound's own timeline a little before it is due.
    const second = Math.floor(now / 1000) + 1;
    if (into > 600 && second !== next) {
      next = second;
      const at = sound.currentTime + (1000 - into) / 1000;
      gain.gain.setValueAtTime(0.7, at);
      gain.gain.setValueAtTime(0, at + 0.1);
    }
    paint.fillStyle = into < 100 ? '#fff' : '#000';
    paint.fillRect(0, 0, 640, 360);
    // Something that changes, so that every frame is a picture.
    paint.fillStyle = '#888';
    paint.fillRect(frame++ % 40 * 16, 340, 16, 16);
  }, 20);
  const made = new MediaStream();
  if (wanted.video) made.addTrack(canvas.captureStream(25).getVideoTracks()[0]);
  if (wanted.audio) made.addTrack(out.stream.getAudioTracks()[0]);
  return made;
};
"""


def find_chromium():
    for name in ["chromium-headless-shell", "chromium"]:
        path = shutil.which(name)
        if path:
            return path
    raise SystemExit("no Chromium: scripts/install-deps.sh browser installs chromium-headless-shell")


class Browser:
    """One process with a profile of its own.

    `sound`: the environment of a server whose microphone it has in place of one that beeps."""

    def __init__(self, prefix=(), sound=None):
        flags = [one for one in FLAGS if not sound or one != "--use-fake-device-for-media-stream"]
        self.profile = tempfile.mkdtemp(prefix="zelta-browser-")
        self.process = subprocess.Popen(
            [*prefix, find_chromium(), *flags, f"--user-data-dir={self.profile}", "about:blank"],
            env={**os.environ, **(sound or {})}, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            text=True, start_new_session=True)
        self.port = None
        for line in self.process.stderr:
            # "DevTools listening on ws://127.0.0.1:PORT/devtools/browser/ID"
            if "DevTools listening on" in line:
                self.port = int(line.rsplit(":", 1)[1].split("/")[0])
                break
        if self.port is None:
            raise SystemExit("Chromium didn't start")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def open(self, url, script=MARKED_MEDIA):
        """A page of its own, before whose scripts `script` has run."""
        ask = urllib.request.Request(f"http://127.0.0.1:{self.port}/json/new?about:blank",
                                     method="PUT")
        with urllib.request.urlopen(ask, timeout=10) as answer:
            target = json.load(answer)
        return Page(target["webSocketDebuggerUrl"], url, script)

    def kill(self):
        """As a crash would: nobody says goodbye."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.process.stderr.close()
        shutil.rmtree(self.profile, ignore_errors=True)


class Page:
    def __init__(self, address, url, script):
        self.socket = websocket.create_connection(address, timeout=30, suppress_origin=True)
        self.number = 0
        self.call("Page.enable")
        self.call("Page.addScriptToEvaluateOnNewDocument", source=script)
        self.call("Page.navigate", url=url)

    def call(self, method, **parameters):
        self.number += 1
        self.socket.send(json.dumps({"id": self.number, "method": method, "params": parameters}))
        while True:
            answer = json.loads(self.socket.recv())
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]

    def evaluate(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, awaitPromise=True,
                           returnByValue=True, userGesture=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait_for(self, expression, seconds=20):
        """Until it is true; the page says when, by itself."""
        # While the page loads there may be no body yet.
        asked = (f"new Promise(yes => {{ const end = Date.now() + {seconds * 1000};"
                 f"const holds = () => document.body && ({expression});"
                 f"const look = () => holds() ? yes(true) :"
                 f" Date.now() > end ? yes(false) : setTimeout(look, 20); look(); }})")
        if not self.evaluate(asked):
            state = self.evaluate("document.body.dataset.state + ': ' + document.body.innerText")
            raise AssertionError(f"never came true: {expression}; the page says: {state}")

    def screenshot(self, path, width, height, dark=False):
        """A PNG of the page in a window of this size."""
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=width < 600)
        self.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        picture = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(picture))

    def close(self):
        """As a user closes it: what the page does when it is hidden is done."""
        self.call("Page.close")
        self.socket.close()
