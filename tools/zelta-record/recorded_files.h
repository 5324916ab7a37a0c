// SPDX-License-Identifier: Apache-2.0
// What the recording folder holds, and what it lacks.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "recordings/recording_folder.h"

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

// A medium that was to be recorded and isn't.
struct missing_medium {
  uint32_t uid;
  std::string medium;
  std::string codec;
  std::string reason;
  int64_t utc_ms;
};

struct recorded {
  // In the order of their beginnings.
  std::vector<recorded_file> files;
  std::vector<missing_medium> missing;
  std::map<uint32_t, uint64_t> pictures;  // captured in files, by user
  recordings::dropped_frames dropped;
  uint64_t messages = 0;      // of users, that are kept
  uint64_t lost_packets = 0;  // that found no room in the recorder
  // How far the recorder was behind what came when it last told.
  int64_t lag_of_packets_ms = 0;
  int64_t lag_of_disk_ms = 0;

  uint64_t bytes() const;
  // From the beginning of the first file to the end of the last.
  int64_t duration_ms() const;
};

// What the manifests in `folder` (with its slash) say of a channel. A folder has one manifest for
// each session that records into it at a time, and those of earlier ones.
recorded read_recorded(const std::string& folder, const std::string& channel_id);
// What has come to a folder since it was read before.
recorded without(recorded all, const recorded& before);

// What is wrong with a file of a recording that is over; empty when it can be played.
std::string fault_of(const recorded_file& file);

}  // namespace zelta::record
