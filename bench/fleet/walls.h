// SPDX-License-Identifier: Apache-2.0
// What a fleet of that size runs into first.
#pragma once

#include <string>
#include <vector>

#include "bench/fleet/broker_load.h"
#include "bench/fleet/figures.h"
#include "bench/fleet/simulation.h"

namespace zelta::fleet_model {

// One run of the simulation.
struct result {
  std::string name;
  figures by;
  double scale;  // of workers and recordings, against the figures
  double jobs_a_day;
  outcome day;
  broker_load load;
};

// `scale` times the workers and the recordings of `by`.
result simulate(const std::string& name, const figures& by, reading of, uint64_t seed,
                double scale);

struct wall {
  std::string name;
  std::string short_name;
  double used;      // at the peak of the day
  double capacity;  // assumed or measured, as the figures say
  double share() const { return used / capacity; }
};

std::vector<wall> walls_of(const result& of);
const wall& first_of(const std::vector<wall>& walls);

}  // namespace zelta::fleet_model
