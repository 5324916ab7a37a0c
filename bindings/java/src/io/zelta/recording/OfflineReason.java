// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Why a user went. */
public enum OfflineReason {
  /** The user left; the only one that is reported today. */
  QUIT(0),
  /** The connection to the user was lost. */
  DROPPED(1),
  /** A host went to the audience. */
  BECOME_AUDIENCE(2),
  /** One that only a newer library knows. */
  UNKNOWN(-1);

  private final int value;

  OfflineReason(int value) {
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

  static OfflineReason of(long value) {
    for (OfflineReason each : values()) {
      if (each.value == value) {
        return each;
      }
    }
    return UNKNOWN;
  }
}
