// SPDX-License-Identifier: Apache-2.0
#include "fleet/names.h"

#include <algorithm>

namespace zelta::fleet {

bool is_name(const std::string& text) {
  constexpr size_t kLongest = 64;
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  };
  return !text.empty() && text.size() <= kLongest && std::all_of(text.begin(), text.end(), fits);
}

}  // namespace zelta::fleet
