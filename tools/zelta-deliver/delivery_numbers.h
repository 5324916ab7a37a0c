// SPDX-License-Identifier: Apache-2.0
// How far the deliveries of a process are, in numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "ledger.h"

namespace zelta::deliver {

struct stage_sum {
  uint64_t files = 0;
  uint64_t bytes = 0;
};

// Of the folders that the process has. `--watch` lets go of those that are done.
struct delivery_numbers {
  size_t folders = 0;
  // By the target's name.
  std::map<std::string, std::map<stage, stage_sum>> at;
  std::map<std::string, int64_t> oldest_mtime_ms;  // of what isn't settled there; 0: nothing
  size_t notices = 0;                              // for hooks and webhook
};

// Adds a folder's.
void add_numbers(const ledger& of, delivery_numbers& to);

}  // namespace zelta::deliver
