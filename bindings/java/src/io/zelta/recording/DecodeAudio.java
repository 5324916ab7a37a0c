// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What is done with audio. */
public enum DecodeAudio {
  /** Recorded in files. */
  FILES(0),
  /** AAC of each user comes as frames; no audio is written. */
  AAC_FRAMES(1),
  /** Samples of each user come as frames; no audio is written. */
  PCM_FRAMES(2),
  /** Samples of all users mixed come as frames, of uid 0. */
  MIXED_PCM_FRAMES(3);

  private final int value;

  DecodeAudio(int value) {
    this.value = value;
  }

  /**
   * The number in the C header.
   *
   * @return that number
   */
  public int value() {
    return value;
  }
}
