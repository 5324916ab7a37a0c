// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What has failed, of an {@link Event.Failure}. */
public enum SessionError {
  /** The recorder could not do its work: the session has ended. */
  FAILED(1),
  /** Something of one user's can't be recorded; all else is. */
  USER_FAILED(2),
  /** The recorder has died and could not be started again: the session has ended. */
  RECORDER_GONE(3),
  /** One that only a newer library knows. */
  UNKNOWN(-1);

  private final int value;

  SessionError(int value) {
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

  static SessionError of(long value) {
    for (SessionError each : values()) {
      if (each.value == value) {
        return each;
      }
    }
    return UNKNOWN;
  }
}
