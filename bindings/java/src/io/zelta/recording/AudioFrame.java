// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.ByteBuffer;
import java.nio.ShortBuffer;

/** Sound, as {@link Config.Builder#decodeAudio} asked for it. */
public final class AudioFrame extends Frame {
  private final AudioFormat format;
  private final int channels;
  private final int sampleRate;
  private final int bitrate;

  // `numbers` are the event's, in the order of the C struct behind `from`.
  AudioFrame(long uid, long[] numbers, int from, ByteBuffer data, Lease lease) {
    super(uid, numbers[from], data, lease);
    format = AudioFormat.of(numbers[from + 1]);
    channels = (int) numbers[from + 2];
    sampleRate = (int) numbers[from + 3];
    bitrate = (int) numbers[from + 4];
  }

  /**
   * What it holds.
   *
   * @return how {@link #data()} is to be read
   */
  public AudioFormat format() {
    return format;
  }

  /**
   * How many channels there are.
   *
   * @return 1 or 2
   */
  public int channels() {
    return channels;
  }

  /**
   * How fast it was sampled.
   *
   * @return PCM: samples a second and channel; else 0
   */
  public int sampleRate() {
    return sampleRate;
  }

  /**
   * How much it is compressed.
   *
   * @return AAC: bits a second; else 0
   */
  public int bitrate() {
    return bitrate;
  }

  /**
   * PCM: the samples, those of a time beside each other, as a view of {@link #data()}.
   *
   * @return a read-only buffer, which must not be read after {@link #close()}
   * @throws IllegalStateException after {@link #close()}, or when it isn't PCM
   */
  public ShortBuffer samples() {
    if (format != AudioFormat.PCM) {
      throw new IllegalStateException("only PCM has samples, this is " + format);
    }
    return data().asShortBuffer();
  }
}
