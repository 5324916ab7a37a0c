// SPDX-License-Identifier: Apache-2.0
#include "link/packet_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "protocol/ipc_protocol.h"

namespace zelta::link {

using namespace base;
namespace {

// More gain nothing: the pipe has 256 places.
constexpr size_t kSpansAWrite = 64;
constexpr size_t kBlockBytes = 64 << 10;
// What the pipe can hold at most: past this, some of it must have been read.
constexpr size_t kHeldBytes = 1 << 20;
constexpr size_t kHeldEntries = 32;
// Kept to be filled again: what fits into the pipe, and as much again.
constexpr size_t kBlocks = 32;
// From here on pinning pages is cheaper than copying them; docs/bench has the measurement.
constexpr size_t kSpliceBytes = 8 << 10;
// Gathered packets are not kept back past this.
constexpr size_t kGatherBytes = 256 << 10;

}  // namespace

packet_writer::packet_writer(int fd, size_t queue_limit_bytes, large payloads)
    : fd_(fd), limit_(queue_limit_bytes), may_splice_(payloads == large::kSplice) {}

packet_writer::~packet_writer() {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!broken_) release_read_locked();
  if (in_pipe_.empty()) return;
  // A reader may take these out of the pipe after we are gone, and freed memory is soon somebody
  // else's. It is a pipe full at most, once a link.
  static std::mutex lock;
  static auto& kept = *std::make_unique<std::deque<entry>>().release();
  const std::lock_guard<std::mutex> kept_guard(lock);
  std::move(in_pipe_.begin(), in_pipe_.end(), std::back_inserter(kept));
}

packet_writer::result packet_writer::send(const packet& p, room wanted) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (broken_) return result::kBroken;
  packer_.reset();
  p.pack(packer_);
  const size_t bytes = packer_.length();
  if (wanted == room::kLimited && queued_bytes_ + bytes > limit_) return result::kRefused;
  std::memcpy(append_locked(bytes), packer_.buffer(), bytes);
  return added_locked(bytes, false);
}

packet_writer::result packet_writer::send_frame(const packet& p, payload data, bool replaceable) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (broken_) return result::kBroken;
  const size_t payload_bytes = data.bytes();
  const size_t position = kLengthPrefixBytes + *protocol::frame_payload_position(p.uri);
  packer_.reset();
  p.pack(packer_);
  const size_t bytes = packer_.length() + payload_bytes;
  if (queued_bytes_ + bytes > limit_) return result::kRefused;
  packer_.write(static_cast<uint32_t>(bytes), 0U);
  packer_.write(static_cast<uint32_t>(payload_bytes),
                static_cast<uint32_t>(position - sizeof(uint32_t)));
  const size_t rest = packer_.length() - position;
  if (!data.owner || (payload_bytes < kSpliceBytes && !replaceable)) {
    char* to = append_locked(bytes);
    const auto copy = [&to](const char* from, size_t size) {
      if (size > 0) std::memcpy(to, from, size);
      to += size;
    };
    copy(packer_.buffer(), position);
    for (const payload::span& span : data.spans) copy(span.data, span.bytes);
    copy(packer_.buffer() + position, rest);
    return added_locked(bytes, true);
  }
  entry added;
  const auto add = [&added](const char* from, size_t size) {
    added.spans[added.count++] = {from, size};
  };
  // Both ends of the packet stand in one block, or the first could be let go of too early.
  char* const ends = room_locked(packer_.length());
  std::memcpy(ends, packer_.buffer(), packer_.length());
  added.copied = blocks_.back();
  add(ends, position);
  for (const payload::span& span : data.spans) add(span.data, span.bytes);
  add(ends + position, rest);
  added.owner = std::move(data.owner);
  added.bytes = bytes;
  added.replaceable = replaceable;
  if (replaceable) replaceable_bytes_ += bytes;
  queued_bytes_ += bytes;
  queue_.push_back(std::move(added));
  return added_locked(bytes, true);
}

char* packet_writer::room_locked(size_t bytes) {
  if (blocks_.empty() || blocks_.back()->bytes.size() - blocks_.back()->filled < bytes) {
    start_block_locked(bytes);
  }
  block& current = *blocks_.back();
  char* const to = current.bytes.data() + current.filled;
  current.filled += bytes;
  return to;
}

void packet_writer::start_block_locked(size_t bytes) {
  // A long packet's block is not kept.
  blocks_.erase(std::remove_if(blocks_.begin(), blocks_.end(),
                               [](const auto& one) {
                                 return one.use_count() == 1 && one->bytes.size() > kBlockBytes;
                               }),
                blocks_.end());
  const auto unused = std::find_if(blocks_.begin(), blocks_.end(), [bytes](const auto& one) {
    return one.use_count() == 1 && one->bytes.size() >= bytes;
  });
  std::shared_ptr<block> next;
  if (unused != blocks_.end()) {
    next = std::move(*unused);
    next->filled = 0;
    blocks_.erase(unused);
  } else {
    next = std::make_shared<block>();
    next->bytes.resize(std::max(bytes, kBlockBytes));
    // Those that went to the queue are kept there.
    if (blocks_.size() == kBlocks) blocks_.erase(blocks_.begin());
  }
  blocks_.push_back(std::move(next));
}

// Room for a packet that is copied, at the end of the queue.
char* packet_writer::append_locked(size_t bytes) {
  queued_bytes_ += bytes;
  char* const to = room_locked(bytes);
  if (!queue_.empty() && !queue_.back().owner && queue_.back().copied == blocks_.back()) {
    entry& last = queue_.back();
    if (last.spans[0].data + last.spans[0].bytes == to) {
      last.spans[0].bytes += bytes;
      last.bytes += bytes;
      return to;
    }
  }
  entry added;
  added.spans[0] = {to, bytes};
  added.count = 1;
  added.bytes = bytes;
  added.copied = blocks_.back();
  queue_.push_back(std::move(added));
  return to;
}

// A reader that waits gets what was added at once. For one that is busy small frames are gathered,
// and those that come next write them: a promised flush may be late where its thread is held up.
packet_writer::result packet_writer::added_locked(size_t bytes, bool may_gather) {
  // The pipe was full a moment ago.
  if (queued_bytes_ - bytes >= kGatherBytes) return promise_locked(result::kQueued);
  if (may_gather && queued_bytes_ < kGatherBytes &&
      std::chrono::steady_clock::now() - last_write_ < kGatherTime) {
    return promise_locked(result::kGathering);
  }
  return promise_locked(flush_locked());
}

packet_writer::result packet_writer::promise_locked(result how) {
  if (how != result::kQueued && how != result::kGathering) return how;
  bool& promised = how == result::kQueued ? flush_promised_ : gather_promised_;
  return std::exchange(promised, true) ? result::kDone : how;
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
    freed += next->bytes;
    next = queue_.erase(next);
    ++dropped;
  }
  queued_bytes_ -= freed;
  replaceable_bytes_ -= freed;
  return dropped;
}

packet_writer::result packet_writer::flush() {
  const std::lock_guard<std::mutex> guard(mutex_);
  gather_promised_ = false;
  const result how = flush_locked();
  flush_promised_ = how == result::kQueued;
  return how;
}

void packet_writer::close() {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!broken_) release_read_locked();
  drop_locked();
}

packet_writer::result packet_writer::flush_locked() {
  // Not each time: asking the pipe takes its lock, which the reader wants too.
  if (held_bytes_ >= kHeldBytes || in_pipe_.size() >= kHeldEntries) release_read_locked();
  while (!queue_.empty()) {
    iovec parts[kSpansAWrite];
    size_t bytes = 0;
    const size_t count = collect_locked(parts, bytes);
    bool spliced = false;
    const long written = put_locked(parts, count, bytes, spliced);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return result::kQueued;
      // Nobody reads, so nobody can see what becomes of the memory in the pipe.
      drop_locked();
      in_pipe_.clear();
      held_bytes_.set(0);
      return result::kBroken;
    }
    last_write_ = std::chrono::steady_clock::now();
    advance_locked(static_cast<size_t>(written), spliced);
  }
  return broken_ ? result::kBroken : result::kDone;
}

size_t packet_writer::collect_locked(iovec* parts, size_t& bytes) const {
  size_t count = 0;
  size_t skip = front_written_;
  for (const entry& waiting : queue_) {
    for (size_t i = 0; i < waiting.count; ++i) {
      const payload::span& span = waiting.spans[i];
      const size_t skipped = std::min(skip, span.bytes);
      skip -= skipped;
      if (skipped == span.bytes) continue;
      parts[count++] = {const_cast<char*>(span.data) + skipped, span.bytes - skipped};
      bytes += span.bytes - skipped;
      if (count == kSpansAWrite) return count;
    }
  }
  return count;
}

// As write does; says whether the bytes were spliced.
long packet_writer::put_locked(iovec* parts, size_t count, size_t bytes, bool& spliced) {
  if (may_splice_ && bytes >= kSpliceBytes) {
    const ssize_t put = ::vmsplice(fd_, parts, count, SPLICE_F_NONBLOCK);
    spliced = put > 0;
    if (put >= 0 || errno == EINTR || errno == EAGAIN || errno == EPIPE) return put;
    // Not a pipe, or memory that has no pages to pin: from here on everything is copied.
    may_splice_ = false;
  }
  return ::writev(fd_, parts, static_cast<int>(count));
}

void packet_writer::advance_locked(size_t bytes, bool spliced) {
  queued_bytes_ -= bytes;
  written_ += bytes;
  front_written_ += bytes;
  for (size_t left = bytes; left > 0;) {
    entry& front = queue_.front();
    front.spliced = front.spliced || spliced;
    if (front_written_ < front.bytes) return;
    front_written_ -= front.bytes;
    left = std::min(left, front_written_);
    if (front.replaceable) replaceable_bytes_ -= front.bytes;
    if (front.spliced) {
      front.end = written_ - front_written_;
      hold_locked(std::move(front));
    }
    queue_.pop_front();
  }
}

void packet_writer::hold_locked(entry spliced) {
  held_bytes_ += spliced.bytes;
  in_pipe_.push_back(std::move(spliced));
}

void packet_writer::release_read_locked() {
  int unread = 0;
  // What can't be asked is taken to be unread.
  if (in_pipe_.empty() || ::ioctl(fd_, FIONREAD, &unread) != 0) return;
  const uint64_t read = written_ - static_cast<uint64_t>(unread);
  while (!in_pipe_.empty() && in_pipe_.front().end <= read) {
    held_bytes_ -= in_pipe_.front().bytes;
    in_pipe_.pop_front();
  }
}

void packet_writer::drop_locked() {
  broken_ = true;
  // Part of it may be in the pipe.
  if (!queue_.empty() && queue_.front().spliced) {
    queue_.front().end = written_;
    hold_locked(std::move(queue_.front()));
  }
  queue_.clear();
  queued_bytes_.set(0);
  replaceable_bytes_.set(0);
  front_written_ = 0;
}

}  // namespace zelta::link
