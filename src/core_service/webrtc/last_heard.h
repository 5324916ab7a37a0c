// SPDX-License-Identifier: Apache-2.0
// When something of a user came last, for others to know who don't hold the user.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

#include "core_service/media/timeline.h"

namespace zelta::core_service::webrtc {

// Any thread.
class last_heard {
 public:
  void note(media::media_time when) { when_ = when.count(); }
  void forget() { when_ = kNever; }
  bool within(media::media_time span) const {
    return media::now() - media::media_time(when_.load()) <= span;
  }

 private:
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::min() / 2;
  std::atomic<int64_t> when_{kNever};  // ns
};

}  // namespace zelta::core_service::webrtc
