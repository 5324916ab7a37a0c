// SPDX-License-Identifier: Apache-2.0
// What couldn't be laid: a line each, every line once. Any thread may add; lines() is for when none
// does any more.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace zelta::lay {

class problems {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> hold(lock_);
    if (std::find(lines_.begin(), lines_.end(), line) == lines_.end()) lines_.push_back(line);
  }
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::mutex lock_;
  std::vector<std::string> lines_;
};

}  // namespace zelta::lay
