// SPDX-License-Identifier: Apache-2.0
// What this machine has room for, by what it was measured to do.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zelta::fleet {

// A moment of the machine.
struct machine_load {
  double processors = 0;       // as many as there are for this process
  double busy_processors = 0;  // since the moment before
  uint64_t memory_bytes = 0;   // all, or what the process's group may have
  uint64_t free_memory_bytes = 0;
  uint64_t free_disk_bytes = 0;
  uint64_t free_descriptors = 0;  // of the machine's
  double received_mbit = 0;       // a second, of all links but the loopback
  double links_mbit = 0;          // that these can, as far as they say; 0: not known
  int64_t lag_ms = 0;             // the worst of this worker's recorders
};

struct room_limits {
  double busy_share = 0.8;                  // of the processors; above 1 they aren't looked at
  double memory_share = 0.1;                // stays free
  uint64_t disk_bytes = uint64_t{2} << 30;  // likewise
  double network_share = 0.8;               // of what links can receive
  double network_mbit = 0;                  // which the settings say; 0: what the links say
  int64_t lag_ms = 500;
  int most_jobs = 1000;
};

// What a job takes, until more is known of it.
struct job_cost {
  double processors = 0.05;
  double mbit = 0;
  uint64_t memory_bytes = uint64_t{64} << 20;
  uint64_t disk_bytes = uint64_t{256} << 20;
};

// What one is expected to take: `users` 0 is not known.
job_cost cost_of(int users);

// Nothing: one more of that cost has room. Otherwise what there is too little of, in words. `begun`
// is what jobs that were taken lately are going to take and the load doesn't show yet.
std::optional<std::string> what_lacks(const machine_load& now, const room_limits& within,
                                      const job_cost& begun, const job_cost& more, int jobs);

// Reads /proc; one thread.
class load_meter {
 public:
  explicit load_meter(std::string folder) : folder_(std::move(folder)) {}
  machine_load measure();

 private:
  const std::string folder_;
  uint64_t busy_ = 0;
  uint64_t all_ = 0;
  uint64_t received_ = 0;
  std::chrono::steady_clock::time_point measured_;
};

}  // namespace zelta::fleet
