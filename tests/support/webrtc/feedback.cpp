// SPDX-License-Identifier: Apache-2.0
#include "support/webrtc/feedback.h"

#include <algorithm>

#include "core_service/rtp/network_order.h"

namespace zelta::test {
namespace {

using core_service::rtp::read_16;
using core_service::rtp::read_32;

// RFC 3550, section 12.1; RFC 4585, section 6.1.
constexpr unsigned kReceiverReport = 201;
constexpr unsigned kTransportFeedback = 205;
constexpr unsigned kPayloadFeedback = 206;
constexpr unsigned kNack = 1;
constexpr unsigned kTransportWide = 15;
constexpr unsigned kPictureLoss = 1;
constexpr size_t kFeedbackHeader = 12;

void read_nack(const uint8_t* at, const uint8_t* end, const feedback_visitor& to) {
  const uint32_t ssrc = read_32(at + 8);
  for (at += kFeedbackHeader; at + 4 <= end; at += 4) {
    const uint16_t first = read_16(at);
    const uint32_t others = read_16(at + 2);
    to.missing(ssrc, first);
    for (uint32_t bit = 0; bit < 16; ++bit) {
      if ((others >> bit & 1U) != 0) to.missing(ssrc, static_cast<uint16_t>(first + 1 + bit));
    }
  }
}

// draft-holmer-rmcat-transport-wide-cc-extensions-01, section 3.1: chunks of 16 bits, each a run of
// one symbol, or seven symbols of two bits, or fourteen of one.
bool read_transport(const uint8_t* at, const uint8_t* end, const feedback_visitor& to) {
  if (end - at < 20) return false;
  const size_t count = read_16(at + 14);
  size_t came = 0;
  size_t read = 0;
  for (at += 20; read < count; at += 2) {
    if (at + 2 > end) return false;
    const unsigned chunk = read_16(at);
    if ((chunk & 0x8000U) == 0) {
      const size_t run = std::min<size_t>(chunk & 0x1fffU, count - read);
      if (run == 0) return false;
      if ((chunk >> 13U & 3U) != 0) came += run;
      read += run;
      continue;
    }
    const bool wide = (chunk & 0x4000U) != 0;
    const unsigned bits = wide ? 2 : 1;
    for (unsigned shift = 14; shift >= bits && read < count; ++read) {
      shift -= bits;
      if ((chunk >> shift & (wide ? 3U : 1U)) != 0) ++came;
    }
  }
  to.transport(came, count - came);
  return true;
}

}  // namespace

bool read_feedback(const uint8_t* bytes, size_t size, const feedback_visitor& to) {
  for (size_t at = 0; at < size;) {
    if (size - at < 8) return false;
    const uint8_t* const one = bytes + at;
    const size_t length = 4 * (size_t{read_16(one + 2)} + 1);
    if (length > size - at) return false;
    at += length;
    const unsigned type = one[1];
    const unsigned form = one[0] & 0x1fU;
    if (type == kReceiverReport) to.report();
    if (length < kFeedbackHeader) continue;
    if (type == kTransportFeedback && form == kNack) read_nack(one, one + length, to);
    if (type == kPayloadFeedback && form == kPictureLoss) to.key_frame(read_32(one + 8));
    if (type == kTransportFeedback && form == kTransportWide &&
        !read_transport(one, one + length, to)) {
      return false;
    }
  }
  return true;
}

}  // namespace zelta::test
