// SPDX-License-Identifier: Apache-2.0
// Chapters and messages.
function markCurrent(list, now) {
  let current = null;
  for (const item of list.children) if (Number(item.dataset.at) <= now) current = item;
  if (list.current === current) return;
  if (list.current) list.current.removeAttribute("aria-current");
  list.current = current;
  if (!current) return;
  current.setAttribute("aria-current", "true");
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
      if (track.user.uid !== 0 && (!before || file.begin_ms - before.end_ms > kAgainMs)) all.push({ at: file.begin_ms, text: track.name + (before ? " is back" : " joins") });
      if (kBreaks[file.closed]) {
        all.push({ at: file.end_ms, text: track.name + ": " + kBreaks[file.closed], loss: true });
      } else if (file.closed && file.closed !== "recording ended" && track.user.uid !== 0 && (!after || after.begin_ms - file.end_ms > kAgainMs)) {
        const leaves = file.closed === "user left" || file.closed === "end of media";
        all.push({ at: file.end_ms, text: track.name + (leaves ? " leaves" : ": " + file.closed), loss: !leaves });
      } else if (!file.closed && !file.open) {
        all.push({ at: file.end_ms, text: track.name + ": the file wasn't completed", loss: true });
      }
    });
  }
  for (const loss of session.missing) {
    const who = loss.user >= 0 ? tracks[loss.user].name + ": " : "";
    const span = loss.end_ms ? ", for " + timeText(loss.end_ms - loss.begin_ms) : "";
    all.push({ at: loss.begin_ms, text: "Not recorded: " + who + loss.medium + (loss.codec ? " (" + loss.codec + ")" : "") + ", " + loss.reason + span, loss: true });
  }
  let covered = session.begin_ms;
  for (const file of [...session.files].sort((a, b) => a.begin_ms - b.begin_ms)) {
    if (file.begin_ms - covered > kPauseMs) all.push({ at: covered, text: "Nothing was recorded for " + timeText(file.begin_ms - covered), loss: true });
    covered = Math.max(covered, file.end_ms);
  }
  return all.sort((a, b) => a.at - b.at);
}

function fillList(list, rows) {
  const text = JSON.stringify(rows);
  if (list.rows === text) return;
  list.rows = text;
  list.current = null;
  list.replaceChildren(...rows.map((row) => {
    const item = document.createElement("li");
    item.dataset.at = row.at;
    const button = document.createElement("button");
    button.type = "button";
    const at = document.createElement("span");
    at.className = "at";
    at.textContent = timeText(row.at - session.begin_ms);
    const words = document.createElement("span");
    words.textContent = row.text;
    if (row.loss) words.className = "loss";
    button.append(at, words);
    button.addEventListener("click", () => seek(row.at));
    item.append(button);
    return item;
  }));
}
