// SPDX-License-Identifier: Apache-2.0
// Which files may go from the recorder's disk, and their going. Not thread-safe, as consignments.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
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

class retention {
 public:
  // `settings` outlives it.
  explicit retention(const delivery_settings& settings) : settings_(settings) {}

  bool keeps_all() const { return settings_.keep.count() < 0 && settings_.quota_bytes == 0; }
  // Whether nothing of the folder will ever go, or counts, while it stays as it is.
  bool is_through_with(const consignment& folder) const;

  // Deletes media and pictures that every target has confirmed, that are still what was confirmed,
  // whose confirmation is on disk and for which no hook is still to run: those that have been kept
  // for long enough, and then the oldest confirmed until all that is there fits into the quota.
  // Manifests, messages and logs stay. What can't be deleted is told once.
  std::vector<deletion> clean_up(const std::vector<consignment*>& folders, int64_t now_ms);
  // Until the next one's time is over, from the clean_up() before; empty: there is none.
  std::optional<int64_t> wait_ms() const { return wait_ms_; }

 private:
  const delivery_settings& settings_;
  std::set<std::string> stuck_;
  std::optional<int64_t> wait_ms_;
};

}  // namespace zelta::deliver
