// SPDX-License-Identifier: Apache-2.0
// What a receiver report says about one source (RFC 3550, appendices A.3 and A.8). One thread.
#pragma once

#include <cstdint>

#include "core_service/media/timeline.h"
#include "core_service/rtp/rtcp.h"

namespace zelta::core_service::rtp {

class receive_stats {
 public:
  // `clock_rate`: of the timestamps, in Hz.
  explicit receive_stats(uint32_t clock_rate) : clock_rate_(clock_rate) {}

  // Every valid packet as it arrives, duplicates too. `sequence`: extended past its wraps.
  void received(int64_t sequence, uint32_t timestamp, media::media_time arrival);
  void sender_reported(uint64_t ntp, media::media_time arrival);
  // The source's sequence numbers begin anew.
  void restarted();

  // Begins the next interval.
  report_block report(uint32_t ssrc, media::media_time now);

 private:
  void take_jitter(uint32_t timestamp, media::media_time arrival);
  int64_t expected() const;

  const uint32_t clock_rate_;
  bool begun_ = false;
  int64_t first_ = 0;
  int64_t highest_ = 0;
  int64_t received_ = 0;
  int64_t expected_before_ = 0;
  int64_t received_before_ = 0;
  uint32_t transit_ = 0;
  int64_t jitter_ = 0;  // in sixteenths
  uint32_t last_report_ = 0;
  media::media_time reported_{};
};

}  // namespace zelta::core_service::rtp
