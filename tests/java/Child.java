// SPDX-License-Identifier: Apache-2.0
// A process that ends with everything alive: recordings, threads that wait for their events, and
// frames. Or one whose locale has no path for the name of its folder. The arguments are how it
// ends, the folder to record into, and its configuration file.
import io.zelta.recording.Config;
import io.zelta.recording.DecodeVideo;
import io.zelta.recording.Event;
import io.zelta.recording.Recording;
import io.zelta.recording.VideoFrame;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;

final class Child {
  static final int RECORDINGS = 2;
  private static final List<Recording> RECORDED = new ArrayList<>();
  private static final List<VideoFrame> HELD = new ArrayList<>();

  private Child() {}

  public static void main(String[] arguments) throws Exception {
    Config.Builder config = Config.builder().recordingsFolder(Path.of(arguments[1]));
    config.configFile(Path.of(arguments[2])).decodeVideo(DecodeVideo.YUV_FRAMES);
    if (arguments[0].equals("locale")) {
      record(config.build());
      return;
    }
    CountDownLatch seen = new CountDownLatch(RECORDINGS);
    for (int i = 0; i < RECORDINGS; ++i) {
      Recording recording = Recording.create("java-test");
      recording.join("room" + i, config.build());
      RECORDED.add(recording);
      Thread thread = new Thread(() -> hold(recording, seen));
      thread.setDaemon(true);
      thread.start();
    }
    seen.await();
    if (arguments[0].equals("exit")) {
      System.exit(0);
    } else if (arguments[0].equals("halt")) {
      Runtime.getRuntime().halt(0);
    }
  }

  // Nothing is open after the close, not even the recorder, and the event wasn't lost.
  private static void record(Config config) throws Exception {
    try (Recording recording = Recording.create("java-test")) {
      recording.join("r\u00e9union", config);
      Event.UserJoined user = Channel.await(recording, Event.UserJoined.class);
      Suite.check(user.folderText().contains("r\u00e9union"), user);
      Suite.thrown(InvalidPathException.class, user::folder);
      Suite.thrown(InvalidPathException.class, recording::folder);
    }
    Suite.same(0L, ProcessHandle.current().children().count());
  }

  private static void hold(Recording recording, CountDownLatch seen) {
    for (Event event : recording.events()) {
      if (event instanceof VideoFrame frame) {
        synchronized (HELD) {
          HELD.add(frame);
        }
        seen.countDown();
      }
    }
  }
}
