// SPDX-License-Identifier: Apache-2.0
// The rows of the tables of what may be given: fields of a struct, by the names that people use.
#pragma once

#include <array>
#include <limits>
#include <string>

namespace zelta::core_service {

// `Member` points to a member, or is a variant of such pointers where fields differ in type.
template <class Member>
struct field {
  const char* name;
  Member value;
  int lowest = std::numeric_limits<int>::min();
  int highest = std::numeric_limits<int>::max();
  std::array<const char*, 4> words{};  // in place of a number; kept as its place; unused: null

  std::string range() const { return std::to_string(lowest) + " to " + std::to_string(highest); }
  bool fits(int number) const { return number >= lowest && number <= highest; }
};

// The names that begin with `prefix`, without it and up to the next dot, for people to choose from.
template <class Rows>
std::string names_in(const Rows& rows, const std::string& prefix) {
  std::string names;
  std::string last;
  for (const auto& row : rows) {
    std::string name = row.name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    name = name.substr(prefix.size(), name.find('.', prefix.size()) - prefix.size());
    if (name != last) names += (names.empty() ? "" : ", ") + name;
    last = name;
  }
  return names;
}

}  // namespace zelta::core_service
