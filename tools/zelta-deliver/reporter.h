// SPDX-License-Identifier: Apache-2.0
// What zelta-deliver tells on standard output, a line an event: words, or JSON. Any thread.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zelta::deliver {

class reporter {
 public:
  explicit reporter(bool json) : json_(json) {}

  using values = std::vector<std::pair<const char*, std::string>>;
  // In words those that are empty are left out. Waits for whoever reads it; never throws.
  void tell(const char* event, const values& about);

 private:
  std::string line_of(const char* event, const values& about) const;
  void write(const std::string& line);

  const bool json_;
  std::mutex mutex_;
};

}  // namespace zelta::deliver
