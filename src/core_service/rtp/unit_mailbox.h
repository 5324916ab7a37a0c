// SPDX-License-Identifier: Apache-2.0
// The way of all units from the packet thread to the loop's: one waking up for all that have come
// since the loop was there last, however many users send.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <variant>
#include <vector>

#include "base/poster.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/user_text.h"

namespace zelta::core_service::rtp {

class unit_mailbox {
 public:
  // What isn't media.
  using note = std::variant<media::user_text, missing_medium>;

  // All on the loop's thread, in the order of putting.
  struct reader {
    std::function<void(int track, const media::encoded_unit& unit)> unit;
    std::function<void(int track)> ended;
    std::function<void(const note& what)> noted;
    std::function<void(uint64_t lost_packets, bool unread)> stopped;
  };

  // The loop is borrowed, and given back for its other work after a `turn`.
  explicit unit_mailbox(base::event_loop& loop, media::media_time turn = kTurn)
      : poster_(loop), turn_(turn) {}
  unit_mailbox(const unit_mailbox&) = delete;
  unit_mailbox& operator=(const unit_mailbox&) = delete;

  // Any thread; `whom` is what new_reader() gave.
  void put(uint64_t whom, int track, media::encoded_unit&& unit);
  void put_end(uint64_t whom, int track);
  void put_note(uint64_t whom, note&& what);
  void put_stopped(uint64_t whom, uint64_t lost_packets, bool unread);
  // Any thread: so much waits that nothing more should be put. It isn't refused.
  bool is_full() const { return waiting_bytes_ > kMostBytes; }

  // The rest is for the loop's thread.
  uint64_t new_reader() { return ++last_reader_; }
  void enter(uint64_t who, reader told);
  // How long a unit has waited here, the longest since the last call.
  media::media_time take_behind();
  // Nothing comes any more.
  void leave(uint64_t whom) { readers_.erase(whom); }

 private:
  static constexpr media::media_time kTurn = std::chrono::milliseconds(50);
  // Some seconds of hundreds of users.
  static constexpr size_t kMostBytes = size_t{64} << 20;

  enum class kind { kUnit, kEnd, kNote, kStopped };
  struct letter {
    kind is = kind::kUnit;
    uint64_t whom = 0;
    int track = 0;
    media::encoded_unit unit;
    uint64_t lost_packets = 0;
    bool unread = false;
    std::unique_ptr<const note> what;
    size_t note_bytes = 0;
    size_t bytes() const { return sizeof(letter) + unit.bytes.size() + note_bytes; }
  };

  void put(letter&& one);
  void ask_for_delivery();
  void deliver_batch();
  static void deliver(const letter& one, const reader& to);

  const base::poster poster_;
  const media::media_time turn_;
  std::mutex lock_;
  std::vector<letter> put_;
  bool asked_ = false;
  media::media_time first_put_{};
  std::atomic<size_t> waiting_bytes_{0};

  // What is being given out.
  std::vector<letter> batch_;
  size_t next_ = 0;
  media::media_time batch_put_{};
  media::media_time behind_{};
  std::map<uint64_t, std::shared_ptr<const reader>> readers_;
  uint64_t last_reader_ = 0;
};

}  // namespace zelta::core_service::rtp
