// SPDX-License-Identifier: Apache-2.0
// One user's sound, or the mix's, as samples without a gap or an overlap.
//
// What comes in stands where its time says; what goes out is contiguous, so that nothing behind it
// has to think about time. A gap becomes silence, an overlap is left out, and a drift of the
// sender's clock is taken back before anybody can hear it against the picture.
//
// Thread rule: any thread. A sink is called by the thread that feeds or cuts the line, one call at
// a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

constexpr int kSampleRate = 48'000;
// What goes out goes in blocks of one size, except for what is left at an end: 20 ms for who waits
// for it, 100 ms for a file, which saves threads most of their waking up.
constexpr size_t kFrameBlock = kSampleRate / 50;
constexpr size_t kFileBlock = kSampleRate / 10;

// Where a stretch of the line goes. A frame is one sample of every channel, 16 bits each.
class sound_sink {
 public:
  virtual ~sound_sink() = default;
  virtual void on_sound(media_time time, const int16_t* samples, size_t frames) = 0;
  // The stretch ends here; nothing comes any more.
  virtual void on_sound_end() = 0;
};

class sound_line {
 public:
  // Gaps up to `longest_gap` stay gaps in the times of what goes out; 0: none does. A file's sound
  // must never stop for long, or what stands beside it would wait with it.
  // `block` in samples a channel.
  sound_line(size_t channels, media_time longest_gap, size_t block)
      : channels_(channels), longest_gap_(longest_gap), block_frames_(block) {}

  // Interleaved samples that were captured at `time`. Before start() they are kept, the last five
  // seconds of them.
  void push(media_time time, const int16_t* samples, size_t frames);
  // Time of the first samples that are kept; none: nothing has come.
  std::optional<media_time> first_kept() const;
  // Time at which the latest samples ended; none: nothing has come.
  std::optional<media_time> last_heard() const;
  // Begins a stretch at `from`: with silence where nothing is kept from then.
  void start(media_time from, std::shared_ptr<sound_sink> to);
  // Everything from `at` on goes to `next`; null: the stretch ends there. Takes effect when the
  // line has come so far.
  void cut(media_time at, std::shared_ptr<sound_sink> next);
  // Silence up to `until`, where nothing has come.
  void fill_to(media_time until);
  // How far the stretch has come; none: none is open.
  std::optional<media_time> position() const;

 private:
  struct piece {
    media_time time;
    std::vector<int16_t> samples;
  };
  struct planned_cut {
    media_time at;
    std::shared_ptr<sound_sink> next;
  };

  void place_locked(media_time time, const int16_t* samples, size_t frames);
  void emit_locked(const int16_t* samples, size_t frames);
  void silence_locked(size_t frames);
  void append_locked(const int16_t* samples, size_t frames);
  void flush_locked();
  void switch_locked();
  size_t frames_before_cut_locked() const;
  media_time position_locked() const;

  const size_t channels_;
  const media_time longest_gap_;
  const size_t block_frames_;
  mutable std::mutex mutex_;
  std::deque<piece> kept_;
  std::optional<media_time> last_heard_;
  std::shared_ptr<sound_sink> sink_;
  std::deque<planned_cut> cuts_;
  // Where the stretch, or its part since the last gap, began and how much of it has come.
  media_time origin_{};
  int64_t frames_ = 0;
  // The next sound follows silence or a beginning, so it can be placed to the sample.
  bool exact_ = true;
  std::vector<int16_t> block_;
};

}  // namespace zelta::core_service::media
