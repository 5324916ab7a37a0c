// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/state_writer.h"

#include <cerrno>
#include <utility>

#include "core_service/folder/atomic_file.h"

namespace zelta::core_service {

state_writer::state_writer(std::function<void(const std::string& path, int error)> failed)
    : failed_(std::move(failed)), thread_([this] { run(); }) {}

state_writer::~state_writer() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    over_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void state_writer::replace(const std::string& path, std::string text) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    waiting_[path] = std::move(text);
  }
  changed_.notify_all();
}

int state_writer::flush(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(lock_);
  const bool done =
      changed_.wait_for(lock, limit, [this] { return waiting_.empty() && !writing_; });
  return done ? std::exchange(error_, 0) : ETIMEDOUT;
}

void state_writer::run() {
  std::unique_lock<std::mutex> lock(lock_);
  for (;;) {
    changed_.wait(lock, [this] { return over_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    const auto next = waiting_.extract(waiting_.begin());
    writing_ = true;
    lock.unlock();
    const int error = replace_file(next.key(), next.mapped(), sync::kYes) ? 0 : errno;
    if (error != 0 && failed_) failed_(next.key(), error);
    lock.lock();
    if (error != 0) error_ = error;
    writing_ = false;
    changed_.notify_all();
  }
}

}  // namespace zelta::core_service
