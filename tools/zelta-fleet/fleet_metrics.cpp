// SPDX-License-Identifier: Apache-2.0
#include "fleet_metrics.h"

#include <algorithm>
#include <map>
#include <string>

#include "base/clocks.h"

namespace zelta::fleet {
namespace {

using metrics::family;
using prometheus::MetricType;

constexpr double kMsOfSecond = 1000;

double seconds_since(int64_t utc_ms) {
  const int64_t now = base::utc_ms();
  return utc_ms == 0 ? 0 : static_cast<double>(std::max<int64_t>(now - utc_ms, 0)) / kMsOfSecond;
}

}  // namespace

std::vector<prometheus::MetricFamily> fleet_metrics::Collect() const {
  std::string error;
  std::vector<prometheus::MetricFamily> made;
  const std::vector<label_numbers> queue = by_.queue(error);
  std::vector<recording_state> recordings;
  std::vector<Json::Value> workers;
  // Whoever collects waits no longer for servers that don't answer.
  if (error.empty()) recordings = by_.list(error);
  if (error.empty()) workers = by_.workers(error);
  made.push_back(family(MetricType::Gauge, "zelta_fleet_up", "1 while its NATS servers answer.")
                     .add(error.empty() ? 1 : 0)
                     .take());
  if (!error.empty()) return made;
  family waiting(MetricType::Gauge, "zelta_fleet_waiting", "Jobs that no worker has, by label.");
  family oldest(MetricType::Gauge, "zelta_fleet_oldest_seconds",
                "How long the oldest of them has waited.");
  family taken(MetricType::Gauge, "zelta_fleet_taken", "Jobs that a worker has, by label.");
  for (const label_numbers& one : queue) {
    const metrics::labels of = {{"label", one.label}};
    waiting.add(static_cast<double>(one.waiting), of);
    oldest.add(seconds_since(one.oldest_utc_ms), of);
    taken.add(static_cast<double>(one.taken), of);
  }
  std::map<std::string, double> by_state;
  double users = 0;
  for (const recording_state& one : recordings) {
    by_state[name_of(one.now)] += 1;
    users += one.users;
  }
  family states(MetricType::Gauge, "zelta_fleet_recordings",
                "Recordings that the store knows, by state; those that are over for a month.");
  for (const auto& [name, count] : by_state) states.add(count, {{"state", name}});
  double with_room = 0;
  for (const Json::Value& one : workers) {
    const bool drains = one["draining"].isBool() && one["draining"].asBool();
    with_room += !drains && one["lacks"].isString() && one["lacks"].asString().empty() ? 1 : 0;
  }
  made.push_back(waiting.take());
  made.push_back(oldest.take());
  made.push_back(taken.take());
  made.push_back(states.take());
  made.push_back(
      family(MetricType::Gauge, "zelta_fleet_users", "Users in all channels that are recorded.")
          .add(users)
          .take());
  made.push_back(family(MetricType::Gauge, "zelta_fleet_workers",
                        "Workers that told of themselves "
                        "within the last seconds.")
                     .add(static_cast<double>(workers.size()))
                     .take());
  made.push_back(family(MetricType::Gauge, "zelta_fleet_workers_with_room", "Those that take jobs.")
                     .add(with_room)
                     .take());
  return made;
}

}  // namespace zelta::fleet
