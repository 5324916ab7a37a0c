// SPDX-License-Identifier: Apache-2.0
// What is going to happen, in its order. One thread.
//
// Nearly all of a day's events lie hours ahead: they wait in a bucket a second, unsorted, and only
// the second that is on is a heap.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelta::fleet_model {

using sim_time = std::chrono::microseconds;  // since the day began

inline sim_time from_seconds(double s) {
  return sim_time(static_cast<int64_t>(s * 1e6));
}
inline double to_seconds(sim_time t) {
  return static_cast<double>(t.count()) / 1e6;
}

enum class what : uint8_t {
  kArrival,    // somebody sends a job
  kQueued,     // it stands in the queue
  kTaken,      // the worker that it was given to has written so
  kJoined,     // its recorder is in the channel
  kEnded,      // the channel is over
  kStops,      // the worker can't prove its lease any more
  kPutBack,    // the worker that is drained hands it back
  kLeaseEnds,  // the queue's count of the lease is over
  kLook,       // a worker looks for room again
  kDelivered,  // a recording was brought away from its worker's disk
  kWorkerDies,
  kWorkerBack,
  kZoneDies,
  kElection,
  kElectionOver,
  kUpgrade,
};

struct event {
  sim_time at{};
  uint64_t order = 0;    // of two of a moment the one that was planned first comes first
  uint32_t subject = 0;  // a job's, a worker's or a group's number
  uint32_t detail = 0;   // its life (see job::life), or how many users it had
  what of = what::kArrival;
};

class event_queue {
 public:
  // Not before the last one that next() gave.
  void add(sim_time at, what of, uint32_t subject, uint32_t detail = 0);
  bool empty() const { return size_ == 0; }
  // The earliest, which is gone from here; not when empty().
  event next();

 private:
  std::vector<std::vector<event>> seconds_;
  std::vector<event> heap_;
  size_t second_ = 0;  // whose events are in the heap
  size_t size_ = 0;
  uint64_t order_ = 0;
};

}  // namespace zelta::fleet_model
