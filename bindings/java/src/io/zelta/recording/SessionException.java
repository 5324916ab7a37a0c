// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/**
 * The session has failed: thrown by a loop of {@link Recording#events()} when it has had all
 * events. Its code is that of a {@link RefusedException}.
 */
public class SessionException extends ZeltaException {
  private static final long serialVersionUID = 1L;
  private static final int REFUSED = -6;

  /** Events aren't written to streams. */
  private final transient Event.Failure failure;

  SessionException(Event.Failure failure) {
    super(REFUSED, "the session has failed", failure.error() + " " + failure.stats());
    this.failure = failure;
  }

  /**
   * What ended the session.
   *
   * @return the first fatal failure; null where this was read from a stream
   */
  public Event.Failure failure() {
    return failure;
  }
}
