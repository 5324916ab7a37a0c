// SPDX-License-Identifier: Apache-2.0
// One of a user's two players: one is heard and seen, the other gets the next file ready.
class Layer {
  constructor(tile) {
    this.video = document.createElement("video");
    this.video.playsInline = true;
    this.video.preload = "auto";
    this.video.muted = true;
    this.video.disableRemotePlayback = true;
    this.video.tabIndex = -1;
    tile.prepend(this.video);
    this.file = null;
    this.fault = "";
    this.tries = 0;
    this.video.addEventListener("error", () => { if (this.file && this.video.error) this.judgeError(); });
    this.video.addEventListener("playing", () => { this.tries = 0; });
  }
  fail(text) { this.fault = text; }
  // A network that fails is tried again, and looks like a file that can't be played when it fails at
  // the file's beginning.
  async judgeError() {
    const { file, lastMs } = this;
    const cut = this.video.error.code === MediaError.MEDIA_ERR_NETWORK;
    const gone = () => this.file !== file || !this.video.error;
    if (!embedded && !this.appended && (cut || !(await isReached(file)))) {
      const wait = Math.min(500 * 2 ** this.tries, kMostWaitMs);
      await pause(wait);
      if (gone()) return;
      const tries = this.tries + 1;
      this.open(file, lastMs);
      this.tries = tries;
    } else if (!gone()) {
      this.fail("This browser can't play this file" + (file.video ? " (" + file.video + ")." : "."));
    }
  }
  get appended() { return this.source !== undefined && this.source !== null; }
  shows(file) { return this.file === file && this.appended === (isCut(file) && mayAppend()); }
  open(file, atMs) {
    this.close();
    this.file = file;
    this.lastMs = atMs;
    const s = Math.max(0, (atMs - file.begin_ms) / 1000);
    if (isCut(file) && mayAppend()) {
      this.source = new AppendedFile(this.video, file, s, (text) => this.fail(text));
    } else {
      this.video.src = urlOf(file);
    }
    this.video.currentTime = s;
  }
  close() {
    if (this.source) this.source.close();
    this.source = null;
    this.fault = "";
    this.tries = 0;
    if (this.file) {
      this.file = null;
      this.video.pause();
      this.video.removeAttribute("src");
      this.video.load();
    }
  }
  get atMs() { return this.file.begin_ms + this.video.currentTime * 1000; }
  // Nothing is there before it.
  get floorMs() { return this.file.begin_ms + (this.appended ? this.source.floorS * 1000 : 0); }
  // What this player knows of the end of its file; 0: nothing.
  get endMs() {
    const s = this.appended ? this.source.endS : this.video.duration;
    return s > 0 && Number.isFinite(s) ? this.file.begin_ms + s * 1000 : 0;
  }
  // Nothing more comes of it, whatever its manifest says of its end.
  get isOver() { return this.video.ended || (!this.file.open && this.video.duration > 0 && this.video.currentTime >= this.video.duration - 0.05); }
  get plays() { return this.file !== null && !this.isOver && !this.fault && !this.video.paused && !this.video.seeking && this.video.readyState >= 3; }
  get isReady() { return this.file !== null && (this.fault !== "" || this.isOver || (this.video.readyState >= 3 && !this.video.seeking)); }
  seek(ms) {
    const s = Math.max(0, (ms - this.file.begin_ms) / 1000);
    this.lastMs = ms;
    if (this.appended && !this.source.has(s)) return this.open(this.file, ms);
    this.video.currentTime = Math.max(s, (this.floorMs - this.file.begin_ms) / 1000);
  }
  // Where it should be, and as fast as brings it there.
  follow(ms) {
    if (this.fault) return;
    this.lastMs = ms;
    // Played again it would begin anew.
    if (this.video.ended && ms > this.atMs - kJumpMs) return;
    const end = this.video.duration;
    if (end > 0 && Number.isFinite(end) && (ms - this.file.begin_ms) / 1000 >= end) return;
    const early = ms < this.floorMs;
    if (!clock.runs || early) {
      if (!this.video.paused) this.video.pause();
      const due = Math.max(ms, this.floorMs);
      if ((early || !this.video.seeking) && Math.abs(this.atMs - due) > kHoldMs + 20) this.seek(due);
      return;
    }
    if (this.video.paused) this.video.play().catch((error) => { if (error.name === "NotAllowedError") setPlaying(false); });
    // One that looks for media where none is, or no longer is, would do so for ever.
    if (this.video.seeking) {
      if (this.appended && !this.source.has(this.video.currentTime)) this.open(this.file, ms);
      return;
    }
    const off = this.atMs - ms;
    // Sought a little ahead of where it is now: seeking takes its time.
    if (Math.abs(off) > kJumpMs * clock.speed) return this.seek(ms + 60 * clock.speed);
    this.nudged = Math.abs(off) > (this.nudged ? kHoldMs : kNudgeMs);
    const nudge = !this.nudged ? 0 : Math.max(-kMostNudge, Math.min(kMostNudge, -off / 1000 / kNudgeS));
    const rate = clock.speed * (1 + nudge);
    if (Math.abs(this.video.playbackRate - rate) > 0.004) this.video.playbackRate = rate;
  }
}

// Whether the server has this file and says so.
async function isReached(file) {
  try {
    return (await fetch(urlOf(file), { headers: { Range: "bytes=0-0" }, cache: "no-store" })).status < 500;
  } catch {
    return false;
  }
}
