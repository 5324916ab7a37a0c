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
  int64_t first_utc_ms;
  int64_t duration_ms;
  uint64_t bytes;
  std::string closed;
};

// The files of a channel that the manifests in `folder` (with its slash) name, in the order of
// their beginnings. A folder has one manifest for each session that records into it at a time.
std::vector<recorded_file> recorded_files(const std::string& folder, const std::string& channel_id);

}  // namespace zelta::record
