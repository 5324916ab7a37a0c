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
  // Whether media of the track called `number` counts that was captured at `time`. `can_begin`: it
  // needs nothing of its track that came before.
  bool counts(int number, media_time time, bool can_begin = true) {
    const bool goes_on = current_ && *current_ == number;
    if (!goes_on && !(can_begin && is_free(time))) return false;
    latest_ = goes_on ? std::max(latest_, time) : time;
    current_ = number;
    return true;
  }
  // Whether another track may begin at `time`.
  bool is_free(media_time time) const {
    constexpr media_time kHandover = std::chrono::milliseconds(200);
    return !current_ || time - latest_ >= kHandover;
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
