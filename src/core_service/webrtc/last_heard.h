// SPDX-License-Identifier: Apache-2.0
// When something of a user came last, for others to know who don't hold the user.
#pragma once

#include <atomic>
#include <cstdint>

#include "core_service/media/timeline.h"

namespace zelta::core_service::webrtc {

// Any thread.
class last_heard {
 public:
  void note(media::media_time when) { when_ = when.count(); }
  bool within(media::media_time span) const { return media::now() - at() <= span; }
  media::media_time at() const { return media::media_time(when_.load()); }

 private:
  std::atomic<int64_t> when_{0};  // ns
};

}  // namespace zelta::core_service::webrtc
