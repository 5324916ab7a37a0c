// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/** Values of a configuration don't go together: the detail says which, or the log. */
public class ConfigurationException extends ZeltaException {
  private static final long serialVersionUID = 1L;

  ConfigurationException(int code, String text, String detail) {
    super(code, text, detail);
  }
}
