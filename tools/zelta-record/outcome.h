// SPDX-License-Identifier: Apache-2.0
// What a recording came to: its files, what is missing, its status, and why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "exit_status.h"
#include "printer.h"
#include "recorded_files.h"
#include "reporter.h"

namespace zelta::record {

// Where a recording is, and what was there before it.
struct recording_place {
  std::string folder;  // with its slash
  std::string channel_id;
  int64_t since_utc_ms;
  recorded earlier;  // what was in the folder before
};

// Of this recording alone.
recorded read_recorded(const recording_place& place);

// What there was to record and isn't, one line each.
std::vector<std::string> losses(const recorded& all, const reporter::facts& facts,
                                const std::string& frame_fault,
                                const std::vector<std::string>& logged);

// Prints the folder, the files, what is missing and why it ended; the status. `asked`: recording
// was started, by itself or by command.
exit_status tell_outcome(const recording_place& place, const reporter& report, bool asked,
                         printer& out);

}  // namespace zelta::record
