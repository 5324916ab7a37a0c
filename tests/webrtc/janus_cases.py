# SPDX-License-Identifier: Apache-2.0
"""A Janus gateway of the test's own, to which browsers publish, and what the recorder makes of its
room. Cases for browser_test.py."""
import http.server
import json
import shutil
import socket
import subprocess
import tempfile
import threading
import time

import browser as chromium
import marks

ADDRESS = "10.77.0.1"

# Publishes what the browser's camera and microphone give, as the query says: gateway, room, pin,
# display. Answers come by transaction; what comes unasked isn't needed.
PAGE = """<!DOCTYPE html><meta charset="utf-8"><body data-state="opened"><script>
const asked = new URLSearchParams(location.search);
const replies = new Map();
let session, handle, count = 0;
const socket = new WebSocket(asked.get('gateway'), 'janus-protocol');
const say = (janus, more = {}) => new Promise((good, bad) => {
  const transaction = String(++count);
  replies.set(transaction, {good, bad});
  const about = session ? {session_id: session} : {};
  if (asked.get('secret')) about.apisecret = asked.get('secret');
  if (handle) about.handle_id = handle;
  socket.send(JSON.stringify({janus, transaction, ...about, ...more}));
});
socket.onmessage = message => {
  const said = JSON.parse(message.data);
  if (said.janus === 'ack' || !replies.has(said.transaction)) return;
  const {good, bad} = replies.get(said.transaction);
  replies.delete(said.transaction);
  const data = said.plugindata && said.plugindata.data;
  said.error || data && data.error ? bad(new Error(JSON.stringify(said))) : good(said);
};
const ask = (request, jsep) => say('message', {body: request, jsep});
let peer, media, chat;
async function publish(what) {
  peer = new RTCPeerConnection();
  chat = peer.createDataChannel('chat');
  media = await navigator.mediaDevices.getUserMedia(what);
  for (const track of media.getTracks()) {
    const line = peer.addTransceiver(track, {direction: 'sendonly', streams: [media]});
    if (track.kind !== 'video') continue;
    const codecs = RTCRtpSender.getCapabilities('video').codecs;
    line.setCodecPreferences(codecs.filter(c => c.mimeType === 'video/VP8' ||
                                                c.mimeType === 'video/rtx'));
  }
  peer.onicecandidate = e => say('trickle', {candidate: e.candidate || {completed: true}});
  peer.onconnectionstatechange = () => document.body.dataset.state = peer.connectionState;
  await peer.setLocalDescription();
  const answer = await ask({request: 'configure', audio: !!what.audio, video: !!what.video,
                            data: true},
                           peer.localDescription);
  await peer.setRemoteDescription(answer.jsep);
}
async function unpublish() {
  await ask({request: 'unpublish'});
  peer.close();
  document.body.dataset.state = 'silent';
}
socket.onopen = async () => {
  try {
    session = (await say('create')).data.id;
    handle = (await say('attach', {plugin: 'janus.plugin.videoroom'})).data.id;
    const room = asked.get('room');
    await ask({request: 'join', ptype: 'publisher', room: asked.has('numbers') ? +room : room,
               pin: asked.get('pin') || undefined, display: asked.get('display') || undefined});
    await publish({audio: true, video: true});
  } catch (e) { document.body.innerText = String(e); document.body.dataset.state = 'failed'; }
};
</script></body>"""

CONFIG = {
    "janus.jcfg": """
general: {{ configs_folder = "{folder}", debug_level = 4, session_timeout = 60,
            reclaim_session_timeout = {reclaim}, interface = "{address}",
            {secret_line} }}
media: {{ ipv6 = false }}
nat: {{ }}
plugins: {{ }}
""",
    "janus.plugin.videoroom.jcfg": """
general: {{ string_ids = {string_ids} }}
room-{room}: {{ description = "test", publishers = 20, bitrate = 2000000, {pin_line}
                audiocodec = "opus", videocodec = "vp8,h264" }}
""",
    "janus.transport.websockets.jcfg": 'general: {{ ws = true, ws_port = {ws}, ws_ip = "127.0.0.1" }}\n',
    "janus.transport.http.jcfg":
        'general: {{ http = true, port = {http}, ip = "127.0.0.1", base_path = "/janus" }}\n',
}


def free_ports(count):
    held = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in held]
    for one in held:
        one.close()
    return ports


def add_network():
    """Janus finds no way to anybody where there is loopback alone."""
    if "d0@" in subprocess.check_output(["ip", "-o", "link"], text=True):
        return
    for words in ["link add d0 type veth peer name d1", f"addr add {ADDRESS}/24 dev d0",
                  "link set d0 up", "link set d1 up"]:
        subprocess.run(["ip", *words.split()], check=True)


class Gateway:
    """Janus with one room, and a server for the page that publishes there."""

    def __init__(self, room="talk", pin="", string_ids=True, reclaim=0, secret=""):
        add_network()
        self.folder = tempfile.mkdtemp(prefix="zelta-janus-")
        self.room, self.pin, self.string_ids, self.secret = room, pin, string_ids, secret
        self.ws, self.http = free_ports(2)
        values = {"folder": self.folder, "address": ADDRESS, "room": room,
                  "secret_line": f'api_secret = "{secret}"' if secret else "",
                  "pin_line": f'pin = "{pin}",' if pin else "",
                  "string_ids": str(string_ids).lower(), "ws": self.ws, "http": self.http,
                  "reclaim": reclaim}
        for name, text in CONFIG.items():
            with open(f"{self.folder}/{name}", "w", encoding="utf-8") as out:
                out.write(text.format(**values))
        self.settings = f"{self.folder}/settings.json"
        with open(self.settings, "w", encoding="utf-8") as out:
            json.dump({"janus": {"api_secret": secret}} if secret else {}, out)
        self.start()
        self.pages = http.server.ThreadingHTTPServer(("127.0.0.1", 0), PageHandler)
        threading.Thread(target=self.pages.serve_forever, daemon=True).start()

    def start(self):
        self.log = open(f"{self.folder}/log", "w", encoding="utf-8")
        self.process = subprocess.Popen(
            ["janus", "-F", self.folder, "-C", f"{self.folder}/janus.jcfg"],
            stdout=self.log, stderr=subprocess.STDOUT)
        until = time.monotonic() + 10
        for port in [self.ws, self.http]:
            while True:
                try:
                    socket.create_connection(("127.0.0.1", port), timeout=1).close()
                    break
                except OSError:
                    if time.monotonic() > until or self.process.poll() is not None:
                        with open(f"{self.folder}/log", encoding="utf-8") as log:
                            raise AssertionError("Janus doesn't start: " + log.read()) from None
                    time.sleep(0.02)

    def end(self):
        self.process.kill()
        self.process.wait()
        self.log.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
        self.pages.shutdown()
        self.pages.server_close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def server(self, by="ws", port=None):
        return f"janus:{by}://127.0.0.1:{port or getattr(self, by)}/janus"

    def publish(self, browser, display):
        numbers = "" if self.string_ids else "&numbers=1"
        page = browser.open(
            f"http://127.0.0.1:{self.pages.server_port}/?gateway=ws://127.0.0.1:{self.ws}/janus"
            f"&room={self.room}&pin={self.pin}&display={display}&secret={self.secret}{numbers}")
        page.wait_for("document.body.dataset.state === 'connected'")
        return page


class Relay:
    """A way to a port that can be cut, and be there again."""

    def __init__(self, to):
        self.to = to
        self.ends = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.begin()

    def begin(self):
        threading.Thread(target=self.accept, args=[self.listener], daemon=True).start()

    def accept(self, listener):
        while True:
            try:
                near, _ = listener.accept()
            except OSError:
                return
            far = socket.create_connection(("127.0.0.1", self.to))
            self.ends += [near, far]
            for one, other in [(near, far), (far, near)]:
                threading.Thread(target=self.pass_on, args=[one, other], daemon=True).start()

    @staticmethod
    def pass_on(one, other):
        try:
            while data := one.recv(65536):
                other.sendall(data)
            other.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def cut(self):
        for end in [self.listener, *self.ends]:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            end.close()
        self.ends = []

    def mend(self):
        self.listener = socket.create_server(("127.0.0.1", self.port))
        self.begin()


class PageHandler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        body = PAGE.encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/html; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def by(transport, kit, **gateway):
    """One publisher, who publishes twice, and one who stays; by this transport."""
    with Gateway(**gateway) as janus, chromium.Browser() as browser:
        key = ["--channel-key", janus.pin] if janus.pin else []
        key += ["--settings", janus.settings]
        with kit.Recording(*key, server=janus.server(transport), channel=janus.room) as recording:
            page = janus.publish(browser, "7")
            recording.wait_for("user joined", uid=7)
            other = janus.publish(browser, "8")
            recording.wait_for("user joined", uid=8)
            time.sleep(3)
            other.evaluate("chat.send('hello')")
            time.sleep(3)
            page.evaluate("unpublish()")
            recording.wait_for("user offline", uid=7, seconds=3)
            page.evaluate("publish({audio: true, video: true})")
            recording.wait_for("user joined", uid=7, seconds=10)
            time.sleep(2)
            page.close()
            recording.wait_for("user offline", uid=7, seconds=3)
            other.close()
            recording.wait_for("user offline", uid=8, seconds=3)
            recording.end()
            kit.require(recording.status == 0, f"exit status {recording.status}")
            kit.require(not recording.manifest["missing"], str(recording.manifest["missing"]))
            kit.require([(line["uid"], line["text"]) for line in recording.lines()] == [(8, "hello")],
                        str(recording.lines()))
            first, second = recording.files_of(7)
            for file in [first, second]:
                kit.require(file["video_codec"] == "vp8", f"the picture is {file['video_codec']}")
                kit.require(file["audio_codec"] == "opus", f"the sound is {file['audio_codec']}")
            found = kit.judge(recording, first, 4)
            kit.require(found["first_ms"] < kit.FIRST_PICTURE_MS,
                        f"first picture after {found['first_ms']} ms")
            kit.judge(recording, recording.files_of(8)[0], 6)
            kit.require(not marks.decode_errors(recording.path(second)), "the second is broken")
            return found


def connection_is_lost(kit):
    """The way to the gateway is cut for 3 s; media goes on, and nobody is a new user."""
    with Gateway(reclaim=20) as janus, chromium.Browser() as browser:
        way = Relay(janus.ws)
        with kit.Recording(server=janus.server(port=way.port), channel=janus.room) as recording:
            page = janus.publish(browser, "7")
            recording.wait_for("user joined", uid=7)
            time.sleep(2)
            way.cut()
            recording.wait_for("connection interrupted", seconds=5)
            other = janus.publish(browser, "8")
            time.sleep(2)
            way.mend()
            recording.wait_for("user joined", uid=8, seconds=10)
            time.sleep(1)
            # The gateway would wait for a page that is closed, too.
            page.evaluate("unpublish()")
            recording.wait_for("user offline", uid=7, seconds=5)
            recording.end()
            del other
            way.cut()
            file, = recording.files_of(7)
            return kit.judge(recording, file, 5)


def gateway_is_killed(kit):
    """And is there again at once: whoever publishes anew is recorded anew."""
    with Gateway() as janus, chromium.Browser() as browser:
        with kit.Recording(server=janus.server(), channel=janus.room) as recording:
            page = janus.publish(browser, "7")
            recording.wait_for("user joined", uid=7)
            time.sleep(2)
            janus.end()
            page.close()
            janus.start()
            page = janus.publish(browser, "7")
            recording.wait_for("user offline", uid=7, seconds=10)
            recording.wait_for("user joined", uid=7, seconds=10)
            time.sleep(3)
            page.close()
            recording.wait_for("user offline", uid=7, seconds=5)
            recording.end()
            files = recording.files_of(7)
            kit.require(len(files) == 2, f"{len(files)} files")
            for file in files:
                kit.require(not marks.decode_errors(recording.path(file)), "a file is broken")
            return {"gap_ms": files[1]["first_utc_ms"] - files[0]["last_utc_ms"]}


def cases(kit):
    """`kit`: the module that runs them."""
    return {
        "janus": lambda: by("ws", kit, pin="se~cret", secret="s3cret"),
        "janus_http": lambda: by("http", kit, room="1234", string_ids=False),
        "janus_connection_is_lost": lambda: connection_is_lost(kit),
        "janus_is_killed": lambda: gateway_is_killed(kit),
    }
