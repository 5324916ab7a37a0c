// SPDX-License-Identifier: Apache-2.0
// Records the audio and video of real-time channels; index.d.ts says what each call does.
'use strict';

const native = require('./lib/native.js');
const { SessionError, ZeltaError } = require('./lib/errors.js');
const { AudioFrame, VideoFrame } = require('./lib/frames.js');
const { Recording } = require('./lib/recording.js');

const { Result, ...constants } = native.constants;
for (const group of Object.values(constants)) Object.freeze(group);

module.exports = {
  AudioFrame, Recording, SessionError, VideoFrame, ZeltaError, ...constants, version: native.version,
};
