// SPDX-License-Identifier: Apache-2.0
// How loud a user is.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>

namespace zelta::core_service::media {

// Any thread.
class volume_meter {
 public:
  void add(const int16_t* samples, size_t count) {
    double squares = 0;
    for (size_t i = 0; i < count; ++i) squares += static_cast<double>(samples[i]) * samples[i];
    const std::lock_guard<std::mutex> guard(mutex_);
    squares_ += squares;
    count_ += count;
  }

  // Of what was added since the last call: 0, silence, to 255, a sine at full scale.
  uint32_t read() {
    const std::lock_guard<std::mutex> guard(mutex_);
    const double squares = std::exchange(squares_, 0);
    const size_t count = std::exchange(count_, 0);
    if (count == 0) return 0;
    const double peak = std::sqrt(2 * squares / static_cast<double>(count));
    return static_cast<uint32_t>(std::min(peak / 32767 * 255 + 0.5, 255.0));
  }

 private:
  std::mutex mutex_;
  double squares_ = 0;
  size_t count_ = 0;
};

}  // namespace zelta::core_service::media
