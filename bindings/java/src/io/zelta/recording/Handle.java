// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.util.HashSet;
import java.util.Set;

/**
 * The library's recording, and who needs it: calls that run and frames that are lent each hold it.
 * It is released when it was closed and the last hold was dropped. Any thread may call.
 */
final class Handle {
  private final long number;
  private final int eventFd;
  private final Set<Waiter> waiters = new HashSet<>();
  private int holds;
  private boolean closed;

  Handle(long number) {
    this.number = number;
    eventFd = Native.eventFd(number);
  }

  long number() {
    return number;
  }

  /** False: it was closed. */
  synchronized boolean tryHold() {
    if (closed) {
      return false;
    }
    ++holds;
    return true;
  }

  /** One hold more, of who has one. */
  synchronized void holdOnceMore() {
    ++holds;
  }

  void drop() {
    boolean isLast;
    synchronized (this) {
      isLast = --holds == 0 && closed;
    }
    if (isLast) {
      Native.release(number);
    }
  }

  synchronized boolean isClosed() {
    return closed;
  }

  /** Completes the files; what is lent stays. */
  void close() {
    if (!tryHold()) {
      return;
    }
    try {
      Native.finish(number);
      // The handle may be held for long, by buffers that the collector has not looked at.
      Native.dropQueue(number);
    } finally {
      synchronized (this) {
        closed = true;
        waiters.forEach(Waiter::wake);
      }
      drop();
    }
  }

  /** Waits for an event, `timeoutMs`, or the close. Needs a hold. */
  void await(int timeoutMs) throws InterruptedException {
    Waiter waiter = new Waiter();
    try {
      synchronized (this) {
        if (closed) {
          return;
        }
        waiters.add(waiter);
      }
      waiter.await(eventFd, timeoutMs);
    } finally {
      synchronized (this) {
        waiters.remove(waiter);
      }
      waiter.free();
    }
  }
}
