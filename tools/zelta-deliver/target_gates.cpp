// SPDX-License-Identifier: Apache-2.0
#include "target_gates.h"

#include <algorithm>

#include "pace.h"

namespace zelta::deliver {

target_gates::target_gates(size_t targets, int connections, std::chrono::milliseconds first_retry,
                           std::chrono::milliseconds longest_retry)
    : most_(static_cast<size_t>(targets > 1 ? std::max(1, connections - 1) : connections)),
      first_retry_(first_retry),
      longest_retry_(longest_retry),
      gates_(targets) {}

size_t target_gates::room(size_t target, int64_t now_ms) const {
  const gate& of = gates_[target];
  if (now_ms < of.held_until_ms) return 0;
  return most(of) - std::min(most(of), of.under_way);
}

std::optional<int64_t> target_gates::wait_ms(size_t target, int64_t now_ms) const {
  const gate& of = gates_[target];
  if (of.under_way >= most(of)) return std::nullopt;
  return std::max<int64_t>(0, of.held_until_ms - now_ms);
}

void target_gates::ended(size_t target, const outcome& of, int64_t now_ms, uint32_t random) {
  gate& at = gates_[target];
  at.under_way -= std::min<size_t>(at.under_way, 1);
  if (of.is == outcome::kStopped) return;
  if (of.wait_ms > 0) at.held_until_ms = std::max(at.held_until_ms, now_ms + of.wait_ms);
  if (!of.unreachable) {
    at.failures = 0;
  } else if (now_ms >= at.held_until_ms) {
    // Those that fail beside it tell the same once more.
    ++at.failures;
    at.held_until_ms = now_ms + backoff(at.failures, first_retry_, longest_retry_, random).count();
  }
}

}  // namespace zelta::deliver
