#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Browsers publish to the recorder by WHIP, or to a Janus gateway that it records from, and their files are looked at. Arguments: names of
cases; none: all. Exit status 1 when one fails."""
import glob
import json
import os
import queue
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path += [f"{ROOT}/scripts/webrtc", f"{ROOT}/scripts/media"]

import browser as chromium  # noqa: E402
import janus_cases  # noqa: E402
import marks  # noqa: E402

SYNC_LIMIT_MS = 40
FIRST_PICTURE_MS = 1000
# From the last media of a recorder that was killed to the first in the next one's file.
AGAIN_MS = 2000
# Shorter than the recorder's patience with a silent user.
CUT_S = 6
BIN = os.environ.get("ZELTA_BIN", f"{ROOT}/build/release/bin")


def free_port():
    with socket.socket() as tried:
        tried.bind(("127.0.0.1", 0))
        return tried.getsockname()[1]


def require(holds, what):
    if not holds:
        raise AssertionError(what)


class Recording:
    """One run of zelta-record, whose events come as they happen."""

    def __init__(self, *arguments, server=None, channel="room"):
        self.root = tempfile.mkdtemp(prefix="zelta-webrtc-")
        self.port = free_port()
        self.process = subprocess.Popen(
            [f"{BIN}/zelta-record", channel, "--json", "--server",
             server or f"whip:127.0.0.1:{self.port}", "--record-file-root-dir", self.root,
             *arguments],
            stdout=subprocess.PIPE, text=True)
        self.events = queue.Queue()
        self.seen = []  # the names of all events
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        # After joining; of other servers than the recorder itself there is no page.
        self.url = self.wait_for("page")["url"] if not server else self.wait_for("joined")["channel"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()
        shutil.rmtree(self.root, ignore_errors=True)

    def read(self):
        for line in self.process.stdout:
            event = json.loads(line)
            self.seen.append(event["event"])
            self.events.put(event)
        self.events.put(None)

    def wait_for(self, name, seconds=20, **values):
        """The next event of this name with these values; others are passed over."""
        until = time.monotonic() + seconds
        while True:
            try:
                event = self.events.get(timeout=max(until - time.monotonic(), 0.001))
            except queue.Empty:
                raise AssertionError(f"no {name} {values} within {seconds} s") from None
            require(event is not None, f"the recording ended before {name}")
            if event["event"] == name and all(event.get(k) == v for k, v in values.items()):
                return event

    def recorder_pid(self):
        return int(subprocess.check_output(
            ["pgrep", "-P", str(self.process.pid), "ZeltaCoreServic"], text=True))

    def end(self):
        """The manifest, once all files are complete."""
        self.process.send_signal(signal.SIGTERM)
        self.status = self.process.wait(timeout=30)
        path, = glob.glob(f"{self.root}/**/recording.json", recursive=True)
        self.folder = os.path.dirname(path)
        with open(path, encoding="utf-8") as text:
            self.manifest = json.load(text)
        return self.manifest

    def files_of(self, uid):
        return [f for f in self.manifest["files"] if f["uid"] == uid]

    def lines(self):
        """What users wrote."""
        with open(f"{self.folder}/messages.jsonl", encoding="utf-8") as text:
            return [json.loads(line) for line in text]

    def path(self, file):
        return f"{self.folder}/{file['name']}"


def publish(page_of, recording, uid, codec="", extra=""):
    codec = f"&codec={codec}" if codec else ""
    page = page_of.open(f"{recording.url}?auto={uid}{codec}{extra}")
    page.wait_for("document.body.dataset.state === 'recording'")
    return page


def judge(recording, file, least_marks, sync=SYNC_LIMIT_MS):
    path = recording.path(file)
    flash, beep = marks.flashes(path), marks.beeps(path)
    require(len(flash) >= least_marks, f"{len(flash)} flashes, not {least_marks}")
    require(len(beep) >= least_marks, f"{len(beep)} beeps, not {least_marks}")
    worst, mean = marks.sync_ms(flash, beep, True)
    require(abs(worst) <= sync, f"sync {worst} ms")
    errors = marks.decode_errors(path)
    require(not errors, f"{errors} decode errors")
    first_ms = marks.first_picture_ms(path)
    return {"worst_ms": worst, "mean_ms": mean, "first_ms": first_ms, "flashes": len(flash),
            "beeps": len(beep), "seconds": marks.duration(path), "frames": marks.frames(path)}


def one_user(codec, video_codec):
    with Recording() as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7, codec)
        joined = recording.wait_for("user joined", uid=7)
        time.sleep(6)
        page.evaluate("document.getElementById('leave').click()")
        page.wait_for("document.body.dataset.state === 'left'")
        recording.wait_for("user offline", uid=7)
        recording.end()
        file, = recording.files_of(7)
        require(file["video_codec"] == video_codec, f"the picture is {file['video_codec']}")
        require(file["audio_codec"] == "opus", f"the sound is {file['audio_codec']}")
        found = judge(recording, file, 4)
        require(5.5 < found["seconds"] < 8, f"{found['seconds']} s long")
        require(found["first_ms"] < FIRST_PICTURE_MS, f"first picture after {found['first_ms']} ms")
        require(recording.status == 0, f"exit status {recording.status}")
        return {**found, "joined": joined.get("uid")}


def users_come_and_go():
    with Recording() as recording, chromium.Browser() as first, chromium.Browser() as second:
        stays = publish(first, recording, 1)
        leaves = publish(first, recording, 2)
        dies = publish(second, recording, 3)
        time.sleep(2)
        leaves.close()
        recording.wait_for("user offline", uid=2, seconds=5)
        second.kill()
        begun = time.monotonic()
        recording.wait_for("user offline", uid=3, seconds=12)
        noticed = time.monotonic() - begun
        again = publish(first, recording, 2)
        named = publish(first, recording, "Zo%C3%AB")
        named.close()
        time.sleep(3)
        again.close()
        recording.wait_for("user offline", uid=2, seconds=5)
        stays.close()
        recording.wait_for("user offline", uid=1, seconds=5)
        recording.end()
        require(len(recording.files_of(1)) == 1, "user 1 has other than one file")
        require(len(recording.files_of(2)) == 2, "user 2 has other than two files")
        # Whether pictures will come again nobody knows for a while.
        require(recording.files_of(3), "user 3 has no file")
        require(list(recording.manifest["names"].values()) == ["Zoë"], "nobody is called Zoë")
        for file in recording.manifest["files"]:
            require(not marks.decode_errors(recording.path(file)), f"{file['name']} is broken")
        judge(recording, recording.files_of(1)[0], 6)
        del dies
        return {"killed_noticed_s": round(noticed, 1)}


def muted_and_dark():
    with Recording() as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7)
        time.sleep(3)
        page.evaluate("document.getElementById('sound').click()")
        time.sleep(3)
        page.evaluate("document.getElementById('sound').click()")
        page.evaluate("document.getElementById('camera').click()")
        time.sleep(3)
        page.evaluate("document.getElementById('camera').click()")
        time.sleep(3)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        files = recording.files_of(7)
        heard = [at + f["first_utc_ms"] / 1000 for f in files for at in marks.beeps(recording.path(f))]
        seconds = max(heard) - min(heard)
        require(9 < seconds < 13, f"beeps over {seconds} s")
        # Three are silent in the middle.
        require(len(heard) <= round(seconds) + 1 - 2, f"{len(heard)} beeps: nothing was muted")
        return {"files": len(files), "beeps": len(heard)}


def layered(arguments, width):
    """Of a picture at two sizes one is recorded."""
    with Recording(*arguments) as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7, "vp8", "&simulcast=1")
        time.sleep(5)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        file = recording.files_of(7)[-1]
        require(file["width"] == width, f"{file['width']} wide")
        require(marks.duration(recording.path(file)) > 3, "the size changes on and on")
        return judge(recording, file, 3)


def lossy():
    """Of all packets to and from the recorder one in fifty is dropped. In a namespace of ours."""
    with Recording() as recording, chromium.Browser() as browser:
        subprocess.run(["nft", "-f", "-"], check=True, text=True, input="""
            table inet loss {
              chain in {
                type filter hook input priority 0;
                meta l4proto udp numgen random mod 1000 < 20 drop;
              }
            }
            """)
        page = publish(browser, recording, 7, "h264")
        time.sleep(12)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        subprocess.run(["nft", "flush", "ruleset"], check=True)
        file, = recording.files_of(7)
        found = judge(recording, file, 9)
        require(found["frames"] >= found["seconds"] * 25 - 3, f"{found['frames']} pictures")
        return found


def recorder_is_killed():
    with Recording() as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7)
        recording.wait_for("user joined", uid=7)
        time.sleep(3)
        os.kill(recording.recorder_pid(), signal.SIGKILL)
        killed = time.time() * 1000
        recording.wait_for("user joined", uid=7, seconds=15)
        page.wait_for("document.body.dataset.state === 'recording'")
        time.sleep(3)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        files = recording.files_of(7)
        require(len(files) == 2, f"{len(files)} files")
        gap = files[1]["first_utc_ms"] - files[0]["last_utc_ms"]
        for file in files:
            require(not marks.decode_errors(recording.path(file)), f"{file['name']} is broken")
        require(gap <= AGAIN_MS, f"{gap} ms are missing")
        return {"gap_ms": gap, "from_kill_ms": round(files[1]["first_utc_ms"] - killed)}


def write(page, *lines):
    for line in lines:
        page.wait_for("!document.getElementById('keep').disabled")
        page.evaluate(f"document.getElementById('line').value = {json.dumps(line)}")
        page.evaluate("document.getElementById('note').requestSubmit()")


def lines_are_kept():
    """What users write stands in order beside their media, over the death of a recorder; what can't
    be kept is told."""
    with Recording() as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7)
        recording.wait_for("user joined", uid=7)
        begun = time.time() * 1000
        write(page, "first \u2713", "second")
        page.evaluate("call.notes.send(new Uint8Array(3))")
        time.sleep(1)
        os.kill(recording.recorder_pid(), signal.SIGKILL)
        recording.wait_for("user joined", uid=7, seconds=15)
        page.wait_for(f"{STATE} === 'recording'")
        write(page, "third")
        # It takes a while until it is there, and the end doesn't wait for what is on its way.
        page.wait_for("call.notes.bufferedAmount === 0")
        time.sleep(0.5)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        lines = recording.lines()
        require([line["text"] for line in lines] == ["first \u2713", "second", "third"], lines)
        require(all(line["uid"] == 7 and line["label"] == "notes" for line in lines), lines)
        require(all(0 < line["utc_ms"] - begun < 20_000 for line in lines), lines)
        require(recording.manifest["messages"] == {"7": 3}, recording.manifest["messages"])
        told = [one["reason"] for one in recording.manifest["missing"] if one["medium"] == "messages"]
        require(told == ["binary messages aren't kept, only text is"], told)
        return {"later_ms": [round(line["utc_ms"] - begun) for line in lines]}


class Cut:
    """The way of one user's media, cut and mended in a namespace of ours."""

    def __init__(self, port):
        self.rule(f"""
            table inet cut {{
              chain in {{
                type filter hook input priority 0;
                udp dport {port} drop;
                udp sport {port} drop;
              }}
            }}
            """)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.rule("delete table inet cut")

    @staticmethod
    def rule(text):
        subprocess.run(["nft", "-f", "-"], check=True, text=True, input=text)


def media_port(page):
    candidate = page.evaluate("/a=candidate:.*/.exec(call.peer.remoteDescription.sdp)[0]")
    return int(candidate.split()[5])


UFRAG = "/a=ice-ufrag:.*/.exec(call.peer.remoteDescription.sdp)[0]"
STATE = "document.body.dataset.state"


def network_changes():
    with Recording() as recording, chromium.Browser() as browser:
        page = publish(browser, recording, 7, "h264")
        time.sleep(3)
        before = page.evaluate(UFRAG)
        page.evaluate("dispatchEvent(new Event('online'))")
        page.wait_for(f"{UFRAG} !== '{before}'")
        page.wait_for("call.peer.iceConnectionState === 'connected'")
        time.sleep(2)
        before = page.evaluate(UFRAG)
        with Cut(media_port(page)):
            time.sleep(CUT_S)
            mended = time.time()
        page.wait_for(f"{STATE} === 'recording'")
        require(page.evaluate(UFRAG) != before, "ICE wasn't restarted when media stopped")
        time.sleep(4)
        page.close()
        recording.wait_for("user offline", uid=7)
        recording.end()
        came = [name for name in recording.seen if name in ("user joined", "user offline")]
        require(came == ["user joined", "user offline"], f"they came and went: {came}")
        # Without pictures sound goes on in a file of its own; nothing is between the files.
        files = recording.files_of(7)
        for one, after in zip(files, files[1:]):
            apart = after["first_utc_ms"] - one["last_utc_ms"]
            require(abs(apart) <= 40, f"{one['name']} and {after['name']} are {apart} ms apart")
        require(all(not marks.decode_errors(recording.path(f)) for f in files), "a file is broken")
        heard = sorted(f["first_utc_ms"] / 1000 + at for f in files
                       for at in marks.beeps(recording.path(f)))
        missing = max(after - one for one, after in zip(heard, heard[1:]))
        require(CUT_S - 1 < missing < CUT_S + 2, f"{missing} s without sound")
        again = min(f["first_utc_ms"] for f in files
                    if f["video_codec"] and f["last_utc_ms"] > mended * 1000) / 1000 - mended
        require(again < 1.5, f"pictures came again after {again} s")
        return {"files": len(files), "silent_s": round(missing, 2), "pictures_s": round(again, 2)}


def page_says_that_it_records():
    """When media may be recorded, and not before; and to those who can't see it, too."""
    said = ("(() => { const it = document.getElementById('recorded'); const told = it.parentElement;"
            "return told.ariaLive === 'assertive' && getComputedStyle(told).display !== 'none'"
            " ? it.checkVisibility() && it.innerText : 'nobody is told'; })()")
    with Recording() as recording, chromium.Browser() as browser:
        page = browser.open(recording.url)
        page.wait_for("document.getElementById('publish')")
        require(page.evaluate(said) is False, "it is said before anybody publishes")
        page.call("Page.addScriptToEvaluateOnNewDocument", source="""
            const Real = RTCPeerConnection;
            RTCPeerConnection = class extends Real {
              setRemoteDescription(answer) {
                return new Promise((go) => { globalThis.letGo = go; })
                  .then(() => super.setRemoteDescription(answer));
              }
            };
            """)
        page.call("Page.navigate", url=f"{recording.url}?auto=7")
        page.wait_for("globalThis.letGo")
        require(page.evaluate(STATE) == "connecting", "it doesn't connect")
        require(page.evaluate(said) is False, "it is said before there is a connection")
        page.evaluate("letGo()")
        page.wait_for(f"{said} === '\u25cf This call is recorded.'")
        require(page.evaluate("call.peer.connectionState") == "connected", "it isn't connected")
        page.evaluate("document.getElementById('leave').click()")
        page.wait_for(f"{STATE} === 'left'")
        require(page.evaluate(said) is False, "it is still said")
        recording.end()
        return {}


CASES = {
    "vp8": lambda: one_user("vp8", "vp8"),
    "h264": lambda: one_user("h264", "h264"),
    "largest_layer": lambda: layered([], 320),
    "smallest_layer": lambda: layered(["--stream-type", "1"], 160),
    "users_come_and_go": users_come_and_go,
    "muted_and_dark": muted_and_dark,
    "lossy": lossy,
    "recorder_is_killed": recorder_is_killed,
    "network_changes": network_changes,
    "lines_are_kept": lines_are_kept,
    "page_says_that_it_records": page_says_that_it_records,
    **janus_cases.cases(sys.modules[__name__]),
}


NEED_NAMESPACE = {"lossy", "network_changes", *janus_cases.cases(None)}


def enter_namespace():
    """A network of our own, in which packets can be dropped and nothing leaves the machine."""
    if os.environ.get("ZELTA_NAMESPACE"):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    alone = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-rn"]
    if subprocess.run([*alone, "true"], check=False).returncode != 0:
        print("no network namespace can be had: what needs one is left out", flush=True)
        for name in NEED_NAMESPACE:
            CASES.pop(name, None)
        return
    os.environ["ZELTA_NAMESPACE"] = "1"
    os.execvp("unshare", [*alone, sys.executable, *sys.argv])


def main():
    enter_namespace()
    failed = 0
    for name in sys.argv[1:] or CASES:
        begun = time.monotonic()
        try:
            found = CASES[name]()
            print(f"ok {name} ({time.monotonic() - begun:.1f} s): {json.dumps(found)}", flush=True)
        except Exception:  # one case must not hide the others
            failed += 1
            print(f"FAILED {name}:\n{traceback.format_exc()}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
