// SPDX-License-Identifier: Apache-2.0
// What is asked of the fleet: when jobs come, how long they take, how many users they have.
#pragma once

#include <cstdint>
#include <optional>
#include <random>

#include "bench/fleet/events.h"
#include "bench/fleet/figures.h"

namespace zelta::fleet_model {

// What figures::recordings counts.
enum class reading { kADay, kAtThePeak };

class demand {
 public:
  // `by` is borrowed.
  demand(const figures& by, reading of, std::mt19937_64& random);

  // The next one's, after `now`; nothing: the day is over.
  std::optional<sim_time> next_arrival(sim_time now);
  sim_time duration();
  uint16_t users();
  double a_day() const { return a_day_; }

 private:
  // A second, at that time.
  double rate(double at_s) const;
  double at_the_peak() const;

  const figures& by_;
  std::mt19937_64& random_;
  double a_day_ = 1;
  double most_rate_ = 0;
  std::normal_distribution<double> normal_;
  std::exponential_distribution<double> gap_;
  std::uniform_real_distribution<double> even_;
};

}  // namespace zelta::fleet_model
