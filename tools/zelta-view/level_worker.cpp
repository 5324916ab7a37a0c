// SPDX-License-Identifier: Apache-2.0
#include "level_worker.h"

#include <cstdio>
#include <utility>

#include "level_meter.h"

namespace zelta::view {

std::optional<std::string> levels_of(const std::string& path, const level_cache& cache,
                                     const std::atomic<bool>& stop) {
  const std::string key = cache.key_of(path);
  if (auto kept = cache.find(key)) return kept;
  std::string error;
  auto levels = measure_levels(path, stop, error);
  if (levels) {
    cache.keep(key, *levels);
  } else if (!stop) {
    std::fprintf(stderr, "zelta-view: the sound of %s can't be measured: %s\n", path.c_str(),
                 error.c_str());
  }
  return levels;
}

level_worker::level_worker(level_cache cache)
    : cache_(std::move(cache)), thread_([this] { work(); }) {}

level_worker::~level_worker() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void level_worker::measure(std::string path, give to) {
  {
    const std::lock_guard lock(mutex_);
    orders_.push_back({std::move(path), std::move(to)});
  }
  changed_.notify_one();
}

void level_worker::work() {
  while (const auto one = next()) {
    const auto levels = levels_of(one->path, cache_, stop_);
    if (!stop_) one->to(levels);
  }
}

std::optional<level_worker::order> level_worker::next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stop_ || !orders_.empty(); });
  if (stop_) return std::nullopt;
  order one = std::move(orders_.front());
  orders_.pop_front();
  return one;
}

}  // namespace zelta::view
