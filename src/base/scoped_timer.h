// SPDX-License-Identifier: Apache-2.0
// A timer of a loop that ends with whoever wants it.
//
// On the loop's thread, or while the loop doesn't run: on another one, what is due may be running.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "base/event_loop.h"

namespace zelta::base {

class scoped_timer {
 public:
  // None.
  scoped_timer() = default;
  // As event_loop::add_timer() has it. The loop is borrowed and must outlive the timer. `work` may
  // stop or destroy the timer.
  scoped_timer(event_loop& loop, int interval_ms, std::function<void()> work)
      : loop_(&loop), work_(std::make_shared<task>(task{std::move(work), {}})) {
    work_->self = work_;
    timer_ = loop.add_timer(
        interval_ms,
        [](int, void* context) {
          // Held, because the work may destroy the timer, and the work with it.
          const auto held = static_cast<task*>(context)->self.lock();
          held->work();
        },
        work_.get());
  }
  scoped_timer(scoped_timer&& other) noexcept { *this = std::move(other); }
  scoped_timer& operator=(scoped_timer&& other) noexcept {
    stop();
    loop_ = other.loop_;
    timer_ = std::exchange(other.timer_, nullptr);
    work_ = std::move(other.work_);
    return *this;
  }
  ~scoped_timer() { stop(); }

  bool runs() const { return timer_ != nullptr; }
  void stop() {
    if (timer_ != nullptr) loop_->remove_timer(std::exchange(timer_, nullptr));
    work_.reset();
  }

 private:
  struct task {
    std::function<void()> work;
    std::weak_ptr<task> self;
  };

  event_loop* loop_ = nullptr;
  timer_event* timer_ = nullptr;
  std::shared_ptr<task> work_;
};

}  // namespace zelta::base
