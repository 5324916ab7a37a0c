// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.Objects;

/**
 * Where a user stands on the mixed picture.
 *
 * @param uid the user
 * @param x left edge, 0 to 1 of the picture's width
 * @param y upper edge, 0 to 1 of the picture's height
 * @param width 0 to 1 of the picture's width
 * @param height 0 to 1 of the picture's height
 * @param alpha 0, invisible, to 1
 * @param renderMode how the user's picture is put there
 */
public record Region(
    long uid, double x, double y, double width, double height, double alpha, RenderMode renderMode) {
  /**
   * Checks the uid; places are checked when the layout is set.
   *
   * @param uid the user
   * @param x left edge, 0 to 1 of the picture's width
   * @param y upper edge, 0 to 1 of the picture's height
   * @param width 0 to 1 of the picture's width
   * @param height 0 to 1 of the picture's height
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
   * @param x left edge, 0 to 1 of the picture's width
   * @param y upper edge, 0 to 1 of the picture's height
   * @param width 0 to 1 of the picture's width
   * @param height 0 to 1 of the picture's height
   */
  public Region(long uid, double x, double y, double width, double height) {
    this(uid, x, y, width, height, 1, RenderMode.CROP);
  }
}
