// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Not at this time of a recording's life: not joined yet, joined or left already, or closed. */
public class RecordingStateException extends ZeltaException {
  private static final long serialVersionUID = 1L;

  RecordingStateException(int code, String text, String detail) {
    super(code, text, detail);
  }
}
