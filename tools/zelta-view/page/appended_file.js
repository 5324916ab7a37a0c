// SPDX-License-Identifier: Apache-2.0
// Hands a row of fragments to the browser by Media Source Extensions, from some time before what is
// wanted.
const mayAppend = () => !embedded && "MediaSource" in window;

class AppendedFile {
  constructor(video, file, fromS, fail) {
    this.file = file;
    this.fromS = Math.max(0, fromS - kBeforeS);
    this.fail = fail;
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
  // Bytes from there on, null when there are no more yet.
  async read(from, most) {
    const answer = await fetch(urlOf(this.file), { headers: { Range: "bytes=" + from + "-" + (from + most - 1) }, cache: "no-store", signal: this.abort.signal });
    if (answer.status === 416) return null;
    if (!answer.ok) throw new Error("The file can't be read: " + answer.status + ".");
    this.size = Number((answer.headers.get("Content-Range") || "/0").split("/")[1]);
    return new Uint8Array(await answer.arrayBuffer());
  }
  async readHead() {
    for (;;) {
      const head = await this.read(0, 1 << 20);
      const end = head ? fragmentIn(this.file, head, 0) : -1;
      if (end > 0) return head.subarray(0, end);
      if (!this.file.open) throw new Error("There is no media in this file.");
      await pause(500);
    }
  }
  // The first fragment of those that may hold what is wanted, by the share of the time.
  async start(headBytes) {
    const lengthS = Math.max((this.file.end_ms - this.file.begin_ms) / 1000, 1);
    for (let share = this.fromS / lengthS; share > 0.02; share /= 2) {
      const from = Math.floor(headBytes + (this.size - headBytes) * Math.min(share, 0.98));
      const bytes = await this.read(from, 1 << 20);
      const at = bytes ? fragmentIn(this.file, bytes, 0) : -1;
      if (at >= 0) return from + at;
    }
    return headBytes;
  }
  async append(bytes) {
    for (;;) {
      try {
        this.buffer.appendBuffer(bytes);
        break;
      } catch (error) {
        if (error.name !== "QuotaExceededError") throw error;
        // What has been played goes; else it waits until something has.
        const until = this.video.currentTime - 30;
        if (this.buffer.buffered.length && until > this.buffer.buffered.start(0)) {
          this.buffer.remove(0, until);
          await happens(this.buffer, "updateend");
        } else {
          await pause(500);
        }
        if (this.abort.signal.aborted) return;
      }
    }
    await happens(this.buffer, "updateend");
    if (this.video.error) throw new Error("The browser can't play this file.");
  }
  async run() {
    if (this.source.readyState !== "open") await happens(this.source, "sourceopen");
    const head = await this.readHead();
    const mime = mimeOf(this.file, head);
    if (!mime || !MediaSource.isTypeSupported(mime)) throw new Error("This browser can't play " + (this.file.video || this.file.audio) + ".");
    this.buffer = this.source.addSourceBuffer(mime);
    await this.append(head);
    let at = await this.start(head.length);
    while (!this.abort.signal.aborted) {
      const bytes = await this.read(at, 2 << 20);
      if (bytes && bytes.length > 0) {
        at += bytes.length;
        await this.append(bytes);
      } else if (this.file.open) {
        await pause(400);
      } else {
        if (this.source.readyState === "open") this.source.endOfStream();
        return;
      }
    }
  }
  // Whether the time can be reached without beginning anew.
  has(s) {
    const ranges = this.video.buffered;
    return ranges.length === 0 || s >= ranges.start(0) - 0.5;
  }
}
