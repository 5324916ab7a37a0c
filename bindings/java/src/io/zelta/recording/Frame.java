// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * Media of a user, in memory that is lent and not copied. It holds room in the recording's queue,
 * and frames that come without room are dropped: close each as soon as it was used.
 *
 * <p>{@link #close()} gives the memory back at once. Until then its buffers stay as they are, also
 * after the recording was closed. Afterwards a buffer that was kept must not be read: it shows
 * another frame, or ends the virtual machine. {@link #toByteArray()} is for what is kept.
 *
 * <p>A frame that nobody closes is given back when the collector has found that neither it nor a
 * buffer of it, nor a slice of one, is reachable. That may take long, as the collector doesn't know
 * how much memory that is.
 */
public abstract sealed class Frame implements Event, AutoCloseable permits AudioFrame, VideoFrame {
  private final long uid;
  private final long timeMs;
  private final ByteBuffer data;
  private final Lease lease;

  Frame(long uid, long timeMs, ByteBuffer data, Lease lease) {
    this.uid = uid;
    this.timeMs = timeMs;
    this.data = data;
    this.lease = lease;
  }

  /**
   * The user whose media it is.
   *
   * @return the user; 0 of mixed sound
   */
  public long uid() {
    return uid;
  }

  /**
   * When it was.
   *
   * @return media time of the picture or of the first sample, milliseconds
   */
  public long timeMs() {
    return timeMs;
  }

  /**
   * The media itself: a read-only direct buffer in the machine's byte order, over the lent memory.
   *
   * @return a new buffer over the same memory, which must not be read after {@link #close()}
   * @throws IllegalStateException after {@link #close()}
   */
  public ByteBuffer data() {
    lease.check();
    // A view remembers the buffer that it is of, and with it all that is lent.
    return data.asReadOnlyBuffer().order(ByteOrder.nativeOrder());
  }

  /**
   * A copy of the media, which stays when the frame is closed.
   *
   * @return all bytes of {@link #data()}
   * @throws IllegalStateException after {@link #close()}
   */
  public byte[] toByteArray() {
    byte[] copy = new byte[data.capacity()];
    lease.use(() -> data.get(0, copy));
    return copy;
  }

  /** Gives the memory back; a second time does nothing. */
  @Override
  public void close() {
    lease.end();
  }

  /**
   * What it is, without its bytes.
   *
   * @return one line; also after {@link #close()}
   */
  @Override
  public String toString() {
    return getClass().getSimpleName()
        + "[uid=" + uid + ", timeMs=" + timeMs + ", bytes=" + data.capacity() + "]";
  }
}
