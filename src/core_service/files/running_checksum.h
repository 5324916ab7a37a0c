// SPDX-License-Identifier: Apache-2.0
// The CRC-32 of a file that is being written (ISO 3309, as zlib has it), without reading it again:
// also where bytes are written over, which a CRC allows because it is linear.
#pragma once

#include <cstddef>
#include <cstdint>

#include <zlib.h>

namespace zelta::core_service::files {

class running_checksum {
 public:
  void append(const void* bytes, size_t count) {
    crc_ = static_cast<uint32_t>(crc32_z(crc_, static_cast<const Bytef*>(bytes), count));
    bytes_ += count;
  }

  // `fresh` stand in place of `former` from `at` on, all within what was appended.
  void overwrite(uint64_t at, const void* former, const void* fresh, size_t count) {
    const uint32_t change = crc_of(former, count) ^ crc_of(fresh, count);
    const uint64_t behind = bytes_ - at - count;
    // The change, with as many zeros behind it.
    crc_ ^= static_cast<uint32_t>(crc32_combine(change, 0, static_cast<z_off_t>(behind)));
  }

  uint32_t crc32() const { return crc_; }
  uint64_t bytes() const { return bytes_; }

 private:
  static uint32_t crc_of(const void* bytes, size_t count) {
    return static_cast<uint32_t>(crc32_z(0, static_cast<const Bytef*>(bytes), count));
  }

  uint32_t crc_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace zelta::core_service::files
