// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Numbers of users: unsigned 32-bit numbers outside of Java, here in a long. */
final class Uids {
  private static final long MOST = 0xffff_ffffL;

  private Uids() {}

  static int toInt(long uid) {
    if (uid < 0 || uid > MOST) {
      throw new IllegalArgumentException("uid is " + uid + ", it should be 0 to " + MOST);
    }
    return (int) uid;
  }
}
