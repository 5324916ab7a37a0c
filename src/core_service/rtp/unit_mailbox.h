// SPDX-License-Identifier: Apache-2.0
// The way of all units from the packet thread to the loop's: one waking up for all that have come
// since the loop was there last, however many users send.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "base/event_loop.h"
#include "core_service/channel/media_feed.h"
#include "core_service/media/encoded_unit.h"

namespace zelta::core_service::rtp {

class unit_mailbox {
 public:
  // The loop is borrowed.
  explicit unit_mailbox(base::event_loop& loop) : loop_(loop) {}
  unit_mailbox(const unit_mailbox&) = delete;
  unit_mailbox& operator=(const unit_mailbox&) = delete;

  // Any thread; `whom` is what enter() gave.
  void put(uint64_t whom, int track, media::encoded_unit&& unit);
  void put_end(uint64_t whom, int track);

  // The rest is for the loop's thread.
  uint64_t enter(media_feed::events told);
  // Gives everything that has been put, to everybody.
  void deliver_all();
  // Nothing comes any more.
  void leave(uint64_t whom) { readers_.erase(whom); }

 private:
  struct letter {
    uint64_t whom = 0;
    int track = 0;
    media::encoded_unit unit;  // without a format: the track has ended
  };

  void put(letter&& one);
  void deliver_batch();

  base::event_loop& loop_;
  std::mutex lock_;
  std::vector<letter> put_;
  bool asked_ = false;

  // What is being given out; from inside a reader's call it may go on.
  std::vector<letter> batch_;
  size_t next_ = 0;
  std::map<uint64_t, std::shared_ptr<const media_feed::events>> readers_;
  uint64_t last_reader_ = 0;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace zelta::core_service::rtp
