// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/nack_list.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::rtp {
namespace {

using media::media_time;

// Not asked for any more, but still known, so that an answer tells how long it took.
constexpr media_time kNever = media_time::max();
// Of what is known of the round trip a new answer is an eighth, as in RFC 6298, section 2.
constexpr int kSmoothing = 8;

}  // namespace

void nack_list::received(int64_t sequence, media_time now) {
  if (!begun_) {
    begun_ = true;
    highest_ = sequence;
  } else if (sequence <= highest_) {
    arrived(sequence, now);
  } else {
    if (sequence != highest_ + 1) notice(sequence, now);
    highest_ = sequence;
  }
}

size_t nack_list::take_due(media_time now, uint16_t* into, size_t capacity) {
  expire(now);
  size_t taken = 0;
  for (gap& one : missing_) {
    if (taken == capacity) break;
    if (one.due > now) continue;
    into[taken++] = static_cast<uint16_t>(one.sequence);
    if (one.requests++ == 0) one.asked = now;
    one.due = now + retry();
    if (one.requests == kMostRequests || one.due >= one.noticed + patience_) one.due = kNever;
  }
  counts_.requests += taken;
  return taken;
}

std::optional<media_time> nack_list::next_deadline() const {
  // A key frame is waited for.
  if (overwhelmed_) return media_time::zero();
  media_time next = kNever;
  for (const gap& one : missing_) next = std::min(next, one.due);
  if (next == kNever) return std::nullopt;
  return next;
}

void nack_list::restarted() {
  missing_.clear();
  begun_ = false;
  overwhelmed_ = false;
}

bool nack_list::overwhelmed() {
  return std::exchange(overwhelmed_, false);
}

// All between the highest and `sequence`.
void nack_list::notice(int64_t sequence, media_time now) {
  expire(now);
  const int64_t more = sequence - highest_ - 1;
  if (more > static_cast<int64_t>(kMostMissing - missing_.size())) {
    missing_.clear();
    overwhelmed_ = true;
    return;
  }
  counts_.missing += static_cast<uint64_t>(more);
  for (int64_t number = highest_ + 1; number < sequence; ++number) {
    missing_.push_back({number, now, now + kReorderTolerance, {}, 0});
  }
}

void nack_list::arrived(int64_t sequence, media_time now) {
  const auto at =
      std::lower_bound(missing_.begin(), missing_.end(), sequence,
                       [](const gap& one, int64_t number) { return one.sequence < number; });
  if (at == missing_.end() || at->sequence != sequence) return;
  if (at->requests > 0) {
    ++counts_.answered;
    learn(now - at->asked);
  }
  missing_.erase(at);
}

// Since the first request, whichever was answered: where the first one was lost this is too long,
// which waits longer than it need; the last one's would be too short wherever the way is longer
// than what was waited, and then every packet would be asked for twice for good.
void nack_list::learn(media_time answer_took) {
  const media_time took = std::max(answer_took, media_time::zero());
  round_trip_ = round_trip_ ? *round_trip_ + (took - *round_trip_) / kSmoothing : took;
}

void nack_list::expire(media_time now) {
  const auto first = std::find_if(missing_.begin(), missing_.end(),
                                  [&](const gap& one) { return one.noticed + patience_ > now; });
  missing_.erase(missing_.begin(), first);
}

// A quarter longer than answers take, most of which then come before they are missed again.
media_time nack_list::retry() const {
  if (!round_trip_) return kFirstRetry;
  return std::max(*round_trip_ + *round_trip_ / 4, kLeastRetry);
}

}  // namespace zelta::core_service::rtp
