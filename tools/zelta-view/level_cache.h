// SPDX-License-Identifier: Apache-2.0
// Measured volumes, kept in a folder of the visitor's own and not beside the recording, which may
// be read-only and is the recorder's: a file each, named by a hash of the device, inode, size and
// time of what was measured. An hour of one user takes 36 KB. The oldest go when there are too
// many.
//
// Any thread, and several processes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace zelta::view {

class level_cache {
 public:
  // `folder` ends in a slash; empty: nothing is kept.
  explicit level_cache(std::string folder, size_t most = 2000);

  // Of what the file of the descriptor is now; empty when that can't be told.
  static std::string key_of(int file);
  std::optional<std::string> find(const std::string& key) const;
  // A folder that can't be written costs the cache alone.
  void keep(const std::string& key, const std::string& levels) const;

 private:
  void drop_oldest() const;

  const std::string folder_;
  const size_t most_;
};

}  // namespace zelta::view
