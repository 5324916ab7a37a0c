// SPDX-License-Identifier: Apache-2.0
// The line that is redrawn while it records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelta::record {

struct progress {
  double elapsed_s;
  int users;
  double recorded_s;
  uint64_t bytes;  // on disk
  size_t files;
  uint64_t losses;
  bool delivers;  // frames to the tool
  double frames_per_s;
};

// What matters most comes first; what doesn't fit into so many columns is left out.
std::string progress_line(const progress& p, size_t columns);
// Of the terminal that standard output is, now: it may be resized at any time.
size_t terminal_columns();

}  // namespace zelta::record
