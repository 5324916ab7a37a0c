// SPDX-License-Identifier: Apache-2.0
// What is known of the folder, and of the session that is shown.
function bytesOf(base64) {
  return Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
}

let measuring = false;
async function measureAll() {
  if (measuring || embedded) return;
  measuring = true;
  const due = () => session.files.find((file) => !file.open && file.audio && !file.measured && !file.unmeasured);
  for (let file = due(); file; file = due()) {
    try {
      const answer = await fetch("levels/" + encodeURIComponent(file.name));
      // What the network, or a server in trouble, failed at is asked for again later.
      if (answer.status >= 500) break;
      const { levels } = answer.ok ? await answer.json() : {};
      if (levels === undefined) file.unmeasured = true;
      else file.measured = bytesOf(levels);
    } catch {
      break;
    }
    view.drawn += 1;
  }
  measuring = false;
}

function makeTracks() {
  for (const track of tracks) for (const layer of track.layers) layer.close();
  tracks = [];
  element("grid").replaceChildren();
  const strips = element("strips");
  strips.replaceChildren();
  const cell = (name, kind, id) => {
    const who = document.createElement("span");
    who.className = "who";
    who.textContent = name;
    const made = document.createElement(kind);
    made.id = id;
    strips.append(who, made);
    return made;
  };
  const slider = cell("Time", "input", "slider");
  Object.assign(slider, { type: "range", min: "0", step: "10" });
  slider.setAttribute("aria-label", "Time");
  slider.addEventListener("input", () => seek(session.begin_ms + Number(slider.value)));
  const marks = cell("", "canvas", "marks");
  marks.className = "marks";
  marks.setAttribute("aria-hidden", "true");
  marks.addEventListener("click", (event) => seekTo(marks, event));
}

function seekTo(canvas, event) {
  seek(session.begin_ms + event.offsetX / canvas.clientWidth * lengthMs());
}

function addTrack(user) {
  const track = new Track(user);
  tracks.push(track);
  element("grid").append(track.tile);
  const who = document.createElement("span");
  who.className = "who";
  who.textContent = track.name;
  track.strip = document.createElement("canvas");
  track.strip.setAttribute("aria-hidden", "true");
  track.strip.addEventListener("click", (event) => seekTo(track.strip, event));
  element("strips").append(who, track.strip);
  track.whoText = who;
  return track;
}

// What has come since is added, what plays goes on.
function takeSession(fresh) {
  const known = new Map(session.files.map((file) => [file.name, file]));
  // A user's place in the list is another when somebody came before them.
  const trackOf = fresh.users.map((user) => {
    const track = tracks.find((one) => one.key === keyOf(user)) || addTrack(user);
    track.user = user;
    track.showName();
    setText(track.whoText, track.name);
    return track;
  });
  const withTrack = (one) => ({ ...one, track: trackOf[one.user] || null });
  const { name, live, begin_ms } = fresh;
  Object.assign(session, { name, live, begin_ms, told_end_ms: fresh.end_ms });
  session.missing = fresh.missing.map(withTrack);
  session.messages = fresh.messages.map(withTrack);
  session.files = fresh.files.map((file) => Object.assign(known.get(file.name) || {}, withTrack(file)));
  for (const file of session.files) {
    if (file.levels !== undefined && !file.measured) file.measured = bytesOf(file.levels);
  }
  for (const track of tracks) {
    track.files = session.files.filter((file) => file.track === track);
    // Who is heard by themselves isn't heard in the mix, too.
    if (track.user.uid === 0 && !track.chosen) track.muted = tracks.length > 1;
  }
  takeEnd();
  chapters = chaptersOf();
  fillList(element("chapters"), chapters);
  fillList(element("messages"), session.messages.map((one) => ({ at: one.at_ms, text: (one.track ? one.track.name + ": " : "") + one.text })));
  element("messages-section").hidden = session.messages.length === 0;
  element("live").hidden = !session.live;
  applySound();
  fitGrid();
}

function showSession(index, atMs) {
  const fresh = view.sessions[index];
  session = { files: [] };
  clock.change(() => { clock.playing = false; });
  following = false;
  setText(element("play"), "Play");
  makeTracks();
  takeSession(fresh);
  measureAll();
  element("sessions").selectedIndex = index;
  setText(element("heading"), fresh.channel || "Recording");
  setText(element("when"), new Date(fresh.begin_ms).toLocaleString());
  document.title = (fresh.channel || "Recording") + " – recording";
  if (atMs !== null) seek(session.begin_ms + atMs);
  else if (session.live) goLive();
  else seek(session.begin_ms);
}

function goLive() {
  seek(session.end_ms - kBehindMs, true);
  setPlaying(true);
}

// A session's beginning may be told anew while it is recorded.
const isSame = (a, b) => a.name === b.name && a.begin_ms <= b.end_ms && b.begin_ms <= a.end_ms;
const shownIndex = () => (session ? view.sessions.findIndex((one) => isSame(one, session)) : -1);

// Takes what is known of the folder now.
function takeView(fresh) {
  view = { ...fresh, drawn: view ? view.drawn + 1 : 0 };
  showSessions();
  if (!session) return;
  const wasLive = session.live;
  const same = view.sessions[shownIndex()];
  if (same) takeSession(same);
  if (!following) return;
  // Who follows is taken along: when somebody is back, and into what was begun after a long pause.
  const live = view.sessions.findIndex((one) => one.live);
  if (session.live && !wasLive) goLive();
  else if (!session.live && live >= 0) showSession(live, null);
  else if (session.live && session.end_ms - clock.now() > kTooFarBehindMs) seek(session.end_ms - kBehindMs, true);
}

let tag = "";          // of what is known
let unavailable = 0;   // so many times in a row
async function look() {
  try {
    const answer = await fetch("session.json", { cache: "no-store", headers: tag ? { "If-None-Match": tag } : {} });
    if (!answer.ok && answer.status !== 304) throw new Error("The server answered " + answer.status + ".");
    if (answer.ok) {
      takeView(await answer.json());
      tag = answer.headers.get("ETag") || "";
    }
    unavailable = 0;
    setText(element("fault"), view.errors.join(" "));
    if (session) measureAll();
  } catch (error) {
    unavailable += 1;
    if (unavailable > 1 || !view) setText(element("fault"), "The recording can't be reached: " + error.message);
  }
}

// One at a time: whoever asks meanwhile is served by the next.
let looking = Promise.resolve();
function poll() {
  looking = looking.then(look);
  return looking;
}

async function keepUp() {
  for (;;) {
    await pause(view.sessions.some((one) => one.live) ? kPollMs : kIdlePollMs);
    await poll();
  }
}

function showSessions() {
  const list = element("sessions");
  element("session-row").hidden = view.sessions.length < 2;
  while (list.options.length > view.sessions.length) list.remove(list.options.length - 1);
  view.sessions.forEach((one, i) => {
    if (!list.options[i]) list.add(new Option());
    setText(list.options[i], (one.channel || one.name) + ", " + new Date(one.begin_ms).toLocaleString());
  });
  if (session) list.selectedIndex = shownIndex();
}
