// SPDX-License-Identifier: Apache-2.0
// The mutex of the base services.
#pragma once

#include <mutex>

namespace zelta::base {

// Non-recursive. Works with std::lock_guard.
class Mutexer {
 public:
  Mutexer() = default;
  ~Mutexer() = default;
  Mutexer(const Mutexer&) = delete;
  Mutexer& operator=(const Mutexer&) = delete;

  void lock() { mutex_.lock(); }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

}  // namespace zelta::base
