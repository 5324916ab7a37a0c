// SPDX-License-Identifier: Apache-2.0
// Which part of a file is asked for (RFC 9110, section 14). Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::view {

struct byte_range {
  enum outcome {
    kWhole,   // no range, several, or one that isn't understood: all of it, as the standard allows
    kPart,    // `first` to `last`
    kBeyond,  // 416: nothing of it is there
  };
  outcome what = kWhole;
  uint64_t first = 0;
  uint64_t last = 0;  // inclusive

  uint64_t size() const { return last - first + 1; }
};

// `header` is the value of Range, empty when there is none; `size` is the file's. One without an
// end is answered by `most` bytes at most (RFC 9110, section 15.3.7): a player asks on as it goes,
// and meanwhile keeps no connection, of which browsers have six a host.
byte_range parse_range(const std::string& header, uint64_t size, uint64_t most = UINT64_MAX);

}  // namespace zelta::view
