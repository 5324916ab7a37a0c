// SPDX-License-Identifier: Apache-2.0
// What a crowd sends, byte by byte, and what is counted of it: the judgement of recordings rests on
// it.
#include <algorithm>
#include <ios>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crowd/channel.h"
#include "crowd/media.h"
#include "crowd/stream.h"

namespace zelta::crowd {
namespace {

// Units as text: a key frame's begins with "K", payloads are hexadecimal with a space before each.
std::vector<std::string> written(const std::vector<media_unit>& units) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::vector<std::string> texts;
  for (const media_unit& unit : units) {
    std::string text = unit.key ? "K" : "";
    for (const bytes& payload : unit.payloads) {
      text += ' ';
      for (const uint8_t byte : payload) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
      }
    }
    texts.push_back(text);
  }
  return texts;
}

using texts = std::vector<std::string>;

TEST(CrowdMedia, H264IsCutIntoPicturesAndFragmentsWithoutDelimiters) {
  struct row {
    const char* what;
    bytes stream;
    texts units;
  };
  const row rows[] = {
      {"nothing", {}, {}},
      {"no start code", {0x65, 1, 2}, {}},
      {"a start code alone", {0, 0, 1}, {}},
      {"parameter set and key frame of one packet each",
       {0, 0, 0, 1, 9, 0x10, 0, 0, 0, 1, 0x67, 7, 0, 0, 1, 0x65, 8},
       {"K 6707 6508"}},
      {"as long as a packet may be",
       {0, 0, 1, 9, 0xf0, 0, 0, 1, 0x41, 1, 2, 3, 4},
       {" 4101020304"}},
      {"a byte more: first and last fragment",
       {0, 0, 1, 9, 0xf0, 0, 0, 1, 0x41, 1, 2, 3, 4, 5},
       {" 5c81010203 5c410405"}},
      {"a fragment between them, reference bits kept",
       {0, 0, 1, 9, 0xf0, 0, 0, 1, 0x65, 1, 2, 3, 4, 5, 6, 7},
       {"K 7c85010203 7c05040506 7c4507"}},
      {"two pictures, two slices in the second",
       {0, 0, 1,    9, 0x10, 0, 0,    1, 0x65, 8, 0, 0,    0,
        1, 9, 0x30, 0, 0,    1, 0x41, 1, 0,    0, 1, 0x41, 2},
       {"K 6508", " 4101 4102"}},
  };
  for (const row& one : rows) EXPECT_EQ(written(h264_units(one.stream, 5)), one.units) << one.what;
}

bytes with(bytes head, const bytes& rest) {
  head.insert(head.end(), rest.begin(), rest.end());
  return head;
}

TEST(CrowdMedia, Vp8IsCutIntoPacketsOfWhichTheFirstSaysSo) {
  struct row {
    const char* what;
    bytes frames;
    texts units;
  };
  const bytes time(8);
  const row rows[] = {
      {"no frame", {}, {}},
      {"key frame", with(with({2, 0, 0, 0}, time), {0x10, 7}), {"K 101007"}},
      {"other frame in two packets",
       with(with({5, 0, 0, 0}, time), {0x11, 1, 2, 3, 4}),
       {" 1011010203 0004"}},
      {"cut off", with(with({3, 0, 0, 0}, time), {0x10, 7}), {}},
      {"a size beyond all", with(with({255, 255, 255, 255}, time), {0x10, 7}), {}},
  };
  for (const row& one : rows) {
    EXPECT_EQ(written(vp8_units(with(bytes(32), one.frames), 5)), one.units) << one.what;
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
  EXPECT_EQ(written(opus_units(with(page({1}), page({2})))), texts{});
  const bytes headers = page({1, 2});
  EXPECT_EQ(written(opus_units(with(headers, page({1, 2})))), (texts{"K 00", "K 0101"}));
  // Over two segments, and over two pages.
  const auto long_one = opus_units(with(headers, page({255, 1})));
  ASSERT_EQ(long_one.size(), 1U);
  EXPECT_EQ(long_one[0].payloads[0].size(), 256U);
  const auto parted = opus_units(with(headers, with(page({255}), page({0, 3}))));
  ASSERT_EQ(parted.size(), 2U);
  EXPECT_EQ(parted[0].payloads[0].size(), 255U);
  EXPECT_EQ(written({parted[1]}), texts{"K 010101"});
  bytes cut = with(headers, page({1, 9}));
  cut.pop_back();
  EXPECT_EQ(written(opus_units(cut)), texts{"K 00"});
}

TEST(CrowdStream, HeaderAndReportHaveTheirBytes) {
  EXPECT_EQ(make_header(96, true, 0x1234, 0x56789abc, 0xdef01122),
            (rtp_header{0x80, 0xe0, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11, 0x22}));
  std::array<uint8_t, kReportBytes> out{};
  // Half a second into 1970.
  const size_t size = write_report({0x01020304, 500'000, 0x0a0b0c0d, 5, 600, "user7"}, out);
  EXPECT_EQ(bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(size)),
            (bytes{0x80, 200, 0,  6,  1,  2, 3, 4, 0x83, 0xaa, 0x7e, 0x80, 0x80, 0,    0,
                   0,    10,  11, 12, 13, 0, 0, 0, 5,    0,    0,    2,    0x58, 0x81, 202,
                   0,    3,   1,  2,  3,  4, 1, 5, 'u',  's',  'e',  'r',  '7',  0}));
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
  texts order;
  const auto send = [&](const stream::packet& packet) {
    const rtp_header& h = packet.header;
    order.push_back(std::to_string(h[2] << 8 | h[3]) + ":" + std::to_string((*packet.payload)[0]) +
                    ((h[1] & 0x80) != 0 ? "m" : ""));
  };
  sender.send_unit({0, 0}, chance, send);
  sender.send_unit({1, 0}, chance, send);  // lost
  sender.send_unit({0, 0}, chance, send);  // refers to it
  EXPECT_EQ(sender.whole_units, 1U);
  sender.send_unit({0, 1}, chance, send);  // each is overtaken by the next
  EXPECT_EQ(order, (texts{"65534:1", "65535:2m", "1:4m", "3:2m", "2:1"}));
  EXPECT_EQ(sender.sent_units, 4U);
  EXPECT_EQ(sender.whole_units, 2U);
  EXPECT_EQ(sender.due_us(), 4 * 1'000'000 / 15);
  EXPECT_EQ(sender.time_at(1'000'000), 90000U);
}

TEST(CrowdChannel, OnlyAnswersWithAllPortsCount) {
  struct row {
    const char* answer;
    std::vector<uint16_t> ports;
  };
  const row rows[] = {
      {"v=0\nm=video 5004 RTP/AVP 96\na=x\nm=audio 5006 RTP/AVP 97\n", {5004, 5006}},
      {"v=0\nm=video 5004 RTP/AVP 96\n", {}},
      {"m=video 9 RTP/AVP 96\nm=audio 5006 RTP/AVP 97\n", {}},
      {"m=video 70000 RTP/AVP 96\nm=audio 5006 RTP/AVP 97\n", {}},
      {"m=video\nm=audio 5006", {}},
      {"", {}},
  };
  for (const row& one : rows) EXPECT_EQ(answered_ports(one.answer, 2), one.ports) << one.answer;
}

TEST(CrowdSrtp, KeysAreThirtyBytesOfBase64) {
  const std::string good = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwd";
  const auto key = srtp_key(good);
  ASSERT_EQ(key.size(), 30U);
  for (uint8_t i = 0; i < 30; ++i) EXPECT_EQ(key[i], i);
  for (const std::string& bad :
       {std::string(), good.substr(1), good + "AAAA", "*" + good.substr(1)}) {
    EXPECT_TRUE(srtp_key(bad).empty()) << bad;
  }
}

}  // namespace
}  // namespace zelta::crowd
