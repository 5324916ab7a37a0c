// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Whether mixed sound and picture share a file. */
public enum MixedFile {
  /** A file of each. */
  APART(0),
  /** One file, H.264 constrained baseline. */
  BASELINE(1),
  /** One file, H.264 high profile. */
  HIGH(2);

  private final int value;

  MixedFile(int value) {
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
