// SPDX-License-Identifier: Apache-2.0
// What the recording folder holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::record {

struct recorded_file {
  std::string name;
  uint32_t uid;
  std::string codecs;  // "h264+aac"
  int64_t duration_ms;
  uint64_t bytes;
  std::string closed;
};

// The files that the manifest in `folder` (with its slash) names; empty when there is none.
std::vector<recorded_file> recorded_files(const std::string& folder);

}  // namespace zelta::record
