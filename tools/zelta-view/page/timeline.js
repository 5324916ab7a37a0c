// SPDX-License-Identifier: Apache-2.0
// What is seen of the time.
const colors = () => {
  const style = getComputedStyle(document.documentElement);
  return (name) => style.getPropertyValue("--" + name).trim();
};

function canvasOf(target) {
  const scale = window.devicePixelRatio || 1;
  const width = Math.max(1, Math.round(target.clientWidth * scale));
  const height = Math.max(1, Math.round(target.clientHeight * scale));
  if (target.width !== width) target.width = width;
  if (target.height !== height) target.height = height;
  const paint = target.getContext("2d");
  paint.clearRect(0, 0, width, height);
  return { paint, width, height, x: (ms) => (ms - session.begin_ms) / Math.max(lengthMs(), 1) * width };
}

function drawLevels(paint, file, x, height, color) {
  paint.fillStyle = color;
  const from = x(file.begin_ms);
  const to = x(endOf(file));
  const steps = file.measured.length;
  const lengthSteps = Math.max((endOf(file) - file.begin_ms) / view.level_step_ms, 1);
  for (let at = Math.floor(from); at < to; at += 1) {
    const first = Math.floor((at - from) / (to - from) * lengthSteps);
    const last = Math.max(first + 1, Math.ceil((at + 1 - from) / (to - from) * lengthSteps));
    let loudest = 0;
    for (let i = Math.max(first, 0); i < Math.min(last, steps); i += 1) loudest = Math.max(loudest, file.measured[i]);
    // Squared, so that speech stands out of the noise of a room.
    const bar = (loudest / 255) ** 2 * (height - 2);
    paint.fillRect(at, (height - bar) / 2, 1, bar);
  }
}

function drawStrip(track) {
  const { paint, width, height, x } = canvasOf(track.strip);
  const color = colors();
  for (const file of track.files) {
    paint.fillStyle = color("there");
    paint.fillRect(x(file.begin_ms), 0, Math.max(x(endOf(file)) - x(file.begin_ms), 1), height);
    if (file.measured) drawLevels(paint, file, x, height, color("act"));
  }
  paint.fillStyle = color("alarm");
  for (const loss of session.missing.filter((one) => one.track === track)) {
    paint.fillRect(x(loss.begin_ms), height - 4, Math.max(x(loss.end_ms || loss.begin_ms) - x(loss.begin_ms), 3), 4);
  }
  paint.fillStyle = color("text");
  paint.fillRect(Math.min(x(clock.now()), width - 2), 0, 2, height);
}

function drawMarks() {
  const { paint, height, x } = canvasOf(element("marks"));
  const color = colors();
  for (const one of chapters) {
    paint.fillStyle = one.loss ? color("alarm") : color("quiet");
    paint.fillRect(x(one.at) - 1, 0, 3, height * 0.7);
  }
  paint.fillStyle = color("act");
  for (const one of session.messages) {
    paint.beginPath();
    paint.arc(x(one.at_ms), height * 0.7, height * 0.25, 0, 7);
    paint.fill();
  }
}

function showSlider(into) {
  const slider = element("slider");
  slider.max = String(lengthMs());
  // Not while it is being dragged.
  if (!slider.matches(":active")) slider.value = String(into);
  const words = timeText(into) + " of " + timeText(lengthMs());
  if (slider.getAttribute("aria-valuetext") !== words) slider.setAttribute("aria-valuetext", words);
  return slider.clientWidth;
}

let drawnX = "";
function show() {
  requestAnimationFrame(show);
  if (!session) return;
  const now = clock.now();
  const into = now - session.begin_ms;
  setText(element("time"), timeText(into) + " / " + timeText(lengthMs()));
  const width = showSlider(into);
  for (const track of tracks) track.tile.classList.toggle("speaks", clock.runs && track.user.uid !== 0 && track.levelAt(now) > kLoud);
  markCurrent(element("chapters"), now);
  markCurrent(element("messages"), now);
  // One pixel further is worth a drawing.
  const key = [Math.floor(into / Math.max(lengthMs(), 1) * width * 2), width, lengthMs(), view.drawn].join();
  if (key === drawnX) return;
  drawnX = key;
  for (const track of tracks) drawStrip(track);
  drawMarks();
}

function fitGrid() {
  const shown = Math.max(tracks.length, 1);
  const full = document.fullscreenElement === element("stage");
  const room = full ? window.innerHeight - 16 : window.innerHeight * 0.58;
  const width = element("stage").clientWidth;
  let best = { width: 0, columns: 1 };
  for (let columns = 1; columns <= shown; columns += 1) {
    const rows = Math.ceil(shown / columns);
    const one = Math.min((width - 8 * (columns - 1)) / columns, (room - 8 * (rows - 1)) / rows * 16 / 9);
    if (one > best.width) best = { width: one, columns };
  }
  element("grid").style.setProperty("--columns", String(best.columns));
  element("grid").style.setProperty("--width", Math.floor(best.width) + "px");
}
