// SPDX-License-Identifier: Apache-2.0
// How long to wait before something is tried again: 1, 2, 4, 8, then 10 s. One thread.
#pragma once

#include <algorithm>

namespace zelta::core_service::janus {

class pauses {
 public:
  int next_ms() {
    constexpr int kLongestMs = 10'000;
    const int pause = next_ms_;
    next_ms_ = std::min(2 * next_ms_, kLongestMs);
    return pause;
  }

 private:
  int next_ms_ = 1'000;
};

}  // namespace zelta::core_service::janus
