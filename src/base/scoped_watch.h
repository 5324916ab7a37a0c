// SPDX-License-Identifier: Apache-2.0
// A descriptor that a loop watches for as long as somebody wants it. A watch of a descriptor has to
// stop before another one of the same begins.
//
// On the loop's thread, or while the loop doesn't run: on another one, a call may be running.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "base/event_loop.h"

namespace zelta::base {

class scoped_watch {
 public:
  // What is empty is of no interest. Each may stop or destroy the watch.
  struct calls {
    std::function<void()> readable;
    // Comes while event_loop::want_write() asks for it.
    std::function<void()> writable = nullptr;
    // With the error bits that poll reported.
    std::function<void(int events)> failed = nullptr;
  };

  // None.
  scoped_watch() = default;
  // As event_loop::add_watcher() has it; watches nothing when `fd` is watched already, or invalid.
  // The loop is borrowed and must outlive the watch, `fd` stays open until it has stopped.
  scoped_watch(event_loop& loop, int fd, calls told)
      : loop_(&loop), fd_(fd), calls_(std::make_shared<held_calls>()) {
    calls_->told = std::move(told);
    calls_->self = calls_;
    const calls& to = calls_->told;
    const bool added =
        loop.add_watcher(fd, calls_.get(), to.readable ? on_readable : nullptr,
                         to.writable ? on_writable : nullptr, to.failed ? on_failed : nullptr) == 0;
    if (!added) fd_ = -1;
  }
  scoped_watch(scoped_watch&& other) noexcept { *this = std::move(other); }
  scoped_watch& operator=(scoped_watch&& other) noexcept {
    stop();
    loop_ = other.loop_;
    fd_ = std::exchange(other.fd_, -1);
    calls_ = std::move(other.calls_);
    return *this;
  }
  ~scoped_watch() { stop(); }

  void stop() {
    if (fd_ >= 0) loop_->remove_watcher(std::exchange(fd_, -1));
    calls_.reset();
  }

 private:
  // Held during a call, which may destroy the watch.
  struct held_calls {
    calls told;
    std::weak_ptr<held_calls> self;
  };
  static std::shared_ptr<held_calls> hold(void* context) {
    return static_cast<held_calls*>(context)->self.lock();
  }
  static void on_readable(int, void* context) { hold(context)->told.readable(); }
  static void on_writable(int, void* context) { hold(context)->told.writable(); }
  static void on_failed(int, void* context, int events) { hold(context)->told.failed(events); }

  event_loop* loop_ = nullptr;
  int fd_ = -1;
  std::shared_ptr<held_calls> calls_;
};

}  // namespace zelta::base
