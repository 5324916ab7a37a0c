// SPDX-License-Identifier: Apache-2.0
// Which of a user's tracks of one kind counts: the one that came first, until it has stopped. A
// sender that starts again, with a new SSRC or a new file, stops using the old one.
//
// One thread at a time.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

class track_choice {
 public:
  // Whether media of the track called `number` counts that was captured at `time`.
  bool counts(int number, media_time time) {
    constexpr media_time kHandover = std::chrono::milliseconds(200);
    const bool other = current_ && *current_ != number;
    if (other && time - latest_ < kHandover) return false;
    latest_ = other || !current_ ? time : std::max(latest_, time);
    current_ = number;
    return true;
  }
  // The track has ended: whoever comes next counts.
  void ended(int number) {
    if (current_ == number) current_.reset();
  }

 private:
  std::optional<int> current_;
  media_time latest_{};
};

}  // namespace zelta::core_service::media
