// SPDX-License-Identifier: Apache-2.0
// How loud a user is, while somebody asks: for this alone, sound that is recorded as it came would
// be decoded.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>

#include "core_service/media/consumer.h"

namespace zelta::core_service::media {

// Any thread.
class volume_meter final : public consumer {
 public:
  explicit volume_meter(int channels = 1) : channels_(static_cast<size_t>(channels)) {}

  bool takes(form what) const override { return what == form::kSound; }
  bool wants(form what) const override { return takes(what) && asked_; }
  void on_sound(media_time /*time*/, const int16_t* samples, size_t frames) override {
    add(samples, frames * channels_);
  }
  void ask(bool asked) { asked_ = asked; }

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
  const size_t channels_;
  std::atomic<bool> asked_{false};
  std::mutex mutex_;
  double squares_ = 0;
  size_t count_ = 0;
};

}  // namespace zelta::core_service::media
