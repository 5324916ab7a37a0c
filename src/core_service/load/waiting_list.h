// SPDX-License-Identifier: Apache-2.0
// Users for whom there is no room, in the order in which they came.
#pragma once

#include <algorithm>
#include <cstdint>
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
    const auto found = find(one.uid);
    if (found == guests_.end()) return guests_.push_back(std::move(one));
    if (one.told) *found = std::move(one);
  }
  // Whether they waited.
  bool remove(uint32_t uid) {
    const auto found = find(uid);
    if (found == guests_.end()) return false;
    guests_.erase(found);
    return true;
  }
  void put_last(uint32_t uid) {
    const auto found = find(uid);
    if (found != guests_.end()) std::rotate(found, found + 1, guests_.end());
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
