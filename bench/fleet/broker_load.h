// SPDX-License-Identifier: Apache-2.0
// What brokers are to do: messages by kind, second by second, and how busy that keeps the one that
// has the most of it.
//
// A message enters at the broker that its sender is connected to, and goes on to the broker that
// leads what it is for, which answers it; what is kept goes from there to the other replicas. The
// leaders of all kinds are taken to be one broker, as nothing keeps them from that; shards of a
// kind have leaders of their own, as evenly as they go.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "bench/fleet/events.h"
#include "bench/fleet/figures.h"

namespace zelta::fleet_model {

enum class kind : uint8_t {
  kRenewal,
  kDelivery,  // of a job, its acknowledgement, its being put back
  kStateWrite,
  kEvent,
  kReport,
  kQueued,
  kAsk,
  kRead,
  kSubscription,
  kPing,
};
constexpr size_t kKinds = 10;

struct kind_row {
  const char* name;
  double messages;  // question and answer
  double writes;    // that go to the replicas
  bool has_leader;
};
extern const std::array<kind_row, kKinds> kKindRows;

// Sums by kind; of a second or of many.
using by_kind = std::array<double, kKinds>;

class broker_load {
 public:
  explicit broker_load(figures by) : by_(std::move(by)) {}

  void add(kind of, double units = 1) { now_[static_cast<size_t>(of)] += units; }
  // In so many seconds, 120 at most.
  void add_later(kind of, double units, size_t seconds);
  // Of this second, what add_later() had said.
  double foretold(kind of) const { return foretold_[static_cast<size_t>(of)]; }
  // The second is over; `counts`: it is one of the day that is reported.
  void close_second(bool counts);

  double seconds() const { return seconds_; }
  double mean(kind of) const;
  // Of any second.
  double peak(kind of) const { return peaks_[static_cast<size_t>(of)]; }
  // Messages a second of the broker that has the most.
  double busiest(kind of, double units) const;
  double busiest_mean() const;
  double busiest_peak() const { return busiest_peak_; }
  const by_kind& of_busiest_second() const { return busiest_second_; }
  // Renewals and acknowledgements that a label's consumer takes in a second, at their peak.
  double peak_consumer() const { return consumer_peak_; }

 private:
  double shards(kind of) const;

  const figures by_;
  by_kind now_{};
  by_kind foretold_{};
  by_kind sums_{};
  by_kind peaks_{};
  by_kind busiest_second_{};
  std::array<by_kind, 128> ahead_{};
  size_t second_ = 0;
  double seconds_ = 0;
  double busiest_peak_ = 0;
  double consumer_peak_ = 0;
};

// Something that does so many things a second, one after the other.
class server {
 public:
  // When what comes at `at` is done. `share` of what it can do is taken by others. Nothing is done
  // before `open`.
  sim_time admit(sim_time at, sim_time open, double a_second, double share = 0);

 private:
  sim_time free_{};
};

}  // namespace zelta::fleet_model
