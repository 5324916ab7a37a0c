// SPDX-License-Identifier: Apache-2.0
// When the packets of a transport arrived, of all its streams, by which the sender estimates how
// much the way carries (draft-holmer-rmcat-transport-wide-cc-extensions-01). One thread; it has no
// clock and is told the time.
//
//   received 7, 8, 10   ──► write: from 7 on: came, came, didn't, came
//   received 9, 11      ──► write: from 9 on: came, came, came
//
// 9 wasn't lost, it was late: what lies behind it is said once more.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "core_service/media/media_time.h"
#include "core_service/rtp/rtcp.h"

namespace zelta::core_service::rtp {

class transport_feedback {
 public:
  // Of a packet with its header: what passes wherever media does.
  static constexpr size_t kMostBytes = 1200;
  // Room in a writer that is always enough for one packet.
  static constexpr size_t kLeastRoom = 64;
  // The numbers that are known at a time. Older ones that nobody asked write() for are left out,
  // and the next packet begins behind them; one as far back is taken for a new beginning.
  static constexpr int64_t kRing = 4096;
  // A packet that is later than this many numbers behind what was said doesn't correct that.
  static constexpr int64_t kMostLate = 512;

  // Every packet that came over the transport as it arrives, retransmissions and duplicates too,
  // with the number in its header extension. `arrival` to 250 us.
  void received(uint16_t number, media::media_time arrival);

  // Whether something has come that hasn't been said.
  bool waiting() const { return begun_ && next_ <= highest_; }

  // Writes one packet of what waits, the lowest numbers first; to be called every 50 to 100 ms, and
  // again as long as it is true, since deltas that can't be said and kMostBytes end a packet.
  // False, and nothing is written: nothing waits, or there isn't enough room in `to`. `ssrc` is
  // ours, `of` one of the transport's.
  bool write(rtcp_writer& to, uint32_t ssrc, uint32_t of);

 private:
  // How each number is to be written.
  using symbol_list = std::array<uint8_t, kRing>;
  struct range {
    size_t symbols = 0;      // from next_ on
    uint32_t reference = 0;  // in 64 ms
  };

  static size_t slot_of(int64_t number) { return static_cast<size_t>(number) % kRing; }
  uint32_t& came(int64_t number) { return came_[slot_of(number)]; }
  uint32_t came(int64_t number) const { return came_[slot_of(number)]; }
  void begin(int64_t number);
  void step_to(int64_t number);
  range plan(symbol_list& symbols) const;
  void write_deltas(uint32_t reference, const uint8_t* symbols, size_t count, uint8_t* to) const;

  bool begun_ = false;
  int64_t next_ = 0;     // to be said
  int64_t highest_ = 0;  // that has come
  uint8_t packets_ = 0;  // written, by which the sender notices that one was lost
  // When those up to the highest came, in ticks; 0: they didn't.
  std::array<uint32_t, kRing> came_{};
};

}  // namespace zelta::core_service::rtp
