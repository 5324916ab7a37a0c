// SPDX-License-Identifier: Apache-2.0
// Measures volumes on a thread of its own, one file after the other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "level_cache.h"

namespace zelta::view {

class level_worker {
 public:
  // `id` is measure()'s; no levels when nothing could be decoded. Called on the worker's thread,
  // and not after its end.
  using give = std::function<void(uint64_t id, const std::optional<std::string>& levels)>;

  // `folder` ends in a slash. Throws std::system_error when there is no thread to be had.
  level_worker(std::string folder, level_cache cache);
  level_worker(const level_worker&) = delete;
  level_worker& operator=(const level_worker&) = delete;
  // What is being measured is given up, what waits isn't begun: their `give` isn't called.
  ~level_worker();

  // Any thread. A file of the folder, opened when its turn comes; whoever asks for one that waits
  // already waits for the same. Returns what forget() knows it by.
  uint64_t measure(const std::string& name, give to);
  // Any thread. `to` may be on its way; a file that nobody waits for any more isn't begun.
  void forget(uint64_t id);

 private:
  using waiting = std::map<uint64_t, give>;
  struct order {
    std::string name;
    waiting to;
  };
  void work();
  // Whose turn it is, which is then begun_; false at the end.
  bool begin_next();
  waiting end_begun();
  // None, too, when something was thrown.
  std::optional<std::string> levels_of_begun();

  const std::string folder_;
  const level_cache cache_;
  std::set<std::string> failed_;  // keys, of the worker's thread
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t last_id_ = 0;  // this and what follows: of mutex_
  std::deque<order> orders_;
  std::optional<order> begun_;  // its name is written by the worker's thread alone
  std::thread thread_;
};

// From the cache, or measured and kept there; blocks. None when nothing could be decoded, which is
// told on stderr, and then kept in `failed`, so that it isn't tried again.
std::optional<std::string> levels_of(const std::string& folder, const std::string& name,
                                     const level_cache& cache, std::set<std::string>& failed,
                                     const std::atomic<bool>& stop);

}  // namespace zelta::view
