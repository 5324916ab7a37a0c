// SPDX-License-Identifier: Apache-2.0
// Which packets of one stream are missing and due to be asked for again (RFC 4585, section 6.2.1).
// One thread; it has no clock and is told the time.
//
//   came 1, 4        2 and 3 are noticed
//   10 ms later      they are due: what merely overtook each other has come by then
//   `retry` later    those that still haven't come are due again, and so on
//   `patience` after they were noticed, they are forgotten: nobody waits for them any more
//
// How long an answer takes is learnt from those that come, since a receiver that sends no media is
// told of no round trip by RTCP.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core_service/media/media_time.h"

namespace zelta::core_service::rtp {

class nack_list {
 public:
  // Beyond these, asking would cost the sender more than a key frame does.
  static constexpr size_t kMostMissing = 1000;
  static constexpr int kMostRequests = 10;
  static constexpr media::media_time kReorderTolerance = std::chrono::milliseconds(10);
  static constexpr media::media_time kLeastRetry = std::chrono::milliseconds(20);
  // While it isn't known how long an answer takes.
  static constexpr media::media_time kFirstRetry = std::chrono::milliseconds(100);

  struct counters {
    uint64_t missing = 0;   // noticed; those of gaps that were given up as a whole aren't
    uint64_t requests = 0;  // numbers that were asked for, each time
    uint64_t answered = 0;  // came after they had been asked for
  };

  // `patience`: how long a packet is waited for, as the reorder_buffer has it.
  explicit nack_list(media::media_time patience) : patience_(patience) {}

  // Every valid packet as it arrives, late ones and duplicates too. `sequence`: extended past its
  // wraps.
  void received(int64_t sequence, media::media_time now);
  // The numbers to ask for now, in ascending order modulo 2^16; they count as asked for. Returns
  // how many; when it is `capacity`, there may be more.
  size_t take_due(media::media_time now, uint16_t* into, size_t capacity);
  // When take_due() or overwhelmed() has something to say. None: nothing is missing that would be
  // asked for.
  std::optional<media::media_time> next_deadline() const;
  // The source's sequence numbers begin anew. What an answer takes stays known.
  void restarted();

  // Whether more was missing at a time than is asked for, so that all was given up and a key frame
  // is needed. True once each time.
  bool overwhelmed();

  // How long an answer takes; none: nothing has been answered yet.
  std::optional<media::media_time> round_trip() const { return round_trip_; }

  size_t missing() const { return missing_.size(); }
  const counters& counts() const { return counts_; }

 private:
  struct gap {
    int64_t sequence;
    media::media_time noticed;
    media::media_time due;
    media::media_time asked;  // the first time
    int requests;
  };

  void notice(int64_t sequence, media::media_time now);
  void arrived(int64_t sequence, media::media_time now);
  void learn(media::media_time answer_took);
  void expire(media::media_time now);
  media::media_time retry() const;

  const media::media_time patience_;
  counters counts_;
  bool begun_ = false;
  bool overwhelmed_ = false;
  int64_t highest_ = 0;
  std::optional<media::media_time> round_trip_;
  // In ascending order, and so in the order in which they were noticed.
  std::vector<gap> missing_;
};

}  // namespace zelta::core_service::rtp
