// SPDX-License-Identifier: Apache-2.0
// Bytes as tests write them: in hexadecimal, with spaces where the reader wants them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta::test {

using byte_list = std::vector<uint8_t>;

inline std::string without_spaces(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  return text;
}

inline byte_list from_hex(const std::string& text) {
  const std::string digits = without_spaces(text);
  byte_list bytes;
  for (size_t at = 0; at + 1 < digits.size(); at += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

inline std::string to_hex(const uint8_t* bytes, size_t size) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) text += {kDigits[bytes[i] >> 4U], kDigits[bytes[i] & 15U]};
  return text;
}

}  // namespace zelta::test
