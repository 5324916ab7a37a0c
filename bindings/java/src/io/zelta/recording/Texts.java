// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;

/** Texts as C has them: UTF-8 that a null ends. */
final class Texts {
  private final ByteArrayOutputStream bytes = new ByteArrayOutputStream();

  /** Adds one; an empty one is none. */
  Texts add(String name, String text) {
    if (text.indexOf('\0') >= 0) {
      throw new IllegalArgumentException(name + " has a null character in it");
    }
    bytes.writeBytes(text.getBytes(StandardCharsets.UTF_8));
    bytes.write(0);
    return this;
  }

  /** All that were added, one behind the other. */
  byte[] bytes() {
    return bytes.toByteArray();
  }

  static byte[] one(String name, String text) {
    return new Texts().add(name, text).bytes();
  }

  static String of(byte[] bytes) {
    return new String(bytes, StandardCharsets.UTF_8);
  }
}
