// SPDX-License-Identifier: Apache-2.0
// What can't be is an exception of its kind, whose text has the value that was wrong.
import io.zelta.recording.ArgumentException;
import io.zelta.recording.AudioProfile;
import io.zelta.recording.Config;
import io.zelta.recording.ConfigurationException;
import io.zelta.recording.Layout;
import io.zelta.recording.LogLevel;
import io.zelta.recording.MixedFile;
import io.zelta.recording.Recording;
import io.zelta.recording.RecordingStateException;
import io.zelta.recording.RefusedException;
import io.zelta.recording.Region;
import io.zelta.recording.RenderMode;
import io.zelta.recording.ZeltaException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.function.UnaryOperator;

final class WrongUsesTest {
  private WrongUsesTest() {}

  private record Setting(String detail, UnaryOperator<Config.Builder> set) {}

  private record Argument(String name, Suite.Test call) {}

  static void addTo(Suite suite) {
    suite.add("SettingThatCantBeIsNamed", WrongUsesTest::settings);
    suite.add("LayoutThatCantBeIsNamed", WrongUsesTest::layouts);
    suite.add("NullIsNamed", WrongUsesTest::nulls);
    suite.add("ArgumentThatCantBeIsNamed", WrongUsesTest::arguments);
    suite.add("CallAtTheWrongTimeSaysWhich", WrongUsesTest::times);
  }

  private static void settings() {
    List<Setting> rows =
        List.of(
            new Setting("low_udp_port is 70000", c -> c.lowUdpPort(70_000)),
            new Setting("high_udp_port is -1", c -> c.highUdpPort(-1)),
            new Setting("idle_limit_sec is 2", c -> c.idleLimit(Duration.ofSeconds(2))),
            new Setting("capture_interval is -1", c -> c.captureInterval(Duration.ofSeconds(-1))),
            new Setting(
                "audio_indication_interval is -5", c -> c.volumeInterval(Duration.ofMillis(-5))),
            new Setting("mix_resolution is \"640\"", c -> c.mixing(true).mixResolution("640")));
    try (Recording recording = Recording.create("java-test")) {
      for (Setting row : rows) {
        Config config = row.set().apply(Config.builder()).build();
        ZeltaException wrong =
            Suite.thrown(ArgumentException.class, () -> recording.join("meeting", config));
        Suite.check(wrong.getMessage().contains(wrong.text()), wrong);
        Suite.check(wrong.getMessage().contains(wrong.detail()), wrong);
        Suite.check(wrong.detail().contains(row.detail()), row.detail(), "isn't in", wrong);
      }
      Config apart = Config.builder().mixedFile(MixedFile.HIGH).build();
      String both =
          Suite.thrown(ConfigurationException.class, () -> recording.join("meeting", apart))
              .detail();
      Suite.check(both.contains("mixed_video_audio is 2"), both);
      // What the engine itself finds, and says in its log alone.
      for (Config.Builder config :
          List.of(
              Config.builder().audioOnly(true).videoOnly(true),
              Config.builder().audioProfile(AudioProfile.HIGH_STEREO),
              Config.builder().serviceFolder(Path.of("/nowhere")))) {
        ZeltaException wrong =
            Suite.thrown(ZeltaException.class, () -> recording.join("meeting", config.build()));
        Suite.check(wrong instanceof RefusedException || wrong instanceof ConfigurationException);
        Suite.check(wrong.detail().contains("says why"), wrong);
      }
    }
  }

  private static void layouts() throws Exception {
    record Row(String detail, Layout layout) {}
    List<Row> rows =
        List.of(
            new Row("x is 3", layoutOf(new Region(1, 3, 0, 1, 1))),
            new Row("y is -4", layoutOf(new Region(1, 0, -4, 1, 1))),
            new Row("width is 5", layoutOf(new Region(1, 0, 0, 5, 1))),
            new Row("height is -1", layoutOf(new Region(1, 0, 0, 1, -1))),
            new Row("alpha is 6", layoutOf(new Region(1, 0, 0, 1, 1, 6, RenderMode.FIT))),
            new Row("background_color is \"green\"", new Layout(List.of(), "green")));
    try (Channel channel = new Channel();
        Recording recording = Recording.create("java-test")) {
      recording.join("meeting", channel.config().mixing(true).build());
      for (Row row : rows) {
        String detail =
            Suite.thrown(ArgumentException.class, () -> recording.setLayout(row.layout()))
                .detail();
        Suite.check(detail.contains(row.detail()), row.detail(), "isn't in", detail);
      }
    }
  }

  // The second one is what is wrong, so that its place is looked at, too.
  private static Layout layoutOf(Region wrong) {
    return new Layout(List.of(new Region(2, 0, 0, 1, 1), wrong));
  }

  private static void nulls() {
    try (Recording recording = Recording.create("java-test")) {
      List<Argument> rows =
          List.of(
              new Argument("appId", () -> Recording.create(null)),
              new Argument("channelId", () -> recording.join(null, Config.builder().build())),
              new Argument("config", () -> recording.join("meeting", null)),
              new Argument("channelKey", () -> recording.join(null, "meeting", 0, null)),
              new Argument("layout", () -> recording.setLayout(null)),
              new Argument("level", () -> recording.setLogLevel(null)),
              new Argument("limit", () -> recording.nextEvent(null)),
              new Argument("regions", () -> new Layout(null)),
              new Argument("renderMode", () -> new Region(1, 0, 0, 1, 1, 1, null)),
              new Argument("secret", () -> Config.builder().secret(null)),
              new Argument("decodeVideo", () -> Config.builder().decodeVideo(null)));
      for (Argument row : rows) {
        Suite.same(row.name(), Suite.thrown(NullPointerException.class, row.call()).getMessage());
      }
    }
  }

  private static void arguments() {
    try (Recording recording = Recording.create("java-test")) {
      Config config = Config.builder().build();
      List<Argument> rows =
          List.of(
              new Argument("queueBytes is -1", () -> Recording.create("a", -1)),
              new Argument("uid is -1", () -> recording.join("", "meeting", -1, config)),
              new Argument("uid is 4294967296", () -> recording.setUserBackground(1L << 32, null)),
              new Argument("channelId has a null", () -> recording.join("a\0b", config)),
              new Argument("secret has a null", () -> Config.builder().secret("\0").build()),
              new Argument(
                  "idleLimit is PT3.5S",
                  () -> Config.builder().idleLimit(Duration.ofMillis(3500)).build()),
              new Argument(
                  "captureInterval is PT",
                  () -> Config.builder().captureInterval(Duration.ofSeconds(1L << 31)).build()));
      for (Argument row : rows) {
        String said = Suite.thrown(IllegalArgumentException.class, row.call()).getMessage();
        Suite.check(said.contains(row.name()), said);
      }
      Suite.check(
          Suite.thrown(ArgumentException.class, () -> recording.join("", config))
              .detail().contains("channel_id"));
      Suite.check(
          Suite.thrown(ArgumentException.class, () -> Recording.create("")).detail()
              .contains("app_id"));
    }
  }

  private static void times() throws Exception {
    try (Channel channel = new Channel()) {
      Recording recording = Recording.create("java-test");
      state(-7, recording::folder);
      state(-7, recording::startService);
      state(-7, recording::leave);
      state(-7, () -> recording.nextEvent(Duration.ofSeconds(Long.MIN_VALUE)));
      state(-7, () -> recording.nextEvent(Channel.LIMIT));
      state(-7, () -> recording.events().iterator().hasNext());
      Suite.check(!recording.hasEnded());
      state(-7, () -> recording.setLayout(new Layout(List.of())));
      recording.setLogLevel(LogLevel.NOTICE);
      recording.join("meeting", channel.config().build());
      state(-8, () -> recording.join("meeting", channel.config().build()));
      Suite.thrown(RefusedException.class, recording::startService);
      recording.leave();
      recording.leave();
      state(-9, recording::stopService);
      recording.finish();
      recording.finish();
      recording.leave();
      state(-9, () -> recording.setLogLevel(LogLevel.NOTICE));
      Path folder = recording.folder();
      Suite.check(folder.startsWith(channel.folder()));
      recording.close();
      recording.close();
      recording.leave();
      Suite.same(folder, recording.folder());
      Suite.check(
          state(-1, recording::finish).getMessage().contains("the recording was closed"));
      state(-1, () -> recording.join("meeting", channel.config().build()));
      Suite.check(recording.nextEvent(Channel.LIMIT).isEmpty() && recording.hasEnded());
    }
  }

  private static ZeltaException state(int code, Suite.Test call) {
    ZeltaException wrong = Suite.thrown(RecordingStateException.class, call);
    Suite.same(code, wrong.code());
    return wrong;
  }
}
