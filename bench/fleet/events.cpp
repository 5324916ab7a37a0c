// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/events.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace zelta::fleet_model {
namespace {

bool later(const event& one, const event& other) {
  return one.at != other.at ? one.at > other.at : one.order > other.order;
}

size_t second_of(sim_time at) {
  return static_cast<size_t>(std::chrono::floor<std::chrono::seconds>(at).count());
}

}  // namespace

void event_queue::add(sim_time at, what of, uint32_t subject, uint32_t detail) {
  assert(at.count() >= 0);
  const size_t second = second_of(at);
  const event made{at, ++order_, subject, detail, of};
  ++size_;
  if (second <= second_) {
    heap_.push_back(made);
    std::push_heap(heap_.begin(), heap_.end(), later);
    return;
  }
  if (second >= seconds_.size()) seconds_.resize(second + 1);
  seconds_[second].push_back(made);
}

event event_queue::next() {
  assert(size_ > 0);
  while (heap_.empty()) {
    ++second_;
    heap_ = std::exchange(seconds_[second_], {});
    std::make_heap(heap_.begin(), heap_.end(), later);
  }
  std::pop_heap(heap_.begin(), heap_.end(), later);
  const event found = heap_.back();
  heap_.pop_back();
  --size_;
  return found;
}

}  // namespace zelta::fleet_model
