// SPDX-License-Identifier: Apache-2.0
// What all others use, and the clock.
const element = (id) => document.getElementById(id);

const kTickMs = 50;          // between looks at where everybody is
const kJumpMs = 250;         // further off than this is sought, closer is nudged
const kHoldMs = 6;           // a nudge ends when it is as close as this
const kNudgeMs = 12;         // and begins when it is this far off: every change of speed costs a little
const kNudgeS = 0.6;         // in which a nudge makes up for what is off
const kMostNudge = 0.2;      // of the speed
const kPatienceMs = 5000;    // with one who has no media, until the others go on without them
const kAheadMs = 4000;       // a file is opened so long before it is due
const kPauseMs = 1500;       // in which nothing was recorded: it is told, and may be skipped
const kAgainMs = 2000;       // who comes back sooner hadn't left
const kPollMs = 2000;        // of a recording that is being written
const kBehindMs = 3000;      // of its manifest, which is up to two seconds behind itself
const kTooFarBehindMs = 15000;
const kLoud = 85;            // of 255: -40 dB
const kBeforeS = 20;         // of a file without an index: media before the time that is wanted
const kUntoldMs = 2000;      // may a file have that was cut before its manifest told of its end
const kIdlePollMs = 5000;    // of one that nobody writes: who was away may come back
const kMostWaitMs = 8000;    // between tries over a network that fails
const kNoticeMs = 3000;      // is how long a word to the visitor stays

const embedded = element("session").textContent.trim();
const base = embedded ? "" : "files/";
const urlOf = (file) => base + encodeURIComponent(file.name);

let view = null;      // all that is known of the folder
let session = null;   // the one that is shown
let tracks = [];      // a user each
let chapters = [];
let following = false;  // what is being recorded, as it comes

function setText(target, text) {
  // What says the same again is told again.
  if (target.textContent !== text) target.textContent = text;
}

function timeText(ms) {
  const s = Math.max(0, Math.floor(ms / 1000));
  const two = (n) => String(n).padStart(2, "0");
  const h = Math.floor(s / 3600);
  return (h > 0 ? h + ":" + two(Math.floor(s / 60) % 60) : String(Math.floor(s / 60))) + ":" + two(s % 60);
}

// In ms of the manifest's clock. It runs only while everybody has media.
const clock = {
  at: 0, since: 0, speed: 1, playing: false, held: false,
  get runs() { return this.playing && !this.held; },
  now() { return this.runs ? this.at + (performance.now() - this.since) * this.speed : this.at; },
  set(ms) { this.at = ms; this.since = performance.now(); },
  change(what) { this.set(this.now()); what(); },
};

const happens = (target, name) => new Promise((done) => target.addEventListener(name, done, { once: true }));
const pause = (ms) => new Promise((done) => setTimeout(done, ms));

// Does again, after growing pauses, what failed by the network or by a server in trouble, which is told
// as fetch() tells it: by a TypeError.
async function patiently(signal, work) {
  for (let wait = 500; ; wait = Math.min(wait * 2, kMostWaitMs)) {
    try {
      return await work();
    } catch (error) {
      if (!(error instanceof TypeError) || signal.aborted) throw error;
    }
    await pause(wait);
  }
}
