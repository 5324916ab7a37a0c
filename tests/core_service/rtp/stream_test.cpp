// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/stream.h"

#include <vector>

#include <gtest/gtest.h>

#include "core_service/rtp/network_order.h"
#include "support/hex.h"

namespace zelta::test {
namespace {

using namespace core_service;
using namespace std::chrono_literals;
using media::media_time;

constexpr uint32_t kSsrc = 7;
constexpr media_time kInterval = 40ms;
constexpr uint32_t kTicks = 3600;

class StreamTest : public testing::Test {
 protected:
  static rtp::payload vp8() {
    rtp::payload of;
    of.kind = media::find_rtp_codec("VP8");
    return of;
  }

  // A picture that needs no other, captured after so many others, arrives.
  void picture(uint16_t number, media_time arrival) {
    byte_list bytes = from_hex(
        "80e00000000000000000000010"
        "1000009d012a40013400");
    rtp::write_16(bytes.data() + 2, number);
    rtp::write_32(bytes.data() + 4, number * kTicks);
    rtp::write_32(bytes.data() + 8, kSsrc);
    const auto one = rtp::parse_packet(bytes.data(), bytes.size());
    ASSERT_TRUE(one);
    of_.take(*one, bytes.data(), bytes.size(), arrival);
  }

  std::vector<media_time> times_;
  media::byte_pool pool_;
  rtp::sender_clocks clocks_;
  rtp::stream of_{
      kSsrc, vp8(),   100ms,
      pool_, clocks_, {[this](media::encoded_unit&& unit) { times_.push_back(unit.time); }, [] {}}};
};

TEST_F(StreamTest, PicturesStayInOrderWhereReportsLayThemEarlier) {
  constexpr media_time kBegin = 10s;
  constexpr media_time kWay = 60ms;
  for (uint16_t i = 0; i < 30; ++i) {
    const media_time captured = kBegin + i * kInterval;
    // It is as fast as the packets are slow.
    if (i == 10) {
      of_.report({kSsrc, uint64_t{1000} << 32U, i * kTicks, 0, 0}, captured, true);
    }
    picture(i, captured + kWay);
  }
  of_.finish();
  ASSERT_EQ(times_.size(), 30U);
  for (size_t i = 1; i < times_.size(); ++i) {
    EXPECT_GE(times_[i] - times_[i - 1], 1ms) << i;
    EXPECT_LE(times_[i] - times_[i - 1], kInterval + 1ms) << i;
  }
  EXPECT_EQ(times_.front(), kBegin + kWay);
  EXPECT_LT(times_.back(), kBegin + 29 * kInterval + 10ms) << "they have caught up";
}

}  // namespace
}  // namespace zelta::test
