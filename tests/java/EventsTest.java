// SPDX-License-Identifier: Apache-2.0
// Which events come, what files there are after a close, and how loops end.
import io.zelta.recording.Config;
import io.zelta.recording.Event;
import io.zelta.recording.Layout;
import io.zelta.recording.LeaveReason;
import io.zelta.recording.MixedFile;
import io.zelta.recording.Recording;
import io.zelta.recording.Region;
import io.zelta.recording.SessionError;
import io.zelta.recording.Stat;
import io.zelta.recording.TriggerMode;
import io.zelta.recording.Volume;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

final class EventsTest {
  // More than the local references that the virtual machine makes room for, which -Xcheck:jni
  // counts.
  private static final int MANY = 64;

  private EventsTest() {}

  static void addTo(Suite suite) {
    suite.add("SessionTellsItsEventsAndLeavesWholeFiles", EventsTest::session);
    suite.add("ManyRegionsAreHandedOver", EventsTest::regions);
    suite.add("ManyVolumesAreHandedOver", EventsTest::volumes);
    suite.add("RecorderThatLeavesEndsTheLoop", EventsTest::recorderLeaves);
    suite.add("FatalFailureEndsTheLoop", EventsTest::fatalFailure);
    suite.add("StartedByACallOnly", EventsTest::manual);
    suite.add("NumbersBecomeConstants", EventsTest::numbers);
  }

  private static void session() throws Exception {
    try (Channel channel = new Channel()) {
      List<Class<?>> wanted =
          List.of(Event.UserJoined.class, Event.FirstVideo.class, Event.FirstAudio.class,
              Event.Receiving.class, Event.Volumes.class);
      Set<Class<?>> kinds = new HashSet<>();
      Set<Long> users = new HashSet<>();
      Path folder = null;
      try (Recording recording = Recording.create("java-test")) {
        recording.join("", "réunion", 4_000_000_000L,
            channel.config().volumeInterval(Duration.ofMillis(200)).build());
        Event.Joined joined = Channel.await(recording, Event.Joined.class);
        Suite.same("réunion", joined.channelId());
        Suite.same(4_000_000_000L, joined.uid());
        folder = recording.folder();
        Suite.check(
            folder.startsWith(channel.folder()) && folder.toString().contains("réunion"), folder);
        long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
        while (!kinds.containsAll(wanted) || users.size() < Channel.USERS) {
          Suite.check(System.nanoTime() < endNs, kinds, users);
          Event event = recording.nextEvent(Duration.ofMillis(100)).orElse(null);
          if (event != null) {
            kinds.add(event.getClass());
          }
          if (event instanceof Event.UserJoined user) {
            Suite.same(folder, user.folder());
            users.add(user.uid());
          } else if (event instanceof Event.FirstVideo video) {
            Suite.check(
                video.width() == 160 && video.height() == 90 && video.elapsedMs() >= 0, video);
          } else if (event instanceof Event.Volumes volumes) {
            for (Volume each : volumes.speakers()) {
              Suite.check(each.uid() <= Channel.USERS && each.volume() <= 255, volumes);
            }
          }
        }
        channel.awaitFiles(recording, ".mp4", Channel.USERS);
      }
      Suite.same(Set.of(1L, 2L), users);
      // Right after the close: both users' files, and the list of them is complete.
      Suite.same(2, channel.files(".mp4").size());
      String list = Files.readString(folder.resolve("recording.json"));
      for (Path file : channel.files(".mp4")) {
        Suite.check(
            Files.size(file) > 1000 && list.contains("\"" + file.getFileName() + "\""), list);
      }
      // What this library says that its application is written in.
      Suite.check(
          Files.readString(folder.resolve("recording_engine.log")).contains("language 1"), folder);
    }
  }

  private static void regions() throws Exception {
    try (Channel channel = new Channel()) {
      Config.Builder config = channel.config().mixing(true).mixedFile(MixedFile.HIGH);
      try (Recording recording = channel.join(config.mixResolution("320,180,5,200"), 0)) {
        List<Region> regions = new ArrayList<>();
        for (int i = 0; i < MANY; ++i) {
          regions.add(new Region(i + 1, i % 8 / 8.0, i / 8 / 8.0, 1 / 8.0, 1 / 8.0));
        }
        recording.setLayout(new Layout(regions, "#102030"));
        recording.setLayout(new Layout(List.of()));
        channel.awaitFiles(recording, ".mp4", 1);
      }
      Suite.same(1, channel.files(".mp4").size());
    }
  }

  private static void volumes() throws Exception {
    try (Channel channel = new Channel(MANY)) {
      Config.Builder config = channel.config().audioOnly(true);
      try (Recording recording = channel.join(config.volumeInterval(Duration.ofMillis(200)), 0)) {
        Set<Long> heard = new HashSet<>();
        long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
        while (heard.size() < MANY) {
          Suite.check(System.nanoTime() < endNs, heard);
          for (Volume each : Channel.await(recording, Event.Volumes.class).speakers()) {
            heard.add(each.uid());
          }
        }
      }
    }
  }

  private static void recorderLeaves() throws Exception {
    try (Channel channel = new Channel(0);
        Recording recording = Recording.create("java-test")) {
      recording.join("meeting", channel.config().idleLimit(Duration.ofSeconds(3)).build());
      Event last = null;
      for (Event event : recording.events()) {
        last = event;
      }
      Suite.check(last instanceof Event.Left, last);
      Suite.check(((Event.Left) last).reasons().contains(LeaveReason.NO_USERS), last);
      Suite.check(recording.hasEnded());
      // What an application does that knows nothing of that.
      recording.leave();
    }
  }

  private static void fatalFailure() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = Recording.create("java-test")) {
      Path settings = channel.folder().resolve("nobody.json");
      // A port of this machine on which nobody answers.
      Files.writeString(settings, "{\"Channel_Server\": \"janus:ws://127.0.0.1:1/\"}");
      recording.join("1", channel.config().configFile(settings).build());
      Event.Failure failure = null;
      for (Event event : recording.events()) {
        failure = event instanceof Event.Failure found ? found : failure;
      }
      Suite.check(failure != null && failure.isFatal(), failure);
      Suite.check(!failure.stats().isEmpty(), failure);
    }
  }

  private static void manual() throws Exception {
    try (Channel channel = new Channel()) {
      try (
          Recording recording = channel.join(channel.config().triggerMode(TriggerMode.MANUAL), 0)) {
        recording.startService();
        channel.awaitFiles(recording, ".mp4", Channel.USERS);
        recording.stopService();
        recording.setUserBackground(1, null);
      }
      Suite.same(Channel.USERS, channel.files(".mp4").size());
    }
  }

  private static void numbers() throws Exception {
    Suite.same(SessionError.UNKNOWN, call(SessionError.class, 99));
    Suite.same(SessionError.RECORDER_GONE, call(SessionError.class, 3));
    Suite.same(Set.of(Stat.JOIN, Stat.POLL_HANG_UP), call(Stat.class, 16 + 2));
    Suite.same(Set.of(), call(Stat.class, 0));
    Suite.same(Set.of(LeaveReason.SIGNAL, LeaveReason.GUARD), call(LeaveReason.class, 10));
  }

  // Not public, as nobody but the library has such numbers.
  private static Object call(Class<?> of, long number) throws Exception {
    var method = of.getDeclaredMethod("of", long.class);
    method.setAccessible(true);
    return method.invoke(null, number);
  }
}
