// SPDX-License-Identifier: Apache-2.0
// The sending end of a link: writes at once what the reader waits for and queues the rest.
//
// What is small is copied, and gathered into as few writes as possible while the reader is busy.
// Large payloads are handed to the pipe as they stand in memory (vmsplice): nothing copies them on
// this side, so they are held, and stay as they are, until the reader has taken them out of the
// pipe.
//
//     send() ─▶ queue_ ─▶ flush() ─▶ pipe ─▶ reader
//                 └──── in_pipe_ ─────┘  spliced, not read yet
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "base/packet.h"
#include "link/payload.h"

struct iovec;

namespace zelta::link {

// Writes whole packets to a non-blocking pipe, in the order of send(). Any thread may call any
// method; none blocks. The descriptor is borrowed.
class packet_writer {
 public:
  // What is left to do for the caller. Each is told once, until flush() is called.
  enum class result {
    kDone,       // nothing
    kQueued,     // call flush() when the pipe is writable
    kGathering,  // call flush() in kGatherTime
    kRefused,    // the queue holds its limit
    kBroken,     // nobody reads any more; everything is dropped from here on
  };
  // The reader of a packet that was written less than this ago is awake and busy: small frames are
  // kept back for those that follow.
  static constexpr std::chrono::microseconds kGatherTime{500};

  enum class room {
    kLimited,  // refused past the limit
    kAlways,   // past the limit as well
  };

  // Whether large payloads may be spliced. Where the system or the descriptor can't, they are
  // written plainly.
  enum class large { kWrite, kSplice };

  // `queue_limit_bytes` bounds what waits here.
  packet_writer(int fd, size_t queue_limit_bytes, large payloads);
  packet_writer(const packet_writer&) = delete;
  packet_writer& operator=(const packet_writer&) = delete;
  // What the reader has not taken out of the pipe yet is never freed: it may still be read.
  ~packet_writer();

  // Written at once if there is room, with what was gathered before it: whoever sends a control
  // packet may stop its loop the next moment, and nobody would flush.
  result send(const base::packet& p, room wanted);
  // A frame, which may be gathered, whose own `data` is empty, with `data` in its place. One that
  // is `replaceable` may be dropped by drop_replaceable() while it waits.
  result send_frame(const base::packet& p, payload data, bool replaceable);
  // Drops the oldest replaceable packets that wait until `bytes` are free of them, or none is left.
  // Returns how many were dropped.
  size_t drop_replaceable(size_t bytes);
  // Bytes of the replaceable packets that wait.
  size_t replaceable_bytes() const { return replaceable_bytes_; }
  // Writes on as far as the pipe takes it.
  result flush();
  // Drops what waits and refuses everything from here on; the descriptor is not used any more.
  void close();
  // Bytes that wait.
  size_t queued_bytes() const { return queued_bytes_; }
  // Bytes that are in the pipe in the memory of their owners.
  size_t held_bytes() const { return held_bytes_; }

 private:
  // Storage for what is copied: filled from front to back, and not again before the reader has
  // taken everything in it.
  struct block {
    std::vector<char> bytes;
    size_t filled = 0;
  };
  // Stretches that go out together: one frame with its payload, or the packets gathered in a block.
  struct entry {
    static constexpr size_t kMaxSpans = 5;  // head, three stretches of payload, rest
    std::array<payload::span, kMaxSpans> spans{};
    size_t count = 0;
    size_t bytes = 0;
    std::shared_ptr<const block> copied;
    std::shared_ptr<const void> owner;
    bool replaceable = false;
    bool spliced = false;
    // Position in the stream, set when all of it is in the pipe.
    uint64_t end = 0;
  };

  // Changed under the lock, read by anybody: a plain store is enough, and cheaper than what would
  // keep two writers apart.
  class gauge {
   public:
    // NOLINTNEXTLINE(google-explicit-constructor): it is used as the number that it is
    operator size_t() const { return value_.load(std::memory_order_relaxed); }
    gauge& operator+=(size_t more) { return set(*this + more); }
    gauge& operator-=(size_t less) { return set(*this - less); }
    gauge& set(size_t value) { return value_.store(value, std::memory_order_relaxed), *this; }

   private:
    std::atomic<size_t> value_{0};
  };

  char* room_locked(size_t bytes);
  void start_block_locked(size_t bytes);
  char* append_locked(size_t bytes);
  result added_locked(size_t bytes, bool may_gather);
  result promise_locked(result how);
  result flush_locked();
  size_t collect_locked(iovec* parts, size_t& bytes) const;
  long put_locked(iovec* parts, size_t count, size_t bytes, bool& spliced);
  void advance_locked(size_t bytes, bool spliced);
  void hold_locked(entry spliced);
  void release_read_locked();
  void drop_locked();

  const int fd_;
  const size_t limit_;
  mutable std::mutex mutex_;
  std::deque<entry> queue_;
  std::deque<entry> in_pipe_;
  // Those that nothing refers to any more are filled again; the last is being filled.
  std::vector<std::shared_ptr<block>> blocks_;
  base::packer packer_;
  // Bytes of the first entry that are in the pipe already.
  size_t front_written_ = 0;
  gauge queued_bytes_;
  gauge replaceable_bytes_;
  gauge held_bytes_;
  // What the caller has been told to do and has not done yet.
  bool flush_promised_ = false;
  bool gather_promised_ = false;
  uint64_t written_ = 0;
  std::chrono::steady_clock::time_point last_write_{};
  bool may_splice_;
  bool broken_ = false;
};

}  // namespace zelta::link
