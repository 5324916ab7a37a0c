// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/source_validator.h"

namespace zelta::core_service::rtp {
namespace {

constexpr int64_t kCycle = 1 << 16;

// The number next to `reference`, on either side, that ends in `sequence`.
int64_t nearest(int64_t reference, uint16_t sequence) {
  return reference + static_cast<int16_t>(sequence - static_cast<uint16_t>(reference));
}

bool near(int64_t number, int64_t highest) {
  return number - highest < kMaxDropout && highest - number < kMaxMisorder;
}

// In a later cycle: what waits for order from before must not be taken for what comes now.
int64_t in_new_cycle(int64_t highest, uint16_t sequence) {
  const int64_t cycle = highest - static_cast<uint16_t>(highest);
  return cycle + 2 * kCycle + sequence;
}

}  // namespace

source_validator::result source_validator::check(uint16_t sequence) {
  if (in_sequence_ < kMinSequential) return check_new(sequence);
  const int64_t number = nearest(highest_, sequence);
  if (!near(number, highest_)) return check_far(sequence);
  candidate_seen_ = false;
  if (number > highest_) highest_ = number;
  return {verdict::kValid, number};
}

int64_t source_validator::number_of(uint16_t sequence) const {
  return nearest(highest_, sequence);
}

bool source_validator::belongs(int64_t sequence) const {
  return near(sequence, highest_);
}

source_validator::result source_validator::check_new(uint16_t sequence) {
  int64_t number = sequence;
  if (seen_) {
    number = nearest(highest_, sequence);
    if (!near(number, highest_)) number = in_new_cycle(highest_, sequence);
  }
  in_sequence_ = seen_ && number == highest_ + 1 ? in_sequence_ + 1 : 1;
  seen_ = true;
  highest_ = number;
  return {in_sequence_ < kMinSequential ? verdict::kProbation : verdict::kValid, number};
}

source_validator::result source_validator::check_far(uint16_t sequence) {
  if (candidate_seen_ && sequence == static_cast<uint16_t>(candidate_ + 1)) {
    highest_ = candidate_ + 1;
    candidate_seen_ = false;
    return {verdict::kRestarted, highest_};
  }
  candidate_seen_ = true;
  candidate_ = in_new_cycle(highest_, sequence);
  return {verdict::kDrop, candidate_};
}

}  // namespace zelta::core_service::rtp
