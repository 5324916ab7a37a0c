// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/walls.h"

#include <algorithm>

namespace zelta::fleet_model {

result simulate(const std::string& name, const figures& by, reading of, uint64_t seed,
                double scale) {
  figures scaled = by;
  scaled.workers *= scale;
  scaled.recordings *= scale;
  scaled.upgrade_at_once *= scale;
  simulation one(scaled, of, seed);
  const outcome day = one.run();
  return {name, scaled, scale, one.jobs_a_day(), day, one.load()};
}

std::vector<wall> walls_of(const result& of) {
  const figures& by = of.by;
  const double shards = by.clusters * by.streams;
  const broker_load& load = of.load;
  // When a zone is dead the others' brokers have its connections.
  const double brokers = by.clusters * std::max(1.0, by.brokers - 1);
  const double connections = by.leaf_nodes > 0 ? by.leaf_nodes : by.workers;
  return {
      {"renewals and acknowledgements a consumer", "renewals", load.peak_consumer(),
       by.consumer_renewals},
      {"states a stream", "states", load.peak(kind::kStateWrite) / shards, by.stream_writes},
      {"events a stream", "events", load.peak(kind::kEvent) / shards, by.stream_writes},
      {"workers' reports a stream", "reports", load.peak(kind::kReport) / by.clusters,
       by.stream_writes},
      {"jobs sent a stream", "jobs", load.peak(kind::kQueued) / shards, by.stream_writes},
      {"messages of the busiest broker", "messages", load.busiest_peak(), by.broker_messages},
      {"connections a broker", "connections", connections / brokers, by.broker_connections},
      {"workers' processors", "processors", of.day.processors_peak, 1},
      {"workers' memory", "memory", of.day.memory_peak, 1},
      {"workers' disks", "disks", of.day.disk_peak, 1},
  };
}

const wall& first_of(const std::vector<wall>& walls) {
  return *std::max_element(walls.begin(), walls.end(), [](const wall& one, const wall& other) {
    return one.share() < other.share();
  });
}

}  // namespace zelta::fleet_model
