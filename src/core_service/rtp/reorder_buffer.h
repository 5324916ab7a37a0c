// SPDX-License-Identifier: Apache-2.0
// Puts the packets of one stream in the order of their sequence numbers, without waiting for those
// that won't come. One thread; it has no clock and is told the time.
//
//   push 1   ──► 1
//   push 3        3 waits ─┐
//   push 2   ──► 2, 3      │ or, `patience` after 3 came: advance ──► 3, lost
//
// A packet that nothing is missing before is handed on as it lies. One that waits is copied into
// memory that the next ones use again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "core_service/media/timeline.h"

namespace zelta::core_service::rtp {

class reorder_buffer {
 public:
  // Beyond these, the oldest gap is given up.
  static constexpr size_t kMaxWaiting = 2048;
  static constexpr size_t kMaxWaitingBytes = size_t{4} << 20;

  struct ordered {
    int64_t sequence;
    const uint8_t* bytes;  // until the sink returns
    size_t size;
    media::media_time arrival;
    bool lost;  // at least one is missing right before this one
  };
  // Called from inside push(), advance(), finish() and restart(), none of which it may call.
  using sink = std::function<void(const ordered&)>;

  struct counters {
    uint64_t received = 0;    // all that were pushed
    uint64_t duplicates = 0;  // dropped
    uint64_t late = 0;        // dropped: their gap had been given up
    uint64_t lost = 0;        // given up, the late ones among them
    uint64_t reordered = 0;   // came behind one that they belong before, late or not
  };

  reorder_buffer(media::media_time patience, sink to);

  // `sequence`: extended past its wraps. `arrival` doesn't go back.
  void push(int64_t sequence, const uint8_t* bytes, size_t size, media::media_time arrival);
  // Gives up the gaps that have been waited for long enough.
  void advance(media::media_time now);
  // When advance() is due although nothing comes. None: nothing waits.
  std::optional<media::media_time> next_deadline() const;
  // Nothing comes any more: all that waits comes out.
  void finish();
  // The same, and the next packet begins a new order, with `lost` set.
  void restart();

  const counters& counts() const { return counts_; }
  size_t waiting() const { return waiting_; }

 private:
  using slot_id = int16_t;
  static constexpr slot_id kAbsent = -1;
  static constexpr slot_id kGone = -2;  // came, and isn't here any more

  // What waits, in the order of arrival; or memory that is free.
  struct slot {
    std::unique_ptr<uint8_t[]> memory;
    size_t capacity = 0;
    size_t size = 0;
    int64_t sequence = 0;
    media::media_time arrival{};
    slot_id before = kAbsent;
    slot_id behind = kAbsent;
  };

  // The ring has the states of the numbers from kRemembered before the next one on, so that a
  // duplicate of what went out is told from what comes too late.
  static constexpr int64_t kRing = 4096;
  static constexpr int64_t kRemembered = 1024;
  static constexpr int64_t kAhead = kRing - kRemembered;

  slot_id& state_of(int64_t sequence) { return ring_[static_cast<size_t>(sequence) % kRing]; }
  slot& at(slot_id id) { return slots_[static_cast<size_t>(id)]; }
  void begin(int64_t sequence);
  void drop_old(int64_t sequence);
  void hand_on(const ordered& one);
  void hand_on_waiting();
  void step_next(slot_id left_as);
  void skip_to(int64_t sequence);
  // Of the gap before the next one that is there, or before `limit`.
  void give_up_gap(int64_t limit);
  bool has_room(size_t bytes);
  void keep(int64_t sequence, const uint8_t* bytes, size_t size, media::media_time arrival);
  slot_id take_slot(size_t bytes);
  void release(slot_id id);

  const media::media_time patience_;
  const sink to_;
  counters counts_;
  bool begun_ = false;
  bool lost_ = false;    // before the next one
  int64_t next_ = 0;     // what is waited for
  int64_t highest_ = 0;  // that has come
  size_t waiting_ = 0;
  size_t waiting_bytes_ = 0;
  std::array<slot_id, kRing> ring_{};
  std::vector<slot> slots_;
  std::vector<slot_id> free_;
  slot_id oldest_ = kAbsent;
  slot_id newest_ = kAbsent;
};

}  // namespace zelta::core_service::rtp
