// SPDX-License-Identifier: Apache-2.0
#include "delivery_numbers.h"

#include <algorithm>

namespace zelta::deliver {
namespace {

constexpr int64_t kNsOfMs = 1'000'000;

bool is_settled(stage at) {
  return at == stage::kConfirmed || at == stage::kDead;
}

}  // namespace

void add_numbers(const ledger& of, delivery_numbers& to) {
  ++to.folders;
  to.notices += of.notices.size();
  for (const auto& [name, one] : of.files) {
    for (const auto& [target, shipped] : one.targets) {
      stage_sum& sum = to.at[target][shipped.at];
      ++sum.files;
      sum.bytes += one.is.bytes;
      if (is_settled(shipped.at)) continue;
      const int64_t mtime_ms = std::max<int64_t>(one.is.mtime_ns / kNsOfMs, 1);
      int64_t& oldest = to.oldest_mtime_ms[target];
      oldest = oldest == 0 ? mtime_ms : std::min(oldest, mtime_ms);
    }
  }
}

}  // namespace zelta::deliver
