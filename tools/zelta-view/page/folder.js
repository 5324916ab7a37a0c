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
      const answer = await (await fetch("levels/" + encodeURIComponent(file.name))).json();
      if (answer.levels === undefined) file.unmeasured = true;
      else file.measured = bytesOf(answer.levels);
    } catch {
      file.unmeasured = true;
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
  const track = new Track(user, tracks.length);
  // Who is heard by themselves isn't heard in the mix, too.
  track.muted = user.uid === 0 && session.users.some((one) => one.uid !== 0);
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
}

// What has come since is added, what plays goes on.
function takeSession(fresh) {
  const known = new Map(session.files.map((file) => [file.name, file]));
  session.live = fresh.live;
  session.begin_ms = fresh.begin_ms;
  session.end_ms = fresh.end_ms;
  session.missing = fresh.missing;
  session.messages = fresh.messages;
  session.users = fresh.users;
  session.files = fresh.files.map((file) => Object.assign(known.get(file.name) || {}, file));
  fresh.users.forEach((user, i) => {
    if (i === tracks.length) addTrack(user);
    tracks[i].user = user;
    tracks[i].showName();
    setText(tracks[i].whoText, tracks[i].name);
    tracks[i].files = session.files.filter((file) => file.user === i);
  });
  for (const file of session.files) {
    if (file.levels !== undefined && !file.measured) file.measured = bytesOf(file.levels);
  }
  chapters = chaptersOf();
  fillList(element("chapters"), chapters);
  const say = (one) => ({ at: one.at_ms, text: (one.user >= 0 ? tracks[one.user].name + ": " : "") + one.text });
  fillList(element("messages"), session.messages.map(say));
  element("messages-section").hidden = session.messages.length === 0;
  element("live").hidden = !session.live;
  view.drawn += 1;
  applySound();
  fitGrid();
  measureAll();
}

function showSession(index, atMs) {
  const fresh = view.sessions[index];
  session = { ...fresh, files: [] };
  clock.change(() => { clock.playing = false; });
  setText(element("play"), "Play");
  makeTracks();
  takeSession(fresh);
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

const isSame = (a, b) => a.name === b.name && a.begin_ms === b.begin_ms;

async function poll() {
  try {
    const answer = await fetch("session.json", { cache: "no-store" });
    if (!answer.ok) throw new Error("The server answered " + answer.status + ".");
    const fresh = await answer.json();
    unavailable = 0;
    setText(element("fault"), fresh.errors.join(" "));
    view = { ...fresh, drawn: view ? view.drawn : 0 };
    showSessions();
    const same = session && fresh.sessions.find((one) => isSame(one, session));
    if (same) takeSession(same);
    if (following && session.live && session.end_ms - clock.now() > kTooFarBehindMs) seek(session.end_ms - kBehindMs, true);
  } catch (error) {
    unavailable += 1;
    if (unavailable > 1 || !view) setText(element("fault"), "The recording can't be reached: " + error.message);
  }
}

async function keepUp() {
  while (view.sessions.some((one) => one.live) || session.live) {
    await pause(kPollMs);
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
}
