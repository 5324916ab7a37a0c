// SPDX-License-Identifier: Apache-2.0
// Hands a row of fragments to the browser by Media Source Extensions, from some time before what is
// wanted.
const mayAppend = () => !embedded && "MediaSource" in window;

const kHeadBytes = 1 << 20;
const kProbeBytes = 1 << 18;   // read where a fragment is looked for
const kFragmentHead = 1 << 16; // of which its time stands in so many
const kPieceBytes = 2 << 20;
const kAtEndMs = 400;          // between looks for more
const kSleepMs = 1000;         // the same of a file that nobody seems to write any more
const kFarS = 30;              // further on than what is there one begins anew

class AppendedFile {
  constructor(video, file, wantedS, fail) {
    this.file = file;
    this.wantedS = wantedS;
    this.begun = false;      // what is wanted is there
    this.atEnd = false;      // all that there is is there
    this.floorS = 0;         // when its first media is
    this.abort = new AbortController();
    this.source = new MediaSource();
    this.url = URL.createObjectURL(this.source);
    video.src = this.url;
    this.video = video;
    this.run().catch((error) => { if (!this.abort.signal.aborted) fail(error.message); });
  }
  close() {
    this.abort.abort();
    URL.revokeObjectURL(this.url);
  }
  get closed() { return this.abort.signal.aborted; }

  // ---- Bytes

  // From there on, null when there are no more yet.
  async read(from, most) {
    return patiently(this.abort.signal, async () => {
      const answer = await fetch(urlOf(this.file), { headers: { Range: "bytes=" + from + "-" + (from + most - 1) }, cache: "no-store", signal: this.abort.signal });
      if (answer.status === 416) return null;
      if (answer.status >= 500) throw new TypeError();
      if (!answer.ok) throw new Error("The file can't be read: " + answer.status + ".");
      this.size = Number((answer.headers.get("Content-Range") || "/0").split("/")[1]);
      return new Uint8Array(await answer.arrayBuffer());
    });
  }
  // Null: it is complete, whatever its manifest says.
  async readHead() {
    for (;;) {
      const head = await this.read(0, kHeadBytes);
      if (head && !isWebm(this.file) && !isFragmented(head)) return null;
      const end = head ? fragmentIn(this.file, head) : -1;
      if (end > 0) return head.subarray(0, end);
      if (!this.file.open) throw new Error("There is no media in this file.");
      await pause(500);
    }
  }
  // The first fragment from there on: its place and time. Null when none begins before `to`.
  async fragmentFrom(from, to) {
    // Pieces overlap, so that what tells one isn't cut.
    for (let at = from; at < to; at += kProbeBytes - 64) {
      const bytes = await this.read(at, kProbeBytes);
      if (!bytes) return null;
      for (let in_ = fragmentIn(this.file, bytes); in_ >= 0; in_ = fragmentIn(this.file, bytes, in_ + 1)) {
        if (at + in_ >= to) return null;
        const whole = bytes.length - in_ >= kFragmentHead || bytes.length < kProbeBytes;
        const { timeS } = this.factsOf(whole ? bytes.subarray(in_) : await this.read(at + in_, kFragmentHead));
        // What only looks like one says nothing of its time.
        if (Number.isFinite(timeS)) return { at: at + in_, timeS };
      }
      if (bytes.length < kProbeBytes) return null;
    }
    return null;
  }
  // The last fragment that begins at or before this time, or one not far before it.
  async placeOf(s) {
    let low = this.headBytes;
    let high = this.size;
    while (s > 0 && high - low > 2 * kProbeBytes) {
      const middle = Math.floor((low + high) / 2);
      const found = await this.fragmentFrom(middle, high);
      if (found && found.timeS <= s) low = found.at;
      else high = middle;
    }
    return low;
  }

  // ---- The browser's buffer

  async append(bytes) {
    for (;;) {
      try {
        this.buffer.appendBuffer(bytes);
        break;
      } catch (error) {
        if (error.name !== "QuotaExceededError") throw error;
        // What has been played goes; else it waits until something has.
        const until = this.video.currentTime - 30;
        if (this.buffer.buffered.length && until > this.buffer.buffered.start(0)) await this.remove(until);
        else await pause(500);
        if (this.closed) return;
      }
    }
    await happens(this.buffer, "updateend");
    if (this.video.error) throw new Error("The browser can't play this file.");
  }
  async remove(until) {
    this.buffer.remove(0, until);
    await happens(this.buffer, "updateend");
  }
  // The next piece of whole fragments; null: there is no more yet.
  async readNext() {
    const bytes = await this.read(this.at, kPieceBytes);
    if (!bytes || bytes.length === 0) return null;
    const found = this.begun ? [] : fragmentsIn(this.file, bytes);
    const whole = isWebm(this.file) ? wholeClustersIn(bytes, found.at(-1) || 0) : this.walker.take(bytes);
    for (const at of found.filter((one) => one < whole)) {
      const { timeS, keyS } = this.factsOf(bytes.subarray(at));
      // A file that was torn may end in what is no fragment.
      if (timeS > this.lastS) this.lastS = timeS;
      if (keyS < this.keyS) this.keyS = keyS;
    }
    this.at += whole;
    // Completed since: its manifest is about to say so, and it is opened as a whole then.
    if (this.walker.ended && !this.completed) {
      this.completed = true;
      poll();
    }
    return whole === 0 ? null : whole < bytes.length ? bytes.slice(0, whole) : bytes;
  }
  async appendNext() {
    const piece = await this.readNext();
    if (piece) await this.append(piece);
    return piece !== null;
  }
  // Begins as far before what is wanted as it takes for a key frame to be there. What a browser says to
  // have buffered may begin long before the first picture, so their own words count.
  async begin() {
    let pieces = [];
    const has = () => this.keyS <= this.wantedS + 0.05;
    for (let back = kBeforeS; !this.closed; back *= 4) {
      this.at = await this.placeOf(this.wantedS - back);
      const fromHead = this.at === this.headBytes;
      this.walker = new BoxWalker();
      this.lastS = 0;
      this.keyS = Infinity;
      pieces = [];
      while (!has() && this.lastS <= this.wantedS + 1 && !this.closed) {
        const piece = await this.readNext();
        if (!piece) break;
        pieces.push(piece);
      }
      if (has() || fromHead) break;
    }
    for (const piece of pieces) await this.append(piece);
    if (!has()) await this.findFloor();
  }
  // The first media comes after what is wanted, if there is any yet.
  async findFloor() {
    while (this.buffer.buffered.length === 0 && !this.closed && !this.walker.ended) {
      if (await this.appendNext()) continue;
      if (!this.file.open) break;
      await pause(kAtEndMs);
    }
    if (this.buffer.buffered.length === 0) this.atEnd = true;
    else this.floorS = Number.isFinite(this.keyS) ? this.keyS : this.buffer.buffered.start(0);
  }
  async run() {
    if (this.source.readyState !== "open") await happens(this.source, "sourceopen");
    const head = await this.readHead();
    if (!head) {
      this.file.whole = true;
      return;
    }
    const mime = mimeOf(this.file, head);
    if (!mime || !MediaSource.isTypeSupported(mime)) throw new Error("This browser can't play " + (this.file.video || this.file.audio) + ".");
    this.headBytes = head.length;
    this.factsOf = readerOf(this.file, head);
    this.buffer = this.source.addSourceBuffer(mime);
    await this.append(head);
    await this.begin();
    this.begun = true;
    this.beginS = Math.max(this.keyS, this.floorS);
    while (!this.closed) {
      const more = !this.walker.ended && (await this.appendNext());
      this.atEnd = !more;
      if (more) continue;
      if (!this.file.open && this.source.readyState === "open" && !this.closed) this.source.endOfStream();
      // Who was away may be back: what is written then is appended, too.
      do await pause(this.file.open ? kAtEndMs : kSleepMs); while (!this.closed && !this.file.open);
    }
  }
  get endS() {
    const ranges = this.video.buffered;
    return ranges.length ? ranges.end(ranges.length - 1) : 0;
  }
  // Whether the time can be reached without beginning anew.
  has(s) {
    if (!this.begun) return Math.abs(s - this.wantedS) < kBeforeS;
    const ranges = this.video.buffered;
    if (ranges.length === 0) return this.atEnd;
    return Math.max(s, this.floorS) >= Math.max(ranges.start(0), this.beginS) - 0.1 && (this.atEnd || s <= this.endS + kFarS);
  }
}
