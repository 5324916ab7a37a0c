// SPDX-License-Identifier: Apache-2.0
// All of them, by one clock.
const lengthMs = () => session.end_ms - session.begin_ms;

function setPlaying(playing) {
  if (playing && clock.now() >= session.end_ms && !session.live) seek(session.begin_ms);
  clock.change(() => { clock.playing = playing; });
  if (playing && Track.listening) Track.listening.resume();
  setText(element("play"), playing ? "Pause" : "Play");
  tick();
}

function seek(ms, follow = false) {
  following = follow;
  clock.set(Math.max(session.begin_ms, Math.min(ms, session.end_ms)));
  clock.heldSince = 0;
  for (const track of tracks) {
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
  for (const track of tracks) track.update(now);
  const ready = tracks.every((track) => track.isReady(now));
  const ran = clock.runs;
  if (ready) {
    clock.change(() => { clock.held = false; });
    clock.heldSince = 0;
  } else {
    if (clock.heldSince === 0) clock.heldSince = performance.now();
    const held = performance.now() - clock.heldSince < kPatienceMs;
    clock.change(() => { clock.held = held; });
  }
  if (clock.runs !== ran) for (const track of tracks) track.update(clock.now());
  showState(ready);
}

function showState(ready) {
  const state = clock.playing ? (clock.held ? "waiting" : "playing") : clock.now() >= session.end_ms && !session.live ? "ended" : ready ? "paused" : "waiting";
  document.body.dataset.state = state;
  const words = { waiting: "Waiting for media…", ended: "The end." };
  const live = session.live ? "Being recorded. " : "";
  setText(element("status"), (live + (words[state] || "")).trim());
}
