// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.Collections;
import java.util.EnumSet;
import java.util.Set;

/** Why the recorder left; several may be true at once. */
public enum LeaveReason {
  /** The recorder got SIGTERM or SIGINT. */
  SIGNAL(2),
  /** Nobody was in the channel for {@link Config.Builder#idleLimit}. */
  NO_USERS(4),
  /** The recorder's own guard: no progress, or no disk. */
  GUARD(8),
  /** The application left. */
  APPLICATION(16);

  private final int value;

  LeaveReason(int value) {
    this.value = value;
  }

  /**
   * The bit in the C header.
   *
   * @return that number
   */
  public int value() {
    return value;
  }

  static Set<LeaveReason> of(long bits) {
    Set<LeaveReason> found = EnumSet.noneOf(LeaveReason.class);
    for (LeaveReason each : values()) {
      if ((bits & each.value) != 0) {
        found.add(each);
      }
    }
    return Collections.unmodifiableSet(found);
  }
}
