// SPDX-License-Identifier: Apache-2.0
// One RTP packet, as RFC 3550, section 5.1, lays it out: a view into bytes that somebody else
// keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zelta::core_service::rtp {

struct packet {
  uint8_t payload_type = 0;
  bool marker = false;
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  uint32_t ssrc = 0;
  // The header extension's profile word and content; null: there is none.
  uint16_t extension_profile = 0;
  const uint8_t* extension = nullptr;
  size_t extension_bytes = 0;
  // Without padding.
  const uint8_t* payload = nullptr;
  size_t payload_bytes = 0;
};

// None when `bytes` are no RTP packet: another version, or lengths that lead past the end.
std::optional<packet> parse_packet(const uint8_t* bytes, size_t size);

struct extension_element {
  const uint8_t* bytes = nullptr;  // those of the packet
  size_t size = 0;                 // 0 only in the two-byte form
};

// What stands in the header extension under `number`, 1 to 255, which the description gives a
// meaning; in the one-byte form or the two-byte form (RFC 8285, sections 4.2 and 4.3). None:
// nothing, or lengths that lead past the end.
std::optional<extension_element> find_extension(const packet& one, int number);

// What the packet's header says under this number of how loud its sound is: so many dB below the
// loudest that there can be, 0 to 127 (RFC 6464, section 3). None: nothing.
std::optional<uint8_t> audio_level_of(const packet& one, int number);

// Which packet of its transport it is (draft-holmer-rmcat-transport-wide-cc-extensions-01, section
// 2). None: nothing of two bytes.
std::optional<uint16_t> transport_number_of(const packet& one, int number);

// A name, as a MID or RID is one (RFC 7941, section 4.1): whatever bytes the sender put there, in
// those of the packet. Empty: nothing.
std::string_view text_extension_of(const packet& one, int number);

// What comes on a port for both (RFC 5761, section 4).
inline bool is_rtcp(const uint8_t* bytes, size_t size) {
  return size >= 2 && bytes[1] >= 192 && bytes[1] <= 223;
}

}  // namespace zelta::core_service::rtp
