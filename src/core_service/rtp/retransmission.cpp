// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/retransmission.h"

#include <cstring>

#include "core_service/rtp/network_order.h"
#include "core_service/rtp/packet.h"

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kNumberBytes = 2;
constexpr uint8_t kMarker = 0x80;

}  // namespace

std::optional<size_t> restore(uint8_t* bytes, size_t size, uint32_t ssrc, uint8_t payload_type) {
  const auto sent = parse_packet(bytes, size);
  if (!sent || sent->payload_bytes < kNumberBytes) return std::nullopt;
  bytes[1] = static_cast<uint8_t>((bytes[1] & kMarker) | (payload_type & 0x7fU));
  write_16(bytes + 2, read_16(sent->payload));
  write_32(bytes + 8, ssrc);
  // The padding moves along: it counts itself from the end.
  const auto before = static_cast<size_t>(sent->payload - bytes);
  std::memmove(bytes + before, bytes + before + kNumberBytes, size - before - kNumberBytes);
  return size - kNumberBytes;
}

}  // namespace zelta::core_service::rtp
