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

packet_writer::result packet_writer::send(std::vector<char> bytes, bool always, bool replaceable) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (broken_) return result::kBroken;
  if (!always && queued_bytes_ + bytes.size() > limit_) return result::kRefused;
  const bool idle = queue_.empty();
  queued_bytes_ += bytes.size();
  if (replaceable) replaceable_bytes_ += bytes.size();
  queue_.push_back({std::move(bytes), replaceable});
  return idle ? flush_locked() : result::kQueued;
}

size_t packet_writer::drop_replaceable(size_t bytes) {
  const std::lock_guard<std::mutex> guard(mutex_);
  size_t dropped = 0;
  size_t freed = 0;
  // A packet of which some is in the pipe already has to be written to its end.
  auto next = queue_.begin() + (front_written_ > 0 ? 1 : 0);
  while (next != queue_.end() && freed < bytes) {
    if (!next->replaceable) {
      ++next;
      continue;
    }
    freed += next->bytes.size();
    next = queue_.erase(next);
    ++dropped;
  }
  queued_bytes_ -= freed;
  replaceable_bytes_ -= freed;
  return dropped;
}

size_t packet_writer::replaceable_bytes() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return replaceable_bytes_;
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
      parts[count++] = {packet.bytes.data() + skip, packet.bytes.size() - skip};
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
    while (!queue_.empty() && front_written_ >= queue_.front().bytes.size()) {
      front_written_ -= queue_.front().bytes.size();
      if (queue_.front().replaceable) replaceable_bytes_ -= queue_.front().bytes.size();
      queue_.pop_front();
    }
  }
  return broken_ ? result::kBroken : result::kWritten;
}

void packet_writer::drop_locked() {
  broken_ = true;
  queue_.clear();
  queued_bytes_ = 0;
  replaceable_bytes_ = 0;
  front_written_ = 0;
}

}  // namespace zelta::base
