// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/transit_floor.h"

#include <algorithm>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;
using namespace std::chrono_literals;

// Twice what crystals are wrong by, so that a drift is caught up with.
constexpr int64_t kDriftDivisor = 1000;
// A smaller transit proves that what was taken until then was late: that is mended soon.
constexpr media_time kFallWithin = 1s;
// A larger one proves little: ways get longer, and minima of a few seconds differ.
constexpr media_time kUsualRise = 50ms;
constexpr media_time kRiseWithin = 5s;
// Not a drift but another clock.
constexpr media_time kOtherClock = 5s;
constexpr media_time kLongestStep = 1s;

media_time share(media_time of, media_time passed, media_time within) {
  return of * (passed / 1us) / (within / 1us);
}

}  // namespace

void transit_floor::add(media_time arrival, media_time transit) {
  if (!known_) {
    restart(arrival, transit);
    return;
  }
  const int64_t number = arrival / kBucket;
  if (number <= latest_ - kBuckets) return;
  latest_ = std::max(latest_, number);
  bucket& one = buckets_[static_cast<uint64_t>(number) % kBuckets];
  if (one.used && one.number == number) {
    one.least = std::min(one.least, transit);
  } else {
    one = {number, true, transit};
  }
}

void transit_floor::restart(media_time arrival, media_time transit) {
  buckets_ = {};
  known_ = true;
  value_ = transit;
  followed_ = arrival;
  latest_ = arrival / kBucket;
  buckets_[static_cast<uint64_t>(latest_) % kBuckets] = {latest_, true, transit};
}

media_time transit_floor::follow(media_time now) {
  const media_time passed = std::clamp(now - followed_, media_time::zero(), kLongestStep);
  followed_ = std::max(followed_, now);
  const media_time off = least() - value_;
  const media_time drift = passed / kDriftDivisor;
  if (off > kOtherClock || off < -kOtherClock) {
    value_ += off;
  } else if (off < 0s) {
    value_ -= std::min(-off, std::max(drift, share(-off, passed, kFallWithin)));
  } else {
    const media_time unusual = std::max(off - kUsualRise, media_time::zero());
    value_ += std::min(off, drift + share(unusual, passed, kRiseWithin));
  }
  return value_;
}

media_time transit_floor::least() const {
  media_time found = media_time::max();
  for (const bucket& one : buckets_) {
    if (one.used && one.number > latest_ - kBuckets) found = std::min(found, one.least);
  }
  return found;
}

}  // namespace zelta::core_service::rtp
