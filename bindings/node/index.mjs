// SPDX-License-Identifier: Apache-2.0
// The same by names, for `import`.
import recording from './index.js';

export const {
  AudioFormat, AudioFrame, AudioProfile, DecodeAudio, DecodeVideo, ErrorKind, LeaveReason, LogLevel,
  MixedFile, OfflineReason, Recording, SessionError, Stat, VideoFormat, VideoFrame, WarningKind,
  ZeltaError, version,
} = recording;
