// SPDX-License-Identifier: Apache-2.0
// Prints how loud the users of the channel "meeting" are and how bright their pictures, from the
// decoded frames; no media is written. The argument is a configuration file that names the channel
// server. Ends after a hundred frames.
//     java -cp /usr/share/java/zelta-recording.jar Frames.java server.json
import io.zelta.recording.AudioFrame;
import io.zelta.recording.Config;
import io.zelta.recording.DecodeAudio;
import io.zelta.recording.DecodeVideo;
import io.zelta.recording.Event;
import io.zelta.recording.Recording;
import io.zelta.recording.VideoFrame;
import java.nio.ByteBuffer;
import java.nio.ShortBuffer;
import java.nio.file.Path;

class Frames {
  public static void main(String[] arguments) {
    Config.Builder config = Config.builder().configFile(Path.of(arguments[0]));
    config.decodeAudio(DecodeAudio.PCM_FRAMES).decodeVideo(DecodeVideo.YUV_FRAMES);
    int frames = 0;
    try (Recording recording = Recording.create("my-app")) {
      recording.join("meeting", config.build());
      for (Event event : recording.events()) {
        // Closed at once, because there is room for so many alone.
        if (event instanceof AudioFrame audio) {
          try (audio) {
            System.out.printf("user %d: %.1f dBFS%n", audio.uid(), loudness(audio.samples()));
          }
        } else if (event instanceof VideoFrame video) {
          try (video) {
            System.out.printf("user %d: brightness %.1f%n", video.uid(), brightness(video));
          }
        } else {
          continue;
        }
        if (++frames == 100) {
          break;
        }
      }
    }
    System.exit(frames == 100 ? 0 : 1);
  }

  static double loudness(ShortBuffer samples) {
    double squares = 0;
    for (int i = 0; i < samples.limit(); ++i) {
      squares += Math.pow(samples.get(i) / 32768.0, 2);
    }
    return 10 * Math.log10(squares / samples.limit());
  }

  static double brightness(VideoFrame video) {
    ByteBuffer luma = video.plane(0);
    long sum = 0;
    for (int y = 0; y < video.height(); ++y) {
      for (int x = 0; x < video.width(); ++x) {
        sum += Byte.toUnsignedInt(luma.get(y * video.stride(0) + x));
      }
    }
    return (double) sum / video.width() / video.height();
  }
}
