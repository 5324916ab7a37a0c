// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/unit_mailbox.h"

#include <utility>

namespace zelta::core_service::rtp {

void unit_mailbox::put(uint64_t whom, int track, media::encoded_unit&& unit) {
  put({whom, track, std::move(unit)});
}

void unit_mailbox::put_end(uint64_t whom, int track) {
  put({whom, track, {}});
}

void unit_mailbox::put(letter&& one) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    put_.push_back(std::move(one));
    if (std::exchange(asked_, true)) return;
  }
  loop_.post([this, alive = std::weak_ptr<int>(alive_)] {
    if (!alive.expired()) deliver_batch();
  });
}

uint64_t unit_mailbox::enter(media_feed::events told) {
  readers_[++last_reader_] = std::make_shared<const media_feed::events>(std::move(told));
  return last_reader_;
}

// No more than there was when it began, so that the loop's other work gets its turn.
void unit_mailbox::deliver_batch() {
  if (next_ == batch_.size()) {
    batch_.clear();
    next_ = 0;
    const std::lock_guard<std::mutex> guard(lock_);
    std::swap(batch_, put_);
    asked_ = false;
  }
  while (next_ < batch_.size()) {
    const letter one = std::move(batch_[next_++]);
    const auto reader = readers_.find(one.whom);
    if (reader == readers_.end()) continue;
    // Kept, because it may leave from inside.
    const std::shared_ptr<const media_feed::events> to = reader->second;
    one.unit.format ? to->unit(one.track, one.unit) : to->ended(one.track);
  }
}

void unit_mailbox::deliver_all() {
  for (;;) {
    deliver_batch();
    const std::lock_guard<std::mutex> guard(lock_);
    if (put_.empty()) return;
  }
}

}  // namespace zelta::core_service::rtp
