// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.lang.ref.Cleaner;
import java.nio.ByteBuffer;

/**
 * What a frame has borrowed: an event, which is given back once, by the frame's close or when the
 * buffer over its memory isn't reachable any more; and a hold of the recording, which is dropped
 * only then. So memory that a forgotten buffer shows stays mapped until the library itself gives
 * it up. Frame and views of the buffer keep it reachable.
 */
final class Lease {
  private static final Cleaner CLEANER = Cleaner.create();
  private final Handle handle;
  private final long event;
  private boolean ended;

  private Lease(Handle handle, long event) {
    this.handle = handle;
    this.event = event;
  }

  /** Takes over `event`, which `handle` has lent, and a hold of it. */
  static Lease of(Handle handle, long event, ByteBuffer lent) {
    Lease lease = new Lease(handle, event);
    // The action knows nothing of the buffer, or it would never be unreachable.
    CLEANER.register(lent, lease::forget);
    return lease;
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
    if (!ended) {
      ended = true;
      Native.releaseEvent(handle.number(), event);
    }
  }

  // An end() that runs on another thread is waited for, as it needs the recording.
  private void forget() {
    try {
      end();
    } finally {
      handle.drop();
    }
  }
}
