// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What an {@link AudioFrame} holds. */
public enum AudioFormat {
  /** Interleaved 16-bit samples in the machine's byte order. */
  PCM(0),
  /** One ADTS frame. */
  AAC(1),
  /** One that only a newer library knows. */
  UNKNOWN(-1);

  private final int value;

  AudioFormat(int value) {
    this.value = value;
  }

  /**
   * The number in the C header.
   *
   * @return that number; -1 of {@link #UNKNOWN}
   */
  public int value() {
    return value;
  }

  static AudioFormat of(long value) {
    for (AudioFormat each : values()) {
      if (each.value == value) {
        return each;
      }
    }
    return UNKNOWN;
  }
}
