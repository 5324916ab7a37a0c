// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/packet.h"

#include "core_service/rtp/network_order.h"

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kFixedBytes = 12;
constexpr size_t kExtensionHeaderBytes = 4;
constexpr uint8_t kVersion = 2;
constexpr uint8_t kPadded = 0x20;
constexpr uint8_t kExtended = 0x10;
constexpr uint8_t kContributors = 0x0f;

// RFC 8285, sections 4.2 and 4.3.
constexpr unsigned kOneByteProfile = 0xbede;
constexpr unsigned kTwoByteProfile = 0x1000;  // and any four bits more
constexpr uint8_t kPadding = 0;
constexpr int kReserved = 15;

}  // namespace

std::optional<packet> parse_packet(const uint8_t* bytes, size_t size) {
  if (size < kFixedBytes || bytes[0] >> 6U != kVersion) return std::nullopt;
  packet one;
  one.marker = (bytes[1] & 0x80U) != 0;
  one.payload_type = bytes[1] & 0x7fU;
  one.sequence = read_16(bytes + 2);
  one.timestamp = read_32(bytes + 4);
  one.ssrc = read_32(bytes + 8);
  size_t at = kFixedBytes + size_t{4} * (bytes[0] & kContributors);
  if ((bytes[0] & kExtended) != 0) {
    if (at + kExtensionHeaderBytes > size) return std::nullopt;
    one.extension_profile = read_16(bytes + at);
    one.extension_bytes = size_t{4} * read_16(bytes + at + 2);
    at += kExtensionHeaderBytes;
    one.extension = bytes + at;
    at += one.extension_bytes;
  }
  if (at > size) return std::nullopt;
  size_t padding = 0;
  if ((bytes[0] & kPadded) != 0) {
    // The last byte counts itself.
    padding = bytes[size - 1];
    if (padding == 0 || padding > size - at) return std::nullopt;
  }
  one.payload = bytes + at;
  one.payload_bytes = size - at - padding;
  return one;
}

std::optional<extension_element> find_extension(const packet& one, int number) {
  if (number == 0) return std::nullopt;
  const bool one_byte = one.extension_profile == kOneByteProfile;
  if (!one_byte && (one.extension_profile & 0xfff0U) != kTwoByteProfile) return std::nullopt;
  const size_t header_bytes = one_byte ? 1 : 2;
  for (size_t at = 0; at < one.extension_bytes;) {
    const uint8_t* const element = one.extension + at;
    if (*element == kPadding) {
      ++at;
      continue;
    }
    if (at + header_bytes > one.extension_bytes) return std::nullopt;
    const int id = one_byte ? *element >> 4U : *element;
    const size_t bytes = one_byte ? (*element & 0x0fU) + size_t{1} : element[1];
    at += header_bytes + bytes;
    if (at > one.extension_bytes || (one_byte && id == kReserved)) return std::nullopt;
    if (id == number) return extension_element{element + header_bytes, bytes};
  }
  return std::nullopt;
}

std::optional<uint8_t> audio_level_of(const packet& one, int number) {
  const auto found = find_extension(one, number);
  if (!found || found->size == 0) return std::nullopt;
  // Its highest bit tells whether there is speech in it.
  return found->bytes[0] & 0x7fU;
}

std::optional<uint16_t> transport_number_of(const packet& one, int number) {
  const auto found = find_extension(one, number);
  if (!found || found->size != 2) return std::nullopt;
  return read_16(found->bytes);
}

std::string_view text_extension_of(const packet& one, int number) {
  const auto found = find_extension(one, number);
  if (!found) return {};
  return {reinterpret_cast<const char*>(found->bytes), found->size};
}

}  // namespace zelta::core_service::rtp
