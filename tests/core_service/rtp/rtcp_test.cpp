// SPDX-License-Identifier: Apache-2.0
// RTCP, byte by byte, and what a report says of a source.
#include <array>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/packet.h"
#include "core_service/rtp/receive_stats.h"
#include "core_service/rtp/rtcp.h"
#include "support/hex.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::rtp;

struct heard : rtcp_visitor {
  void report(const sender_report& one) override {
    text += "report " + std::to_string(one.ssrc) + " " + std::to_string(one.ntp) + " " +
            std::to_string(one.timestamp) + " " + std::to_string(one.packets) + " " +
            std::to_string(one.octets) + ", ";
  }
  void bye(uint32_t ssrc) override { text += "bye " + std::to_string(ssrc) + ", "; }
  std::string text;
};

std::string parsed(const std::string& hex) {
  const byte_list bytes = from_hex(hex);
  heard all;
  const bool valid = parse_rtcp(bytes.data(), bytes.size(), all);
  return all.text + (valid ? "valid" : "invalid");
}

const std::string kInfo = "00000001 00000002 80000000 00000003 00000004 00000005";
const std::string kSaid = "report 1 10737418240 3 4 5, ";
const std::string kBlock = "00000009 00000000 00000000 00000000 00000000 00000000";

TEST(RtcpTest, ValidPacketsAreHeardAndOthersNotAtAll) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "invalid"},
      {"80c800", "invalid"},
      {"80c80006" + kInfo, kSaid + "valid"},
      {"81c8000c" + kInfo + kBlock, kSaid + "valid"},
      {"81c80006" + kInfo, "invalid"},  // its block is missing
      {"80c80005" + kInfo.substr(0, 44), "invalid"},
      {"40c80006" + kInfo, "invalid"},  // version 1
      {"80c80007" + kInfo, "invalid"},  // a word too long
      {"80c80006" + kInfo + "82cb0002 00000001 00000007", kSaid + "bye 1, bye 7, valid"},
      {"80c80006" + kInfo + "83cb0002 00000001 00000007", "invalid"},
      {"80c80006" + kInfo + "80cb0000", kSaid + "valid"},
      {"80c80006" + kInfo + "00", "invalid"},  // something behind it
      {"80c80006" + kInfo + "40cb0000", "invalid"},
      // Padding belongs to the end of the whole.
      {"80c80006" + kInfo + "a1cb0002 00000001 00000004", kSaid + "bye 1, valid"},
      {"80c80006" + kInfo + "a2cb0002 00000001 00000004", "invalid"},
      {"80c80006" + kInfo + "a1cb0002 00000001 00000000", "invalid"},
      {"80c80006" + kInfo + "a1cb0002 00000001 00000003", "invalid"},
      {"80c80006" + kInfo + "a0cb0002 00000001 0000000c", "invalid"},
      {"a0c80007" + kInfo + "00000004" + "81cb0001 00000001", "invalid"},
      // Of reduced size, of a type that is to come, and no RTCP.
      {"81ce0002 00000001 00000002", "valid"},
      {"81cb0001 00000001", "bye 1, valid"},
      {"80df0000", "valid"},
      {"80e00000", "invalid"},
      {"80bf0000", "invalid"},
  };
  for (const auto& [hex, result] : rows) EXPECT_EQ(parsed(hex), result) << hex;
}

TEST(RtcpTest, ReportNameAndFeedbackAreWrittenToTheByte) {
  uint8_t buffer[95];
  rtcp_writer writer(buffer, sizeof buffer);
  const report_block block{0x01020304, 0x40, -2, 0x00011234, 0x55, 0xaabbccdd, 0x00018000};
  EXPECT_TRUE(writer.receiver_report(0xcafe, &block, 1));
  EXPECT_TRUE(writer.cname(0xcafe, "ab"));
  EXPECT_TRUE(writer.cname(0xcafe, "abc"));
  EXPECT_TRUE(writer.picture_loss(0xcafe, 0x01020304));
  EXPECT_FALSE(writer.cname(0xcafe, "abcdefghijklmnopq")) << "a byte is missing";
  EXPECT_EQ(
      to_hex(buffer, writer.size()),
      without_spaces("81c90007 0000cafe 01020304 40fffffe 00011234 00000055 aabbccdd 00018000 "
                     "81ca0003 0000cafe 01026162 00000000 "
                     "81ca0003 0000cafe 01036162 63000000 "
                     "81ce0002 0000cafe 01020304"));
  rtcp_writer again(buffer, sizeof buffer);
  EXPECT_TRUE(again.receiver_report(0xcafe, nullptr, 0));
  EXPECT_FALSE(again.cname(0xcafe, std::string(256, 'x')));
  EXPECT_EQ(to_hex(buffer, again.size()), without_spaces("80c90001 0000cafe"));
}

TEST(RtcpTest, MoreSourcesThanAPacketHoldsTakeTwoOrNone) {
  std::vector<uint8_t> buffer(2 * 8 + 32 * 24);
  const std::vector<report_block> blocks(32);
  rtcp_writer writer(buffer.data(), buffer.size());
  EXPECT_TRUE(writer.receiver_report(1, blocks.data(), blocks.size()));
  EXPECT_EQ(writer.size(), buffer.size());
  EXPECT_EQ(to_hex(buffer.data(), 4), without_spaces("9fc900bb"));
  EXPECT_EQ(to_hex(buffer.data() + 752, 8), without_spaces("81c90007 00000001"));
  rtcp_writer small(buffer.data(), buffer.size() - 1);
  EXPECT_FALSE(small.receiver_report(1, blocks.data(), blocks.size()));
  EXPECT_EQ(small.size(), 0U) << "half of it isn't written";
}

// RFC 5761, section 4: by the second byte, in which the payload types 64 to 95 would stand.
TEST(RtcpTest, IsToldFromMediaByItsPacketType) {
  const std::pair<int, bool> rows[] = {{191, false}, {192, true},  {200, true},
                                       {223, true},  {224, false}, {96, false}};
  for (const auto& [type, control] : rows) {
    const std::array<uint8_t, 3> bytes{0x80, static_cast<uint8_t>(type), 255};
    EXPECT_EQ(is_rtcp(bytes.data(), 2), control) << type;
    EXPECT_EQ(is_rtcp(bytes.data(), 3), control) << type;
    EXPECT_FALSE(is_rtcp(bytes.data(), 1));
  }
}

TEST(ReceiveStatsTest, LossIsToldByIntervalAndAsASum) {
  receive_stats stats(8000);
  const auto receive = [&](std::initializer_list<int64_t> numbers) {
    for (const int64_t number : numbers) stats.received(number, 0, 0ms);
    const report_block block = stats.report(9, 0ms);
    EXPECT_EQ(block.ssrc, 9U);
    return std::to_string(block.fraction_lost) + "/256 " + std::to_string(block.lost) + " " +
           std::to_string(block.highest);
  };
  EXPECT_EQ(receive({}), "0/256 0 0");
  EXPECT_EQ(receive({65534, 65535, 65537}), "64/256 1 65537");
  EXPECT_EQ(receive({65536, 65538}), "0/256 0 65538") << "it came late";
  EXPECT_EQ(receive({65538, 65538}), "0/256 -2 65538");
  EXPECT_EQ(receive({65638}), "253/256 97 65638");
  EXPECT_EQ(receive({}), "0/256 97 65638");
  receive_stats fresh(8000);
  fresh.received(5, 0, 0ms);
  fresh.received(7, 0, 0ms);
  EXPECT_EQ(fresh.report(9, 0ms).fraction_lost, 85U) << "from its very beginning";
  stats.restarted();
  EXPECT_EQ(receive({200000}), "0/256 0 200000");
}

TEST(ReceiveStatsTest, JitterIsInTicksAndReportsAreAnswered) {
  receive_stats stats(8000);
  // Each second packet 10 ms late: 80 ticks of change at each, over a wrap of the timestamp and
  // of our own time in ticks.
  for (int i = 0; i < 400; ++i) {
    const auto late = i % 2 == 0 ? 0ms : 10ms;
    stats.received(i, 0xffffff00U + 160U * static_cast<uint32_t>(i), 536'868s + i * 20ms + late);
  }
  EXPECT_EQ(stats.report(9, 600'000s).jitter, 79U);
  EXPECT_EQ(stats.report(9, 600'000s).last_report, 0U);
  EXPECT_EQ(stats.report(9, 600'000s).delay, 0U);
  stats.sender_reported(0x0123456789abcdef, 600'000s);
  EXPECT_EQ(stats.report(9, 600'001s + 500ms).last_report, 0x456789abU);
  EXPECT_EQ(stats.report(9, 600'001s + 500ms).delay, 0x18000U);
  EXPECT_EQ(stats.report(9, 700'000s).delay, 0xffff0000U) << "as long as can be said";
}

}  // namespace
}  // namespace zelta::test
