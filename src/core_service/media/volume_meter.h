// SPDX-License-Identifier: Apache-2.0
// How loud a user is, while somebody asks: as the sender says, or else by the samples, for which
// sound that is recorded as it came has to be decoded.
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

  bool takes(form what) const override { return what == form::kSound || what == form::kCodedSound; }
  bool wants(form what) const override {
    return takes(what) && asked_ && !(what == form::kSound && is_told_);
  }
  void on_coded_sound(const encoded_unit& unit) override {
    is_told_ = unit.level.has_value();
    if (!is_told_) return;
    const double amplitude =
        *unit.level == kSilence ? 0 : kLoudest * std::pow(10, -0.05 * *unit.level);
    const media_time duration = unit.duration > media_time::zero() ? unit.duration : kUsualUnit;
    const auto count = static_cast<size_t>(duration.count() * 48 / 1'000'000);
    add_squares(amplitude * amplitude * static_cast<double>(count), count);
  }
  void on_sound(media_time /*time*/, const int16_t* samples, size_t frames) override {
    add(samples, frames * channels_);
  }
  void ask(bool asked) { asked_ = asked; }

  void add(const int16_t* samples, size_t count) {
    double squares = 0;
    for (size_t i = 0; i < count; ++i) squares += static_cast<double>(samples[i]) * samples[i];
    add_squares(squares, count);
  }

  // Of what was added since the last call: 0, silence, to 255, a sine at full scale.
  uint32_t read() {
    const std::lock_guard<std::mutex> guard(mutex_);
    const double squares = std::exchange(squares_, 0);
    const size_t count = std::exchange(count_, 0);
    if (count == 0) return 0;
    const double peak = std::sqrt(2 * squares / static_cast<double>(count));
    return static_cast<uint32_t>(std::min(peak / kLoudest * 255 + 0.5, 255.0));
  }

 private:
  static constexpr double kLoudest = 32767;
  static constexpr uint8_t kSilence = 127;
  static constexpr media_time kUsualUnit = std::chrono::milliseconds(20);

  void add_squares(double squares, size_t count) {
    const std::lock_guard<std::mutex> guard(mutex_);
    squares_ += squares;
    count_ += count;
  }

  const size_t channels_;
  std::atomic<bool> asked_{false};
  std::atomic<bool> is_told_{false};
  std::mutex mutex_;
  double squares_ = 0;
  size_t count_ = 0;
};

}  // namespace zelta::core_service::media
