// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.channels.ClosedByInterruptException;
import java.nio.channels.spi.AbstractInterruptibleChannel;

/**
 * One thread's wait for events, in poll(). An interrupt closes a channel whose thread is between
 * begin() and end(), and that wakes the poll by a descriptor of the wait's own.
 */
final class Waiter extends AbstractInterruptibleChannel {
  private final Object descriptorLock = new Object();
  private int wakeFd = Native.openWaker();

  /** Returns when `eventFd` is readable, after `timeoutMs`, or when wake() was called. */
  void await(int eventFd, int timeoutMs) throws InterruptedException {
    try {
      try {
        begin();
        Native.poll(eventFd, wakeFd, timeoutMs);
      } finally {
        end(true);
      }
    } catch (ClosedByInterruptException interrupt) {
      // What it stands for, in the way of methods that wait: the status is cleared.
      Thread.interrupted();
      throw new InterruptedException();
    } catch (java.nio.channels.AsynchronousCloseException impossible) {
      throw new AssertionError(impossible);
    }
  }

  void wake() {
    synchronized (descriptorLock) {
      if (wakeFd >= 0) {
        Native.wake(wakeFd);
      }
    }
  }

  /** Gives the descriptor back; an interrupt that comes late finds none. */
  void free() {
    synchronized (descriptorLock) {
      Native.closeWaker(wakeFd);
      wakeFd = -1;
    }
  }

  @Override
  protected void implCloseChannel() {
    wake();
  }
}
