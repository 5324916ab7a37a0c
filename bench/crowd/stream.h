// SPDX-License-Identifier: Apache-2.0
// One RTP stream of a user in a crowd: what its next packets are, and what has become of them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include <netinet/in.h>

#include "crowd/media.h"
#include "crowd/srtp.h"

namespace zelta::crowd {

// RFC 3550 section 5.1.
constexpr size_t kRtpHeader = 12;
using rtp_header = std::array<uint8_t, kRtpHeader>;

rtp_header make_header(uint8_t payload_type, bool marker, uint16_t sequence, uint32_t time,
                       uint32_t ssrc);

// RFC 3550 sections 6.4.1 and 6.5: a sender report, and who sends it.
struct report {
  uint32_t ssrc;
  int64_t utc_us;
  uint32_t rtp_time;
  uint32_t packets;
  uint32_t octets;
  std::string cname;
};
// The bytes that it takes, at most `kReportBytes`.
constexpr size_t kReportBytes = 64;
size_t write_report(const report& of, std::array<uint8_t, kReportBytes>& out);

// What happens to packets on their way.
struct impairment {
  double loss = 0;     // share of packets
  double reorder = 0;  // share of packets that the next one overtakes
};

// The same media as every other stream of its kind, with beginnings of its own.
struct stream {
  const track* media = nullptr;
  uint32_t uid = 0;
  uint32_t ssrc = 0;
  uint16_t sequence = 0;
  uint32_t first_time = 0;
  int64_t begin_us = 0;
  // Of the user's clock, which rules packets, their times and reports: parts per million by which
  // it is too fast. It is right at `begin_us`.
  int64_t clock_ppm = 0;
  sockaddr_in rtp{};
  sockaddr_in rtcp{};
  std::unique_ptr<srtp_sender> srtp;

  uint32_t sent_units = 0;
  // Those of which all and all that they refer to was sent.
  uint32_t whole_units = 0;
  uint32_t packets = 0;
  uint32_t octets = 0;
  bool broken = false;

  struct packet {
    rtp_header header{};
    const bytes* payload = nullptr;
  };
  std::optional<packet> held;

  int64_t due_us() const;
  // What the user's clock shows then, and the RTP time.
  int64_t own_us(int64_t now_us) const;
  uint32_t time_at(int64_t now_us) const;
  // Hands the next unit's packets, those that aren't lost, to `send`. `chance` is asked for each.
  template <class Send>
  void send_unit(const impairment& way, std::mt19937& chance, Send send);
  // What was held back for a packet that doesn't come any more.
  template <class Send>
  void send_held(Send send) {
    if (held) send(*held);
    held.reset();
  }
};

template <class Send>
void stream::send_unit(const impairment& way, std::mt19937& chance, Send send) {
  std::uniform_real_distribution<double> share(0, 1);
  const media_unit& unit = media->units[sent_units % media->units.size()];
  const uint32_t time = first_time + sent_units * media->unit_ticks;
  bool complete = true;
  for (const bytes& payload : unit.payloads) {
    const bool last = &payload == &unit.payloads.back();
    const packet next{
        make_header(media->payload_type, media->picture && last, sequence++, time, ssrc), &payload};
    ++packets;
    octets += static_cast<uint32_t>(payload.size());
    if (way.loss > 0 && share(chance) < way.loss) {
      complete = false;
    } else if (way.reorder > 0 && !held && share(chance) < way.reorder) {
      held = next;
    } else {
      send(next);
      send_held(send);
    }
  }
  broken = !complete || (broken && !unit.key);
  ++sent_units;
  if (!broken) ++whole_units;
}

}  // namespace zelta::crowd
