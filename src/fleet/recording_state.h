// SPDX-License-Identifier: Apache-2.0
// What the store says of a job.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::fleet {

// In the order in which they come; the last three are for good.
enum class phase { kWaiting, kTaken, kRecording, kEnding, kEnded, kFailed, kRefused };
const char* name_of(phase of);
inline bool is_over(phase of) {
  return of >= phase::kEnded;
}

// One worker's part of a recording.
struct stretch {
  std::string worker;
  std::string folder;
  uint64_t sequence = 0;  // of the job in the queue
  uint64_t delivered = 0;
  int64_t taken_utc_ms = 0;
  int64_t joined_utc_ms = 0;     // 0: it never did
  int64_t ended_utc_ms = 0;      // 0: not yet, or nobody was left to say so
  int64_t delivered_utc_ms = 0;  // when its folder was at its targets; 0: not known to be. Shown,
                                 // not stored with the state
  int status = -1;               // of zelta-record; -1: not known
  std::string reason;
};

struct recording_state {
  std::string id;
  std::string label;
  std::string channel;
  phase now = phase::kWaiting;
  uint64_t sequence = 0;  // in the queue, of the job that was taken last
  int64_t since_utc_ms = 0;
  int64_t first_joined_utc_ms = 0;
  int users = 0;
  uint64_t files = 0;
  uint64_t losses = 0;
  int tries = 0;  // that ended before a join, since the last one
  std::string reason;
  std::vector<stretch> stretches;

  // As it is said to people and to who speaks JSON: docs/fleet-state.schema.json.
  std::string text() const;
};

// Nothing, with `error`.
std::optional<recording_state> state_of(const std::string& text, std::string& error);

}  // namespace zelta::fleet
