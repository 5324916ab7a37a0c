// SPDX-License-Identifier: Apache-2.0
// Runs of the real engine against the recorder's stand-in.
#pragma once

#include "baselines.h"
#include "load.h"
#include "measure.h"

namespace zelta::bench {

struct engine_transfer : transfer {
  // Allocations in the application's process a frame, after the first tenth.
  double allocations_a_frame = 0;
};

// Throughput of `what.frames` frames, from the stand-in's frame code to the handler's callback.
engine_transfer run_engine(const load& what);
// Send-to-callback times of a paced load.
latencies run_paced_engine(const load& what);

// What engines that are joined and get nothing cost, each: of this process, per engine.
struct idle_cost {
  double cpu_ms_per_s = 0;
  double memory_kb = 0;
  double descriptors = 0;
  double threads = 0;
};
idle_cost run_idle(int engines, int seconds);

}  // namespace zelta::bench
