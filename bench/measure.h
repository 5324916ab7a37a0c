// SPDX-License-Identifier: Apache-2.0
// Clocks and figures of the benchmarks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sys/types.h>

namespace zelta::bench {

// Monotonic nanoseconds, the same clock in every process.
int64_t now_ns();
// CPU time that a process, all its threads together, has used.
int64_t cpu_ns(pid_t process);
// Blocks until `due_ns` of the monotonic clock: the pace of a load.
void pace_until(int64_t due_ns);

// What moving frames from one process to another took, from the first one's arrival to the last's.
struct transfer {
  size_t bytes = 0;
  int64_t wall_ns = 0;
  int64_t reader_cpu_ns = 0;
  int64_t writer_cpu_ns = 0;

  double gb_per_s() const;
  double reader_cpu_s_per_gb() const;
  double writer_cpu_s_per_gb() const;
};

// Counts arrivals and takes the clocks at the first and the last of them. The first is not counted:
// it starts the clock.
class stopwatch {
 public:
  stopwatch(size_t frame_bytes, size_t frames) : frame_bytes_(frame_bytes), frames_(frames) {}
  // One frame is there; true with the last.
  bool arrived(pid_t writer);
  const transfer& measured() const { return measured_; }

 private:
  const size_t frame_bytes_;
  const size_t frames_;
  size_t seen_ = 0;
  int64_t start_ns_ = 0;
  int64_t reader_start_ns_ = 0;
  int64_t writer_start_ns_ = 0;
  transfer measured_;
};

// Sorts.
int64_t percentile(std::vector<int64_t>& values, double share);

// A load at the pace of a call: `users` users, each with its own pictures and sound, staggered.
struct paced_load {
  int users = 4;
  size_t picture_bytes = 1920 * 1080 * 3 / 2;
  size_t sound_bytes = 1920;
  int64_t picture_interval_ns = 33'333'333;
  int64_t sound_interval_ns = 20'000'000;
  int64_t duration_ns = 3'000'000'000;
};

// Walks through the load in the order of time: `send(picture, user, due_ns)` is
// called when it is due, or as soon after it as the one before has let go of the thread.
template <class Send>
void run_paced(const paced_load& load, Send send) {
  const int64_t start = now_ns();
  const int64_t end = start + load.duration_ns;
  struct source {
    bool picture;
    int user;
    int64_t due;
  };
  std::vector<source> sources;
  for (int user = 0; user < load.users; ++user) {
    sources.push_back({true, user, start + load.picture_interval_ns * user / load.users});
    sources.push_back({false, user, start + load.sound_interval_ns * user / load.users});
  }
  for (;;) {
    source* next = &sources.front();
    for (source& candidate : sources) {
      if (candidate.due < next->due) next = &candidate;
    }
    if (next->due >= end) return;
    pace_until(next->due);
    send(next->picture, next->user, next->due);
    next->due += next->picture ? load.picture_interval_ns : load.sound_interval_ns;
  }
}

}  // namespace zelta::bench
