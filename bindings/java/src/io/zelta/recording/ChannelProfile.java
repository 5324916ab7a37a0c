// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What kind of channel is recorded. */
public enum ChannelProfile {
  /** Everybody speaks. */
  COMMUNICATION(0),
  /** Hosts speak to an audience. */
  LIVE_BROADCASTING(1);

  private final int value;

  ChannelProfile(int value) {
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
