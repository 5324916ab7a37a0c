// SPDX-License-Identifier: Apache-2.0
// How much may be under way to each target: one that can't be reached, or asks to be left alone, is
// held back as a whole, then probed by one file, and keeps no other one waiting.
//
// Not thread-safe: the courier's mutex is held around every call. Times are of steady_ms().
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "target.h"

namespace zelta::deliver {

class target_gates {
 public:
  target_gates(size_t targets, int connections, std::chrono::milliseconds first_retry,
               std::chrono::milliseconds longest_retry);

  // Of `connections` one is kept for the other targets, if there are any.
  size_t room(size_t target, int64_t now_ms) const;
  // Until there is room; empty when it is made by what ends, not by time.
  std::optional<int64_t> wait_ms(size_t target, int64_t now_ms) const;
  void began(size_t target) { ++gates_[target].under_way; }
  void ended(size_t target, const outcome& of, int64_t now_ms, uint32_t random);

 private:
  struct gate {
    size_t under_way = 0;
    int failures = 0;  // in a row, to reach it
    int64_t held_until_ms = 0;
  };
  size_t most(const gate& of) const { return of.failures > 0 ? 1 : most_; }

  const size_t most_;
  const std::chrono::milliseconds first_retry_;
  const std::chrono::milliseconds longest_retry_;
  std::vector<gate> gates_;
};

}  // namespace zelta::deliver
