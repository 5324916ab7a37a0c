// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/receive_stats.h"

#include <algorithm>
#include <limits>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;
using namespace std::chrono_literals;

// In ticks of `rate` a second, of which only differences count.
uint32_t ticks_of(media_time time, uint32_t rate) {
  const auto seconds = static_cast<uint64_t>(time / 1s);
  const auto rest = static_cast<uint64_t>((time % 1s).count());
  return static_cast<uint32_t>(seconds * rate + rest * rate / 1'000'000'000);
}

// In units of 2^-16 s, as far as 32 bits go.
uint32_t delay_of(media_time span) {
  constexpr media_time kMost = 65535s;
  return static_cast<uint32_t>(std::clamp(span, media_time::zero(), kMost).count() * 65536 /
                               1'000'000'000);
}

}  // namespace

void receive_stats::received(int64_t sequence, uint32_t timestamp, media_time arrival) {
  if (!begun_) {
    first_ = highest_ = sequence;
    transit_ = ticks_of(arrival, clock_rate_) - timestamp;
    begun_ = true;
  }
  ++received_;
  highest_ = std::max(highest_, sequence);
  take_jitter(timestamp, arrival);
}

void receive_stats::sender_reported(uint64_t ntp, media_time arrival) {
  last_report_ = static_cast<uint32_t>(ntp >> 16U);
  reported_ = arrival;
}

void receive_stats::restarted() {
  begun_ = false;
  received_ = expected_before_ = received_before_ = 0;
  jitter_ = 0;
}

report_block receive_stats::report(uint32_t ssrc, media_time now) {
  report_block block;
  block.ssrc = ssrc;
  const int64_t expected_here = expected() - expected_before_;
  const int64_t lost_here = expected_here - (received_ - received_before_);
  if (expected_here > 0 && lost_here > 0) {
    block.fraction_lost =
        static_cast<uint8_t>(std::min<int64_t>(lost_here * 256 / expected_here, 255));
  }
  expected_before_ = expected();
  received_before_ = received_;
  constexpr int64_t kLeast = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
  block.lost = static_cast<int32_t>(std::clamp(expected() - received_, kLeast, kMost));
  block.highest = static_cast<uint32_t>(highest_);
  block.jitter = static_cast<uint32_t>(jitter_ >> 4U);
  block.last_report = last_report_;
  if (last_report_ != 0) block.delay = delay_of(now - reported_);
  return block;
}

void receive_stats::take_jitter(uint32_t timestamp, media_time arrival) {
  const uint32_t transit = ticks_of(arrival, clock_rate_) - timestamp;
  const int64_t change = static_cast<int32_t>(transit - transit_);
  transit_ = transit;
  jitter_ += std::max(change, -change) - ((jitter_ + 8) >> 4U);
}

int64_t receive_stats::expected() const {
  return begun_ ? highest_ - first_ + 1 : 0;
}

}  // namespace zelta::core_service::rtp
