// SPDX-License-Identifier: Apache-2.0
// Chapters and messages.
// The last row that isn't after now, by halves.
function markCurrent(list, now) {
  const rows = list.rows || [];
  let before = 0;
  for (let behind = rows.length; before < behind;) {
    const middle = (before + behind) >> 1;
    if (rows[middle].at <= now) before = middle + 1;
    else behind = middle;
  }
  const current = before > 0 ? rows[before - 1].item : null;
  if (list.current === current) return;
  if (list.current) list.current.removeAttribute("aria-current");
  list.current = current;
  if (!current) return;
  current.setAttribute("aria-current", "true");
  // Whoever reads or chooses in it keeps their place.
  if (list.matches(":hover, :focus-within")) return;
  list.scrollTop = Math.max(0, current.offsetTop - list.offsetTop - list.clientHeight / 2);
}

const kBreaks = {
  "recorder died": "the recorder died", "let go": "let go: the machine was too busy", "service stopped": "recording was stopped",
};

function chaptersOf() {
  const all = [];
  for (const track of tracks) {
    track.files.forEach((file, i) => {
      const before = track.files[i - 1];
      const after = track.files[i + 1];
      if (track.user.uid !== 0 && (!before || file.begin_ms - endOf(before) > kAgainMs)) all.push({ at: file.begin_ms, text: track.name + (before ? " is back" : " joins") });
      if (kBreaks[file.closed]) {
        all.push({ at: endOf(file), text: track.name + ": " + kBreaks[file.closed], loss: true });
      } else if (file.closed && file.closed !== "recording ended" && track.user.uid !== 0 && (!after || after.begin_ms - endOf(file) > kAgainMs)) {
        const leaves = file.closed === "user left" || file.closed === "end of media";
        all.push({ at: endOf(file), text: track.name + (leaves ? " leaves" : ": " + file.closed), loss: !leaves });
      } else if (!file.closed && !file.open) {
        all.push({ at: endOf(file), text: track.name + ": the file wasn't completed", loss: true });
      }
    });
  }
  for (const loss of session.missing) {
    const who = loss.track ? loss.track.name + ": " : "";
    const span = loss.end_ms ? ", for " + timeText(loss.end_ms - loss.begin_ms) : "";
    all.push({ at: loss.begin_ms, text: "Not recorded: " + who + loss.medium + (loss.codec ? " (" + loss.codec + ")" : "") + ", " + loss.reason + span, loss: true });
  }
  let covered = session.begin_ms;
  for (const file of [...session.files].sort((a, b) => a.begin_ms - b.begin_ms)) {
    if (file.begin_ms - covered > kPauseMs) all.push({ at: covered, text: "Nothing was recorded for " + timeText(file.begin_ms - covered), loss: true });
    covered = Math.max(covered, endOf(file));
  }
  return all.sort((a, b) => a.at - b.at);
}

function makeRow(row) {
  const item = document.createElement("li");
  const button = document.createElement("button");
  button.type = "button";
  const at = document.createElement("span");
  at.className = "at";
  const words = document.createElement("span");
  words.textContent = row.text;
  if (row.loss) words.className = "loss";
  button.append(at, words);
  button.addEventListener("click", () => seek(row.at));
  item.append(button);
  item.at = at;
  return item;
}

// What stays keeps its place, and whoever has it in focus their focus.
function fillList(list, rows) {
  const known = new Map((list.rows || []).map((row) => [row.key, row.item]));
  const times = new Map();
  list.rows = rows.map((row) => {
    const text = JSON.stringify([row.at, row.text, Boolean(row.loss)]);
    const nth = (times.get(text) || 0) + 1;
    times.set(text, nth);
    return { ...row, key: nth + text };
  });
  const kept = new Set(list.rows.map((row) => row.key));
  for (const [key, item] of known) if (!kept.has(key)) item.remove();
  let next = list.firstElementChild;
  for (const row of list.rows) {
    row.item = known.get(row.key) || makeRow(row);
    setText(row.item.at, timeText(row.at - session.begin_ms));
    if (row.item === next) next = next.nextElementSibling;
    else list.insertBefore(row.item, next);
  }
}
