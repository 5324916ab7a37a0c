// SPDX-License-Identifier: Apache-2.0
// Numbers as they stand in packets. The caller has checked that the bytes are there.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::core_service::rtp {

inline uint16_t read_16(const uint8_t* from) {
  return static_cast<uint16_t>(from[0] << 8U | from[1]);
}

inline uint32_t read_32(const uint8_t* from) {
  return static_cast<uint32_t>(read_16(from)) << 16U | read_16(from + 2);
}

inline uint64_t read_64(const uint8_t* from) {
  return static_cast<uint64_t>(read_32(from)) << 32U | read_32(from + 4);
}

inline void write_16(uint8_t* to, uint32_t value) {
  to[0] = static_cast<uint8_t>(value >> 8U);
  to[1] = static_cast<uint8_t>(value);
}

inline void write_32(uint8_t* to, uint32_t value) {
  write_16(to, value >> 16U);
  write_16(to + 2, value);
}

}  // namespace zelta::core_service::rtp
