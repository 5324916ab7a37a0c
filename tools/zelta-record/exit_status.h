// SPDX-License-Identifier: Apache-2.0
// How zelta-record ends.
#pragma once

namespace zelta::record {

// After a second signal the status is 128 and the signal's number.
enum exit_status : int {
  kRecorded = 0,       // all that there was to record; also when nobody came
  kRecorderError = 1,  // the recorder could not go on, or not join
  kUsage = 2,          // refused before anything was started
  kRefused = 3,        // the engine did not start
  kRecorderLost = 4,   // the recorder died and could not be started again
  kNotAll = 5,         // recorded, but not all: the last lines name what is missing
};

constexpr const char* kStatusHelp =
    "Exit status: 0 recorded, 1 the recorder could not join or go on, 2 bad usage, 3 the engine "
    "refused to start, 4 the recorder was lost, 5 recorded, but not all. After a second signal: "
    "128 "
    "and its number. Unless it is 0, the last lines say why.";

}  // namespace zelta::record
