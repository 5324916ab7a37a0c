// SPDX-License-Identifier: Apache-2.0
// One of the media lines of a sender: a stream for each source (SSRC) that sends to it, and what is
// said back to them by RTCP. It has no socket, no cipher and no clock.
//
// On the packet thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "core_service/media/shared_bytes.h"
#include "core_service/rtp/layer_choice.h"
#include "core_service/rtp/packet.h"
#include "core_service/rtp/payload.h"
#include "core_service/rtp/rtcp.h"
#include "core_service/rtp/sender.h"
#include "core_service/rtp/sender_clock.h"
#include "core_service/rtp/settings.h"
#include "core_service/rtp/stream.h"

namespace zelta::core_service::rtp {

using control_bytes = std::array<uint8_t, 1500>;

// What the lines of one sender share.
struct line_commons {
  line_commons(const settings& how_received, media::byte_pool& bytes, sender::events told);

  const settings how;
  media::byte_pool& pool;
  const sender::events events;
  const uint32_t own_ssrc;
  sender_clocks clocks;
  int next_number = 0;
};

class line {
 public:
  // Sends so much of an RTCP packet, behind which is room for what a cipher adds. False: nobody
  // knows where to, yet.
  using send_control = std::function<bool(control_bytes& bytes, size_t size)>;

  // `payloads`: by payload type, what may come. The commons are borrowed. `layered`: its sources
  // are one picture at several sizes, of which one is recorded.
  line(std::map<int, payload> payloads, line_commons& commons, send_control send,
       bool layered = false);
  line(const line&) = delete;
  line& operator=(const line&) = delete;

  // Whether a packet of this type and source would be taken. Known from its header, before any
  // cipher keeps a state of its source.
  bool takes(uint8_t payload_type, uint32_t ssrc) const;
  // True: its stream has a deadline, which may be a new one.
  bool take(const packet& one, const uint8_t* bytes, size_t size, media::media_time arrival);
  // The same of one that was sent again because it was asked for.
  bool take_again(const packet& one, const uint8_t* bytes, size_t size, media::media_time arrival);
  // False for what is no RTCP.
  bool take_control(const uint8_t* bytes, size_t size, media::media_time arrival);

  void advance(media::media_time now);
  // When advance() is due although nothing comes, if that is before `latest`; else `latest`.
  media::media_time next_deadline(media::media_time latest) const;
  // Nothing comes any more.
  void finish();

  void send_report(media::media_time now);
  void request_key_frames(media::media_time now);

 private:
  struct source {
    int number;
    bool begun = false;     // a unit has come out
    bool finished = false;  // nothing more will
    int others = 0;         // packets of another codec, one after the other
    media::media_time ends{media::media_time::max()};
    media::media_time asked{};
    bool wants_key = false;  // until one comes, whatever becomes of the requests
    std::unique_ptr<stream> of;
  };
  struct early_report {
    sender_report of;
    media::media_time arrival;
  };
  class control_reader;

  void on_unit(source& from, media::encoded_unit&& unit);
  source* find_or_make(const packet& one, media::media_time arrival);
  source* make_source(uint32_t ssrc, const payload& of);
  void advance_source(source& one, media::media_time now);
  void end_source(uint32_t ssrc);
  rtcp_writer write_about(source& whose, control_bytes& bytes, media::media_time now);
  void ask(source& whose, media::media_time now);
  void ask_again(source& whose, media::media_time now);

  line_commons& commons_;
  const send_control send_;
  const std::map<int, payload> payloads_;
  // Of a line whose sources are layers; they share a number.
  std::optional<layer_choice> layers_;
  int layers_number_ = 0;
  // By SSRC; and what was reported of those that no packet has come of yet.
  std::map<uint32_t, source> sources_;
  std::map<uint32_t, early_report> early_;
};

}  // namespace zelta::core_service::rtp
