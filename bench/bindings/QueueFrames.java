// SPDX-License-Identifier: Apache-2.0
// What queue_frames does, in Java, for frames.py. Arguments: a folder to record in, how many frames, and
// "--look" where the buffers of each are asked for. Prints JSON: nanoseconds of processor a frame, of the
// process and of this thread, and frames dropped.
import com.sun.management.OperatingSystemMXBean;
import io.zelta.recording.AudioFrame;
import io.zelta.recording.Config;
import io.zelta.recording.DecodeAudio;
import io.zelta.recording.DecodeVideo;
import io.zelta.recording.Event;
import io.zelta.recording.Frame;
import io.zelta.recording.Recording;
import io.zelta.recording.VideoFrame;
import java.lang.management.ManagementFactory;
import java.nio.file.Path;
import java.util.Locale;

class QueueFrames {
  private static final OperatingSystemMXBean PROCESS =
      (OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean();
  private static final int PLANES = 3;

  private static long threadNs() {
    return ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
  }

  private static void look(Frame frame) {
    if (frame instanceof AudioFrame audio) {
      audio.samples();
    } else if (frame instanceof VideoFrame video) {
      for (int plane = 0; plane < PLANES; ++plane) {
        video.plane(plane);
      }
    }
  }

  public static void main(String[] arguments) {
    long frames = Long.parseLong(arguments[1]);
    boolean looks = arguments.length > 2;
    long seen = 0;
    long dropped = 0;
    long process = 0;
    long thread = 0;
    try (Recording recording = Recording.create("bench", 1L << 30)) {
      recording.join(
          "bench",
          Config.builder()
              .recordingsFolder(Path.of(arguments[0]))
              .decodeAudio(DecodeAudio.PCM_FRAMES)
              .decodeVideo(DecodeVideo.YUV_FRAMES)
              .build());
      for (Event event : recording.events()) {
        if (event instanceof Frame frame) {
          if (seen++ == 0) {
            process = PROCESS.getProcessCpuTime();
            thread = threadNs();
          }
          if (looks) {
            look(frame);
          }
          frame.close();
        } else if (event instanceof Event.Dropped gap) {
          dropped += gap.audioFrames() + gap.videoFrames();
        }
        if (seen + dropped >= frames) {
          break;
        }
      }
      process = PROCESS.getProcessCpuTime() - process;
      thread = threadNs() - thread;
    }
    System.out.printf(
        Locale.ROOT,
        "{\"process\": %.1f, \"thread\": %.1f, \"dropped\": %d}%n",
        (double) process / (seen - 1),
        (double) thread / (seen - 1),
        dropped);
  }
}
