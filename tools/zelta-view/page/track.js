// SPDX-License-Identifier: Apache-2.0
// A user.
const kListenAgainMs = 2000;  // to a player that had no sound

const keyOf = (user) => user.uid + " " + user.channel;

// What is told of a file that was cut may be early, and nothing at all when it is short.
function endOf(file) {
  const told = isCut(file) && !file.open && file.end_ms <= file.begin_ms ? file.begin_ms + kUntoldMs : file.end_ms;
  return file.seen_end_ms && isCut(file) ? Math.max(file.end_ms, file.seen_end_ms) : told;
}

class Track {
  constructor(user) {
    this.user = user;
    this.key = keyOf(user);
    this.heldSince = 0;  // nobody waits for its media
    this.files = [];
    this.muted = false;
    this.solo = false;
    this.tile = document.createElement("figure");
    this.tile.className = "tile absent";
    this.layers = [new Layer(this.tile), new Layer(this.tile)];
    this.note = document.createElement("div");
    this.note.className = "note";
    const caption = document.createElement("figcaption");
    this.nameText = document.createElement("span");
    this.nameText.className = "name";
    this.muteButton = this.button("Mute", "Mute ", () => { this.muted = !this.muted; this.chosen = true; applySound(); });
    this.soloButton = this.button("Solo", "Solo: hear nobody but ", () => { this.solo = !this.solo; applySound(); });
    caption.append(this.nameText, this.muteButton, this.soloButton);
    this.tile.append(this.note, caption);
    this.showName();
  }
  button(text, label, act) {
    const made = document.createElement("button");
    made.type = "button";
    made.textContent = text;
    made.setAttribute("aria-pressed", "false");
    made.dataset.label = label;
    made.addEventListener("click", act);
    return made;
  }
  get name() {
    if (this.user.uid === 0) return "All users, mixed";
    return this.user.name || "User " + this.user.uid;
  }
  showName() {
    setText(this.nameText, this.name);
    for (const one of [this.muteButton, this.soloButton]) one.setAttribute("aria-label", one.dataset.label + this.name);
  }
  fileAt(ms) {
    // Of files that overlap by their last moment the later one.
    return this.files.findLast((file) => ms >= file.begin_ms && (ms < endOf(file) || file.open));
  }
  get active() { return this.layers[0]; }
  get spare() { return this.layers[1]; }
  // By its player, of what the manifest doesn't know: it is told of the end every two seconds, and not
  // any more once its recorder was killed.
  learnEnd() {
    const { file } = this.active;
    if (!file || !isCut(file) || file.open) return;
    const ms = this.active.endMs;
    if (ms <= Math.max(file.end_ms, file.seen_end_ms || 0)) return;
    file.seen_end_ms = ms;
    takeEnd();
  }
  swap() {
    this.layers.reverse();
    this.spare.close();
  }
  update(ms) {
    const file = this.fileAt(ms);
    this.tile.classList.toggle("absent", !file);
    if (file) this.bring(file, ms);
    else if (this.active.file && !this.active.video.paused) this.active.video.pause();
    if (file) this.active.follow(ms);
    const next = this.files.find((one) => one.begin_ms > ms && one.begin_ms - ms < kAheadMs * clock.speed);
    if (next && clock.runs && this.spare.file !== next && (!file || this.active.shows(file))) this.spare.open(next, next.begin_ms);
    const hasPicture = file && file.video && !this.active.fault;
    for (const layer of this.layers) layer.video.classList.toggle("shown", Boolean(hasPicture && layer === this.active));
    setText(this.note, !file ? "not here" : this.active.fault || (file.video ? "" : "sound only"));
  }
  // `file` into the active player, without a gap where that can be.
  bring(file, ms) {
    if (this.active.shows(file)) return;
    if (this.spare.shows(file)) {
      // One that is complete now goes on as it was until the whole of it is ready.
      if (this.active.file === file && !this.active.fault && !this.spare.isReady) return this.spare.follow(ms);
      this.swap();
      return applySound();
    }
    if (this.active.file === file && !this.active.fault) return this.spare.open(file, ms);
    this.active.open(file, ms);
    applySound();
  }
  isReady(ms) { return !this.fileAt(ms) || this.active.isReady; }
  // Whether the others have to wait for it.
  holds(ms) {
    if (this.isReady(ms)) {
      this.heldSince = 0;
      return false;
    }
    if (this.heldSince === 0) this.heldSince = performance.now();
    return performance.now() - this.heldSince < kPatienceMs;
  }
  levelAt(ms) {
    const file = this.fileAt(ms);
    if (!file) return 0;
    if (file.open) return file.audio ? this.hear() : 0;
    const levels = file.measured;
    return levels ? levels[Math.floor((ms - file.begin_ms) / view.level_step_ms)] || 0 : 0;
  }
  // Whether what the active player plays is listened to now. A stream a player serves all that it plays.
  listen() {
    const { video } = this.active;
    const now = performance.now();
    if (!video.captureStream || video.readyState < 3 || now - (this.listenedAt || 0) < kListenAgainMs) return false;
    this.listenedAt = now;
    if (this.sound) this.sound.disconnect();
    this.sound = null;
    video.stream = video.stream || video.captureStream();
    if (video.stream.getAudioTracks().length === 0) return false;
    Track.listening = Track.listening || new AudioContext();
    this.ear = this.ear || new AnalyserNode(Track.listening, { fftSize: 2048 });
    this.sound = Track.listening.createMediaStreamSource(video.stream);
    this.sound.connect(this.ear);
    this.heard = this.active.source;
    return true;
  }
  // What is being written isn't measured yet: it is listened to.
  hear() {
    if ((!this.sound || this.heard !== this.active.source) && !this.listen()) return 0;
    const samples = new Float32Array(this.ear.fftSize);
    this.ear.getFloatTimeDomainData(samples);
    const square = samples.reduce((sum, one) => sum + one * one, 0) / samples.length * 2;
    return Math.max(0, 255 * (1 + 10 * Math.log10(square + 1e-9) / 60));
  }
}

function applySound() {
  const anySolo = tracks.some((track) => track.solo);
  for (const track of tracks) {
    const heard = anySolo ? track.solo : !track.muted;
    track.muteButton.setAttribute("aria-pressed", String(track.muted));
    track.soloButton.setAttribute("aria-pressed", String(track.solo));
    track.layers.forEach((layer, i) => { layer.video.muted = !heard || i > 0; });
  }
}
