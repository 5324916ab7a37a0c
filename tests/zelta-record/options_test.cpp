// SPDX-License-Identifier: Apache-2.0
// The command line: what is taken, and what a user is told of what isn't.
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "options.h"
#include "page_address.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

record::parse_result parse(const std::string& line, record::options& into) {
  const std::vector<std::string> words = words_of("zelta-record " + line);
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  return record::parse_options(static_cast<int>(argv.size()), argv.data(), into);
}

TEST(PageAddress, IsOneThatABrowserOfThisMachineOpens) {
  const std::tuple<const char*, const char*, bool, const char*> rows[] = {
      {"whip:127.0.0.1:8080", "meeting", false, "http://127.0.0.1:8080/meeting"},
      {"whip:192.0.2.1:8443", "meeting", true, "https://192.0.2.1:8443/meeting"},
      {"whip:[::1]:8080", "a-B.c_9~", false, "http://[::1]:8080/a-B.c_9~"},
      {"whip:0.0.0.0:8080", "a b%\xc3\xb6?#", false, "http://localhost:8080/a%20b%25%C3%B6%3F%23"},
      {"whip:[::]:8080", "room", true, "https://localhost:8080/room"},
      {"whip::8080", "room", false, "http://localhost:8080/room"},
      // Which port it is the recorder chooses.
      {"whip:127.0.0.1:0", "room", false, ""},
      {"whip:127.0.0.1", "room", false, ""},
      {"dir:whip:1:2", "room", false, ""},
      {"test:", "room", false, ""},
      {"", "room", false, ""},
  };
  for (const auto& [server, channel, secure, url] : rows) {
    EXPECT_EQ(record::page_address(server, channel, secure), url) << server;
  }
}

TEST(Options, NameWhatCannotBeUsedAndWhatCould) {
  const std::pair<const char*, std::vector<const char*>> rows[] = {
      {"", {"name the channel", "--demo"}},
      {"room --uid -1", {"--uid", "-1", "0", "4294967295"}},
      {"room --uid 4294967296", {"--uid", "4294967296"}},
      {"room --decode-video 6", {"--decode-video", "6", "0", "5"}},
      {"room --decode-audio mp3", {"--decode-audio", "mp3", "file (0)", "mixed-pcm (3)"}},
      {"room --mixed-video-audio 3", {"--mixed-video-audio", "3", "high (2)"}},
      {"room --audio-profile 3", {"--audio-profile", "3", "2"}},
      {"room --channel-profile 2", {"--channel-profile", "2", "1"}},
      {"room --stream-type 2", {"--stream-type", "2", "1"}},
      {"room --trigger-mode 2", {"--trigger-mode", "2", "1"}},
      {"room --lang 2", {"--lang", "2", "1"}},
      {"room --log-level 7", {"--log-level", "7", "6"}},
      {"room --duration -1", {"--duration", "-1"}},
      {"room --idle-limit-sec 2", {"--idle-limit-sec", "2", "3"}},
      {"room --chunk 9 --channel-profile live", {"--chunk", "9", "10"}},
      {"room --chunk 20", {"--chunk", "--channel-profile live"}},
      {"room --chunk 20 --channel-profile live --is-mixing-enabled", {"--chunk"}},
      {"a/b", {"a/b", "\"/\""}},
      {"room --low-udp-port 5000 --high-udp-port 5002", {"--high-udp-port", "3"}},
      {"room --is-audio-only --is-video-only", {"--is-audio-only", "--is-video-only"}},
      {"room --is-audio-only --decode-video yuv", {"--is-audio-only", "--decode-video"}},
      {"room --is-video-only --decode-audio pcm", {"--decode-audio", "--is-video-only"}},
      {"room --decode-video jpg --decode-audio pcm", {"--decode-audio", "jpg"}},
      {"room --is-mixing-enabled --decode-video yuv", {"--is-mixing-enabled", "frames"}},
      {"room --frames f", {"--frames", "--decode-video"}},
      {"room --frames f --decode-video jpg-file", {"--frames"}},
      {"room --capture-interval 3", {"--capture-interval", "jpg"}},
      {"room --audio-profile stereo", {"--audio-profile", "--is-mixing-enabled"}},
      {"room --mix-resolution 1,2,3,4", {"--mix-resolution", "--is-mixing-enabled"}},
      {"room --is-mixing-enabled --mix-resolution 640x360", {"640x360", "640,360,15,500"}},
      {"room --mixed-video-audio high", {"--mixed-video-audio", "--is-mixing-enabled"}},
      {"room --is-mixing-enabled --is-audio-only --layout l", {"--layout"}},
      {"room --decryption-mode aes-128-gcm", {"--secret-file", "ZELTA_SECRET"}},
      {"room --secret s", {"--decryption-mode"}},
      {"room --channel-key k --log-level debug", {"--log-level", "notice"}},
      {"room --secret-file /nonexistent", {"--secret-file /nonexistent", "No such"}},
      {"room --pigeon", {"--pigeon"}},
      {"room other", {"other"}},
  };
  for (const auto& [arguments, says] : rows) {
    record::options given;
    const auto result = parse(arguments, given);
    EXPECT_FALSE(result.ok) << arguments;
    EXPECT_EQ(result.exit_status, 2) << result.message;
    for (const char* part : says) {
      EXPECT_NE(result.message.find(part), std::string::npos) << part << " in " << result.message;
    }
  }
}

TEST(Options, ReachTheConfiguration) {
  record::options given;
  const auto result = parse(
      "room --server dir:/x --uid 4294967295 --decode-video yuv --decode-audio 3 --low-udp-port "
      "40000 --idle-limit-sec 9",
      given);
  ASSERT_TRUE(result.ok) << result.message;
  EXPECT_EQ(given.channel_id, "room");
  EXPECT_EQ(given.uid, 4294967295U);
  EXPECT_EQ(given.config.decodeVideo, recording::VIDEO_FORMAT_YUV_FRAME_TYPE);
  EXPECT_EQ(given.config.decodeAudio, recording::AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE);
  EXPECT_EQ(given.config.lowUdpPort, 40000);
  EXPECT_EQ(given.config.idleLimitSec, 9);
  EXPECT_EQ(given.config.secret, nullptr) << "not given is not empty";
  EXPECT_EQ(given.config.captureInterval, recording::RecordingConfig().captureInterval);

  EXPECT_EQ(given.config.mixedVideoAudio, recording::MIXED_AV_DEFAULT);

  const std::pair<const char*, recording::MIXED_AV_CODEC_TYPE> mixes[] = {
      {"room --server test: --is-mixing-enabled", recording::MIXED_AV_CODEC_V2},
      {"room --server test: --is-mixing-enabled --mixed-video-audio 0",
       recording::MIXED_AV_DEFAULT},
      {"room --server test: --is-mixing-enabled --mixed-video-audio baseline",
       recording::MIXED_AV_CODEC_V1},
      {"room --server test: --is-mixing-enabled --is-audio-only", recording::MIXED_AV_DEFAULT},
  };
  for (const auto& [arguments, how] : mixes) {
    record::options mixed;
    EXPECT_TRUE(parse(arguments, mixed).ok);
    EXPECT_EQ(mixed.config.mixedVideoAudio, how) << arguments;
  }

  record::options demo;
  ASSERT_TRUE(parse("--demo", demo).ok);
  EXPECT_FALSE(demo.channel_id.empty() || demo.server.empty() || demo.duration_s <= 0);
}

}  // namespace
}  // namespace zelta::test
