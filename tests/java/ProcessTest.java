// SPDX-License-Identifier: Apache-2.0
// Processes of their own: how they end with everything alive, and what is said where the native
// library is missing.
import java.io.File;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

final class ProcessTest {
  private ProcessTest() {}

  static void addTo(Suite suite) {
    for (String way : List.of("return", "exit", "halt")) {
      suite.add("ProcessEndsWithEverythingAliveBy" + way, () -> endsBy(way));
    }
    suite.add("MissingLibrarySaysWhereItLooked", ProcessTest::missing);
  }

  /** Runs the child, and returns what it wrote; it has to end with that status. */
  private static String child(int status, Channel channel, String libraries, String... way)
      throws Exception {
    Path said = channel.folder().resolve("said.txt");
    List<String> command = new ArrayList<>();
    command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
    // Where the package may be is nowhere: what this machine has installed is not what is tested.
    command.addAll(List.of("-Xcheck:jni", "-Xmx24m", "-XX:+UseSerialGC", "-Dos.arch=nowhere"));
    command.addAll(List.of("-Djava.library.path=" + libraries, "-cp"));
    command.addAll(List.of(System.getProperty("java.class.path"), "Child"));
    command.addAll(List.of(way));
    Process process =
        new ProcessBuilder(command)
            .redirectErrorStream(true)
            .redirectOutput(said.toFile())
            .start();
    try {
      boolean ended = process.waitFor(Channel.LIMIT.toSeconds(), TimeUnit.SECONDS);
      String text = Files.readString(said);
      Suite.check(ended, "it hangs:", text);
      Suite.check(process.exitValue() == status, process.exitValue(), text);
      Suite.check(!text.contains("WARNING") && !text.contains("FATAL"), text);
      return text;
    } finally {
      process.destroyForcibly();
    }
  }

  private static void endsBy(String way) throws Exception {
    try (Channel channel = new Channel()) {
      String folder = channel.folder().toString();
      String settings = channel.folder().resolve("server.json").toString();
      child(0, channel, System.getProperty("java.library.path"), way, folder, settings);
      // Recorders notice, and complete their files by themselves.
      long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
      while (!channel.isComplete(Child.RECORDINGS)) {
        Suite.check(System.nanoTime() < endNs, "files are not complete");
        Thread.sleep(20);
      }
    }
  }

  private static void missing() throws Exception {
    try (Channel channel = new Channel()) {
      String nowhere = channel.folder() + File.pathSeparator + "/nowhere";
      String said = child(1, channel, nowhere, "return", "", "");
      Suite.check(said.contains("UnsatisfiedLinkError") && said.contains(nowhere), said);
      Suite.check(said.contains("/usr/lib/unknown/jni/libzelta_recording_jni.so"), said);
    }
  }
}
