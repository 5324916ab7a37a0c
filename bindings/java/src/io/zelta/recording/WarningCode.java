// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What an {@link Event.Warning} tells. */
public enum WarningCode {
  /** No server has room for the channel. */
  NO_AVAILABLE_CHANNEL(103),
  /** Looking the channel up took too long. */
  LOOKUP_TIMEOUT(104),
  /** The server refused to look the channel up. */
  LOOKUP_REJECTED(105),
  /** Opening the channel took too long. */
  OPEN_TIMEOUT(106),
  /** The server refused to open the channel. */
  OPEN_REJECTED(107),
  /** The recorder had died and was started again. */
  RECOVERED(108),
  /** One that only a newer library knows. */
  UNKNOWN(-1);

  private final int value;

  WarningCode(int value) {
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

  static WarningCode of(long value) {
    for (WarningCode each : values()) {
      if (each.value == value) {
        return each;
      }
    }
    return UNKNOWN;
  }
}
