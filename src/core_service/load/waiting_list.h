// SPDX-License-Identifier: Apache-2.0
// Users for whom there is no room, in the order in which they came.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zelta::core_service::load {

class waiting_list {
 public:
  struct guest {
    uint32_t uid;
    std::string why;
    int64_t tell_ms;  // by base::tick_ms(); whoever comes in before is told nothing
    bool told;
  };

  // Who waits already keeps their place.
  void add(guest one) {
    if (find(one.uid) == guests_.end()) guests_.push_back(std::move(one));
  }
  // What they had been told; none: nothing, or they don't wait.
  std::optional<std::string> remove(uint32_t uid) {
    const auto found = find(uid);
    if (found == guests_.end()) return std::nullopt;
    const guest one = std::move(*found);
    guests_.erase(found);
    return one.told ? std::optional(one.why) : std::nullopt;
  }
  bool empty() const { return guests_.empty(); }
  void clear() { guests_.clear(); }
  uint32_t first() const { return guests_.front().uid; }
  std::vector<guest>& all() { return guests_; }

 private:
  std::vector<guest>::iterator find(uint32_t uid) {
    return std::find_if(guests_.begin(), guests_.end(),
                        [uid](const guest& one) { return one.uid == uid; });
  }

  std::vector<guest> guests_;
};

}  // namespace zelta::core_service::load
