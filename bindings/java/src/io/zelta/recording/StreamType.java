// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Which of a user's pictures is recorded, where there are two. */
public enum StreamType {
  /** The large one. */
  HIGH(0),
  /** The small one. */
  LOW(1);

  private final int value;

  StreamType(int value) {
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
