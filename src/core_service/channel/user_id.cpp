// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/user_id.h"

#include <charconv>

#include <glib.h>

namespace zelta::core_service {

bool is_user_name(const std::string& name) {
  constexpr size_t kLongest = 128;
  if (name.empty() || name.size() > kLongest) return false;
  if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) == FALSE) {
    return false;
  }
  const char* const end = name.data() + name.size();
  for (const char* at = name.data(); at != end; at = g_utf8_next_char(at)) {
    if (g_unichar_iscntrl(g_utf8_get_char(at)) != FALSE) return false;
  }
  return true;
}

std::optional<uint32_t> user_number(const std::string& name) {
  const char* const end = name.data() + name.size();
  uint32_t number = 0;
  const auto [stopped, failed] = std::from_chars(name.data(), end, number);
  // With a zero before it the number would belong to two names.
  if (failed != std::errc() || stopped != end || name.front() == '0') return std::nullopt;
  return number;
}

uint32_t uid_of(const std::string& name) {
  if (const auto number = user_number(name)) return *number;
  uint32_t hash = 2166136261U;
  for (const char c : name) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 16777619U;
  }
  return hash == 0 ? 1 : hash;
}

}  // namespace zelta::core_service
