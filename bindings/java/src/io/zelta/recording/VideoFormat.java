// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What a {@link VideoFrame} holds. */
public enum VideoFormat {
  /** An I420 picture: the planes of U and V have half the width and half the rows. */
  YUV(0),
  /** An access unit in byte-stream format, with the parameter sets in front of a key frame. */
  H264(1),
  /** A JPEG image. */
  JPG(2),
  /** One that only a newer library knows. */
  UNKNOWN(-1);

  private final int value;

  VideoFormat(int value) {
    this.value = value;
  }

  /**
   * The number in the C header.
   *
   * @return that number; -1 of {@link #UNKNOWN}
   */
  public int value() {
    return value;
  }

  static VideoFormat of(long value) {
    for (VideoFormat each : values()) {
      if (each.value == value) {
        return each;
      }
    }
    return UNKNOWN;
  }
}
