// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/decode_times.h"

#include <algorithm>

namespace zelta::core_service::media {
namespace {

// Between pictures before the first one, whose real distance isn't known yet.
constexpr media_time kAssumedInterval = std::chrono::nanoseconds(33'333'333);

}  // namespace

decode_times::decode_times(int reordered)
    : depth_(std::clamp<size_t>(static_cast<size_t>(std::max(reordered, 0)), 0, kMostReordered)) {}

decode_times::times decode_times::next(media_time presentation) {
  if (!started_) {
    // As if as many pictures as are held back had come before.
    for (size_t i = 0; i <= depth_; ++i) {
      window_[i] = presentation - kAssumedInterval * static_cast<int64_t>(depth_ - i);
    }
    started_ = true;
    last_ = window_[0];
    return {presentation, last_};
  }
  insert(presentation);
  last_ = std::max(last_, window_[0]);
  return {std::max(presentation, last_), last_};
}

void decode_times::insert(media_time presentation) {
  // Earlier than all that are held: one more was decoded before it than the stream said.
  const bool deeper = presentation < window_[0] && depth_ < kMostReordered;
  if (deeper) {
    ++depth_;
    std::copy_backward(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(depth_),
                       window_.begin() + static_cast<std::ptrdiff_t>(depth_) + 1);
  }
  size_t at = 0;
  for (; at < depth_ && window_[at + 1] < presentation; ++at) window_[at] = window_[at + 1];
  window_[at] = presentation;
}

}  // namespace zelta::core_service::media
