// SPDX-License-Identifier: Apache-2.0
// What goes sealed to a target stands beside the recording from before its first byte is sent until
// the target is known to have it: sealed again, the same file would have other bytes, and neither
// could an upload go on, nor be known again what somebody sent who was killed before noting it.
//
//   FOLDER/.delivery/TARGET/NAME.age         a copy, whole and synced
//   FOLDER/.delivery/TARGET/NAME.age.part    one that is being made, or whose maker was killed
//
// Any thread, a file and target one at a time, for who holds the folder's lock. No link is
// followed: whoever may write into the folder could have us delete elsewhere.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "pace.h"
#include "settings.h"
#include "target.h"

namespace zelta::deliver {

struct sealed_copy {
  base::unique_fd file;  // open for reading
  uint64_t bytes = 0;
  std::string sha256;
};

// Whom a target's copies are for, as states have it.
std::string digest_of_keys(const target_settings& target);

class sealed_copies {
 public:
  explicit sealed_copies(std::string folder) : folder_(std::move(folder)) {}

  // Seals the open file `plain`, lent, whole, and opens what came of it. What there was gives way
  // to it, once it is there.
  outcome make(const target_settings& target, const std::string& name, int plain,
               const delivery_settings& settings, const pace& limits, sealed_copy& made) const;
  // Opens the copy if it still is what was made, whole: kRefused when it isn't.
  outcome open(const std::string& target, const std::string& name, uint64_t bytes,
               const std::string& sha256, const pace& limits, sealed_copy& found) const;
  // What can't be removed is left to the next keep_only().
  void remove(const std::string& target, const std::string& name) const;
  // Removes all else that stands there: of targets and files by their names.
  void keep_only(const std::set<std::pair<std::string, std::string>>& in_use) const;
  // Folders that hold nothing; while nobody makes a copy.
  void remove_empty_folders() const;

 private:
  base::unique_fd open_folder(const std::string& target, bool make, std::string& error) const;

  const std::string folder_;
};

}  // namespace zelta::deliver
