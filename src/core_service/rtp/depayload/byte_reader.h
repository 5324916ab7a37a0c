// SPDX-License-Identifier: Apache-2.0
// Takes a payload apart from its front. The first read past the end makes all later ones fail, so
// that a header needs one test of success.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::core_service::rtp {

class byte_reader {
 public:
  byte_reader(const uint8_t* from, size_t bytes) : at_(from), left_(bytes) {}

  bool ok() const { return ok_; }
  const uint8_t* rest() const { return at_; }
  size_t left() const { return left_; }

  // The next `bytes`; null past the end.
  const uint8_t* take(size_t bytes) {
    if (!ok_ || bytes > left_) {
      ok_ = false;
      left_ = 0;
      return nullptr;
    }
    const uint8_t* const taken = at_;
    at_ += bytes;
    left_ -= bytes;
    return taken;
  }
  // 0 past the end, as are all numbers.
  uint8_t byte() {
    const uint8_t* const taken = take(1);
    return taken != nullptr ? *taken : uint8_t{0};
  }
  size_t big_endian16() {
    const size_t high = byte();
    return high << 8U | byte();
  }
  // AV1, section 4.10.5: seven bits a byte, the lowest first, in at most eight bytes.
  size_t leb128() {
    uint64_t value = 0;
    for (unsigned i = 0; i < 8; ++i) {
      const uint8_t next = byte();
      value |= uint64_t{next & 0x7fU} << 7U * i;
      if ((next & 0x80U) == 0) return static_cast<size_t>(value);
    }
    take(left_ + 1);
    return 0;
  }

 private:
  const uint8_t* at_;
  size_t left_;
  bool ok_ = true;
};

}  // namespace zelta::core_service::rtp
