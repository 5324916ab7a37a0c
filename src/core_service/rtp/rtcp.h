// SPDX-License-Identifier: Apache-2.0
// RTCP as far as a receiver takes part in it: what senders report is read, and what they want to
// hear of us is written. No state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zelta::core_service::rtp {

struct sender_report {
  uint32_t ssrc = 0;
  uint64_t ntp = 0;  // in units of 2^-32 s; 0: the sender has no wall clock
  uint32_t timestamp = 0;
  uint32_t packets = 0;
  uint32_t octets = 0;
};

// About one source (RFC 3550, section 6.4.1).
struct report_block {
  uint32_t ssrc = 0;
  uint8_t fraction_lost = 0;  // in 1/256, since the last report
  int32_t lost = 0;           // since the beginning; below 0 by duplicates
  uint32_t highest = 0;       // extended sequence number
  uint32_t jitter = 0;        // in units of the timestamps
  uint32_t last_report = 0;   // the middle of its NTP timestamp; 0: none
  uint32_t delay = 0;         // since then, in units of 2^-16 s
};

class rtcp_visitor {
 public:
  virtual ~rtcp_visitor() = default;
  virtual void report(const sender_report& one) = 0;
  virtual void bye(uint32_t ssrc) = 0;
};

// Reads a compound packet, or one of reduced size (RFC 5506). False when it isn't valid by RFC
// 3550, appendix A.2; the visitor hears nothing of it then.
bool parse_rtcp(const uint8_t* bytes, size_t size, rtcp_visitor& visitor);

// Writes one compound packet into the caller's buffer, part by part: reports first, then the name,
// then feedback. Each call is false, and has written nothing, when the part doesn't fit.
class rtcp_writer {
 public:
  rtcp_writer(uint8_t* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

  // As many packets as the blocks need; one without any for none. `ssrc`, here and below: ours.
  bool receiver_report(uint32_t ssrc, const report_block* blocks, size_t count);
  // `name`: at most 255 bytes.
  bool cname(uint32_t ssrc, std::string_view name);
  // Asks for a picture that needs no other (PLI: RFC 4585, section 6.3.1).
  bool picture_loss(uint32_t ssrc, uint32_t of);
  // Asks for packets once more (RFC 4585, section 6.2.1). `sequences`: at least one, ascending
  // modulo 2^16.
  bool nack(uint32_t ssrc, uint32_t of, const uint16_t* sequences, size_t count);
  // When packets arrived, as transport_feedback puts it; whole words.
  bool transport_wide(uint32_t ssrc, uint32_t of, const uint8_t* content, size_t size);

  size_t size() const { return size_; }
  size_t room() const { return capacity_ - size_; }

 private:
  // Room for a packet of `bytes`, its header written; null when there is none.
  uint8_t* begin(size_t bytes, size_t count, uint8_t type);

  uint8_t* const buffer_;
  const size_t capacity_;
  size_t size_ = 0;
};

}  // namespace zelta::core_service::rtp
