// SPDX-License-Identifier: Apache-2.0
// The MP4 muxer: the same media whatever moment its file was left in.
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/media/mp4/av1_config.h"
#include "core_service/media/mp4/muxer.h"
#include "support/muxer_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

constexpr const char* kH264 =
    "video/"
    "x-h264,width=320,height=180,codec_data=(buffer)0142c00dffe100096742c00dda0505b09001000468"
    "ce3c80,pixel-aspect-ratio=4/3";
constexpr const char* kAac = "audio/mpeg,rate=48000,channels=1,codec_data=(buffer)1188";

class Mp4Test : public MuxerTest {
 protected:
  Mp4Test() : MuxerTest(std::make_unique<mp4::muxer>("isom", true, true, 1'700'000'000), ".mp4") {}

  void add_picture(media_time time, media_time decode, size_t bytes, bool key,
                   const char* caps = kH264) {
    media_sample made = sample_of(caps, time, 40ms, bytes, key, 0);
    made.decode_time = kZero + decode;
    // A NAL unit with its length before it.
    const std::array<uint8_t, 5> unit{0, 0, 0, static_cast<uint8_t>(bytes - 4),
                                      static_cast<uint8_t>(key ? 0x65 : 0x41)};
    gst_buffer_fill(made.buffer.get(), 0, unit.data(), unit.size());
    add(media_kind::kVideo, made);
  }
  void add_sound(media_time from, int count) {
    constexpr media_time kSecond = 1s;
    for (int i = 0; i < count; ++i) {
      const media_time at = from + kSecond * 1024 * i / 48'000;
      add(media_kind::kAudio, sample_of(kAac, at, kSecond * 1024 / 48'000, 50, true, 0));
    }
  }
  // Shown as I B B P: decoded as I P B B, at 25 a second.
  void add_pictures(int groups) {
    constexpr int kShown[] = {0, 3, 1, 2};
    for (int i = 0; i < 4 * groups; ++i) {
      const size_t before = file.size();
      add_picture(40ms * (i / 4 * 4 + kShown[i % 4] + 1), 40ms * i,
                  static_cast<size_t>(100 + i % 50), i % 4 == 0);
      if (file.size() != before) fragments.emplace_back(file.size(), i);
    }
  }
  // A line a box, its name and bytes in hexadecimal; of those at the top, where they begin and how
  // large they are; nothing of those that hold boxes.
  void boxes_of(size_t from, size_t to, bool top, std::string& lines) const {
    const std::string folders = "moov trak edts mdia minf dinf stbl mvex moof traf ";
    while (from + 8 <= to) {
      const std::string name = file.substr(from + 4, 4);
      const size_t end = from + std::stoul(hex(from, from + 4), nullptr, 16);
      const bool folder = folders.find(name + " ") != std::string::npos;
      if (top) lines += std::to_string(from) + " " + name + " " + std::to_string(end - from) + "\n";
      if (folder) boxes_of(from + 8, end, false, lines);
      if (!folder && !top) lines += name + " " + hex(from + 8, end) + "\n";
      from = end;
    }
  }

  // Bytes up to the end of each fragment, and how many pictures they hold.
  std::vector<std::pair<size_t, size_t>> fragments;
};

TEST_F(Mp4Test, HoldsTheSameMediaInFragmentsAndCompleted) {
  add_pictures(10);
  add_sound(300ms, 60);
  add_picture(1640ms, 1600ms, 99, true);
  const std::string uncompleted = file;
  complete();
  const auto pictures = packets("v", file);
  ASSERT_EQ(pictures.size(), 41U);
  // In the order of decoding, each at its own time: the file begins with the first that is shown.
  EXPECT_EQ(pictures[0], "0.000000,100,K_");
  EXPECT_EQ(pictures[1], "0.120000,101,__");
  EXPECT_EQ(pictures[2], "0.040000,102,__");
  EXPECT_EQ(pictures[40], "1.600000,99,K_");
  const auto sound = packets("a", file);
  ASSERT_EQ(sound.size(), 60U);
  EXPECT_EQ(sound[0].substr(0, 8), "0.260000");
  EXPECT_EQ(sound[59].substr(0, 7), "1.51866");
  // A recorder that was killed leaves out the last ones, and nothing else; its file begins where
  // the first is decoded.
  for (const auto& [stream, whole] : {std::pair{"v", &pictures}, {"a", &sound}}) {
    const auto left = packets(stream, uncompleted);
    ASSERT_GE(left.size() + 1, whole->size());
    for (size_t i = 0; i < left.size(); ++i) {
      EXPECT_NEAR(std::stod(left[i]), std::stod((*whole)[i]) + 0.04, 1e-5) << i;
      EXPECT_EQ(left[i].substr(left[i].find(',')), (*whole)[i].substr((*whole)[i].find(',')));
    }
  }
}

// ISO/IEC 14496-12: eight pictures and one, of which the first is shown 40 ms after it is decoded,
// and four pieces of sound from 300 ms on.
constexpr const char* kBoxes = R"(
0 ftyp 28
28 free 16
44 moov 1111
mvhd 0100000000000000e179a18000000000e179a18000015f9000000000000000000001000001000000000000000000000000010000000000000000000000000000000100000000000000000000000000004000000000000000000000000000000000000000000000000000000000000003
tkhd 0100000300000000e179a18000000000e179a18000000001000000000000000000000000000000000000000000000000000000000001000000000000000000000000000000010000000000000000000000000000400000000140000000b40000
mdhd 0100000000000000e179a18000000000e179a18000015f90000000000000000055c40000
hdlr 00000000000000007669646500000000000000000000000000
vmhd 000000010000000000000000
dref 00000000000000010000000c75726c2000000001
stsd 00000000000000010000008661766331000000000000000100000000000000000000000000000000014000b4004800000048000000000000000100000000000000000000000000000000000000000000000000000000000000000018ffff00000020617663430142c00dffe100096742c00dda0505b09001000468ce3c8000000010706173700000000400000003
stts 0000000000000000
stsz 000000000000000000000000
stsc 0000000000000000
co64 0000000000000000
tkhd 0100000300000000e179a18000000000e179a18000000002000000000000000000000000000000000000000000000000010000000001000000000000000000000000000000010000000000000000000000000000400000000000000000000000
mdhd 0100000000000000e179a18000000000e179a1800000bb80000000000000000055c40000
hdlr 0000000000000000736f756e00000000000000000000000000
smhd 0000000000000000
dref 00000000000000010000000c75726c2000000001
stsd 00000000000000010000004b6d703461000000000000000100000000000000000001001000000000bb800000000000276573647300000000031900000004114015000000000000000000000005021188060102
stts 0000000000000000
stsz 000000000000000000000000
stsc 0000000000000000
co64 0000000000000000
trex 000000000000000100000001000000000000000000000000
trex 000000000000000200000001000000000000000000000000
1155 moof 200
mfhd 0000000000000001
tfhd 0002000000000001
tfdt 010000000000000000000000
trun 01000f0100000007000000d000000e10000000640200000000000e1000000e10000000650101000000002a3000000e1000000066010100000000000000000e1000000067010100000000000000000e10000000680200000000000e1000000e10000000690101000000002a3000000e100000006a0101000000000000
1355 mdat 729
2084 moof 248
mfhd 0000000000000002
tfhd 0002000000000001
tfdt 010000000000000000006270
trun 01000f01000000020000010000000e100000006b010100000000000000000e10000000630200000000000000
tfhd 0002000000000002
tfdt 010000000000000000003840
trun 01000f0100000004000001ce00000400000000320200000000000000000004000000003202000000000000000000040000000032020000000000000000000400000000320200000000000000
2332 mdat 414
2746 moov 1367
mvhd 0100000000000000e179a18000000000e179a18000015f9000000000000079680001000001000000000000000000000000010000000000000000000000000000000100000000000000000000000000004000000000000000000000000000000000000000000000000000000000000003
tkhd 0100000300000000e179a18000000000e179a18000000001000000000000000000007080000000000000000000000000000000000001000000000000000000000000000000010000000000000000000000000000400000000140000000b40000
elst 010000000000000100000000000070800000000000000e1000010000
mdhd 0100000000000000e179a18000000000e179a18000015f900000000000007e9055c40000
hdlr 00000000000000007669646500000000000000000000000000
vmhd 000000010000000000000000
dref 00000000000000010000000c75726c2000000001
stsd 00000000000000010000008661766331000000000000000100000000000000000000000000000000014000b4004800000048000000000000000100000000000000000000000000000000000000000000000000000000000000000018ffff00000020617663430142c00dffe100096742c00dda0505b09001000468ce3c8000000010706173700000000400000003
stts 00000000000000010000000900000e10
ctts 01000000000000060000000100000e100000000100002a3000000002000000000000000100000e100000000100002a300000000300000000
stss 0000000000000003000000010000000500000009
stsz 0000000000000000000000090000006400000065000000660000006700000068000000690000006a0000006b00000063
stsc 0000000000000002000000010000000700000001000000020000000200000001
co64 000000000000000200000000000005530000000000000924
tkhd 0100000300000000e179a18000000000e179a18000000002000000000000000000007968000000000000000000000000010000000001000000000000000000000000000000010000000000000000000000000000400000000000000000000000
elst 01000000000000020000000000005b68ffffffffffffffff000100000000000000001e00000000000000000000010000
mdhd 0100000000000000e179a18000000000e179a1800000bb80000000000000100055c40000
hdlr 0000000000000000736f756e00000000000000000000000000
smhd 0000000000000000
dref 00000000000000010000000c75726c2000000001
stsd 00000000000000010000004b6d703461000000000000000100000000000000000001001000000000bb800000000000276573647300000000031900000004114015000000000000000000000005021188060102
stts 00000000000000010000000400000400
stsz 00000000000000000000000400000032000000320000003200000032
stsc 0000000000000001000000010000000400000001
co64 000000000000000100000000000009f2
)";

TEST_F(Mp4Test, ItsBoxesSayWhatIsInIt) {
  add_pictures(2);
  add_sound(300ms, 4);
  add_picture(320ms, 320ms, 99, true);
  append(mux->finish());
  std::string lines = "\n";
  boxes_of(0, file.size(), true, lines);
  EXPECT_EQ(lines, kBoxes);
  complete();
  EXPECT_EQ(hex(28, 44), "000000016d6461740000000000000a9e");
}

// So that no "moof" lies across a page: what is left of it is filled, and a box has eight bytes.
TEST_F(Mp4Test, FillsThePageBeforeWhatWouldLieAcross) {
  constexpr size_t kSize = 104;  // of the "moof" of one sample
  const std::pair<size_t, size_t> rows[] = {{0, 0}, {kSize, 0}, {kSize - 1, kSize - 1},
                                            {8, 8}, {7, 4103},  {1, 4097}};
  // Three fragments, of which the first has so much media; says where that ends.
  const auto write = [&](size_t bytes) {
    mux = std::make_unique<mp4::muxer>("isom", true, false, 0);
    file.clear();
    for (const auto& [at, size] :
         {std::pair{0ms, bytes}, {200ms, size_t{20}}, {400ms, size_t{20}}}) {
      add_picture(at, at, size, true);
    }
    return file.find("mdat", file.find("moof")) + 4 + bytes;
  };
  for (const auto& [left, filled] : rows) {
    const size_t media = write(1000 + 8192 - (write(1000) + left) % 4096);
    std::string lines;
    boxes_of(media, file.size(), true, lines);
    std::string expected =
        filled > 0 ? std::to_string(media) + " free " + std::to_string(filled) + "\n" : "";
    expected += std::to_string(media + filled) + " moof " + std::to_string(kSize) + "\n";
    EXPECT_EQ(lines.substr(0, expected.size()), expected) << left;
    EXPECT_EQ((media + left) % 4096, 0U);
  }
}

// A write that is cut short, by a kill or a full disk, ends with a page; so do those of the index.
TEST_F(Mp4Test, PlaysWhereverItWasCutOff) {
  add_sound(0ms, 470);  // piles up until there is a picture
  add_pictures(60);
  append(mux->finish());
  const std::string whole = file;
  complete();
  const size_t pictures = packets("v", file).size();
  ASSERT_EQ(pictures, 240U);
  EXPECT_EQ(fragments.size(), 47U) << "five pictures each, once both tracks are known";
  EXPECT_EQ(packets("v", whole).size(), pictures) << "an index that nothing leads to yet";
  const size_t index = whole.rfind("moov") - 4;
  auto fragment = fragments.begin();
  for (size_t cut = 32'768; cut < index; cut += 4096) {
    while (fragment + 1 != fragments.end() && fragment[1].first <= cut) ++fragment;
    EXPECT_GE(packets("v", whole.substr(0, cut)).size(), fragment->second) << cut;
  }
  for (size_t cut = index; cut < whole.size(); cut += 1000) {
    EXPECT_EQ(packets("v", whole.substr(0, cut)).size(), pictures) << cut;
  }
}

TEST_F(Mp4Test, SoundStaysOnItsClock) {
  constexpr int kFrames = 112'500;  // 40 minutes
  mux = std::make_unique<mp4::muxer>("M4A ", false, true, 0);
  add_sound(0ms, kFrames);
  complete();
  // One run of equal durations; 4 bytes a frame, and 8 and at most 12 a fragment.
  const size_t index = file.size() - file.rfind("moov");
  EXPECT_LT(index, 4 * kFrames + (8 + 12) * (2400 * 5) + 1000);
  const auto last = packets("a", file);
  ASSERT_EQ(last.size(), kFrames);
  EXPECT_EQ(last.back().substr(0, 11), "2399.978667");
}

TEST_F(Mp4Test, LeavesOutATrackThatNeverCame) {
  add_sound(0ms, 100);
  EXPECT_TRUE(file.empty()) << "the head has to describe both tracks";
  complete();
  EXPECT_EQ(packets("a", file).size(), 100U);
  EXPECT_TRUE(packets("v", file).empty());
}

// Two seconds of silence: all of it is there, from its beginning, by whatever decoder.
TEST_F(Mp4Test, HoldsOpusAsItCame) {
  mux = std::make_unique<mp4::muxer>("M4A ", false, true, 0);
  for (int i = 0; i < 100; ++i) {
    const media_sample sample =
        sample_of("audio/x-opus,rate=16000,channels=2", 20ms * i, 20ms, 3, true, 0xff);
    const std::array<uint8_t, 3> packet{0xfc, 0xff, 0xfe};
    gst_buffer_fill(sample.buffer.get(), 0, packet.data(), packet.size());
    add(media_kind::kAudio, sample);
  }
  complete();
  const std::string config("dOps\0\2\0\0\0\0\x3e\x80\0\0\0", 15);
  EXPECT_NE(file.find(config), std::string::npos);
  const auto sound = packets("a", file);
  ASSERT_EQ(sound.size(), 100U);
  EXPECT_EQ(sound[0], "0.000000,3,K_");
  EXPECT_EQ(sound[99], "1.980000,3,K_");
  for (const char* const decoder : {"opus", "libopus"}) {
    const std::string decoded = output_of(std::string("ffmpeg -v error -c:a ") + decoder + " -i " +
                                          path + " -f s16le - | wc -c");
    EXPECT_EQ(std::stol(decoded), 2 * 48'000 * 4) << decoder;
  }
}

// What Matroska and Matroska alone keeps of AV1: the sequence header is not in the stream.
TEST_F(Mp4Test, TakesTheSequenceHeaderOfAv1FromBesideTheStream) {
  mux = std::make_unique<mp4::muxer>("isom", true, false, 0);
  add_picture(0ms, 0ms, 20, true,
              "video/x-av1,width=1,height=1,codec_data=(buffer)810500000a061928000000d0");
  complete();
  const size_t box = file.find("av1C");
  ASSERT_NE(box, std::string::npos);
  EXPECT_EQ(hex(box + 4, box + 5), "81") << "the box isn't empty";
  EXPECT_NE(file.find(std::string("\x0a\x06\x19\x28", 4), box), std::string::npos);
}

// A sequence header in ones and zeros, the spaces for who reads it, behind the OBU's own header.
std::vector<uint8_t> obu_of(const std::string& header, const std::string& bits) {
  std::vector<uint8_t> payload;
  size_t count = 0;
  for (const char bit : bits) {
    if (bit == ' ') continue;
    if (count % 8 == 0) payload.push_back(0);
    payload.back() = static_cast<uint8_t>(payload.back() | (bit - '0') << (7 - count++ % 8));
  }
  std::vector<uint8_t> unit(header.begin(), header.end());
  unit.push_back(static_cast<uint8_t>(payload.size()));
  unit.insert(unit.end(), payload.begin(), payload.end());
  return unit;
}

// AV1 Bitstream & Decoding Process, section 5.5: what stands in front of the colours, each of its
// optional fields there or not, decides where they are found.
TEST(Av1Config, IsFoundBehindEveryOptionalField) {
  const std::string zeros(64, '0');
  const std::string plain = "0000 0000 0 0";       // a picture of one pixel
  const std::string tools = "000 0000 0 1 1 000";  // no order, screen content as it comes
  const std::string point = "0 0 00000 000000000000 00101 ";  // neither timing nor delays, level 5
  const std::pair<std::string, std::vector<uint8_t>> rows[] = {
      {"000 1 1 00101" + plain + "000 000 0 0 0 0 01", {0x81, 0x05, 0x0d}},
      {"000 1 1 00101" + plain + "000 000 0 1 0 0", {0x81, 0x05, 0x1c}},
      {"001 1 1 00101" + plain + "000 000 0 1 00000001 00001101 00000000", {0x81, 0x25, 0x00}},
      {"001 1 1 00101" + plain + "000 000 0 1 00000001 00001101 00000001 0 0", {0x81, 0x25, 0x00}},
      {"000 1 1 00101" + plain + "000 000 1 0 1 00000010 00001101 00000000 0 10",
       {0x81, 0x05, 0x4e}},
      {"010 1 1 00101" + plain + "000 000 1 0 0 0 0 1", {0x81, 0x45, 0x48}},
      {"010 1 1 00101" + plain + "000 000 1 1 0 0 0 0 1", {0x81, 0x45, 0x60}},
      {"010 1 1 00101" + plain + "000 000 1 1 0 0 0 1 0", {0x81, 0x45, 0x68}},
      {"000 0 0 " + point + plain + "0 " + tools + "0 0 0 0 11", {0x81, 0x05, 0x0f}},
      {"000 0 0 " + point + plain + "1 1010101 000 0000 1 10 0 0 000 000 0 0 0 0 10",
       {0x81, 0x05, 0x0e}},
      {"000 0 0 " + point + plain + "0 000 0000 0 0 1 0 1 000 0 0 0 0 01", {0x81, 0x05, 0x0d}},
      {"010 0 0 1" + zeros + "1 001 01 1 00001" + zeros.substr(0, 32) +
           "00000 00000 1 00001"
           "000000000000 01000 1 1 10 01 1 1 1010 000000000000 00000 0 0"
           "0001 0000 11 0 0 000 0000 0 1 1 000 1 1 0 1 00001001 00010000 00001001 1 1 1 10",
       {0x81, 0x48, 0xee}},
  };
  for (const auto& [bits, config] : rows) {
    for (const char* const header : {"\x0a", "\x0e\x28"}) {
      const std::vector<uint8_t> obu = obu_of(header, bits);
      std::vector<uint8_t> expected = config;
      expected.push_back(0);
      expected.insert(expected.end(), obu.begin(), obu.end());
      std::vector<uint8_t> unit{0x12, 0};  // a temporal delimiter
      unit.insert(unit.end(), obu.begin(), obu.end());
      EXPECT_EQ(mp4::av1_config_of(unit), expected) << bits;
      unit.pop_back();
      EXPECT_TRUE(mp4::av1_config_of(unit).empty()) << "cut short";
    }
  }
}

}  // namespace
}  // namespace zelta::test
