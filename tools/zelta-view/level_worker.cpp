// SPDX-License-Identifier: Apache-2.0
#include "level_worker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "complain.h"
#include "level_meter.h"
#include "recordings/regular_file.h"

namespace zelta::view {
namespace {

constexpr size_t kMostFailed = 10'000;

}  // namespace

std::optional<std::string> levels_of(const std::string& folder, const std::string& name,
                                     const level_cache& cache, std::set<std::string>& failed,
                                     const std::atomic<bool>& stop) {
  struct stat status {};
  const base::unique_fd file = recordings::open_regular(folder, name, status);
  std::string error;
  std::optional<std::string> levels;
  if (file.valid()) {
    const std::string key = level_cache::key_of(file.get());
    if (auto kept = cache.find(key)) return kept;
    if (failed.count(key) > 0) return std::nullopt;
    levels = measure_levels(file.get(), stop, error);
    if (levels) {
      cache.keep(key, *levels);
    } else if (!stop) {
      if (failed.size() >= kMostFailed) failed.clear();
      failed.insert(key);
    }
  } else {
    error = std::strerror(errno);
  }
  if (!levels && !stop) {
    complain("the sound of " + folder + name + " can't be measured: " + error);
  }
  return levels;
}

level_worker::level_worker(std::string folder, level_cache cache)
    : folder_(std::move(folder)), cache_(std::move(cache)), thread_([this] { work(); }) {}

level_worker::~level_worker() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

uint64_t level_worker::measure(const std::string& name, give to) {
  const std::lock_guard lock(mutex_);
  const uint64_t id = ++last_id_;
  const auto same = std::find_if(orders_.begin(), orders_.end(),
                                 [&name](const order& one) { return one.name == name; });
  if (begun_ && begun_->name == name) {
    begun_->to.emplace(id, std::move(to));
  } else if (same != orders_.end()) {
    same->to.emplace(id, std::move(to));
  } else {
    order fresh{name, {}};
    fresh.to.emplace(id, std::move(to));
    orders_.push_back(std::move(fresh));
    changed_.notify_one();
  }
  return id;
}

void level_worker::forget(uint64_t id) {
  const std::lock_guard lock(mutex_);
  if (begun_) begun_->to.erase(id);
  for (auto at = orders_.begin(); at != orders_.end(); ++at) {
    if (at->to.erase(id) == 0) continue;
    if (at->to.empty()) orders_.erase(at);
    return;
  }
}

void level_worker::work() {
  while (begin_next()) {
    const auto levels = levels_of_begun();
    for (const auto& [id, to] : end_begun()) {
      if (!stop_) to(id, levels);
    }
  }
}

std::optional<std::string> level_worker::levels_of_begun() {
  try {
    return levels_of(folder_, begun_->name, cache_, failed_, stop_);
  } catch (const std::exception& e) {
    complain("the sound of " + folder_ + begun_->name + " can't be measured: " + e.what());
    return std::nullopt;
  }
}

bool level_worker::begin_next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stop_ || !orders_.empty(); });
  if (stop_) return false;
  begun_ = std::move(orders_.front());
  orders_.pop_front();
  return true;
}

level_worker::waiting level_worker::end_begun() {
  const std::lock_guard lock(mutex_);
  waiting all = std::move(begun_->to);
  begun_.reset();
  return all;
}

}  // namespace zelta::view
