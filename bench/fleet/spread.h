// SPDX-License-Identifier: Apache-2.0
// How times are spread: of millions of them, to within a hundredth.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/fleet/events.h"

namespace zelta::fleet_model {

class spread {
 public:
  void add(sim_time took);
  uint64_t count() const { return count_; }
  sim_time most() const { return most_; }
  // So many of a hundred took this long at most; nothing took any time when there were none.
  sim_time percentile(double of_a_hundred) const;

 private:
  std::vector<uint64_t> counts_;
  uint64_t count_ = 0;
  sim_time most_{};
};

}  // namespace zelta::fleet_model
