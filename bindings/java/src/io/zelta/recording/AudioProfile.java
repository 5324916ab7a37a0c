// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** How mixed sound is encoded, at 48 kHz. */
public enum AudioProfile {
  /** 48 kbit/s. */
  MONO(0),
  /** 128 kbit/s. */
  HIGH_MONO(1),
  /** 192 kbit/s. */
  HIGH_STEREO(2);

  private final int value;

  AudioProfile(int value) {
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
