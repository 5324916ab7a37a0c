// SPDX-License-Identifier: Apache-2.0
#include "complain.h"

#include <cstdio>

namespace zelta::view {

std::string printable(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string made;
  unsigned char before = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    // U+0080 to U+009F are control characters, too.
    const bool is_c1 = before == 0xc2 && byte >= 0x80 && byte < 0xa0;
    if (byte < 0x20 || byte == 0x7f || is_c1) {
      made += "\\x";
      made += kDigits[byte >> 4U];
      made += kDigits[byte & 15U];
    } else {
      made += c;
    }
    before = byte;
  }
  return made;
}

void complain(const std::string& text) {
  std::fprintf(stderr, "zelta-view: %s\n", printable(text).c_str());
}

}  // namespace zelta::view
