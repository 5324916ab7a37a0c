// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** A call that failed, and has had no effect. */
public class ZeltaException extends RuntimeException {
  private static final long serialVersionUID = 1L;

  /** The number of the failure. */
  private final int code;

  /** What the number means. */
  private final String text;

  /** What was wrong this time. */
  private final String detail;

  ZeltaException(int code, String text, String detail) {
    super(detail.isEmpty() || detail.equals(text) ? text : text + ": " + detail);
    this.code = code;
    this.text = text;
    this.detail = detail;
  }

  /**
   * The failure's number.
   *
   * @return a negative number of {@code zelta_result} in the C header
   */
  public int code() {
    return code;
  }

  /**
   * What {@link #code()} means.
   *
   * @return a few words, the same for each failure of that code
   */
  public String text() {
    return text;
  }

  /**
   * Which value was wrong, and what would be right. Where calls of one recording fail on two
   * threads at once, it may be the other's.
   *
   * @return the detail; empty where nothing more is known
   */
  public String detail() {
    return detail;
  }

  // The numbers are those of the C header.
  static ZeltaException of(int code, String text, String detail) {
    switch (code) {
      case -2, -3, -4:
        return new ArgumentException(code, text, detail);
      case -5:
        return new ConfigurationException(code, text, detail);
      case -6:
        return new RefusedException(code, text, detail);
      case -1, -7, -8, -9:
        return new RecordingStateException(code, text, detail);
      default:
        return new ZeltaException(code, text, detail);
    }
  }
}
