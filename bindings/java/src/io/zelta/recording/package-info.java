// SPDX-License-Identifier: Apache-2.0
/**
 * Records the audio and video of real-time channels.
 *
 * <pre>{@code
 * try (Recording recording = Recording.create("my-app")) {
 *   recording.join("meeting", Config.builder().configFile(Path.of("server.json")).build());
 *   for (Event event : recording.events()) {
 *     System.out.println(event);
 *   }
 * } // the files are complete
 * }</pre>
 *
 * <p>A loop ends when the recording was left and all that waited was handed out; when its session
 * has failed, by a {@link SessionException}.
 *
 * <p>Threads: every method may be called from any thread. Calls of one {@link Recording} wait for a
 * join, leave, finish or close of it that runs on another thread; those that are about events wait
 * for nobody. The package makes one daemon thread a process, on which the collector's findings are
 * given back, and one for each recording that was forgotten without a close; nothing of the
 * application's runs on either.
 *
 * <p>Numbers of users are unsigned 32-bit numbers, here in a {@code long}. Texts are UTF-8 outside
 * of Java, and names of files are as Java reads them, which for other letters than ASCII needs a
 * locale with UTF-8. Each argument that is null, and isn't said to be allowed to, is a {@link
 * NullPointerException} that names it.
 */
package io.zelta.recording;
