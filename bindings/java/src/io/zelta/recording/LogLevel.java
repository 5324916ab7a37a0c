// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What is logged; lower is more severe. */
public enum LogLevel {
  /** The process can't go on. */
  FATAL(1),
  /** Something was refused or lost. */
  ERROR(2),
  /** Something is not as it should be. */
  WARN(3),
  /** The steps of a session; the default. */
  NOTICE(4),
  /** Details of it. */
  INFO(5),
  /** For the developers. */
  DEBUG(6);

  private final int value;

  LogLevel(int value) {
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
