// SPDX-License-Identifier: Apache-2.0
// Which files may go from the recorder's disk, and their going. Not thread-safe, as consignments.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "consignment.h"
#include "settings.h"

namespace zelta::deliver {

struct deletion {
  std::string folder;
  std::string file;
  uint64_t bytes = 0;
  std::string error;  // empty: it is deleted
};

// Deletes media and pictures that every target has confirmed, that are still what was confirmed,
// whose confirmation is on disk and for which no hook is still to run: those that have been kept
// for long enough, and then the oldest confirmed until all that is there fits into the quota.
// Manifests, messages and logs stay. `next_ms` becomes the moment at which the next one's time is
// over, if there is one; 0 otherwise.
std::vector<deletion> clean_up(const std::vector<std::unique_ptr<consignment>>& folders,
                               const delivery_settings& settings, int64_t now_ms, int64_t& next_ms);

}  // namespace zelta::deliver
