// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** How a picture is put into its region. */
public enum RenderMode {
  /** It fills the region, and what stands out is cut off. */
  CROP(0),
  /** All of it is shown, and the rest of the region stays empty. */
  FIT(1);

  private final int value;

  RenderMode(int value) {
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
