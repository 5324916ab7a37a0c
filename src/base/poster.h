// SPDX-License-Identifier: Apache-2.0
// What is posted to a loop by an object that may be gone when its turn comes.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "base/event_loop.h"

namespace zelta::base {

// A member of the object that the work is for. The loop is borrowed and must outlive it.
class poster {
 public:
  explicit poster(event_loop& loop) : loop_(loop) {}
  poster(const poster&) = delete;
  poster& operator=(const poster&) = delete;

  // Any thread, while the owner lives. Work whose turn comes after the owner's end, or after
  // forget(), is not done; owner and loop's thread must see to it that this is no race.
  void post(std::function<void()> work) const {
    loop_.post([owner = life(), work = std::move(work)] {
      if (!owner.expired()) work();
    });
  }
  // On the loop's thread: nothing that was posted is done any more.
  void forget() { alive_.reset(); }
  // Tells whether the owner still lives and hasn't forgotten, for who calls what may end it.
  std::weak_ptr<int> life() const { return alive_; }
  event_loop& loop() const { return loop_; }

 private:
  event_loop& loop_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace zelta::base
