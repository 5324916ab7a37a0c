// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.Collections;
import java.util.EnumSet;
import java.util.Set;

/** What is added to a failure: one of the first six, and any of the last three. */
public enum Stat {
  /** The recorder's media engine failed. */
  MEDIA_ENGINE(1),
  /** The channel could not be joined. */
  JOIN(2),
  /** A process could not be started. */
  PROCESS(3),
  /** The mixed picture's parameters can't be used. */
  MIXED_VIDEO(4),
  /** Something needed was not given. */
  NOT_GIVEN(5),
  /** The proxy server's text can't be used. */
  PROXY(6),
  /** The recorder stopped reading, or sent nonsense. */
  POLL_ERROR(8),
  /** The recorder has ended. */
  POLL_HANG_UP(16),
  /** The link's descriptor is not open. */
  POLL_INVALID(32);

  private static final int BITS_FROM = 8;
  private final int value;

  Stat(int value) {
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

  static Set<Stat> of(long code) {
    Set<Stat> found = EnumSet.noneOf(Stat.class);
    for (Stat each : values()) {
      boolean isBit = each.value >= BITS_FROM;
      if (isBit ? (code & each.value) != 0 : code % BITS_FROM == each.value) {
        found.add(each);
      }
    }
    return Collections.unmodifiableSet(found);
  }
}
