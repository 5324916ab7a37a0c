// SPDX-License-Identifier: Apache-2.0
// All of them, by one clock.
const lengthMs = () => session.end_ms - session.begin_ms;

let noticeUntil = 0;
// For a moment, in place of the state.
function notice(text) {
  noticeUntil = performance.now() + kNoticeMs;
  setText(element("status"), text);
}

// The session's end is that of its files, as far as it is known by now.
function takeEnd() {
  session.end_ms = Math.max(session.told_end_ms, ...session.files.map(endOf));
  view.drawn += 1;
}

function setPlaying(playing) {
  // Who stops doesn't want to be taken to the end later.
  if (!playing) following = false;
  if (playing && clock.now() >= session.end_ms && !session.live) seek(session.begin_ms);
  clock.change(() => { clock.playing = playing; });
  if (playing && Track.listening) Track.listening.resume();
  setText(element("play"), playing ? "Pause" : "Play");
  tick();
}

function seek(ms, follow = false) {
  following = follow;
  clock.set(Math.max(session.begin_ms, Math.min(ms, session.end_ms)));
  for (const track of tracks) {
    track.heldSince = 0;
    const file = track.fileAt(clock.at);
    if (file && track.active.shows(file)) track.active.seek(clock.at);
  }
  tick();
}

// It goes with the middle of those who play: what all of them are late by, as when they start, costs
// nobody a nudge.
function goWithPlayers() {
  const off = tracks.map((track) => track.active).filter((layer) => layer.plays).map((layer) => layer.atMs - clock.now()).sort((a, b) => a - b);
  if (!clock.runs || off.length === 0) return;
  const middle = (off[(off.length - 1) >> 1] + off[off.length >> 1]) / 2;
  if (Math.abs(middle) < kJumpMs * clock.speed) clock.set(clock.now() + (Math.abs(middle) > 30 ? middle : middle * 0.3));
}

// Whether the clock may run, and everybody where it is.
function tick() {
  if (!session) return;
  let now = clock.now();
  if (now >= session.end_ms && !session.live) {
    clock.change(() => { clock.playing = false; });
    clock.set(session.end_ms);
    setText(element("play"), "Play");
    now = session.end_ms;
  }
  if (clock.runs && element("skip").checked && !tracks.some((track) => track.fileAt(now))) {
    const next = Math.min(...session.files.filter((file) => file.begin_ms > now).map((file) => file.begin_ms));
    if (Number.isFinite(next) && next - now > kPauseMs) {
      clock.set(next);
      now = next;
    }
  }
  goWithPlayers();
  now = clock.now();
  for (const track of tracks) {
    track.update(now);
    track.learnEnd();
  }
  const ready = tracks.every((track) => track.isReady(now));
  const ran = clock.runs;
  // Everybody's patience is their own: each is asked.
  const held = tracks.filter((track) => track.holds(now)).length > 0;
  clock.change(() => { clock.held = held; });
  if (clock.runs !== ran) for (const track of tracks) track.update(clock.now());
  showState(ready);
}

function showState(ready) {
  const state = clock.playing ? (clock.held ? "waiting" : "playing") : clock.now() >= session.end_ms && !session.live ? "ended" : ready ? "paused" : "waiting";
  document.body.dataset.state = state;
  const words = { waiting: "Waiting for media…", ended: "The end." };
  const live = session.live ? "Being recorded. " : "";
  const follows = String(following && session.live);
  if (element("live").getAttribute("aria-pressed") !== follows) element("live").setAttribute("aria-pressed", follows);
  if (performance.now() >= noticeUntil) setText(element("status"), (live + (words[state] || "")).trim());
}
