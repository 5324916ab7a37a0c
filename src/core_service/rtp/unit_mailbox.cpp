// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/unit_mailbox.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;

// The clock is looked at after so many.
constexpr size_t kLook = 32;

}  // namespace

void unit_mailbox::put(uint64_t whom, int track, media::encoded_unit&& unit) {
  letter one;
  one.whom = whom;
  one.track = track;
  one.unit = std::move(unit);
  put(std::move(one));
}

void unit_mailbox::put_end(uint64_t whom, int track) {
  letter one;
  one.is = kind::kEnd;
  one.whom = whom;
  one.track = track;
  put(std::move(one));
}

void unit_mailbox::put_note(uint64_t whom, note&& what) {
  letter one;
  one.is = kind::kNote;
  one.whom = whom;
  const auto* const text = std::get_if<media::user_text>(&what);
  one.note_bytes = sizeof(note) + (text != nullptr ? text->text.size() + text->label.size() : 0);
  one.what = std::make_unique<const note>(std::move(what));
  put(std::move(one));
}

void unit_mailbox::put_stopped(uint64_t whom, uint64_t lost_packets, bool unread) {
  letter one;
  one.is = kind::kStopped;
  one.whom = whom;
  one.lost_packets = lost_packets;
  one.unread = unread;
  put(std::move(one));
}

void unit_mailbox::put(letter&& one) {
  waiting_bytes_ += one.bytes();
  {
    const std::lock_guard<std::mutex> guard(lock_);
    put_.push_back(std::move(one));
    if (std::exchange(asked_, true)) return;
    first_put_ = media::now();
  }
  ask_for_delivery();
}

void unit_mailbox::ask_for_delivery() {
  poster_.post([this] { deliver_batch(); });
}

void unit_mailbox::enter(uint64_t who, reader told) {
  readers_[who] = std::make_shared<const reader>(std::move(told));
}

// No more than there was when it began, and no longer than a turn, so that the loop's other work
// gets its own.
void unit_mailbox::deliver_batch() {
  const media_time begun = media::now();
  if (next_ == batch_.size()) {
    batch_.clear();
    next_ = 0;
    const std::lock_guard<std::mutex> guard(lock_);
    std::swap(batch_, put_);
    asked_ = false;
    batch_put_ = first_put_;
    if (!batch_.empty()) behind_ = std::max(behind_, begun - batch_put_);
  }
  while (next_ < batch_.size()) {
    const letter one = std::move(batch_[next_++]);
    waiting_bytes_ -= one.bytes();
    if (const auto found = readers_.find(one.whom); found != readers_.end()) {
      // Kept, because it may leave from inside.
      const std::shared_ptr<const reader> to = found->second;
      deliver(one, *to);
    }
    // Behind one that was given, so that every turn gets on.
    const bool more = next_ < batch_.size();
    if (more && next_ % kLook == 0 && media::now() - begun > turn_) return ask_for_delivery();
  }
}

media_time unit_mailbox::take_behind() {
  const media_time now = media::now();
  media_time longest = std::exchange(behind_, {});
  if (next_ < batch_.size()) longest = std::max(longest, now - batch_put_);
  const std::lock_guard<std::mutex> guard(lock_);
  return put_.empty() ? longest : std::max(longest, now - first_put_);
}

void unit_mailbox::deliver(const letter& one, const reader& to) {
  switch (one.is) {
    case kind::kUnit:
      return to.unit(one.track, one.unit);
    case kind::kEnd:
      return to.ended(one.track);
    case kind::kNote:
      return to.noted(*one.what);
    case kind::kStopped:
      return to.stopped(one.lost_packets, one.unread);
  }
}

}  // namespace zelta::core_service::rtp
