// SPDX-License-Identifier: Apache-2.0
// What tests share: a folder with a configuration file of generated users, recordings in it, and
// waits for a named event with a limit.
import io.zelta.recording.Config;
import io.zelta.recording.Event;
import io.zelta.recording.Frame;
import io.zelta.recording.Recording;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Comparator;
import java.util.List;
import java.util.stream.Stream;

final class Channel implements AutoCloseable {
  static final Duration LIMIT = Duration.ofSeconds(60);
  static final int USERS = 2;
  private final Path folder;
  private final Path settings;

  Channel() throws IOException {
    this(USERS);
  }

  Channel(int users) throws IOException {
    folder = Files.createTempDirectory("zelta-java-test");
    settings = folder.resolve("server.json");
    Files.writeString(
        settings, "{\"Channel_Server\": \"test:users=" + users + ",size=160x90,fps=15\"}");
  }

  Path folder() {
    return folder;
  }

  Config.Builder config() {
    return Config.builder().configFile(settings).recordingsFolder(folder);
  }

  /** One that has joined. */
  Recording join(Config.Builder config, long queueBytes) throws InterruptedException {
    Recording recording = Recording.create("java-test", queueBytes);
    recording.join("meeting", config.build());
    await(recording, Event.Joined.class);
    return recording;
  }

  /** The next event of that kind; frames before it are closed. */
  static <T extends Event> T await(Recording recording, Class<T> kind) throws InterruptedException {
    long endNs = System.nanoTime() + LIMIT.toNanos();
    while (true) {
      // Others that come all the time don't make it longer.
      Duration left = Duration.ofNanos(endNs - System.nanoTime());
      Event event = left.isNegative() ? null : recording.nextEvent(left).orElse(null);
      Suite.check(event != null, "no", kind, "came");
      if (kind.isInstance(event)) {
        return kind.cast(event);
      }
      if (event instanceof Frame frame) {
        frame.close();
      }
    }
  }

  /** Takes events, and forgets them, until so many files of that kind have something in them. */
  void awaitFiles(Recording recording, String end, int count) throws Exception {
    long endNs = System.nanoTime() + LIMIT.toNanos();
    while (begun(end) < count) {
      Suite.check(System.nanoTime() < endNs, "no", count, "files", end);
      recording.nextEvent(Duration.ofMillis(100));
    }
  }

  private int begun(String end) throws IOException {
    try {
      int begun = 0;
      for (Path file : files(end)) {
        begun += Files.size(file) > 0 ? 1 : 0;
      }
      return begun;
    } catch (NoSuchFileException | UncheckedIOException changed) {
      // By the recorder, while it was looked at.
      return 0;
    }
  }

  /** Files below the folder with that end of their names. */
  List<Path> files(String end) throws IOException {
    try (Stream<Path> all = Files.walk(folder)) {
      return all.filter(path -> path.toString().endsWith(end)).toList();
    }
  }

  /**
   * Whether that many recordings are complete: each ended because its application left, and the
   * recorder has put away the journal that it has as long as it works.
   */
  boolean isComplete(int recordings) throws IOException {
    try {
      int complete = 0;
      for (Path list : files("recording.json")) {
        boolean works = Files.exists(list.resolveSibling("journal.json"));
        complete += !works && Files.readString(list).contains("\"application left\"") ? 1 : 0;
      }
      return complete == recordings;
    } catch (NoSuchFileException | UncheckedIOException changed) {
      // By the recorder, while it was looked at.
      return false;
    }
  }

  @Override
  public void close() throws IOException {
    try (Stream<Path> all = Files.walk(folder)) {
      for (Path path : all.sorted(Comparator.reverseOrder()).toList()) {
        Files.delete(path);
      }
    }
  }
}
