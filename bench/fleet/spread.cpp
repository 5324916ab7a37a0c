// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/spread.h"

#include <algorithm>
#include <cmath>

namespace zelta::fleet_model {
namespace {

constexpr double kStep = 1.01;

size_t bucket_of(sim_time took) {
  const double us = std::max(1.0, static_cast<double>(took.count()));
  return static_cast<size_t>(std::ceil(std::log(us) / std::log(kStep)));
}

}  // namespace

void spread::add(sim_time took) {
  const size_t at = bucket_of(took);
  if (at >= counts_.size()) counts_.resize(at + 1);
  ++counts_[at];
  ++count_;
  most_ = std::max(most_, took);
}

sim_time spread::percentile(double of_a_hundred) const {
  const auto wanted =
      static_cast<uint64_t>(std::ceil(static_cast<double>(count_) * of_a_hundred / 100));
  uint64_t seen = 0;
  for (size_t at = 0; at < counts_.size(); ++at) {
    seen += counts_[at];
    if (seen < wanted) continue;
    const auto edge = static_cast<int64_t>(std::pow(kStep, static_cast<double>(at)));
    return std::min(most_, sim_time(edge));
  }
  return most_;
}

}  // namespace zelta::fleet_model
