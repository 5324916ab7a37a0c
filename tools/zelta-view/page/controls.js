// SPDX-License-Identifier: Apache-2.0
// What visitors do, and how it all begins.
// A session's name in links: its manifest's, and which one of it where it has several.
function idOf(index) {
  const { name } = view.sessions[index];
  const nth = view.sessions.slice(0, index).filter((one) => one.name === name).length;
  return nth > 0 ? name + "~" + nth : name;
}

// "#t=75", "#t=1:15", "#t=1:01:15.5", and "&s=recording_2.json", or "&s=1", for the second session.
function wanted() {
  const query = new URLSearchParams(location.hash.slice(1));
  const parts = (query.get("t") || "").split(":").map(Number);
  const t = query.has("t") && parts.every((one) => one >= 0) ? parts.reduce((sum, one) => sum * 60 + one, 0) * 1000 : null;
  const asked = query.get("s") || "0";
  const s = view.sessions.findIndex((_, i) => asked === String(i) || asked === idOf(i));
  return { t, s: Math.max(s, 0) };
}

function showWanted() {
  if (view.sessions.length === 0) return;
  const { t, s } = wanted();
  if (session && isSame(view.sessions[s], session)) {
    if (t !== null) seek(session.begin_ms + t);
  } else {
    showSession(s, t);
  }
}

async function copyLink() {
  const t = Math.round((clock.now() - session.begin_ms) / 100) / 10;
  const s = shownIndex();
  history.replaceState(null, "", "#t=" + t + (s >= 0 && view.sessions.length > 1 ? "&s=" + encodeURIComponent(idOf(s)) : ""));
  try {
    await navigator.clipboard.writeText(location.href);
    notice("The link is copied.");
  } catch {
    notice("The link stands in the address bar.");
  }
}

function changeSpeed(steps) {
  const list = element("speed");
  list.selectedIndex = Math.max(0, Math.min(list.options.length - 1, list.selectedIndex + steps));
  clock.change(() => { clock.speed = Number(list.value); });
}

function toggleFull() {
  if (document.fullscreenElement) document.exitFullscreen();
  else element("stage").requestFullscreen().catch(() => notice("The browser doesn't allow full screen here."));
}

const step = (ms) => seek(clock.now() + ms);
const keys = {
  " ": () => setPlaying(!clock.playing), k: () => setPlaying(!clock.playing),
  j: () => step(-10000), l: () => step(10000), ArrowLeft: () => step(-5000), ArrowRight: () => step(5000),
  Home: () => seek(session.begin_ms), End: () => seek(session.end_ms),
  "<": () => changeSpeed(-1), ">": () => changeSpeed(1), f: toggleFull,
};

document.addEventListener("keydown", (event) => {
  if (!session || event.ctrlKey || event.metaKey || event.altKey) return;
  const digit = /^Digit([1-9])$/.exec(event.code);
  const on = event.target.tagName;
  // Who dictates, or types with one switch, doesn't want letters to act.
  if (event.key.length === 1 && event.key !== " " && !element("keys").checked) return;
  // What a control does with a key itself is left to it.
  if (on === "SELECT" || (on === "BUTTON" && event.key === " ") || (on === "INPUT" && event.target.type === "checkbox" && event.key === " ")) return;
  if (digit && tracks[digit[1] - 1]) {
    const track = tracks[digit[1] - 1];
    (event.shiftKey ? track.soloButton : track.muteButton).click();
    return event.preventDefault();
  }
  const act = keys[event.key.length === 1 ? event.key.toLowerCase() : event.key];
  if (!act) return;
  event.preventDefault();
  act();
});

element("play").addEventListener("click", () => setPlaying(!clock.playing));
element("back").addEventListener("click", () => step(-10000));
element("forth").addEventListener("click", () => step(10000));
element("live").addEventListener("click", goLive);
element("full").addEventListener("click", toggleFull);
element("link").addEventListener("click", copyLink);
element("speed").addEventListener("change", () => changeSpeed(0));
element("sessions").addEventListener("change", (event) => showSession(event.target.selectedIndex, null));
window.addEventListener("resize", fitGrid);
document.addEventListener("fullscreenchange", fitGrid);
window.addEventListener("hashchange", () => { if (view) showWanted(); });

async function begin() {
  if (embedded) {
    view = { ...JSON.parse(embedded), drawn: 0 };
    setText(element("fault"), view.errors.join(" "));
    showSessions();
  } else {
    for (await poll(); !view || view.sessions.length === 0; await poll()) await pause(kPollMs);
  }
  showWanted();
  setInterval(tick, kTickMs);
  requestAnimationFrame(show);
  if (!embedded) keepUp();
}
begin();
