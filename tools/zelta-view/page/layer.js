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
    this.video.addEventListener("error", () => {
      if (this.file && this.video.error) this.fail("This browser can't play this file" + (this.file.video ? " (" + this.file.video + ")." : "."));
    });
  }
  fail(text) { this.fault = text; }
  get appended() { return this.source !== undefined && this.source !== null; }
  shows(file) { return this.file === file && this.appended === (isCut(file) && mayAppend()); }
  open(file, atMs) {
    this.close();
    this.file = file;
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
    if (this.file) {
      this.file = null;
      this.video.pause();
      this.video.removeAttribute("src");
      this.video.load();
    }
  }
  get atMs() { return this.file.begin_ms + this.video.currentTime * 1000; }
  // Nothing more comes of it, whatever its manifest says of its end.
  get isOver() { return this.video.ended || (!this.file.open && this.video.duration > 0 && this.video.currentTime >= this.video.duration - 0.05); }
  get plays() { return this.file !== null && !this.isOver && !this.fault && !this.video.paused && !this.video.seeking && this.video.readyState >= 3; }
  get isReady() { return this.file !== null && (this.fault !== "" || this.isOver || (this.video.readyState >= 3 && !this.video.seeking)); }
  seek(ms) {
    const s = Math.max(0, (ms - this.file.begin_ms) / 1000);
    if (this.appended && !this.source.has(s)) return this.open(this.file, ms);
    this.video.currentTime = s;
  }
  // Where it should be, and as fast as brings it there.
  follow(ms) {
    if (this.fault) return;
    const end = this.video.duration;
    if (end > 0 && Number.isFinite(end) && (ms - this.file.begin_ms) / 1000 >= end) return;
    if (!clock.runs) {
      if (!this.video.paused) this.video.pause();
      if (!this.video.seeking && Math.abs(this.atMs - ms) > kHoldMs + 20) this.seek(ms);
      return;
    }
    if (this.video.paused) this.video.play().catch((error) => { if (error.name === "NotAllowedError") setPlaying(false); });
    if (this.video.seeking) return;
    const off = this.atMs - ms;
    // Sought a little ahead of where it is now: seeking takes its time.
    if (Math.abs(off) > kJumpMs * clock.speed) return this.seek(ms + 60 * clock.speed);
    this.nudged = Math.abs(off) > (this.nudged ? kHoldMs : kNudgeMs);
    const nudge = !this.nudged ? 0 : Math.max(-kMostNudge, Math.min(kMostNudge, -off / 1000 / kNudgeS));
    const rate = clock.speed * (1 + nudge);
    if (Math.abs(this.video.playbackRate - rate) > 0.004) this.video.playbackRate = rate;
  }
}
