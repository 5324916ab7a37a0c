// SPDX-License-Identifier: Apache-2.0
// Who speaks when, by loudness.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "recordings/volume_log.h"
#include "session.h"

namespace zelta::lay {

struct turn {
  int64_t begin_us = 0;  // until the next one's
  uint32_t uid = 0;

  bool operator==(const turn& o) const { return begin_us == o.begin_us && uid == o.uid; }
};

// A tenth of a second.
constexpr int64_t kLevelUs = 100000;
constexpr float kSilence = -100;  // dB

struct levels {
  uint32_t uid = 0;
  std::vector<float> db;    // of full scale, one a tenth of a second
  std::vector<bool> there;  // whether the user has a picture then
};

// The first pass, for users with pictures, between two moments of the session. Files of whose time
// the recorder noted volumes are believed; all sound of the others is decoded. `progress` gets how
// much of how much is heard, in microseconds. Throws `stopped`.
std::vector<levels> measure_levels(const session& of, const recordings::volume_lines& noted,
                                   const span& what, problems& found,
                                   const std::function<void(int64_t, int64_t)>& progress);

// Another user takes the turn who was 6 dB louder than its holder for 0.7 of the last 1.0 s, and at
// least -45 dB, once that one had it for 2 s; at once when the holder's picture is gone. The first
// turn begins at `from_us`; none when there is nobody.
std::vector<turn> find_turns(const std::vector<levels>& of, int64_t from_us);

}  // namespace zelta::lay
