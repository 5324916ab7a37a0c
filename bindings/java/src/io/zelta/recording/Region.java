// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.Objects;

/**
 * Where a user stands on the mixed picture; what lies outside of it is cut off.
 *
 * @param uid the user
 * @param x left edge, -2 to 2 widths of the picture
 * @param y upper edge, -2 to 2 heights of the picture
 * @param width 0 to 2 widths of the picture
 * @param height 0 to 2 heights of the picture
 * @param alpha 0, invisible, to 1
 * @param renderMode how the user's picture is put there
 */
public record Region(long uid, double x, double y, double width, double height, double alpha,
    RenderMode renderMode) {
  /**
   * Checks the uid; places are checked when the layout is set.
   *
   * @param uid the user
   * @param x left edge, -2 to 2 widths of the picture
   * @param y upper edge, -2 to 2 heights of the picture
   * @param width 0 to 2 widths of the picture
   * @param height 0 to 2 heights of the picture
   * @param alpha 0, invisible, to 1
   * @param renderMode how the user's picture is put there
   */
  public Region {
    Objects.requireNonNull(renderMode, "renderMode");
    Uids.toInt(uid);
  }

  /**
   * An opaque region that the user's picture fills.
   *
   * @param uid the user
   * @param x left edge, -2 to 2 widths of the picture
   * @param y upper edge, -2 to 2 heights of the picture
   * @param width 0 to 2 widths of the picture
   * @param height 0 to 2 heights of the picture
   */
  public Region(long uid, double x, double y, double width, double height) {
    this(uid, x, y, width, height, 1, RenderMode.CROP);
  }
}
