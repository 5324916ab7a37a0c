// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/**
 * The engine could not do it; the log says why: on standard error, as long as there is no folder.
 */
public class RefusedException extends ZeltaException {
  private static final long serialVersionUID = 1L;

  RefusedException(int code, String text, String detail) {
    super(code, text, detail);
  }
}
