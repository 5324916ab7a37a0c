// SPDX-License-Identifier: Apache-2.0
// The WebM muxer: the same media whatever moment its file was left in.
#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/media/webm/muxer.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

constexpr media_time kZero = 100h;  // the clock has been running for a while
constexpr const char* kVp8 = "video/x-vp8,width=320,height=180";
constexpr const char* kOpus = "audio/x-opus,rate=16000,channels=2";
// With 312 samples that a decoder is to leave out.
constexpr const char* kEncodedOpus =
    "audio/x-opus,rate=48000,channels=1,streamheader=(buffer)<4f70757348656164010138010080bb000000"
    "0000>";

class WebmTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  void add(media_kind kind, media_time time, media_time duration, size_t bytes, bool key,
           const char* caps) {
    media_sample made;
    made.buffer.reset(gst_buffer_new_allocate(nullptr, bytes, nullptr));
    gst_buffer_memset(made.buffer.get(), 0, key ? 0x10 : 0x11, bytes);
    made.caps.reset(gst_caps_from_string(caps));
    made.time = made.decode_time = kZero + time;
    made.duration = duration;
    made.key = key;
    append(mux->add(kind, made));
  }
  void append(const std::vector<buffer_ptr>& more) {
    for (const buffer_ptr& one : more) {
      std::string bytes(gst_buffer_get_size(one.get()), '\0');
      gst_buffer_extract(one.get(), 0, bytes.data(), bytes.size());
      file += bytes;
    }
    if (!more.empty()) ++writes;
  }
  // A picture each 40 ms, a key frame each second, and sound of 20 ms, from 300 ms on.
  void add_seconds(int seconds) {
    for (int i = 0; i < 25 * seconds; ++i) {
      add(media_kind::kVideo, 40ms * i, 0ms, static_cast<size_t>(100 + i % 50), i % 25 == 0, kVp8);
      for (int half = 0; half < 2; ++half) {
        const media_time at = 40ms * i + 20ms * half;
        if (at >= 300ms) add(media_kind::kAudio, at, 20ms, 60, true, kOpus);
      }
    }
  }
  void complete() {
    append(mux->finish());
    const muxer::patch last = mux->completion();
    file.replace(last.at, last.bytes.size(), std::string(last.bytes.begin(), last.bytes.end()));
  }
  std::string probe(const std::string& of, const std::string& what) const {
    const std::string path = dir.path() + "/a.webm";
    std::ofstream(path, std::ios::binary) << of;
    return output_of("ffprobe -v quiet -of csv=p=0 " + what + " " + path);
  }
  // "time,size,key" of each packet of the stream.
  std::vector<std::string> packets(const std::string& stream, const std::string& of) const {
    return lines_of(
        probe(of, "-show_entries packet=pts_time,size,flags -select_streams " + stream));
  }
  std::string hex(size_t from, size_t count) const {
    std::string text;
    for (size_t i = from; i < from + count; ++i) {
      constexpr const char* kDigits = "0123456789abcdef";
      const auto value = static_cast<uint8_t>(file[i]);
      text += {kDigits[value / 16], kDigits[value % 16]};
    }
    return text;
  }

  const TempDir dir;
  std::optional<webm::muxer> mux{std::in_place, true, true};
  std::string file;
  int writes = 0;
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
  for (int i = 0; i < 100; ++i) add(media_kind::kAudio, 2s + 20ms * i, 20ms, 60, true, kOpus);
  EXPECT_GE(writes - before, 4);
  add(media_kind::kVideo, 5s, 0ms, 100, true, kVp8);
  complete();
  EXPECT_EQ(packets("a", file).size(), 85U + 100U);
  EXPECT_EQ(packets("v", file).back(), "5.000000,100,K_");
}

TEST_F(WebmTest, LongSilenceOfBothLeavesEachInItsPlace) {
  add_seconds(1);
  add(media_kind::kVideo, 70s, 0ms, 100, true, kVp8);
  add(media_kind::kAudio, 70s, 20ms, 60, true, kOpus);
  complete();
  EXPECT_EQ(packets("v", file).back(), "70.000000,100,K_");
  EXPECT_EQ(packets("a", file).back(), "70.000000,60,K_");
}

TEST_F(WebmTest, LeavesOutATrackThatNeverCame) {
  for (int i = 0; i < 200; ++i) add(media_kind::kAudio, 20ms * i, 20ms, 60, true, kEncodedOpus);
  EXPECT_TRUE(file.empty()) << "the head has to describe both tracks";
  complete();
  const auto sound = packets("a", file);
  ASSERT_EQ(sound.size(), 200U);
  // What its encoder put in front lies before the first sample.
  EXPECT_EQ(sound[0].substr(0, 9), "-0.007000");
  EXPECT_TRUE(packets("v", file).empty());
}

// RFC 8794 and 9559: what stands at the front and at the end of the head at any time.
constexpr const char* kHeader =
    "1a45dfa3010000000000007a42860100000000000008000000000000000142f7010000000000000800000000"
    "0000000142f20100000000000008000000000000000442f30100000000000008000000000000000842820100"
    "0000000000047765626d42870100000000000008000000000000000442850100000000000008000000000000"
    "00021853806701";
constexpr const char* kTracks =
    "00000000001654ae6b0100000000000174ae01000000000000a2860100000000000005565f565039e0010000"
    "0000000046b001000000000000080000000000000140ba010000000000000800000000000000b454b0010000"
    "000000000800000000000001aa54ba010000000000000800000000000000b4d7010000000000000800000000"
    "0000000173c50100000000000008000000000000000183010000000000000800000000000000019c01000000"
    "000000080000000000000000ae01000000000000c0860100000000000006415f4f50555363a2010000000000"
    "00134f7075734865616401020000803e000000000056aa0100000000000008000000000000000056bb010000"
    "00000000080000000004c4b400e10100000000000022b5010000000000000840e77000000000009f01000000"
    "000000080000000000000002d70100000000000008000000000000000273c501000000000000080000000000"
    "00000283010000000000000800000000000000029c01000000000000080000000000000000";

// Every byte of it, while the file grows and in the end.
TEST_F(WebmTest, ItsHeadSaysWhatIsInIt) {
  add(media_kind::kVideo, 0ms, 0ms, 10, true,
      "video/x-vp9,width=320,height=180,pixel-aspect-ratio=4/3");
  add(media_kind::kAudio, 0ms, 20ms, 3, true, kOpus);
  add(media_kind::kVideo, 200ms, 0ms, 10, false, kVp8);
  add(media_kind::kAudio, 200ms, 20ms, 3, true, kOpus);
  const size_t cluster = file.find("\x1f\x43\xb6\x75");
  EXPECT_EQ(hex(0, cluster), std::string(kHeader) +
                                 "ffffffffffffffec0100000000000081000000000000000000000"
                                 "00000000000000000000000000000000000"
                                 "00000000000000000000000000000000000000000000000000000"
                                 "00000000000000000000000000000000000"
                                 "00000000000000000000000000000000000000000000000000000"
                                 "00000000000000000000000000000000000"
                                 "000000000000000000000000001549a96601000000000000432ad"
                                 "7b1010000000000000800000000000f4240"
                                 "4d8001000000000000057a656c7461574101000000000000057a6"
                                 "56c7461ec010000000000000900000000" +
                                 kTracks);
  EXPECT_EQ(hex(cluster, file.size() - cluster),
            "1f43b6750100000000000038e701000000000000080000000000000000a3010000000000000e8100008010"
            "101010101010101010a3010000000000000782000080101010");
  const size_t grown = file.size();
  complete();
  EXPECT_EQ(hex(0, cluster), std::string(kHeader) +
                                 "00000000000332114d9b74010000000000007e4dbb01000000000"
                                 "0002053ab01000000000000041549a96653"
                                 "ac0100000000000008000000000000008a4dbb010000000000002"
                                 "053ab01000000000000041654ae6b53ac01"
                                 "0000000000000800000000000000d94dbb010000000000002053a"
                                 "b01000000000000041c53bb6b53ac010000"
                                 "000000000800000000000002e11549a96601000000000000432ad"
                                 "7b1010000000000000800000000000f4240"
                                 "4d8001000000000000057a656c7461574101000000000000057a6"
                                 "56c746144890100000000000008406b80" +
                                 kTracks);
  EXPECT_EQ(hex(grown, file.size() - grown),
            "1f43b6750100000000000038e7010000000000000800000000000000c8a3010000000000000e8100000011"
            "111111111111111111a30100000000000007820000801010101c53bb6b0100000000000045bb0100000000"
            "00003cb301000000000000080000000000000000b70100000000000022f701000000000000080000000000"
            "000001f101000000000000080000000000000259");
}

}  // namespace
}  // namespace zelta::test
