// SPDX-License-Identifier: Apache-2.0
// What a crowd sends, byte by byte, and what is counted of it: the judgement of recordings rests on
// it.
#include <array>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "crowd/channel.h"
#include "crowd/media.h"
#include "crowd/stream.h"
#include "support/hex.h"

namespace zelta::crowd {
namespace {

using test::from_hex;
using test::to_hex;
using test::without_spaces;

// Units as text: a key frame's begins with "K", payloads are hexadecimal with a space before each,
// "|" ends a unit.
std::string written(const std::vector<media_unit>& units) {
  std::string text;
  for (const media_unit& unit : units) {
    text += unit.key ? "K" : "";
    for (const bytes& payload : unit.payloads) text += " " + to_hex(payload.data(), payload.size());
    text += "|";
  }
  return text;
}

struct row {
  const char* what;
  const char* stream;  // in hexadecimal
  const char* units;
};

TEST(CrowdMedia, H264IsCutIntoPicturesAndFragmentsWithoutDelimiters) {
  const row rows[] = {
      {"nothing", "", ""},
      {"no start code", "65 01 02", ""},
      {"a start code alone", "000001", ""},
      {"parameter set and key frame of one packet each", "00000001 0910 00000001 6707 000001 6508",
       "K 6707 6508|"},
      {"as long as a packet may be", "000001 09f0 000001 4101020304", " 4101020304|"},
      {"a byte more: first and last fragment", "000001 09f0 000001 410102030405",
       " 5c81010203 5c410405|"},
      {"a fragment between them, reference bits kept", "000001 09f0 000001 6501020304050607",
       "K 7c85010203 7c05040506 7c4507|"},
      {"two pictures, two slices in the second",
       "000001 0910 000001 6508 00000001 0930 000001 4101 000001 4102", "K 6508| 4101 4102|"},
  };
  for (const row& one : rows) {
    EXPECT_EQ(written(h264_units(from_hex(one.stream), 5)), one.units) << one.what;
  }
}

bytes with(bytes head, const bytes& rest) {
  head.insert(head.end(), rest.begin(), rest.end());
  return head;
}

// Behind the file's head a size, a time and the frame each.
TEST(CrowdMedia, Vp8IsCutIntoPacketsOfWhichTheFirstSaysSo) {
  const row rows[] = {
      {"no frame", "", ""},
      {"key frame", "02000000 0000000000000000 1007", "K 101007|"},
      {"other frame in two packets", "05000000 0000000000000000 1101020304", " 1011010203 0004|"},
      {"cut off", "03000000 0000000000000000 1007", ""},
      {"a size beyond all", "ffffffff 0000000000000000 1007", ""},
  };
  for (const row& one : rows) {
    EXPECT_EQ(written(vp8_units(with(bytes(32), from_hex(one.stream)), 5)), one.units) << one.what;
  }
}

// A page with these segments, which are filled with their own number in the page.
bytes page(const bytes& lacing) {
  bytes made(27);
  made.back() = static_cast<uint8_t>(lacing.size());
  made = with(made, lacing);
  for (size_t i = 0; i < lacing.size(); ++i) {
    made.resize(made.size() + lacing[i], static_cast<uint8_t>(i));
  }
  return made;
}

TEST(CrowdMedia, OpusPacketsAreTakenOffPagesBehindTheHeaders) {
  EXPECT_EQ(written(opus_units(with(page({1}), page({2})))), "");
  const bytes headers = page({1, 2});
  EXPECT_EQ(written(opus_units(with(headers, page({1, 2})))), "K 00|K 0101|");
  // Over two segments, and over two pages.
  const auto long_one = opus_units(with(headers, page({255, 1})));
  ASSERT_EQ(long_one.size(), 1U);
  EXPECT_EQ(long_one[0].payloads[0].size(), 256U);
  const auto parted = opus_units(with(headers, with(page({255}), page({0, 3}))));
  ASSERT_EQ(parted.size(), 2U);
  EXPECT_EQ(parted[0].payloads[0].size(), 255U);
  EXPECT_EQ(written({parted[1]}), "K 010101|");
  bytes cut = with(headers, page({1, 9}));
  cut.pop_back();
  EXPECT_EQ(written(opus_units(cut)), "K 00|");
}

TEST(CrowdStream, HeaderAndReportHaveTheirBytes) {
  const rtp_header header = make_header(96, true, 0x1234, 0x56789abc, 0xdef01122);
  EXPECT_EQ(to_hex(header.data(), header.size()), "80e0123456789abcdef01122");
  std::array<uint8_t, kReportBytes> out{};
  // Half a second into 1970.
  const size_t size = write_report({0x01020304, 500'000, 0x0a0b0c0d, 5, 600, "user7"}, out);
  EXPECT_EQ(to_hex(out.data(), size),
            without_spaces("80c80006 01020304 83aa7e80 80000000 0a0b0c0d 00000005 00000258 "
                           "81ca0003 01020304 01057573 65723700"));
}

TEST(CrowdStream, LossBreaksPicturesUpToTheNextKeyFrameAndOvertakingNone) {
  track media;
  media.clock_rate = 90000;
  media.unit_ticks = 6000;
  media.picture = true;
  media.units = {{true, {{1}, {2}}}, {false, {{3}}}, {false, {{4}}}};
  std::mt19937 chance(1);
  stream sender;
  sender.media = &media;
  sender.sequence = 65534;
  std::string order;
  const auto send = [&](const stream::packet& packet) {
    const rtp_header& h = packet.header;
    order += std::to_string(h[2] << 8 | h[3]) + ":" + std::to_string((*packet.payload)[0]) +
             ((h[1] & 0x80) != 0 ? "m " : " ");
  };
  sender.send_unit({0, 0}, chance, send);
  sender.send_unit({1, 0}, chance, send);  // lost
  sender.send_unit({0, 0}, chance, send);  // refers to it
  EXPECT_EQ(sender.whole_units, 1U);
  sender.send_unit({0, 1}, chance, send);  // each is overtaken by the next
  EXPECT_EQ(order, "65534:1 65535:2m 1:4m 3:2m 2:1 ");
  EXPECT_EQ(sender.sent_units, 4U);
  EXPECT_EQ(sender.whole_units, 2U);
  EXPECT_EQ(sender.due_us(), 4 * 1'000'000 / 15);
  EXPECT_EQ(sender.time_at(1'000'000), 90000U);
}

TEST(CrowdStream, OfAClockThatIsTooFastPacketsAreEarlyAndTimesAhead) {
  track sound;
  sound.clock_rate = 48000;
  sound.unit_ticks = 960;
  struct {
    int ppm;
    int64_t due_us;  // of what has ten minutes before it by the sender's clock
    int64_t own_us;  // ten minutes after the begin
    uint32_t time;
  } const rows[] = {
      {0, 600'000'500, 600'000'500, 28'800'000},
      {100, 599'940'506, 600'060'500, 28'802'880},
      {-100, 600'060'506, 599'940'500, 28'797'120},
  };
  for (const auto& row : rows) {
    stream sender;
    sender.media = &sound;
    sender.begin_us = 500;
    sender.sent_units = 30'000;
    sender.clock_ppm = row.ppm;
    EXPECT_EQ(sender.due_us(), row.due_us) << row.ppm;
    EXPECT_EQ(sender.own_us(600'000'500), row.own_us) << row.ppm;
    EXPECT_EQ(sender.time_at(600'000'500), row.time) << row.ppm;
  }
}

TEST(CrowdChannel, OnlyAnswersWithAllPortsCount) {
  const std::pair<const char*, std::vector<uint16_t>> rows[] = {
      {"v=0\nm=video 5004 RTP/AVP 96\na=x\nm=audio 5006 RTP/AVP 97\n", {5004, 5006}},
      {"v=0\nm=video 5004 RTP/AVP 96\n", {}},
      {"m=video 9 RTP/AVP 96\nm=audio 5006 RTP/AVP 97\n", {}},
      {"m=video 70000 RTP/AVP 96\nm=audio 5006 RTP/AVP 97\n", {}},
      {"m=video\nm=audio 5006", {}},
      {"", {}},
  };
  for (const auto& [answer, ports] : rows) EXPECT_EQ(answered_ports(answer, 2), ports) << answer;
}

TEST(CrowdSrtp, KeysAreThirtyBytesOfBase64) {
  const std::string good = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwd";
  const auto key = srtp_key(good);
  EXPECT_EQ(to_hex(key.data(), key.size()),
            "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d");
  for (const std::string& bad :
       {std::string(), good.substr(1), good + "AAAA", "*" + good.substr(1)}) {
    EXPECT_TRUE(srtp_key(bad).empty()) << bad;
  }
}

}  // namespace
}  // namespace zelta::crowd
