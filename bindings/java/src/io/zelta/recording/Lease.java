// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.lang.ref.Cleaner;
import java.nio.ByteBuffer;

/**
 * What a frame has borrowed. It ends once: by the frame's close, or when the buffer over the memory
 * isn't reachable any more. Frame and views of the buffer keep it reachable.
 */
final class Lease {
  private static final Cleaner CLEANER = Cleaner.create();
  private final Cleaner.Cleanable cleanable;
  private boolean ended;

  /** Takes over `event`, which `handle` has lent, and a hold of it. */
  Lease(Handle handle, long event, ByteBuffer lent) {
    // The action knows nothing of the frame, or nothing would ever be unreachable.
    cleanable =
        CLEANER.register(
            lent,
            () -> {
              Native.releaseEvent(handle.number(), event);
              handle.drop();
            });
  }

  static Cleaner cleaner() {
    return CLEANER;
  }

  synchronized void check() {
    if (ended) {
      throw new IllegalStateException("the frame was closed, and its memory given back");
    }
  }

  /** Runs it while the memory can't be given back. */
  synchronized void use(Runnable call) {
    check();
    call.run();
  }

  synchronized void end() {
    ended = true;
    cleanable.clean();
  }
}
