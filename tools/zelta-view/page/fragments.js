// SPDX-License-Identifier: Apache-2.0
// What a recorder is still writing, or was killed over, is a row of fragments. Here is what their bytes
// say; nothing here knows of the page.
const isCut = (file) => !file.whole && (file.open || file.closed === "" || file.closed === "recorder died");
const isWebm = (file) => file.name.endsWith(".webm");

function find(bytes, text, from = 0) {
  const wanted = [...text].map((c) => c.charCodeAt(0));
  for (let at = bytes.indexOf(wanted[0], from); at >= 0; at = bytes.indexOf(wanted[0], at + 1)) {
    if (wanted.every((byte, i) => bytes[at + i] === byte)) return at;
  }
  return -1;
}

function numberAt(bytes, at, size) {
  let value = 0;
  for (let i = 0; i < size; i += 1) value = value * 256 + bytes[at + i];
  return value;
}

const hex = (byte) => byte.toString(16).padStart(2, "0");

// Its MIME type, by what stands in its head; empty: unknown (RFC 6381).
function mimeOf(file, head) {
  const codecs = [];
  const box = (name) => { const at = find(head, name); return at < 0 ? null : head.subarray(at + 4); };
  if (isWebm(file)) {
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

// ---- MP4 (ISO/IEC 14496-12) --------------------------------------------------------------------

// The box that begins there; null: its header isn't whole. `end` may lie beyond the bytes.
function boxAt(bytes, at, to = bytes.length) {
  if (to - at < 8) return null;
  let size = numberAt(bytes, at, 4);
  let head = 8;
  if (size === 1) {
    if (to - at < 16) return null;
    size = numberAt(bytes, at + 8, 8);
    head = 16;
  }
  // 0 is to the end of the file, and less than the header damaged.
  return { type: String.fromCharCode(...bytes.subarray(at + 4, at + 8)), content: at + head, end: size >= head ? at + size : Infinity };
}

// Those of a type in a box's content, as far as they are whole.
function boxesIn(bytes, from, to, type) {
  const found = [];
  for (let at = from, box = boxAt(bytes, at, to); box && box.end <= to; at = box.end, box = boxAt(bytes, at, to)) if (box.type === type) found.push(box);
  return found;
}

function boxIn(bytes, outer, ...types) {
  for (const type of types) outer = outer && boxesIn(bytes, outer.content, outer.end, type)[0];
  return outer;
}

// What fragments leave to the head, by the track's number.
function mp4TracksOf(head) {
  const tracks = new Map();
  const moov = boxesIn(head, 0, head.length, "moov")[0];
  if (!moov) return tracks;
  const long = (box) => head[box.content] === 1;
  for (const trak of boxesIn(head, moov.content, moov.end, "trak")) {
    const tkhd = boxIn(head, trak, "tkhd");
    const mdhd = boxIn(head, trak, "mdia", "mdhd");
    const hdlr = boxIn(head, trak, "mdia", "hdlr");
    if (!tkhd || !mdhd || !hdlr) continue;
    tracks.set(numberAt(head, tkhd.content + (long(tkhd) ? 20 : 12), 4), {
      scale: numberAt(head, mdhd.content + (long(mdhd) ? 20 : 12), 4), video: find(head.subarray(0, hdlr.end), "vide", hdlr.content) >= 0, duration: 0, flags: 0,
    });
  }
  const mvex = boxIn(head, moov, "mvex");
  for (const trex of mvex ? boxesIn(head, mvex.content, mvex.end, "trex") : []) {
    const track = tracks.get(numberAt(head, trex.content + 4, 4));
    if (track) Object.assign(track, { duration: numberAt(head, trex.content + 12, 4), flags: numberAt(head, trex.content + 20, 4) });
  }
  return tracks;
}

// When samples of a track's run can be decoded by themselves, in s; `time` is the fragment's, in units.
function mp4KeysOf(bytes, traf, tfhd, time, track) {
  const keys = [];
  const given = numberAt(bytes, tfhd.content + 1, 3);
  let at = tfhd.content + 8 + (given & 1 ? 8 : 0) + (given & 2 ? 4 : 0);
  const next = () => { at += 4; return numberAt(bytes, at - 4, 4); };
  const usualDuration = given & 8 ? next() : track.duration;
  if (given & 16) next();
  const usualFlags = given & 32 ? next() : track.flags;
  for (const trun of boxesIn(bytes, traf.content, traf.end, "trun")) {
    const has = numberAt(bytes, trun.content + 1, 3);
    const count = numberAt(bytes, trun.content + 4, 4);
    at = trun.content + 8 + (has & 1 ? 4 : 0);
    const firstFlags = has & 4 ? next() : -1;
    for (let i = 0; i < count && at <= trun.end; i += 1) {
      const duration = has & 0x100 ? next() : usualDuration;
      if (has & 0x200) next();
      const own = has & 0x400 ? next() : usualFlags;
      const offset = has & 0x800 ? next() | 0 : 0;
      // It isn't said that it depends on others.
      if (((i === 0 && firstFlags >= 0 ? firstFlags : own) & 0x10000) === 0) keys.push((time + offset) / track.scale);
      time += duration;
    }
  }
  return keys;
}

// Of the fragment at the beginning of these bytes: when it begins and the first key frame in it is, in s;
// NaN and Infinity when it doesn't say. Where there is no picture everything is a key.
function mp4FactsOf(bytes, tracks) {
  const moof = boxAt(bytes, 0);
  const times = [];
  const keys = [];
  const hasVideo = [...tracks.values()].some((track) => track.video);
  for (const traf of moof ? boxesIn(bytes, moof.content, Math.min(moof.end, bytes.length), "traf") : []) {
    const tfhd = boxIn(bytes, traf, "tfhd");
    const tfdt = boxIn(bytes, traf, "tfdt");
    const track = tfhd && tracks.get(numberAt(bytes, tfhd.content + 4, 4));
    if (!track || !tfdt) continue;
    const time = numberAt(bytes, tfdt.content + 4, bytes[tfdt.content] === 1 ? 8 : 4);
    times.push(time / track.scale);
    if (track.video || !hasVideo) keys.push(...mp4KeysOf(bytes, traf, tfhd, time, track));
  }
  return { timeS: times.length ? Math.min(...times) : NaN, keyS: Math.min(...keys) };
}

// Whether it is a row of fragments still: its description stands before all media. One that is complete
// has them in one box, and another description behind it.
function isFragmented(head) {
  for (let at = 0, box = boxAt(head, at); box; at = box.end, box = boxAt(head, at)) {
    if (box.type === "moov") return true;
    if (box.type === "mdat") return false;
  }
  return true;
}

const kFragmentBoxes = new Set(["moof", "mdat", "free", "sidx", "styp"]);

// Goes along the boxes of a row of fragments, piece by piece.
class BoxWalker {
  constructor() {
    this.left = 0;       // of the box that goes on in the next piece
    this.ended = false;  // what follows is no fragment
  }
  // How many of these bytes may be handed on; they begin where the last ones that could be ended.
  take(bytes) {
    let at = 0;
    while (at < bytes.length && !this.ended) {
      const whole = Math.min(this.left, bytes.length - at);
      at += whole;
      this.left -= whole;
      const box = this.left > 0 ? null : boxAt(bytes, at);
      // What describes media is read at once.
      if (!box || (box.type === "moof" && box.end > bytes.length && at > 0)) break;
      if (kFragmentBoxes.has(box.type) && Number.isFinite(box.end)) this.left = box.end - at;
      else this.ended = true;
    }
    return at;
  }
}

// ---- WebM (RFC 8794, RFC 9559) -----------------------------------------------------------------

// A number of variable length: its size in bytes and its value.
function vintAt(bytes, at) {
  const size = Math.clz32(bytes[at]) - 23;
  // The mark is taken off first: with it eight bytes are more than a number holds.
  return { size, value: (bytes[at] & (0xff >> size)) * 256 ** (size - 1) + numberAt(bytes, at + 1, size - 1) };
}

// The elements there, as far as their heads are whole; one of unknown size has all that follows.
function* elementsIn(bytes, from, to) {
  for (let at = from; at < to;) {
    const idSize = vintAt(bytes, at).size;
    const { size, value } = vintAt(bytes, at + idSize);
    const content = at + idSize + size;
    if (content > to) return;
    const end = value === 2 ** (7 * size) - 1 ? to : content + value;
    yield { id: numberAt(bytes, at, idSize), content, end: Math.min(end, to), whole: end <= to };
    at = end;
  }
}

function elementsOf(bytes, outer, ...ids) {
  let found = [outer];
  for (const id of ids) found = found.flatMap((one) => [...elementsIn(bytes, one.content, one.end)].filter((inner) => inner.id === id));
  return found;
}

const kSegment = 0x18538067;
const kTrackEntry = [0x1654ae6b, 0xae];

// Ticks a second, and the picture's track; 0: there is none.
function webmHeadOf(head) {
  const all = { content: 0, end: head.length };
  const value = (one) => numberAt(head, one.content, one.end - one.content);
  const [scale] = elementsOf(head, all, kSegment, 0x1549a966, 0x2ad7b1);
  const video = elementsOf(head, all, kSegment, ...kTrackEntry).find((entry) => elementsOf(head, entry, 0x83).some((type) => value(type) === 1));
  const [number] = video ? elementsOf(head, video, 0xd7) : [];
  return { scale: scale ? 1e9 / value(scale) : 1000, video: number ? value(number) : 0 };
}

// Where the time of the cluster at this place stands, or -1: it is none.
function clusterTimeAt(bytes, at) {
  if (numberAt(bytes, at, 4) !== 0x1f43b675) return -1;
  const inside = at + 4 + vintAt(bytes, at + 4).size;
  return bytes[inside] === 0xe7 ? inside + 1 : -1;
}

// The same as of MP4.
function webmFactsOf(bytes, { scale, video }) {
  if (clusterTimeAt(bytes, 0) < 0) return { timeS: NaN, keyS: Infinity };
  const [cluster] = elementsIn(bytes, 0, bytes.length);
  let begin = NaN;
  const keys = [];
  for (const { id, content, end } of elementsIn(bytes, cluster.content, cluster.end)) {
    if (id === 0xe7) begin = numberAt(bytes, content, end - content);
    if (id !== 0xa3) continue;
    const track = vintAt(bytes, content);
    const at = content + track.size;
    const isKey = !video || (track.value === video && (bytes[at + 2] & 0x80) !== 0);
    if (isKey) keys.push((begin + (numberAt(bytes, at, 2) << 16 >> 16)) / scale);
  }
  return { timeS: begin / scale, keyS: Math.min(...keys) };
}

// As many bytes as are of whole clusters; of one that is longer than these bytes all.
function wholeClustersIn(bytes, last) {
  if (last <= 0) return bytes.length;
  const [cluster] = elementsIn(bytes, last, bytes.length);
  return cluster && cluster.whole ? bytes.length : last;
}

// ---- Both --------------------------------------------------------------------------------------

// Where a fragment begins, or -1.
function fragmentIn(file, bytes, from = 0) {
  if (isWebm(file)) {
    for (let at = bytes.indexOf(0x1f, from); at >= 0; at = bytes.indexOf(0x1f, at + 1)) if (clusterTimeAt(bytes, at) >= 0) return at;
    return -1;
  }
  for (let at = find(bytes, "mfhd", from); at >= 0; at = find(bytes, "mfhd", at + 1)) {
    if (at >= from + 12 && find(bytes.subarray(at - 8, at - 4), "moof") === 0) return at - 12;
  }
  return -1;
}

function fragmentsIn(file, bytes) {
  const all = [];
  for (let at = fragmentIn(file, bytes); at >= 0; at = fragmentIn(file, bytes, at + 1)) all.push(at);
  return all;
}

// A function that tells of the fragment at the beginning of some bytes.
function readerOf(file, head) {
  const known = isWebm(file) ? webmHeadOf(head) : mp4TracksOf(head);
  return (bytes) => (isWebm(file) ? webmFactsOf(bytes, known) : mp4FactsOf(bytes, known));
}
