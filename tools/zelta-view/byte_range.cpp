// SPDX-License-Identifier: Apache-2.0
#include "byte_range.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include <strings.h>

namespace zelta::view {
namespace {

// One that is too large for the type is beyond every file.
std::optional<uint64_t> number_of(std::string_view text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  uint64_t value = 0;
  const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
  return failed == std::errc() ? value : UINT64_MAX;
}

}  // namespace

byte_range parse_range(const std::string& header, uint64_t size, uint64_t most) {
  constexpr std::string_view kUnit = "bytes=";
  const byte_range whole{byte_range::kWhole, 0, size == 0 ? 0 : size - 1};
  if (strncasecmp(header.c_str(), kUnit.data(), kUnit.size()) != 0) return whole;
  const std::string_view range = std::string_view(header).substr(kUnit.size());
  const size_t dash = range.find('-');
  if (dash == std::string_view::npos) return whole;
  const auto first = number_of(range.substr(0, dash));
  const auto last = number_of(range.substr(dash + 1));
  const bool open_start = dash == 0;
  const bool open_end = dash + 1 == range.size();
  if ((!first && !open_start) || (!last && !open_end) || (open_start && open_end)) return whole;
  if (open_start) {
    if (*last == 0 || size == 0) return {byte_range::kBeyond, 0, 0};
    return {byte_range::kPart, size - std::min(*last, size), size - 1};
  }
  if (last && *last < *first) return whole;
  if (*first >= size) return {byte_range::kBeyond, 0, 0};
  const uint64_t rest = size - *first;
  return {byte_range::kPart, *first,
          open_end ? *first + std::min(rest, most) - 1 : std::min(*last, size - 1)};
}

}  // namespace zelta::view
