// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/sdp_text.h"

#include <algorithm>
#include <limits>
#include <sstream>

#include <strings.h>

namespace zelta::core_service::webrtc {
namespace {

constexpr const char* kBlanks = " \t";
constexpr size_t kShownBytes = 48;
constexpr size_t kMostDigits = 10;

std::string trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == std::string::npos) return "";
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

}  // namespace

std::vector<std::string> words_of(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream from(text);
  for (std::string word; from >> word;) words.push_back(word);
  return words;
}

std::vector<std::string> parts_of(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char one : text) {
    if (one == separator) {
      parts.emplace_back();
    } else {
      parts.back() += one;
    }
  }
  return parts;
}

std::optional<uint32_t> number_of(const std::string& text) {
  if (text.empty() || text.size() > kMostDigits ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const uint64_t number = std::stoull(text);
  if (number > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(number);
}

std::string parameter_of(const std::string& parameters, const std::string& name) {
  for (const std::string& one : parts_of(parameters, ';')) {
    const size_t equals = one.find('=');
    if (equals == std::string::npos) continue;
    if (strcasecmp(trimmed(one.substr(0, equals)).c_str(), name.c_str()) == 0) {
      return trimmed(one.substr(equals + 1));
    }
  }
  return "";
}

std::string shown(const std::string& from) {
  // As it may stand in a log or on a terminal.
  std::string value = from;
  std::replace_if(
      value.begin(), value.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
  if (value.size() <= kShownBytes) return value;
  size_t end = kShownBytes;
  // Not in the middle of a character of UTF-8.
  while (end > 0 && (static_cast<unsigned char>(value[end]) & 0xc0U) == 0x80U) --end;
  return value.substr(0, end) + "…";
}

}  // namespace zelta::core_service::webrtc
