// SPDX-License-Identifier: Apache-2.0
#include "base/packet_writer.h"

#include <algorithm>
#include <cerrno>

#include <sys/uio.h>
#include <unistd.h>

namespace zelta::base {
namespace {

// More gain nothing: the pipe holds a few hundred small packets.
constexpr size_t kPacketsAWrite = 64;

}  // namespace

packet_writer::result packet_writer::send(std::vector<char> bytes, bool always) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (broken_) return result::kBroken;
  if (!always && queued_bytes_ + bytes.size() > limit_) return result::kRefused;
  const bool idle = queue_.empty();
  queued_bytes_ += bytes.size();
  queue_.push_back(std::move(bytes));
  return idle ? flush_locked() : result::kQueued;
}

packet_writer::result packet_writer::flush() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return flush_locked();
}

void packet_writer::close() {
  const std::lock_guard<std::mutex> guard(mutex_);
  drop_locked();
}

size_t packet_writer::queued_bytes() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return queued_bytes_;
}

packet_writer::result packet_writer::flush_locked() {
  while (!queue_.empty()) {
    iovec parts[kPacketsAWrite];
    size_t count = 0;
    for (auto& packet : queue_) {
      const size_t skip = count == 0 ? front_written_ : 0;
      parts[count++] = {packet.data() + skip, packet.size() - skip};
      if (count == kPacketsAWrite) break;
    }
    const ssize_t written = ::writev(fd_, parts, static_cast<int>(count));
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return result::kQueued;
      drop_locked();
      return result::kBroken;
    }
    queued_bytes_ -= static_cast<size_t>(written);
    front_written_ += static_cast<size_t>(written);
    while (!queue_.empty() && front_written_ >= queue_.front().size()) {
      front_written_ -= queue_.front().size();
      queue_.pop_front();
    }
  }
  return broken_ ? result::kBroken : result::kWritten;
}

void packet_writer::drop_locked() {
  broken_ = true;
  queue_.clear();
  queued_bytes_ = 0;
  front_written_ = 0;
}

}  // namespace zelta::base
