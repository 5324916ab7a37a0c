// SPDX-License-Identifier: Apache-2.0
// How loud users were, as the recorder noted it beside its files: volumes.jsonl.
//
// Any thread; nothing here changes a folder, and a recording that still runs may be read.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zelta::recordings {

struct volume_line {
  int64_t utc_ms = 0;            // when it begins, on the clock of the manifest's files
  int64_t step_ms = 0;           // how long each of its volumes holds
  std::vector<uint8_t> volumes;  // 0, silence, to 255, a sine at full scale
};

// By user, in the order of time.
using volume_lines = std::map<uint32_t, std::vector<volume_line>>;

// Those of a channel, of all sessions of a folder: volumes.jsonl, volumes_2.jsonl, … Empty where
// none were noted. What is no such line is left out; each file that has some adds a line to
// `errors`.
volume_lines read_volumes(const std::string& folder, const std::string& channel_id,
                          std::vector<std::string>& errors);

}  // namespace zelta::recordings
