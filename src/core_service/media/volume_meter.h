// SPDX-License-Identifier: Apache-2.0
// How loud a user is, while somebody asks: as the sender says, or else by the samples, for which
// sound that is recorded as it came has to be decoded.
//
// All that came is added up, so that each who asks may do so at a pace of their own.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "core_service/media/consumer.h"

namespace zelta::core_service::media {

// Any thread.
class volume_meter final : public consumer {
 public:
  enum class ask { kNothing, kWhatIsTold, kAll };
  // Up to where somebody has read.
  struct mark {
    uint64_t squares = 0;
    uint64_t count = 0;
  };

  explicit volume_meter(int channels = 1) : channels_(static_cast<size_t>(channels)) {}

  bool takes(form what) const override { return what == form::kSound || what == form::kCodedSound; }
  bool wants(form what) const override {
    if (what == form::kSound) return asked_ == ask::kAll && !is_told_;
    return takes(what) && asked_ != ask::kNothing;
  }
  void on_coded_sound(const encoded_unit& unit) override {
    is_told_ = unit.level.has_value();
    if (!is_told_) return;
    const media_time duration = unit.duration > media_time::zero() ? unit.duration : kUsualUnit;
    const auto count = static_cast<uint64_t>(duration.count() * 48 / 1'000'000);
    add_squares(square_of(*unit.level) * count, count);
  }
  void on_sound(media_time /*time*/, const int16_t* samples, size_t frames) override {
    add(samples, frames * channels_);
  }
  void measure(ask what) { asked_ = what; }

  void add(const int16_t* samples, size_t count) {
    uint64_t squares = 0;
    for (size_t i = 0; i < count; ++i) {
      squares += static_cast<uint64_t>(int64_t{samples[i]} * samples[i]);
    }
    add_squares(squares, count);
  }

  // Of what was added since the mark, which moves here: 0, silence, to 255, a sine at full scale.
  uint32_t read(mark& since) {
    const std::lock_guard<std::mutex> guard(mutex_);
    // Modulo 2^64, which days of full scale reach.
    const uint64_t squares = total_.squares - since.squares;
    const uint64_t count = total_.count - since.count;
    since = total_;
    if (count == 0) return 0;
    const double peak = std::sqrt(2 * static_cast<double>(squares) / static_cast<double>(count));
    return static_cast<uint32_t>(std::min(peak / kLoudest * 255 + 0.5, 255.0));
  }

 private:
  static constexpr double kLoudest = 32767;
  static constexpr uint8_t kSilence = 127;
  static constexpr media_time kUsualUnit = std::chrono::milliseconds(20);

  // Of a sample that is so many dB below the loudest.
  static uint64_t square_of(uint8_t level) {
    static const std::array<uint64_t, kSilence> kSquares = [] {
      std::array<uint64_t, kSilence> squares{};
      for (size_t dB = 0; dB < squares.size(); ++dB) {
        const double amplitude = kLoudest * std::pow(10, -0.05 * static_cast<double>(dB));
        squares[dB] = static_cast<uint64_t>(std::llround(amplitude * amplitude));
      }
      return squares;
    }();
    return level < kSilence ? kSquares[level] : 0;
  }

  void add_squares(uint64_t squares, uint64_t count) {
    const std::lock_guard<std::mutex> guard(mutex_);
    total_.squares += squares;
    total_.count += count;
  }

  const size_t channels_;
  std::atomic<ask> asked_{ask::kNothing};
  std::atomic<bool> is_told_{false};
  std::mutex mutex_;
  mark total_;
};

}  // namespace zelta::core_service::media
