// SPDX-License-Identifier: Apache-2.0
// Brings all lanes of a film to their end, each on a thread of its own: decoding and mixing sound
// takes nearly as long as composing pictures.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "lane.h"

namespace zelta::lay {

// Waits for it; `progress` comes on the calling thread, with how far the slowest is from the film's
// zero. None gets a second ahead of another, as the muxer holds what is ahead. Throws what the
// first one threw that failed, once all have ended; so does a stop signal.
void run_lanes(const std::vector<std::unique_ptr<lane>>& all,
               const std::function<void(int64_t reached_us)>& progress);

}  // namespace zelta::lay
