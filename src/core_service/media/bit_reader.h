// SPDX-License-Identifier: Apache-2.0
// Bits, most significant first. Past the end it reads zeros, and says so.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::core_service::media {

class bit_reader {
 public:
  // In NAL units, some bytes only keep start codes out of the others, and are passed over (ITU-T
  // H.264, 7.4.1; H.265 has the same).
  enum class escapes { kPassedOver, kNone };

  bit_reader(const uint8_t* from, size_t bytes, escapes how = escapes::kPassedOver)
      : from_(from), bytes_(bytes), how_(how) {}

  uint32_t read(unsigned count) {
    uint32_t value = 0;
    for (; count > 0; --count) value = value << 1U | next();
    return value;
  }
  bool flag() { return next() != 0; }
  void skip(unsigned count) {
    for (; count > 0; --count) next();
  }
  // ue(v), an unsigned number of as many bits as zeros stand before it (9.1); 32 and more zeros are
  // of no number that headers have.
  uint32_t read_ue() {
    unsigned zeros = 0;
    while (zeros < 32 && next() == 0) ++zeros;
    if (zeros == 32) over_ = true;
    return zeros == 32 ? 0 : (1U << zeros) - 1 + read(zeros);
  }
  bool failed() const { return over_; }

 private:
  uint32_t next() {
    if (left_ == 0 && !load()) return 0;
    --left_;
    return static_cast<uint32_t>(byte_ >> left_) & 1U;
  }
  bool load() {
    if (how_ == escapes::kPassedOver && zeros_ >= 2 && at_ < bytes_ && from_[at_] == 3) {
      ++at_;
      zeros_ = 0;
    }
    if (at_ >= bytes_) {
      over_ = true;
      return false;
    }
    byte_ = from_[at_++];
    zeros_ = byte_ == 0 ? zeros_ + 1 : 0;
    left_ = 8;
    return true;
  }

  const uint8_t* const from_;
  const size_t bytes_;
  const escapes how_;
  size_t at_ = 0;
  size_t zeros_ = 0;
  uint8_t byte_ = 0;
  unsigned left_ = 0;
  bool over_ = false;
};

}  // namespace zelta::core_service::media
