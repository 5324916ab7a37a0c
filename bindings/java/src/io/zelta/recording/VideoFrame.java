// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Objects;

/** A picture, as {@link Config.Builder#decodeVideo} asked for it. */
public final class VideoFrame extends Frame {
  private static final int PLANES = 3;
  private final VideoFormat format;
  private final int rotation;
  private final long frameNumber;
  private final int width;
  private final int height;
  private final int[] offsets = new int[PLANES];
  private final int[] strides = new int[PLANES];

  // `numbers` are the event's, in the order of the C struct behind `from`.
  VideoFrame(long uid, long[] numbers, int from, ByteBuffer data, Lease lease) {
    super(uid, numbers[from], data, lease);
    format = VideoFormat.of(numbers[from + 1]);
    rotation = (int) numbers[from + 2];
    frameNumber = numbers[from + 3];
    width = (int) numbers[from + 4];
    height = (int) numbers[from + 5];
    for (int plane = 0; plane < PLANES; ++plane) {
      offsets[plane] = (int) numbers[from + 6 + plane];
      strides[plane] = (int) numbers[from + 6 + PLANES + plane];
    }
  }

  /**
   * What it holds.
   *
   * @return how {@link #data()} is to be read
   */
  public VideoFormat format() {
    return format;
  }

  /**
   * By how much the picture is to be turned for display.
   *
   * @return degrees clockwise
   */
  public int rotation() {
    return rotation;
  }

  /**
   * Which of the user's access units it is.
   *
   * @return H.264: a number that counts up; else 0
   */
  public long frameNumber() {
    return frameNumber;
  }

  /**
   * How wide the picture is.
   *
   * @return YUV: pixels; else 0, as the encoded picture knows it
   */
  public int width() {
    return width;
  }

  /**
   * How high the picture is.
   *
   * @return YUV: pixels; else 0, as the encoded picture knows it
   */
  public int height() {
    return height;
  }

  /**
   * One plane of a YUV picture: {@link #stride} bytes a row, of which the width is the picture's.
   *
   * @param index 0 is Y, 1 U and 2 V
   * @return a read-only direct buffer, which must not be read after {@link #close()}
   * @throws IllegalStateException after {@link #close()}, or when it isn't YUV
   */
  public ByteBuffer plane(int index) {
    Objects.checkIndex(index, PLANES);
    ByteBuffer all = data();
    checkPlanes();
    int bytes = Math.min(strides[index] * rows(index), all.capacity() - offsets[index]);
    return all.slice(offsets[index], bytes).order(ByteOrder.nativeOrder());
  }

  /**
   * Bytes from one row of a plane to the next.
   *
   * @param index 0 is Y, 1 U and 2 V
   * @return at least {@link #planeWidth}
   * @throws IllegalStateException when it isn't YUV
   */
  public int stride(int index) {
    Objects.checkIndex(index, PLANES);
    checkPlanes();
    return strides[index];
  }

  /**
   * How wide a plane is.
   *
   * @param index 0 is Y, 1 U and 2 V
   * @return bytes of a row that are the picture's
   * @throws IllegalStateException when it isn't YUV
   */
  public int planeWidth(int index) {
    Objects.checkIndex(index, PLANES);
    checkPlanes();
    return index == 0 ? width : (width + 1) / 2;
  }

  /**
   * How high a plane is.
   *
   * @param index 0 is Y, 1 U and 2 V
   * @return rows
   * @throws IllegalStateException when it isn't YUV
   */
  public int rows(int index) {
    Objects.checkIndex(index, PLANES);
    checkPlanes();
    return index == 0 ? height : (height + 1) / 2;
  }

  private void checkPlanes() {
    if (format != VideoFormat.YUV) {
      throw new IllegalStateException("only YUV has planes, this is " + format);
    }
  }
}
