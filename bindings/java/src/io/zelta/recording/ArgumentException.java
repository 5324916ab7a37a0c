// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** An argument, or a value of a configuration or layout, can't be: the detail says which. */
public class ArgumentException extends ZeltaException {
  private static final long serialVersionUID = 1L;

  ArgumentException(int code, String text, String detail) {
    super(code, text, detail);
  }
}
