// SPDX-License-Identifier: Apache-2.0
// What a recorder is still writing, or was killed over, is a row of fragments. Here is what their bytes
// say; nothing here knows of the page.
const isCut = (file) => file.open || file.closed === "" || file.closed === "recorder died";

function find(bytes, text, from = 0) {
  const wanted = [...text].map((c) => c.charCodeAt(0));
  for (let at = bytes.indexOf(wanted[0], from); at >= 0; at = bytes.indexOf(wanted[0], at + 1)) {
    if (wanted.every((byte, i) => bytes[at + i] === byte)) return at;
  }
  return -1;
}

const hex = (byte) => byte.toString(16).padStart(2, "0");

// Its MIME type, by what stands in its head; empty: unknown (RFC 6381).
function mimeOf(file, head) {
  const codecs = [];
  const box = (name) => { const at = find(head, name); return at < 0 ? null : head.subarray(at + 4); };
  if (file.name.endsWith(".webm")) {
    for (const [id, name] of [["V_VP8", "vp8"], ["V_VP9", "vp9"], ["A_OPUS", "opus"]]) if (find(head, id) >= 0) codecs.push(name);
    return codecs.length ? 'video/webm; codecs="' + codecs.join(",") + '"' : "";
  }
  const avc = box("avcC"), av1 = box("av1C"), hevc = box("hvcC");
  if (avc) codecs.push("avc1." + hex(avc[1]) + hex(avc[2]) + hex(avc[3]));
  if (av1) codecs.push("av01." + (av1[1] >> 5) + "." + String(av1[1] & 31).padStart(2, "0") + (av1[2] & 128 ? "H" : "M") + "." + (av1[2] & 64 ? "10" : "08"));
  if (hevc) codecs.push("hvc1.1.6.L" + hevc[12] + ".B0");
  if (box("dOps")) codecs.push("opus");
  if (box("mp4a")) codecs.push("mp4a.40.2");
  return codecs.length ? (avc || av1 || hevc ? "video" : "audio") + '/mp4; codecs="' + codecs.join(",") + '"' : "";
}

// Where a fragment begins, or -1.
function fragmentIn(file, bytes, from) {
  if (!file.name.endsWith(".webm")) {
    const at = find(bytes, "mfhd", from);
    return at >= 12 && find(bytes.subarray(at - 8, at - 4), "moof") === 0 ? at - 12 : -1;
  }
  for (let at = bytes.indexOf(0x1f, from); at >= 0; at = bytes.indexOf(0x1f, at + 1)) {
    if (bytes[at + 1] === 0x43 && bytes[at + 2] === 0xb6 && bytes[at + 3] === 0x75) return at;
  }
  return -1;
}
