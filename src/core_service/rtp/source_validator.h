// SPDX-License-Identifier: Apache-2.0
// Tells a stream from stray packets by its sequence numbers, and counts them past their wraps
// (RFC 3550, appendix A.1). One a SSRC; one thread.
//
// Nothing of a stream is lost to the doubt. The caller keeps the last kMinSequential packets that
// weren't valid, with their numbers, and at the next verdict that is neither kProbation nor kDrop
// takes those that belong() before the one that decided, in the order of their numbers.
#pragma once

#include <cstdint>

namespace zelta::core_service::rtp {

constexpr int kMinSequential = 2;
constexpr int64_t kMaxDropout = 3000;
constexpr int64_t kMaxMisorder = 100;

enum class verdict {
  kProbation,  // too few packets in sequence have come yet
  kValid,      // one of the stream, maybe late or come before
  kDrop,       // far from where the stream is: stray, or the first after a restart
  kRestarted,  // the second in sequence far from where the stream was: it begins anew here
};

class source_validator {
 public:
  struct result {
    verdict is;
    // The extended sequence number, whose low 16 bits are the packet's. Below 0 where a packet from
    // before a wrap follows the very first ones.
    int64_t sequence;
  };

  result check(uint16_t sequence);

  // The number of a packet that was asked for, however far behind the others it comes.
  int64_t number_of(uint16_t sequence) const;
  int64_t highest() const { return highest_; }

  // Whether a packet that wasn't valid when it came is one of the stream as it is now.
  bool belongs(int64_t sequence) const;

 private:
  result check_new(uint16_t sequence);
  result check_far(uint16_t sequence);

  bool seen_ = false;
  int in_sequence_ = 0;  // up to kMinSequential
  int64_t highest_ = 0;
  // The last packet that was dropped, with the number that it has if the stream restarted there.
  bool candidate_seen_ = false;
  int64_t candidate_ = 0;
};

}  // namespace zelta::core_service::rtp
