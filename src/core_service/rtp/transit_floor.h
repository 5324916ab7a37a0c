// SPDX-License-Identifier: Apache-2.0
// The smallest transit of late: how far a sender's clock is from ours. One thread.
//
// A transit is a moment of arrival minus the sender's own time of what arrived. Each consists of
// the distance of the two clocks, of the shortest way and of jitter, which only ever adds: the
// smallest of a few seconds has hardly any. The distance changes as one clock drifts against the
// other, and is followed without steps.
#pragma once

#include <array>
#include <cstdint>

#include "core_service/media/timeline.h"

namespace zelta::core_service::rtp {

class transit_floor {
 public:
  // Arrivals of reordered packets may go back.
  void add(media::media_time arrival, media::media_time transit);
  // The same, all that was before forgotten.
  void restart(media::media_time arrival, media::media_time transit);
  bool known() const { return known_; }
  // Brought on to `now`.
  media::media_time follow(media::media_time now);
  // As the last call left it.
  media::media_time value() const { return value_; }

 private:
  // Ten seconds.
  static constexpr media::media_time kBucket = std::chrono::milliseconds(500);
  static constexpr int64_t kBuckets = 20;

  struct bucket {
    int64_t number = 0;
    bool used = false;
    media::media_time least{};
  };

  media::media_time least() const;

  std::array<bucket, kBuckets> buckets_{};
  int64_t latest_ = 0;
  bool known_ = false;
  media::media_time value_{};
  media::media_time followed_{};  // until when
};

}  // namespace zelta::core_service::rtp
