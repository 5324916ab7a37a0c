// SPDX-License-Identifier: Apache-2.0
// A CRC-32 as manifests have it: eight hexadecimal digits, as tools that reckon it show it.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace zelta::recordings {

inline std::string text_of_crc(uint32_t crc) {
  char text[9];
  std::snprintf(text, sizeof text, "%08x", crc);
  return text;
}

// None: not eight digits.
inline std::optional<uint32_t> crc_of_text(const std::string& text) {
  uint32_t crc = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data(), end, crc, 16);
  const bool whole = text.size() == 8 && failed == std::errc() && stopped == end;
  return whole ? std::optional(crc) : std::nullopt;
}

}  // namespace zelta::recordings
