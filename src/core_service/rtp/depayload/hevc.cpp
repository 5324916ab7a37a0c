// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/hevc.h"

namespace zelta::core_service::rtp {
namespace {

// RFC 7798, section 4.4, and HEVC, table 7-1.
constexpr unsigned kFirstIrap = 16;
constexpr unsigned kLastIrap = 21;  // 22 and 23 are reserved
constexpr unsigned kAccessUnitDelimiter = 35;
constexpr unsigned kFiller = 38;  // between them the ends of sequence and bitstream
constexpr unsigned kLastOfVideo = 47;
constexpr unsigned kAggregation = 48;
constexpr unsigned kFragmentation = 49;

constexpr size_t kHeaderBytes = 2;
constexpr unsigned kForbidden = 0x80;

unsigned type_of(unsigned first_byte) {
  return first_byte >> 1U & 0x3fU;
}

}  // namespace

void hevc_depayloader::add(byte_reader in, bool /*lost*/) {
  const uint8_t* const payload = in.rest();
  const size_t bytes = in.left();
  if (in.take(kHeaderBytes) == nullptr) return lose();
  const unsigned type = type_of(payload[0]);
  if (type == kAggregation) return add_aggregate(in);
  if (type != kFragmentation) return add_nal(payload, bytes);
  // Section 4.4.3: the type is in the FU header, all else of the NAL unit's header in the packet's.
  const unsigned fu = in.byte();
  if (!in.ok()) return lose();
  const uint8_t header[kHeaderBytes] = {
      static_cast<uint8_t>((payload[0] & 0x81U) | (fu & 0x3fU) << 1U), payload[1]};
  add_fragment({header, sizeof header, (fu & 0x80U) != 0, (fu & 0x40U) != 0}, in);
}

nal_kind hevc_depayloader::kind_of(const uint8_t* nal, size_t bytes) const {
  if (bytes < kHeaderBytes || (nal[0] & kForbidden) != 0) return nal_kind::kBroken;
  const unsigned type = type_of(nal[0]);
  if (type >= kAccessUnitDelimiter && type <= kFiller) return nal_kind::kLeftOut;
  if (type > kLastOfVideo || bytes == kHeaderBytes) return nal_kind::kBroken;
  return type >= kFirstIrap && type <= kLastIrap ? nal_kind::kKey : nal_kind::kKept;
}

}  // namespace zelta::core_service::rtp
