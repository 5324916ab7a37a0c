// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/reorder_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zelta::core_service::rtp {
namespace {

// Enough for what Ethernet carries. Memory of larger packets isn't kept for others: few come, and a
// burst of them would make every small one that waits later as expensive.
constexpr size_t kUsualBytes = 2048;

size_t room_for(size_t bytes) {
  return std::max(bytes, kUsualBytes);
}

}  // namespace

reorder_buffer::reorder_buffer(media::media_time patience, sink to)
    : patience_(patience), to_(std::move(to)) {}

void reorder_buffer::push(int64_t sequence, const uint8_t* bytes, size_t size,
                          media::media_time arrival) {
  ++counts_.received;
  if (!begun_) begin(sequence);
  if (sequence < next_) {
    drop_old(sequence);
  } else {
    while (sequence - next_ >= kAhead) give_up_gap(sequence);
    if (state_of(sequence) != kAbsent) {
      ++counts_.duplicates;
    } else {
      if (sequence < highest_) ++counts_.reordered;
      highest_ = std::max(highest_, sequence);
      while (sequence != next_ && !has_room(size)) give_up_gap(sequence);
      if (sequence == next_) {
        hand_on({sequence, bytes, size, arrival, false});
        hand_on_waiting();
      } else {
        keep(sequence, bytes, size, arrival);
      }
    }
  }
  // Only now: what comes in the last moment isn't late.
  advance(arrival);
}

void reorder_buffer::advance(media::media_time now) {
  // All that waits is behind the first gap, so who has waited longest says how long it has been
  // one.
  while (waiting_ > 0 && at(oldest_).arrival + patience_ <= now) give_up_gap(highest_);
}

std::optional<media::media_time> reorder_buffer::next_deadline() const {
  if (waiting_ == 0) return std::nullopt;
  return slots_[static_cast<size_t>(oldest_)].arrival + patience_;
}

void reorder_buffer::finish() {
  while (waiting_ > 0) give_up_gap(highest_);
}

void reorder_buffer::restart() {
  finish();
  lost_ = begun_;
  begun_ = false;
}

void reorder_buffer::begin(int64_t sequence) {
  ring_.fill(kAbsent);
  begun_ = true;
  next_ = sequence;
  highest_ = sequence;
}

void reorder_buffer::drop_old(int64_t sequence) {
  const bool remembered = next_ - sequence <= kRemembered;
  if (remembered && state_of(sequence) == kGone) {
    ++counts_.duplicates;
    return;
  }
  ++counts_.late;
  ++counts_.reordered;
  if (remembered) state_of(sequence) = kGone;
}

void reorder_buffer::hand_on(const ordered& one) {
  step_next(kGone);
  ordered told = one;
  told.lost = std::exchange(lost_, false);
  to_(told);
}

void reorder_buffer::hand_on_waiting() {
  while (waiting_ > 0 && state_of(next_) >= 0) {
    const slot_id id = state_of(next_);
    const slot& one = at(id);
    hand_on({one.sequence, one.memory.get(), one.size, one.arrival, false});
    release(id);
  }
}

void reorder_buffer::step_next(slot_id left_as) {
  state_of(next_) = left_as;
  // It comes into sight where what is forgotten now was.
  state_of(next_ + kAhead) = kAbsent;
  ++next_;
}

void reorder_buffer::skip_to(int64_t sequence) {
  if (sequence == next_) return;
  lost_ = true;
  counts_.lost += static_cast<uint64_t>(sequence - next_);
  if (sequence - next_ >= kRing) {
    begin(sequence);
    return;
  }
  while (next_ < sequence) step_next(kAbsent);
}

void reorder_buffer::give_up_gap(int64_t limit) {
  int64_t there = next_;
  if (waiting_ == 0) {
    there = limit;
  } else {
    while (there < limit && state_of(there) < 0) ++there;
  }
  skip_to(there);
  hand_on_waiting();
}

bool reorder_buffer::has_room(size_t bytes) {
  return waiting_ == 0 ||
         (waiting_ < kMaxWaiting && waiting_bytes_ + room_for(bytes) <= kMaxWaitingBytes);
}

void reorder_buffer::keep(int64_t sequence, const uint8_t* bytes, size_t size,
                          media::media_time arrival) {
  const slot_id id = take_slot(size);
  slot& one = at(id);
  if (size > 0) std::memcpy(one.memory.get(), bytes, size);
  one.size = size;
  one.sequence = sequence;
  one.arrival = arrival;
  one.before = newest_;
  one.behind = kAbsent;
  (newest_ == kAbsent ? oldest_ : at(newest_).behind) = id;
  newest_ = id;
  state_of(sequence) = id;
  ++waiting_;
}

reorder_buffer::slot_id reorder_buffer::take_slot(size_t bytes) {
  if (free_.empty()) {
    free_.push_back(static_cast<slot_id>(slots_.size()));
    slots_.emplace_back();
  }
  // The one that was used last: its memory is in the caches, and a calm stream needs few.
  const slot_id id = free_.back();
  free_.pop_back();
  slot& one = at(id);
  if (one.capacity < bytes || one.capacity == 0) {
    one.capacity = room_for(bytes);
    one.memory.reset(new uint8_t[one.capacity]);
  }
  waiting_bytes_ += one.capacity;
  return id;
}

void reorder_buffer::release(slot_id id) {
  slot& one = at(id);
  (one.before == kAbsent ? oldest_ : at(one.before).behind) = one.behind;
  (one.behind == kAbsent ? newest_ : at(one.behind).before) = one.before;
  waiting_bytes_ -= one.capacity;
  --waiting_;
  if (one.capacity > kUsualBytes) {
    one.memory.reset();
    one.capacity = 0;
  }
  free_.push_back(id);
}

}  // namespace zelta::core_service::rtp
