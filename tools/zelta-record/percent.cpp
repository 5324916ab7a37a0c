// SPDX-License-Identifier: Apache-2.0
#include "percent.h"

namespace zelta::record {
namespace {

bool is_unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

std::string percent_encoded(std::string_view text, std::string_view kept) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string made;
  for (const char c : text) {
    if (is_unreserved(c) || kept.find(c) != std::string_view::npos) {
      made += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    made += '%';
    made += kDigits[byte >> 4U];
    made += kDigits[byte & 15U];
  }
  return made;
}

}  // namespace zelta::record
