// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/h264.h"

namespace zelta::core_service::rtp {
namespace {

// RFC 6184, section 5.2, and H.264, table 7-1.
constexpr unsigned kIdrSlice = 5;
constexpr unsigned kAccessUnitDelimiter = 9;
constexpr unsigned kFiller = 12;  // between them the ends of sequence and stream
constexpr unsigned kLastOfVideo = 23;
constexpr unsigned kStapA = 24;
constexpr unsigned kFuA = 28;

constexpr unsigned kForbidden = 0x80;  // set by those who know of bit errors in it
constexpr unsigned kTypeBits = 0x1f;

}  // namespace

void h264_depayloader::add(byte_reader in, bool /*lost*/) {
  const uint8_t* const payload = in.rest();
  const size_t bytes = in.left();
  const unsigned indicator = in.byte();
  const unsigned type = indicator & kTypeBits;
  if (type == kStapA) return add_aggregate(in);
  if (type != kFuA) return add_nal(payload, bytes);
  // Section 5.8: the header of the NAL unit is spread over the indicator and the FU header.
  const unsigned fu = in.byte();
  if (!in.ok()) return lose();
  const auto header = static_cast<uint8_t>((indicator & ~kTypeBits) | (fu & kTypeBits));
  add_fragment({&header, 1, (fu & 0x80U) != 0, (fu & 0x40U) != 0}, in);
}

nal_kind h264_depayloader::kind_of(const uint8_t* nal, size_t bytes) const {
  if (bytes == 0 || (nal[0] & kForbidden) != 0) return nal_kind::kBroken;
  const unsigned type = nal[0] & kTypeBits;
  if (type >= kAccessUnitDelimiter && type <= kFiller) return nal_kind::kLeftOut;
  if (type == 0 || type > kLastOfVideo || bytes == 1) return nal_kind::kBroken;
  return type == kIdrSlice ? nal_kind::kKey : nal_kind::kKept;
}

}  // namespace zelta::core_service::rtp
