// SPDX-License-Identifier: Apache-2.0
// Frames: what was read of them, and views over the memory that the recording lends. One ArrayBuffer has
// all of it, made when it is asked for; views are made over that.
'use strict';

const native = require('./native.js');
const { ZeltaError } = require('./errors.js');

const { AudioFormat, VideoFormat } = native.constants;

class Frame {
  #memory;
  #buffer = null;

  constructor(described) {
    const { memory, ...members } = described;
    this.#memory = memory;
    Object.assign(this, members);
  }

  get released() {
    return this.#memory === null;
  }

  get data() {
    return new Uint8Array(this._buffer());
  }

  release() {
    if (this.#memory === null) return;
    native.frameRelease(this.#memory, this.#buffer);
    this.#memory = this.#buffer = null;
  }

  _buffer() {
    if (this.#memory === null) throw new ZeltaError('ERR_ZELTA_RELEASED', 'the frame was released', '');
    this.#buffer ??= native.frameBuffer(this.#memory);
    return this.#buffer;
  }

  _only(wanted, has, where) {
    if (this.format === wanted) return;
    throw new ZeltaError('ERR_ZELTA_FORMAT', `a frame of this format has no ${has}`, where);
  }
}
// Where `using` is, or what stands in for it.
if (Symbol.dispose) {
  Object.defineProperty(Frame.prototype, Symbol.dispose, { value: Frame.prototype.release });
}

class AudioFrame extends Frame {
  get samples() {
    this._only(AudioFormat.PCM, 'samples', 'its bytes are in data');
    return new Int16Array(this._buffer());
  }
}

class VideoFrame extends Frame {
  #places;

  constructor({ offsets, strides, ...described }) {
    super(described);
    this.#places = { offsets, strides };
  }

  get planes() {
    this._only(VideoFormat.YUV, 'planes', 'its bytes are in data');
    const buffer = this._buffer();
    const { offsets, strides } = this.#places;
    return offsets.map((offset, i) => {
      const width = i === 0 ? this.width : Math.ceil(this.width / 2);
      const height = i === 0 ? this.height : Math.ceil(this.height / 2);
      // The last row may end before its stride does.
      const bytes = Math.min(strides[i] * height, buffer.byteLength - offset);
      return { data: new Uint8Array(buffer, offset, bytes), stride: strides[i], width, height };
    });
  }
}

module.exports = { AudioFrame, VideoFrame };
