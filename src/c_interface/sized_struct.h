// SPDX-License-Identifier: Apache-2.0
// Structs that applications of older and newer headers hand in: each begins with its size.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "c_interface/outcome.h"

namespace zelta::c_interface {

// Of any struct; a larger one is rather memory that was never set.
constexpr uint32_t kMostBytes = 4096;

// Whether a struct of `size` bytes can be `name`, of which the first `least` are needed. A multiple
// of 8, because no struct has padding: where a member begins, another has ended.
inline outcome check_size(const char* name, uint32_t size, size_t least) {
  if (size >= least && size <= kMostBytes && size % 8 == 0) return {};
  return {ZELTA_ERROR_STRUCT_SIZE, std::string(name) + " is " + std::to_string(size) +
                                       ", it should be a multiple of 8, " + std::to_string(least) +
                                       " to " + std::to_string(kMostBytes)};
}

// Reads `size` bytes at `given` into `known`: what isn't there is zero, and what isn't known has to
// be. `name` is the struct's in messages.
template <class Struct>
outcome read_bytes(const char* name, const void* given, uint32_t size, Struct& known) {
  static_assert(std::is_trivially_copyable_v<Struct> && sizeof(Struct) % 8 == 0);
  const auto* const bytes = static_cast<const unsigned char*>(given);
  const auto* const end = bytes + size;
  const auto* const known_end = bytes + std::min<size_t>(size, sizeof(Struct));
  const auto* const set =
      std::find_if(known_end, end, [](unsigned char byte) { return byte != 0; });
  if (set != end) {
    return {ZELTA_ERROR_UNKNOWN_FIELD, std::string(name) + " has something set at byte " +
                                           std::to_string(set - bytes) + ", this library knows " +
                                           std::to_string(sizeof(Struct))};
  }
  known = Struct{};
  std::memcpy(&known, bytes, static_cast<size_t>(known_end - bytes));
  return {};
}

// The same of a struct that has its size as its first member.
template <class Struct>
outcome read_struct(const char* name, const Struct* given, size_t least, Struct& known) {
  if (given == nullptr) return is_null(name);
  // Not as the struct's member: the caller's struct may be smaller than ours.
  uint32_t size = 0;
  std::memcpy(&size, given, sizeof size);
  const outcome checked = check_size((std::string(name) + ".size").c_str(), size, least);
  return checked.failed() ? checked : read_bytes(name, given, size, known);
}

}  // namespace zelta::c_interface
