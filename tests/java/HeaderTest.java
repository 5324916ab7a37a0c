// SPDX-License-Identifier: Apache-2.0
// The numbers of the enums are those of the C header, whose path is in the property zelta.header.
import io.zelta.recording.AudioFormat;
import io.zelta.recording.AudioProfile;
import io.zelta.recording.DecodeAudio;
import io.zelta.recording.DecodeVideo;
import io.zelta.recording.LeaveReason;
import io.zelta.recording.LogLevel;
import io.zelta.recording.MixedFile;
import io.zelta.recording.OfflineReason;
import io.zelta.recording.SessionError;
import io.zelta.recording.Stat;
import io.zelta.recording.VideoFormat;
import io.zelta.recording.WarningCode;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.ToIntFunction;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

final class HeaderTest {
  private HeaderTest() {}

  static void addTo(Suite suite) {
    suite.add("EnumsHaveTheNumbersOfTheHeader", HeaderTest::enumsHaveTheNumbers);
  }

  private static void enumsHaveTheNumbers() throws Exception {
    Map<String, Integer> header = new HashMap<>();
    Matcher found =
        Pattern.compile("\\b(ZELTA_[A-Z0-9_]+) = (-?\\d+)")
            .matcher(Files.readString(Path.of(System.getProperty("zelta.header"))));
    while (found.find()) {
      header.put(found.group(1), Integer.parseInt(found.group(2)));
    }
    compare(header, "DECODE_VIDEO_", DecodeVideo.values(), DecodeVideo::value);
    compare(header, "DECODE_AUDIO_", DecodeAudio.values(), DecodeAudio::value);
    compare(header, "MIXED_", MixedFile.values(), MixedFile::value);
    compare(header, "AUDIO_PROFILE_", AudioProfile.values(), AudioProfile::value);
    compare(header, "LOG_", LogLevel.values(), LogLevel::value);
    compare(header, "SESSION_", SessionError.values(), SessionError::value);
    header.remove("ZELTA_STAT_NONE");
    compare(header, "STAT_", Stat.values(), Stat::value);
    compare(header, "WARNING_", WarningCode.values(), WarningCode::value);
    compare(header, "LEAVE_", LeaveReason.values(), LeaveReason::value);
    compare(header, "OFFLINE_", OfflineReason.values(), OfflineReason::value);
    header.keySet().removeIf(name -> name.startsWith("ZELTA_AUDIO_PROFILE_"));
    compare(header, "AUDIO_", AudioFormat.values(), AudioFormat::value);
    compare(header, "VIDEO_", VideoFormat.values(), VideoFormat::value);
  }

  // Both ways: what the one has and the other hasn't is a difference, too.
  private static <T extends Enum<T>> void compare(
      Map<String, Integer> header, String prefix, T[] values, ToIntFunction<T> number) {
    Map<String, Integer> expected = new TreeMap<>();
    header.forEach(
        (name, value) -> {
          if (name.startsWith("ZELTA_" + prefix)) {
            expected.put(name.substring(("ZELTA_" + prefix).length()), value);
          }
        });
    Map<String, Integer> ours = new TreeMap<>();
    for (T each : values) {
      if (!each.name().equals("UNKNOWN")) {
        ours.put(each.name(), number.applyAsInt(each));
      }
    }
    Suite.check(!ours.isEmpty(), prefix);
    Suite.same(expected, ours);
  }
}
