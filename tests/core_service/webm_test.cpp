// SPDX-License-Identifier: Apache-2.0
// The WebM muxer: the same media whatever moment its file was left in.
#include <chrono>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "core_service/media/webm/muxer.h"
#include "support/muxer_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

constexpr const char* kVp8 = "video/x-vp8,width=320,height=180";
constexpr const char* kOpus = "audio/x-opus,rate=16000,channels=2";
// With 312 samples that a decoder is to leave out.
constexpr const char* kEncodedOpus =
    "audio/"
    "x-opus,rate=48000,channels=1,streamheader=(buffer)<4f707573486561640101380180bb0000000000"
    ">";

class WebmTest : public MuxerTest {
 protected:
  WebmTest() : MuxerTest(std::make_unique<webm::muxer>(true, true), ".webm") {}

  void add_picture(media_time time, size_t bytes, bool key, const char* caps = kVp8) {
    add(media_kind::kVideo, sample_of(caps, time, 0ms, bytes, key, key ? 0x10 : 0x11));
  }
  void add_sound(media_time time, size_t bytes = 60, const char* caps = kOpus) {
    add(media_kind::kAudio, sample_of(caps, time, 20ms, bytes, true, 0x10));
  }
  // A picture each 40 ms, a key frame each second, and sound of 20 ms, from 300 ms on.
  void add_seconds(int seconds) {
    for (int i = 0; i < 25 * seconds; ++i) {
      add_picture(40ms * i, static_cast<size_t>(100 + i % 50), i % 25 == 0);
      for (const media_time at : {40ms * i, 40ms * i + 20ms}) {
        if (at >= 300ms) add_sound(at);
      }
    }
  }
};

TEST_F(WebmTest, HoldsTheSameMediaWhileItGrowsAndCompleted) {
  add_seconds(10);
  EXPECT_NEAR(writes, 48, 1) << "one a fifth of a second, once both have come";
  const std::string growing = file;
  complete();
  const auto pictures = packets("v", file);
  const auto sound = packets("a", file);
  ASSERT_EQ(pictures.size(), 250U);
  ASSERT_EQ(sound.size(), 485U);
  EXPECT_EQ(pictures[0], "0.000000,100,K_");
  EXPECT_EQ(pictures[1], "0.040000,101,__");
  EXPECT_EQ(pictures[249], "9.960000,149,__");
  EXPECT_EQ(sound[0], "0.300000,60,K_");
  EXPECT_EQ(sound[484], "9.980000,60,K_");
  for (const auto& [stream, whole] : {std::pair{"v", &pictures}, {"a", &sound}}) {
    const auto left = packets(stream, growing);
    ASSERT_GE(left.size() + 13, whole->size()) << "what a fifth of a second holds";
    for (size_t i = 0; i < left.size(); ++i) EXPECT_EQ(left[i], (*whole)[i]);
  }
  EXPECT_EQ(probe(growing, "-show_entries format=duration"), "N/A\n");
  EXPECT_EQ(probe(file, "-show_entries format=duration"), "10.000000\n");
  // By the cues: what is before the place that was jumped to isn't read.
  const auto behind = lines_of(
      probe(file, "-read_intervals 7.5%+#1 -select_streams v -show_entries packet=pts_time,flags"));
  EXPECT_EQ(behind.at(0), "7.000000,K_");
}

TEST_F(WebmTest, PlaysWhereverItWasCutOff) {
  add_seconds(4);
  const std::string growing = file;
  complete();
  const size_t first = growing.find("\x1f\x43\xb6\x75");
  size_t before = 0;
  for (size_t cut = first + 1000; cut < growing.size(); cut += 1777) {
    const size_t left = packets("v", growing.substr(0, cut)).size();
    EXPECT_GE(left, before) << cut;
    before = left;
  }
  EXPECT_GE(before, 80U);
}

TEST_F(WebmTest, WaitsForNobodyForLong) {
  add_seconds(2);
  const int before = writes;
  // The picture stops; sound goes out a second later at most.
  for (int i = 0; i < 100; ++i) add_sound(2s + 20ms * i);
  EXPECT_GE(writes - before, 4);
  add_picture(5s, 100, true);
  // A long silence of both leaves each in its place.
  add_picture(70s, 100, true);
  add_sound(70s);
  complete();
  const auto pictures = packets("v", file);
  ASSERT_EQ(pictures.size(), 50U + 2U);
  EXPECT_EQ(pictures[50], "5.000000,100,K_");
  EXPECT_EQ(pictures[51], "70.000000,100,K_");
  const auto sound = packets("a", file);
  EXPECT_EQ(sound.size(), 85U + 100U + 1U);
  EXPECT_EQ(sound.back(), "70.000000,60,K_");
}

TEST_F(WebmTest, LeavesOutATrackThatNeverCame) {
  for (int i = 0; i < 200; ++i) add_sound(20ms * i, 60, kEncodedOpus);
  EXPECT_TRUE(file.empty()) << "the head has to describe both tracks";
  complete();
  const auto sound = packets("a", file);
  ASSERT_EQ(sound.size(), 200U);
  // What its encoder put in front lies before the first sample.
  EXPECT_EQ(sound[0].substr(0, 9), "-0.007000");
  EXPECT_TRUE(packets("v", file).empty());
}

// RFC 8794 and 9559, in hexadecimal: an element is its identifier and ":" with the size of what
// follows or "=" with a number, both of eight bytes; "_" are so many zeros, all else are bytes.
std::string ebml(const std::string& text) {
  std::string hex;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t at = word.find_first_of(":=_");
    hex += word.substr(0, at);
    if (at == std::string::npos) continue;
    const std::string value = word.substr(at + 1);
    if (word[at] == '_') hex += std::string(2 * std::stoul(value, nullptr, 16), '0');
    if (word[at] == ':') hex += "01" + std::string(14 - value.size(), '0') + value;
    if (word[at] == '=') hex += "0100000000000008" + std::string(16 - value.size(), '0') + value;
  }
  return hex;
}

const std::string kHeader =
    "1a45dfa3:7a 4286=1 42f7=1 42f2=4 42f3=8 4282:4 7765626d 4287=4 4285=2 18538067";
const std::string kTracks =
    " 1654ae6b:174 ae:a2 86:5 565f565039 e0:46 b0=140 ba=b4 54b0=1aa 54ba=b4 d7=1 73c5=1 83=1 9c=0 "
    "ae:c0 86:6 415f4f505553 63a2:13 4f7075734865616401020000803e0000000000 56aa=0 56bb=4c4b400 "
    "e1:22 b5:8 40e7700000000000 9f=2 d7=2 73c5=2 83=2 9c=0";

// Every byte of it, while the file grows and in the end.
TEST_F(WebmTest, ItsHeadSaysWhatIsInIt) {
  add_picture(0ms, 10, true, "video/x-vp9,width=320,height=180,pixel-aspect-ratio=4/3");
  add_sound(0ms, 3);
  add_picture(200ms, 10, false);
  add_sound(200ms, 3);
  const size_t cluster = file.find("\x1f\x43\xb6\x75");
  EXPECT_EQ(hex(0, cluster), ebml(kHeader +
                                  " 01ffffffffffffff ec:81 _81 1549a966:43 2ad7b1=f4240 "
                                  "4d80:5 7a656c7461 5741:5 7a656c7461 ec:9 _9" +
                                  kTracks));
  EXPECT_EQ(hex(cluster, file.size()),
            ebml("1f43b675:38 e7=0 a3:e 8100008010101010101010101010 a3:7 82000080101010"));
  const size_t grown = file.size();
  complete();
  EXPECT_EQ(hex(0, cluster),
            ebml(kHeader +
                 ":332 114d9b74:7e 4dbb:20 53ab:4 1549a966 53ac=8a 4dbb:20 53ab:4 1654ae6b 53ac=d9 "
                 "4dbb:20 53ab:4 1c53bb6b 53ac=2e1 1549a966:43 2ad7b1=f4240 4d80:5 7a656c7461 "
                 "5741:5 7a656c7461 4489:8 406b800000000000" +
                 kTracks));
  EXPECT_EQ(hex(grown, file.size()),
            ebml("1f43b675:38 e7=c8 a3:e 8100000011111111111111111111 a3:7 82000080101010 "
                 "1c53bb6b:45 bb:3c b3=0 b7:22 f7=1 f1=259"));
}

}  // namespace
}  // namespace zelta::test
