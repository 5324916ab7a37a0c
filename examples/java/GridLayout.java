// SPDX-License-Identifier: Apache-2.0
// Records the users of the channel "meeting" mixed into one file for some seconds, each in a cell
// of a grid that is arranged anew when users come and go. The arguments are a configuration file
// that names the channel server, and how many seconds.
//     java -cp /usr/share/java/zelta-recording.jar GridLayout.java server.json 5
import io.zelta.recording.Config;
import io.zelta.recording.Event;
import io.zelta.recording.Layout;
import io.zelta.recording.MixedFile;
import io.zelta.recording.Recording;
import io.zelta.recording.Region;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;

class GridLayout {
  public static void main(String[] arguments) throws InterruptedException {
    Config.Builder config = Config.builder().configFile(Path.of(arguments[0])).mixing(true);
    config.mixedFile(MixedFile.HIGH).mixResolution("640,360,15,500");
    Set<Long> users = new TreeSet<>();
    boolean recorded;
    try (Recording recording = Recording.create("my-app")) {
      recording.join("meeting", config.build());
      long endNs = System.nanoTime() + Duration.ofSeconds(Long.parseLong(arguments[1])).toNanos();
      while (!recording.hasEnded() && System.nanoTime() < endNs) {
        Event event =
            recording.nextEvent(Duration.ofNanos(endNs - System.nanoTime())).orElse(null);
        boolean changed =
            event instanceof Event.UserJoined come ? users.add(come.uid())
                : event instanceof Event.UserOffline gone && users.remove(gone.uid());
        if (changed) {
          recording.setLayout(new Layout(grid(users), "#202020"));
          System.out.println(users.size() + " users in " + recording.folder());
        }
      }
      recorded = !users.isEmpty() && !recording.hasEnded();
    }
    System.exit(recorded ? 0 : 1);
  }

  static List<Region> grid(Set<Long> users) {
    int side = (int) Math.ceil(Math.sqrt(users.size()));
    double size = 1.0 / side;
    List<Region> regions = new ArrayList<>();
    for (long uid : users) {
      int cell = regions.size();
      regions.add(new Region(uid, cell % side * size, cell / side * size, size, size));
    }
    return regions;
  }
}
