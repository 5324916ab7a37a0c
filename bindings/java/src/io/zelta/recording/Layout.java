// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.List;
import java.util.Objects;

/**
 * How users are arranged on the mixed picture, whose size {@link Config.Builder#mixResolution}
 * says.
 *
 * @param regions later ones lie on top; none is the background alone
 * @param backgroundColor {@code "#rrggbb"}; empty is black
 */
public record Layout(List<Region> regions, String backgroundColor) {
  /**
   * Copies the regions.
   *
   * @param regions later ones lie on top; none is the background alone
   * @param backgroundColor {@code "#rrggbb"}; empty is black
   */
  public Layout {
    regions = List.copyOf(Objects.requireNonNull(regions, "regions"));
    Objects.requireNonNull(backgroundColor, "backgroundColor");
  }

  /**
   * A layout on black.
   *
   * @param regions later ones lie on top; none is the background alone
   */
  public Layout(List<Region> regions) {
    this(regions, "");
  }
}
