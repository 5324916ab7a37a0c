// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;

/**
 * The JNI library. A function that fails throws the {@link ZeltaException} of its code. `recording`
 * is the library's handle, a number that is never used again; texts end with a null.
 */
final class Native {
  private static final String LIBRARY = "zelta_recording_jni";
  private static final Map<String, String> TRIPLETS =
      Map.of(
          "amd64", "x86_64-linux-gnu",
          "aarch64", "aarch64-linux-gnu",
          "arm", "arm-linux-gnueabihf",
          "riscv64", "riscv64-linux-gnu",
          "ppc64le", "powerpc64le-linux-gnu",
          "s390x", "s390x-linux-gnu");

  // Of take(): results, and where the numbers of a kind begin.
  static final int OK = 0;
  static final int END = 2;
  static final int FIELD_RESULT = 0;
  static final int FIELD_EVENT = 1;
  static final int FIELD_KIND = 2;
  static final int FIELD_UID = 3;
  static final int FIELD_FIRST = 4;
  static final int FIELDS = 16;

  static {
    load();
  }

  private Native() {}

  private static void load() {
    try {
      System.loadLibrary(LIBRARY);
      return;
    } catch (UnsatisfiedLinkError notThere) {
      String file = System.mapLibraryName(LIBRARY);
      String triplet = TRIPLETS.getOrDefault(System.getProperty("os.arch"), "unknown");
      Path packaged = Path.of("/usr/lib", triplet, "jni", file);
      if (Files.exists(packaged)) {
        System.load(packaged.toString());
        return;
      }
      UnsatisfiedLinkError explained =
          new UnsatisfiedLinkError(
              notThere.getMessage()
                  + "; looked for " + file + " in java.library.path ("
                  + System.getProperty("java.library.path") + "), and for " + packaged);
      explained.initCause(notThere);
      throw explained;
    }
  }

  /** Called by the library to make what it throws. */
  static ZeltaException failure(int code, byte[] text, byte[] detail) {
    return ZeltaException.of(code, Texts.of(text), Texts.of(detail));
  }

  static native byte[] version();

  static native long create(byte[] appId, long queueBytes);

  static native void join(
      long recording, byte[] channelKey, byte[] channelId, int uid, int[] numbers, byte[] texts);

  static native byte[] folder(long recording);

  /**
   * Of each region two numbers, uid and render mode, and five places: x, y, width, height, alpha.
   */
  static native void setLayout(long recording, byte[] color, int[] numbers, double[] places);

  static native void setUserBackground(long recording, int uid, byte[] imagePath);

  static native void startService(long recording);

  static native void stopService(long recording);

  static native void setLogLevel(long recording, int level);

  static native void leave(long recording);

  static native void finish(long recording);

  static native void release(long recording);

  static native int eventFd(long recording);

  /**
   * Takes the oldest event, if there is one. `fields` become the result, the event where it stays
   * lent, its kind, its uid and its numbers in the order of the C struct. What comes back is a
   * direct buffer over a frame's data, the bytes of a text, the uids and volumes of speakers, or
   * null.
   */
  static native Object take(long recording, long[] fields);

  /** Gives back what waits to be taken. */
  static native void dropQueue(long recording);

  static native void releaseEvent(long recording, long event);

  static native int openWaker();

  static native void wake(int waker);

  static native void closeWaker(int waker);

  /** Waits until one of the two is readable, for `timeoutMs` at most. */
  static native void poll(int eventFd, int waker, int timeoutMs);
}
