// SPDX-License-Identifier: Apache-2.0
// What the frame path is measured against: the bare ways to hand frames from one process to
// another. Each run forks its writer, so the caller has no other thread then.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "measure.h"

namespace zelta::bench {

// How a writer puts frames into a descriptor; the reader reads each into one buffer, in place.
struct wire {
  std::string name;
  bool socket = false;  // a stream socket pair instead of a pipe
  bool splice = false;  // vmsplice instead of write
  int capacity_bytes = 1 << 20;
  unsigned splice_flags = 0;
  bool huge_pages = false;   // for the frames at both ends
  size_t frames_a_call = 1;  // gathered by the writer with writev
  bool spin = false;         // the reader asks again and again instead of sleeping
};

// Throughput, one frame after the other as fast as they go.
transfer run_wire(const wire& by, size_t frame_bytes, size_t frames);
transfer run_memcpy(size_t frame_bytes, size_t frames);
// Zero bytes where libzmq wasn't there at build time.
transfer run_zeromq(size_t frame_bytes, size_t frames);

// Send-to-arrival times of the paced load over a pipe, in nanoseconds.
struct latencies {
  std::vector<int64_t> pictures;
  std::vector<int64_t> sound;
};
latencies run_paced_pipe(const paced_load& load);

}  // namespace zelta::bench
