// SPDX-License-Identifier: Apache-2.0
// One user's sound as it came: packets of Opus without a gap or an overlap, none of them decoded
// unless one was lost.
//
// What comes in stands where its time says; what goes out is contiguous, each unit beginning where
// the one before ended, as with a sound line. Coded sound can't be cut at a sample, so everything
// is a whole packet, or silence in steps of 2.5 ms:
//
//     a gap       becomes silence, but for what the packet behind it says of its last frame
//     an overlap  is left out, when it is the larger part of a packet
//     drift       is taken back once the sender is away: 5 ms, by one step of silence, or half a
//                 packet, by one that is left out
//
// Frames of other sizes, bandwidths and channels just go through.
//
// Thread rule: one thread at a time. Sinks are called from inside and don't call the line.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>

#include "core_service/media/encoded_unit.h"
#include "core_service/media/opus_packet.h"

namespace zelta::core_service::media {

// Where a stretch of the line goes.
class opus_sink {
 public:
  virtual ~opus_sink() = default;
  virtual void on_sound(const encoded_unit& unit) = 0;
  // The stretch ends here; nothing comes any more.
  virtual void on_sound_end() = 0;
};

class opus_line {
 public:
  struct counters {
    int64_t packets = 0;   // that went out as they came
    int64_t invalid = 0;   // left out: not Opus
    int64_t late = 0;      // left out: others, or silence, had their place
    int64_t dropped = 0;   // left out for the sender's clock, which is fast
    int64_t inserted = 0;  // times that silence was put in for one that is slow
    media_time inserted_time{};
    int64_t repaired = 0;  // that were lost and are made of what the next ones say of them
    media_time filled{};   // silence for everything else
  };

  // `format` is what all units have.
  explicit opus_line(format_ptr format) : format_(std::move(format)) {}

  // A packet that was captured at `time`. Before start() they are kept, those of the last five
  // seconds. `after_loss`: one before it was lost.
  void push(media_time time, const shared_bytes& packet, bool after_loss = false);
  // Time of the first packet that is kept; none: there is none.
  std::optional<media_time> first_kept() const;
  // Time at which the latest packet ended; none: nothing has come.
  std::optional<media_time> last_heard() const { return last_heard_; }
  // Begins a stretch at `from`: with silence where nothing is kept from then.
  void start(media_time from, std::shared_ptr<opus_sink> to);
  // Everything from `at` on goes to `next`; null: the stretch ends there. Takes effect when the
  // line has come so far. A packet that lies on both sides goes where its larger part is, and the
  // next stretch begins where that leaves it, so at most half a packet from `at`.
  void cut(media_time at, std::shared_ptr<opus_sink> next);
  // Silence up to `until`, to the nearest step, where nothing has come.
  void fill_to(media_time until);
  // How far the stretch has come; none: none is open.
  std::optional<media_time> position() const;

  const counters& counted() const { return counted_; }

 private:
  struct piece {
    media_time time;
    shared_bytes bytes;
    opus_packet about;
    bool after_loss = false;
  };
  struct planned_cut {
    media_time at;
    std::shared_ptr<opus_sink> next;
  };

  void keep(const piece& packet);
  void place(const piece& packet);
  void repair_before(const piece& packet);
  bool put(const piece& packet);
  bool is_left_out(const piece& packet);
  void fill_before(const piece& packet);
  void silence(int64_t steps, media_time& counted);
  void emit(const shared_bytes& bytes, media_time duration);
  void switch_before(media_time duration);

  const format_ptr format_;
  std::list<piece> kept_;
  std::optional<media_time> last_heard_;
  std::shared_ptr<opus_sink> sink_;
  std::deque<planned_cut> cuts_;
  media_time position_{};
  // The next packet follows silence or a beginning, so it can be placed to the step.
  bool exact_ = true;
  // The sender's clock, by what had to be done about it last.
  bool is_fast_ = false;
  // Of the last packet that went out: its end by its own time, and what silence is to be like.
  media_time last_end_{};
  opus_packet last_;
  shared_bytes last_bytes_;
  // Until then nothing is repaired: it takes a thousand times what copying a packet does.
  media_time repaired_until_{};
  counters counted_;
};

}  // namespace zelta::core_service::media
