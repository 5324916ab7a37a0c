// SPDX-License-Identifier: Apache-2.0
// What one source (SSRC) sends: from its packets to units on our timeline.
//
//     take ─▶ validate ─▶ order ─▶ place in time ─▶ depayload ─▶ format ─▶ unit
//
// On the packet thread; it has no clock and is told the time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "core_service/media/decode_times.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/format_tracker.h"
#include "core_service/rtp/depayload/depayloader.h"
#include "core_service/rtp/nack_list.h"
#include "core_service/rtp/payload.h"
#include "core_service/rtp/receive_stats.h"
#include "core_service/rtp/reorder_buffer.h"
#include "core_service/rtp/sender_clock.h"
#include "core_service/rtp/source_validator.h"

namespace zelta::core_service::rtp {

class stream {
 public:
  struct events {
    std::function<void(media::encoded_unit&&)> unit;
    // A picture that needs no other would help.
    std::function<void()> damaged;
  };

  // `patience`: how long a packet that is missing is waited for. Pool and clocks are borrowed.
  stream(uint32_t ssrc, const payload& of, media::media_time patience, media::byte_pool& pool,
         sender_clocks& clocks, events told);
  stream(const stream&) = delete;
  stream& operator=(const stream&) = delete;

  uint32_t ssrc() const { return ssrc_; }
  const payload& of() const { return payload_; }
  // When the last packet or report came.
  media::media_time heard() const { return heard_; }
  // Whether it is a stream, and no stray packet.
  bool valid() const { return valid_; }
  const reorder_buffer::counters& counts() const { return order_.counts(); }

  // `bytes` are those that `one` looks into.
  void take(const packet& one, const uint8_t* bytes, size_t size, media::media_time arrival);
  // One that was asked for by take_missing(): how late it is says nothing of the way.
  void take_again(const packet& one, const uint8_t* bytes, size_t size, media::media_time arrival);
  void report(const sender_report& one, media::media_time arrival, bool places);
  report_block block(media::media_time now) { return stats_.report(ssrc_, now); }
  void advance(media::media_time now) { order_.advance(now); }
  // When advance() or take_missing() is due although nothing comes.
  std::optional<media::media_time> next_deadline() const;
  // The numbers of packets to ask for now; how many. When it is `capacity`, there may be more.
  size_t take_missing(media::media_time now, uint16_t* into, size_t capacity);
  // Nothing comes any more.
  void finish();

 private:
  struct doubtful {
    int64_t sequence;
    uint32_t timestamp;
    media::media_time arrival;
    std::vector<uint8_t> bytes;
  };

  void doubt(int64_t sequence, const packet& one, const uint8_t* bytes, size_t size,
             media::media_time arrival);
  void take_doubted();
  void push(int64_t sequence, uint32_t timestamp, const uint8_t* bytes, size_t size,
            media::media_time arrival);
  void on_ordered(const reorder_buffer::ordered& one);
  void on_depayloaded(depayloaded&& one);
  media::media_time not_before_the_latest(uint32_t timestamp, media::media_time time);

  const uint32_t ssrc_;
  const payload payload_;
  const events events_;
  media::media_time heard_{};
  bool valid_ = false;
  source_validator validator_;
  std::vector<doubtful> doubted_;
  receive_stats stats_;
  sender_clock clock_;
  std::optional<nack_list> missing_;  // where packets are sent again
  reorder_buffer order_;
  media::format_tracker formats_;
  std::optional<media::decode_times> decoding_;
  // Where packets of the latest timestamps lie: a unit comes out with the packet behind it.
  struct placed {
    uint32_t timestamp;
    media::media_time time;
  };
  std::vector<placed> placed_;
  // The latest picture, by its timestamp.
  std::optional<placed> latest_;
  // Of the packet that is being depayloaded: one of sound is a unit.
  std::optional<uint8_t> level_;
  std::unique_ptr<depayloader> depayloader_;
};

}  // namespace zelta::core_service::rtp
