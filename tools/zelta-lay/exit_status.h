// SPDX-License-Identifier: Apache-2.0
// How zelta-lay ends.
#pragma once

namespace zelta::lay {

// After a signal the status is 128 and the signal's number.
enum exit_status : int {
  kLaid = 0,    // all that was recorded
  kFailed = 1,  // nothing was made: a codec, the disk
  kUsage = 2,   // refused before anything was started
  kNotAll = 5,  // laid, but not all: the last lines name what is missing
};

constexpr const char* kStatusHelp =
    "Exit status: 0 laid, 1 it couldn't be made, 2 bad usage, 5 laid without what is missing or "
    "broken. After SIGINT, SIGTERM or SIGHUP: 128 and its number. Unless it is 0, the "
    "last lines say why.";

}  // namespace zelta::lay
