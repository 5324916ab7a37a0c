// SPDX-License-Identifier: Apache-2.0
// The sending end of a link: writes at once what fits and queues the rest.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace zelta::base {

// Writes whole packets to a non-blocking pipe, in the order of send(). Any thread may call any
// method; none blocks. The descriptor is borrowed.
class packet_writer {
 public:
  enum class result {
    kWritten,  // all of it is in the pipe
    kQueued,   // some of it waits: call flush() when the pipe is writable
    kRefused,  // the queue holds its limit
    kBroken,   // nobody reads any more; everything is dropped from here on
  };

  // `queue_limit_bytes` bounds what waits here.
  packet_writer(int fd, size_t queue_limit_bytes) : fd_(fd), limit_(queue_limit_bytes) {}

  // `bytes` is one complete packet. `always` lets it past the limit.
  result send(std::vector<char> bytes, bool always) {
    return send(std::move(bytes), always, false);
  }
  // A packet that is `replaceable` may be dropped by drop_replaceable() while it waits.
  result send(std::vector<char> bytes, bool always, bool replaceable);
  // Drops the oldest replaceable packets that wait until `bytes` are free of them, or none is left.
  // Returns how many were dropped.
  size_t drop_replaceable(size_t bytes);
  // Bytes of the replaceable packets that wait.
  size_t replaceable_bytes() const;
  // Writes on as far as the pipe takes it.
  result flush();
  // Drops what waits and refuses everything from here on; the descriptor is not used any more.
  void close();
  // Bytes that wait.
  size_t queued_bytes() const;

 private:
  struct waiting {
    std::vector<char> bytes;
    bool replaceable;
  };

  result flush_locked();
  void drop_locked();

  const int fd_;
  const size_t limit_;
  mutable std::mutex mutex_;
  std::deque<waiting> queue_;
  // Bytes of the first packet that are in the pipe already.
  size_t front_written_ = 0;
  size_t queued_bytes_ = 0;
  size_t replaceable_bytes_ = 0;
  bool broken_ = false;
};

}  // namespace zelta::base
