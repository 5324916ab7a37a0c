// SPDX-License-Identifier: Apache-2.0
#include "time_point.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <regex>

#include "av.h"

namespace zelta::lay {
namespace {

int64_t micros(const std::string& seconds) {
  return std::llround(std::stod(seconds) * static_cast<double>(kSecond));
}

std::optional<int64_t> utc_of(const std::string& text) {
  tm parts{};
  const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return std::nullopt;
  const tm asked = parts;
  const time_t whole = timegm(&parts);
  // 31 April is the first of May to timegm().
  if (parts.tm_mday != asked.tm_mday) return std::nullopt;
  std::string fraction(rest);
  fraction.pop_back();  // the Z
  return whole * kSecond + (fraction.empty() ? 0 : micros("0" + fraction));
}

}  // namespace

std::optional<int64_t> parse_time(const std::string& text, int64_t zero_utc_us) {
  static const std::regex offset(R"((?:(?:(\d{1,3}):)?(\d{1,4}):)?(\d{1,7}(?:\.\d{1,6})?))");
  static const std::regex utc(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{1,6})?Z)");
  std::smatch part;
  if (std::regex_match(text, utc)) {
    const auto at = utc_of(text);
    if (!at) return std::nullopt;
    return *at - zero_utc_us;
  }
  if (!std::regex_match(text, part, offset)) return std::nullopt;
  int64_t us = micros(part[3]);
  if (part[2].matched) us += std::stoll(part[2]) * 60 * kSecond;
  if (part[1].matched) us += std::stoll(part[1]) * 3600 * kSecond;
  return us;
}

std::string time_text(int64_t us) {
  const int64_t ms = us / 1000;
  char text[64];
  std::snprintf(text, sizeof text, "%d:%02d:%02d.%03d", static_cast<int>(ms / 3600000),
                static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                static_cast<int>(ms % 1000));
  return text;
}

}  // namespace zelta::lay
