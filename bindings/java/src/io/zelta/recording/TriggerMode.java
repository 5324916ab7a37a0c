// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What starts the recording. */
public enum TriggerMode {
  /** The join. */
  AUTOMATIC(0),
  /** {@link Recording#startService()}. */
  MANUAL(1);

  private final int value;

  TriggerMode(int value) {
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
