// SPDX-License-Identifier: Apache-2.0
// What others wrote, in a line of ours.
#pragma once

#include <string>

namespace zelta::lay {

// Control characters, those of two bytes in UTF-8 as well, become spaces: none ends the line, or
// speaks to a terminal.
inline std::string plain_text(std::string text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) text[i] = ' ';
    if (byte != 0xc2 || i + 1 == text.size()) continue;
    if (static_cast<unsigned char>(text[i + 1]) < 0xa0) text[i] = text[i + 1] = ' ';
  }
  return text;
}

}  // namespace zelta::lay
