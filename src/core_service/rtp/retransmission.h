// SPDX-License-Identifier: Apache-2.0
// Packets that are sent again in a stream of their own (RFC 4588). No state; any thread.
//
//   header of its own    original number, 2 bytes    original payload    padding
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zelta::core_service::rtp {

// Makes of a retransmission packet, where it lies, the packet that was lost (section 4): its
// sequence number, in the stream `ssrc` with `payload_type`, both of which the description or the
// packets' RID tell. Timestamp, marker and header extensions are the original's already, except for
// a transport-wide number, which is the retransmission's own: what needs that reads it before.
//
// Returns the size, 2 bytes less. None, with the bytes as they were: no RTP packet, or one that has
// no original, as those of padding alone have with which senders probe.
std::optional<size_t> restore(uint8_t* bytes, size_t size, uint32_t ssrc, uint8_t payload_type);

}  // namespace zelta::core_service::rtp
