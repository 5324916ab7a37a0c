// SPDX-License-Identifier: Apache-2.0
// How long a job is this worker's: until the lease that the queue gave is surely over, counted from
// the last moment at which it was surely renewed, and then for a while that is shorter than another
// lease.
//
// The end of a lease alone stops nobody, as it comes with elections of NATS's servers, which may
// take longer: who takes the job up says so when it records it, and what both record until then is
// there twice. Only who hears nothing for so long stops by itself: it is cut off, and another has
// the job.
#pragma once

#include <algorithm>
#include <chrono>

#include "base/boot_clock.h"

namespace zelta::fleet {

class lease {
 public:
  using clock = base::boot_clock;
  using milliseconds = std::chrono::milliseconds;

  // `length`: after it somebody else gets the job. Taken at `taken`, which is before it was asked
  // for: the queue's time began later.
  lease(milliseconds length, clock::time_point taken) : length_(length), proven_(taken) {}

  // A renewal that was sent at `sent` is known to have arrived while the job was its holder's.
  void renewed(clock::time_point sent) { proven_ = std::max(proven_, sent); }
  // Whether an answer that comes now is one to its holder. Later the queue may have given the job
  // to somebody else, and answers whoever had it before all the same.
  bool is_sure(clock::time_point now) const { return now - proven_ < length_; }
  // Between looks at whether it is due.
  milliseconds pause() const { return length_ / 10; }
  // Every fifth of it, and at each look while nobody answers: after an election servers hand out at
  // once what wasn't renewed.
  bool is_due(clock::time_point now) const { return now - proven_ >= length_ / 5 - length_ / 50; }
  milliseconds length() const { return length_; }
  // How long what both record may be there twice.
  milliseconds grace() const { return length_ - length_ / 5; }
  // From then on the recording has to stop, so that nobody records it twice for as long as a lease.
  clock::time_point stop_at() const { return proven_ + length_ + grace(); }
  bool is_lost(clock::time_point now) const { return now >= stop_at(); }
  // What the recorder is given at a renewal: it counts from when it reads that.
  milliseconds left(clock::time_point now) const {
    return std::max(milliseconds(0), std::chrono::floor<milliseconds>(stop_at() - now));
  }

 private:
  const milliseconds length_;
  clock::time_point proven_;
};

}  // namespace zelta::fleet
