// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** What is done with video. */
public enum DecodeVideo {
  /** Recorded in files. */
  FILES(0),
  /** H.264 access units come as frames; no video is written. */
  H264_FRAMES(1),
  /** Decoded pictures come as frames; no video is written. */
  YUV_FRAMES(2),
  /** A JPEG every capture interval comes as a frame. */
  JPG_FRAMES(3),
  /** A JPEG every capture interval is written as a file. */
  JPG_FILES(4),
  /** JPEG files beside the recording. */
  FILES_AND_JPG_FILES(5);

  private final int value;

  DecodeVideo(int value) {
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
