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
  // In words those that are empty are left out. Never throws. `note` waits for nobody, so what one
  // mutex orders can be noted under it, and is told in that order; `tell_noted` tells all that
  // anybody noted before, and waits for whoever reads it. `tell` does both.
  void note(const char* event, const values& about);
  void tell_noted();
  void tell(const char* event, const values& about);

  struct tally {
    uint64_t events = 0;
    uint64_t bytes = 0;
  };
  // What was noted so far of a target; without one, of no target.
  tally count(const std::string& event, const std::string& target) const;

 private:
  std::string line_of(const char* event, const values& about) const;
  std::vector<std::string> take_noted();

  const bool json_;
  std::mutex writing_;  // taken before the other one
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, tally> counts_;
  std::vector<std::string> noted_;  // taken without asking for memory
};

}  // namespace zelta::deliver
