// SPDX-License-Identifier: Apache-2.0
// What zelta-deliver tells on standard output, a line an event: words, or JSON. Any thread.
#pragma once

#include <cstdint>
#include <map>
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

  struct tally {
    uint64_t events = 0;
    uint64_t bytes = 0;
  };
  // What was told so far of a target; without one, of no target.
  tally count(const std::string& event, const std::string& target) const;

 private:
  void count_one(const char* event, const values& about);
  std::string line_of(const char* event, const values& about) const;
  void write(const std::string& line);

  const bool json_;
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, tally> told_;
};

}  // namespace zelta::deliver
