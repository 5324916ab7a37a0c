// SPDX-License-Identifier: Apache-2.0
// The command line: what is taken, and what a user is told of what isn't.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "options.h"

namespace zelta::test {
namespace {

record::parse_result parse(std::vector<const char*> arguments, record::options& into) {
  arguments.insert(arguments.begin(), "zelta-record");
  return record::parse_options(static_cast<int>(arguments.size()), arguments.data(), into);
}

TEST(Options, NameWhatCannotBeUsedAndWhatCould) {
  const struct {
    std::vector<const char*> arguments;
    std::vector<const char*> says;
  } rows[] = {
      {{}, {"name the channel", "--demo"}},
      {{"room", "--uid", "-1"}, {"--uid", "-1", "0", "4294967295"}},
      {{"room", "--uid", "4294967296"}, {"--uid", "4294967296"}},
      {{"room", "--decode-video", "6"}, {"--decode-video", "6", "0", "5"}},
      {{"room", "--decode-audio", "pcm"}, {"--decode-audio", "pcm", "0", "3"}},
      {{"room", "--mixed-video-audio", "3"}, {"--mixed-video-audio", "3", "2"}},
      {{"room", "--audio-profile", "3"}, {"--audio-profile", "3", "2"}},
      {{"room", "--channel-profile", "2"}, {"--channel-profile", "2", "1"}},
      {{"room", "--stream-type", "2"}, {"--stream-type", "2", "1"}},
      {{"room", "--trigger-mode", "2"}, {"--trigger-mode", "2", "1"}},
      {{"room", "--lang", "2"}, {"--lang", "2", "1"}},
      {{"room", "--log-level", "7"}, {"--log-level", "7", "6"}},
      {{"room", "--duration", "-1"}, {"--duration", "-1"}},
      {{"room", "--pigeon"}, {"--pigeon"}},
      {{"room", "other"}, {"other"}},
  };
  for (const auto& row : rows) {
    record::options given;
    const auto result = parse(row.arguments, given);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.exit_status, 2) << result.message;
    for (const char* part : row.says) {
      EXPECT_NE(result.message.find(part), std::string::npos) << part << " in " << result.message;
    }
  }
}

TEST(Options, ReachTheConfiguration) {
  record::options given;
  const auto result = parse({"room", "--server", "dir:/x", "--uid", "4294967295", "--decode-video",
                             "2", "--decode-audio", "3", "--mix-resolution", "640,480,15,500",
                             "--low-udp-port", "40000", "--idle-limit-sec", "9"},
                            given);
  ASSERT_TRUE(result.ok) << result.message;
  EXPECT_EQ(given.channel_id, "room");
  EXPECT_EQ(given.uid, 4294967295U);
  EXPECT_EQ(given.config.decodeVideo, recording::VIDEO_FORMAT_YUV_FRAME_TYPE);
  EXPECT_EQ(given.config.decodeAudio, recording::AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE);
  EXPECT_STREQ(given.config.mixResolution, "640,480,15,500");
  EXPECT_EQ(given.config.lowUdpPort, 40000);
  EXPECT_EQ(given.config.idleLimitSec, 9);
  EXPECT_EQ(given.config.secret, nullptr) << "not given is not empty";
  EXPECT_EQ(given.config.captureInterval, recording::RecordingConfig().captureInterval);

  record::options demo;
  ASSERT_TRUE(parse({"--demo"}, demo).ok);
  EXPECT_FALSE(demo.channel_id.empty() || demo.server.empty() || demo.duration_s <= 0);
}

}  // namespace
}  // namespace zelta::test
