// SPDX-License-Identifier: Apache-2.0
// Measures volumes on a thread of its own, one file after the other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "level_cache.h"

namespace zelta::view {

class level_worker {
 public:
  // None when nothing could be decoded. Called on the worker's thread, and not after its end.
  using give = std::function<void(const std::optional<std::string>& levels)>;

  // Throws std::system_error when there is no thread to be had.
  explicit level_worker(level_cache cache);
  level_worker(const level_worker&) = delete;
  level_worker& operator=(const level_worker&) = delete;
  // What is being measured is given up, what waits isn't begun: their `give` isn't called.
  ~level_worker();

  // Any thread.
  void measure(std::string path, give to);

 private:
  struct order {
    std::string path;
    give to;
  };
  void work();
  std::optional<order> next();

  const level_cache cache_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<order> orders_;  // of mutex_
  std::thread thread_;
};

// From the cache, or measured and kept there; blocks. None when nothing could be decoded.
std::optional<std::string> levels_of(const std::string& path, const level_cache& cache,
                                     const std::atomic<bool>& stop);

}  // namespace zelta::view
