// SPDX-License-Identifier: Apache-2.0
#include "names.h"

#include <algorithm>
#include <cstdint>

namespace zelta::deliver {
namespace {

// The length of the character at `at`; 0: it is none.
size_t character_at(const std::string& text, size_t at) {
  const auto byte = [&text](size_t place) { return static_cast<unsigned char>(text[place]); };
  const unsigned char first = byte(at);
  if (first < 0x80) return 1;
  size_t length = 0;
  if (first >= 0xC2 && first <= 0xDF) length = 2;
  if (first >= 0xE0 && first <= 0xEF) length = 3;
  if (first >= 0xF0 && first <= 0xF4) length = 4;
  if (length == 0 || text.size() - at < length) return 0;
  for (size_t place = at + 1; place < at + length; ++place) {
    if ((byte(place) & 0xC0) != 0x80) return 0;
  }
  // Longer than needed, surrogates, and beyond the last character.
  const unsigned char second = byte(at + 1);
  const bool is_wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                        (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return is_wrong ? 0 : length;
}

}  // namespace

bool is_sound_text(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = character_at(text, at);
    const auto byte = static_cast<unsigned char>(text[at]);
    if (length == 0 || byte < ' ' || byte == 0x7F) return false;
    at += length;
  }
  return true;
}

bool is_sound_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         is_sound_text(name);
}

bool is_sound_path(const std::string& path) {
  for (size_t at = 0;;) {
    const size_t slash = path.find('/', at);
    if (!is_sound_name(path.substr(at, slash - at))) return false;
    if (slash == std::string::npos) return true;
    at = slash + 1;
  }
}

std::string shown_name(const std::string& name) {
  std::string shown = name;
  std::replace_if(
      shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return shown;
}

}  // namespace zelta::deliver
