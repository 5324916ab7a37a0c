// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/broker_load.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace zelta::fleet_model {

// Questions and answers as src/fleet sends them: a report has no answer, a question for a job that
// brings none is told so when its time is over, and one that does bring one is the delivery's.
const std::array<kind_row, kKinds> kKindRows = {{
    {"renewals of leases", 2, 1, true},
    {"jobs given out, done, put back", 1.5, 1, true},
    {"states written", 2, 1, true},
    {"events", 2, 1, true},
    {"workers' reports", 1, 1, true},
    {"jobs sent", 2, 1, true},
    {"asking for jobs in vain", 2, 0, true},
    {"states and wishes read", 2, 0, true},
    {"listening for commands", 1, 0, false},
    {"pings", 2, 0, false},
}};

void broker_load::add_later(kind of, double units, size_t seconds) {
  assert(seconds < ahead_.size());
  if (seconds == 0) return add(of, units);
  ahead_[(second_ + seconds) % ahead_.size()][static_cast<size_t>(of)] += units;
}

double broker_load::shards(kind of) const {
  switch (of) {
    case kind::kRenewal:
    case kind::kDelivery:
    case kind::kAsk:
      return by_.labels;  // each has a consumer
    case kind::kReport:
      return by_.clusters;
    default:
      return by_.clusters * by_.streams;
  }
}

double broker_load::busiest(kind of, double units) const {
  const kind_row& row = kKindRows[static_cast<size_t>(of)];
  const double all_brokers = by_.clusters * by_.brokers;
  if (of == kind::kPing && by_.leaf_nodes > 0) return 0;
  // Every broker of the cluster hears who listens to what.
  if (of == kind::kSubscription) return units * row.messages / by_.clusters;
  const double entering = units * row.messages / all_brokers;
  if (!row.has_leader) return entering;
  const double leaders = by_.clusters * std::min(by_.brokers, shards(of) / by_.clusters);
  const double led = units / leaders;
  // To each of the others, and its answer.
  const double appends = row.writes * 2 * (by_.replicas - 1) / by_.writes_an_append;
  return entering + led * (row.messages * (1 - 1 / by_.brokers) + appends);
}

void broker_load::close_second(bool counts) {
  if (counts) {
    double busiest_now = 0;
    for (size_t at = 0; at < kKinds; ++at) {
      sums_[at] += now_[at];
      peaks_[at] = std::max(peaks_[at], now_[at]);
      busiest_now += busiest(static_cast<kind>(at), now_[at]);
    }
    if (busiest_now > busiest_peak_) {
      busiest_peak_ = busiest_now;
      busiest_second_ = now_;
    }
    const double consumer =
        now_[static_cast<size_t>(kind::kRenewal)] + now_[static_cast<size_t>(kind::kDelivery)];
    consumer_peak_ = std::max(consumer_peak_, consumer / by_.labels);
    ++seconds_;
  }
  ++second_;
  now_ = std::exchange(ahead_[second_ % ahead_.size()], {});
  foretold_ = now_;
}

double broker_load::mean(kind of) const {
  return seconds_ > 0 ? sums_[static_cast<size_t>(of)] / seconds_ : 0;
}

double broker_load::busiest_mean() const {
  double sum = 0;
  for (size_t at = 0; at < kKinds; ++at) {
    sum += busiest(static_cast<kind>(at), mean(static_cast<kind>(at)));
  }
  return sum;
}

sim_time server::admit(sim_time at, sim_time open, double a_second, double share) {
  // A worker has one write of each on its way at a time, so that neither starves the other.
  constexpr double kLeast = 0.5;
  const double left = a_second * std::max(kLeast, 1 - share);
  free_ = std::max({free_, at, open}) + from_seconds(1 / left);
  return free_;
}

}  // namespace zelta::fleet_model
