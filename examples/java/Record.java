// SPDX-License-Identifier: Apache-2.0
// Records three seconds of the channel "meeting" below the current folder. The argument is a
// configuration file that names the channel server. Exit status 0: recorded, 1: not.
//     java -cp /usr/share/java/zelta-recording.jar Record.java server.json
import io.zelta.recording.Config;
import io.zelta.recording.Event;
import io.zelta.recording.Recording;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Optional;

class Record {
  public static void main(String[] arguments) throws InterruptedException {
    boolean joined = false;
    try (Recording recording = Recording.create("my-app")) {
      recording.join("meeting", Config.builder().configFile(Path.of(arguments[0])).build());
      long endNs = System.nanoTime() + Duration.ofSeconds(20).toNanos();
      while (!recording.hasEnded() && System.nanoTime() < endNs) {
        Optional<Event> event = recording.nextEvent(Duration.ofNanos(endNs - System.nanoTime()));
        if (event.orElse(null) instanceof Event.Joined) {
          joined = true;
          endNs = System.nanoTime() + Duration.ofSeconds(3).toNanos();
        } else if (event.orElse(null) instanceof Event.UserJoined user) {
          System.out.println("user " + user.uid() + " is recorded in " + user.folder());
        } else if (event.orElse(null) instanceof Event.Failure failure) {
          System.err.println(failure);
        }
      }
      joined = joined && !recording.hasEnded();
    } // the files are complete
    System.exit(joined ? 0 : 1);
  }
}
