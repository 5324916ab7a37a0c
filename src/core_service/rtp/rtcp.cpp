// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtcp.h"

#include <algorithm>
#include <cstring>

#include "core_service/rtp/network_order.h"

namespace zelta::core_service::rtp {
namespace {

constexpr uint8_t kSenderReport = 200;
constexpr uint8_t kReceiverReport = 201;
constexpr uint8_t kSourceDescription = 202;
constexpr uint8_t kGoodbye = 203;
constexpr uint8_t kTransportFeedback = 205;
constexpr uint8_t kPayloadFeedback = 206;
// All types of RTCP, those to come among them (RFC 5761, section 4).
constexpr uint8_t kFirstType = 192;
constexpr uint8_t kLastType = 223;

constexpr uint8_t kVersionBits = 0x80;
constexpr uint8_t kPadded = 0x20;
constexpr uint8_t kPictureLoss = 1;
constexpr uint8_t kGenericNack = 1;
constexpr uint8_t kTransportWide = 15;
constexpr uint8_t kCnameItem = 1;

constexpr size_t kHeaderBytes = 4;
constexpr size_t kSsrcBytes = 4;
constexpr size_t kSenderInfoBytes = 20;
constexpr size_t kBlockBytes = 24;
constexpr size_t kMaxBlocks = 31;
constexpr size_t kMaxNameBytes = 255;
// Our source and the one that it is about.
constexpr size_t kSourcesBytes = 2 * kSsrcBytes;
constexpr size_t kNackEntryBytes = 4;

struct part {
  const uint8_t* bytes;
  size_t size;  // without padding
  uint8_t type;
  size_t count;  // of what its type counts
};

size_t least_bytes(const part& one) {
  switch (one.type) {
    case kSenderReport:
      return kHeaderBytes + kSsrcBytes + kSenderInfoBytes + one.count * kBlockBytes;
    case kReceiverReport:
      return kHeaderBytes + kSsrcBytes + one.count * kBlockBytes;
    case kGoodbye:
      return kHeaderBytes + one.count * kSsrcBytes;
    default:
      return kHeaderBytes;
  }
}

// The part at the beginning of `bytes`, and how long it is with its padding; 0: it isn't valid.
size_t take_part(const uint8_t* bytes, size_t size, part& out) {
  if (size < kHeaderBytes || (bytes[0] & 0xc0U) != kVersionBits) return 0;
  if (bytes[1] < kFirstType || bytes[1] > kLastType) return 0;
  const size_t length = 4 * (size_t{read_16(bytes + 2)} + 1);
  if (length > size) return 0;
  size_t padding = 0;
  if ((bytes[0] & kPadded) != 0) {
    // Of the whole compound packet, so only its last part has it.
    padding = bytes[length - 1];
    if (length != size || padding == 0 || padding % 4 != 0) return 0;
    if (padding > length - kHeaderBytes) return 0;
  }
  out = {bytes, length - padding, bytes[1], bytes[0] & 0x1fU};
  return out.size < least_bytes(out) ? 0 : length;
}

void tell(const part& one, rtcp_visitor& visitor) {
  const uint8_t* const content = one.bytes + kHeaderBytes;
  if (one.type == kSenderReport) {
    visitor.report({read_32(content), read_64(content + 4), read_32(content + 12),
                    read_32(content + 16), read_32(content + 20)});
  } else if (one.type == kGoodbye) {
    for (size_t i = 0; i < one.count; ++i) visitor.bye(read_32(content + i * kSsrcBytes));
  }
}

void write_block(uint8_t* to, const report_block& block) {
  write_32(to, block.ssrc);
  const int32_t lost = std::clamp(block.lost, -0x800000, 0x7fffff);
  write_32(to + 4, static_cast<uint32_t>(lost));
  to[4] = block.fraction_lost;
  write_32(to + 8, block.highest);
  write_32(to + 12, block.jitter);
  write_32(to + 16, block.last_report);
  write_32(to + 20, block.delay);
}

// The first number of an entry, and which of the sixteen behind it are asked for as well.
struct nack_entry {
  uint16_t first;
  uint16_t others;
};

// Takes what has room in one entry from the front of `sequences`; returns how many.
size_t take_entry(const uint16_t* sequences, size_t count, nack_entry& out) {
  out = {sequences[0], 0};
  size_t taken = 1;
  for (; taken < count; ++taken) {
    const auto behind = static_cast<uint16_t>(sequences[taken] - out.first);
    if (behind > 16) break;
    if (behind > 0) out.others = static_cast<uint16_t>(out.others | 1U << (behind - 1U));
  }
  return taken;
}

}  // namespace

bool parse_rtcp(const uint8_t* bytes, size_t size, rtcp_visitor& visitor) {
  part one{};
  size_t at = 0;
  while (at < size) {
    const size_t length = take_part(bytes + at, size - at, one);
    if (length == 0) return false;
    at += length;
  }
  for (at = 0; at < size;) {
    at += take_part(bytes + at, size - at, one);
    tell(one, visitor);
  }
  return size > 0;
}

bool rtcp_writer::receiver_report(uint32_t ssrc, const report_block* blocks, size_t count) {
  const size_t before = size_;
  do {
    const size_t here = std::min(count, kMaxBlocks);
    uint8_t* to = begin(kHeaderBytes + kSsrcBytes + here * kBlockBytes, here, kReceiverReport);
    if (to == nullptr) {
      size_ = before;
      return false;
    }
    write_32(to, ssrc);
    to += kSsrcBytes;
    for (size_t i = 0; i < here; ++i) write_block(to + i * kBlockBytes, blocks[i]);
    blocks += here;
    count -= here;
  } while (count > 0);
  return true;
}

bool rtcp_writer::cname(uint32_t ssrc, std::string_view name) {
  if (name.size() > kMaxNameBytes) return false;
  const size_t item = 2 + name.size();
  // At least one zero ends the list, and the chunk ends on a word.
  const size_t chunk = (kSsrcBytes + item) / 4 * 4 + 4;
  uint8_t* const to = begin(kHeaderBytes + chunk, 1, kSourceDescription);
  if (to == nullptr) return false;
  std::memset(to, 0, chunk);
  write_32(to, ssrc);
  to[4] = kCnameItem;
  to[5] = static_cast<uint8_t>(name.size());
  if (!name.empty()) std::memcpy(to + 6, name.data(), name.size());
  return true;
}

bool rtcp_writer::picture_loss(uint32_t ssrc, uint32_t of) {
  uint8_t* const to = begin(12, kPictureLoss, kPayloadFeedback);
  if (to == nullptr) return false;
  write_32(to, ssrc);
  write_32(to + 4, of);
  return true;
}

bool rtcp_writer::nack(uint32_t ssrc, uint32_t of, const uint16_t* sequences, size_t count) {
  nack_entry entry{};
  size_t entries = 0;
  for (size_t at = 0; at < count; ++entries) at += take_entry(sequences + at, count - at, entry);
  if (entries == 0) return false;
  uint8_t* to = begin(kHeaderBytes + kSourcesBytes + entries * kNackEntryBytes, kGenericNack,
                      kTransportFeedback);
  if (to == nullptr) return false;
  write_32(to, ssrc);
  write_32(to + 4, of);
  to += kSourcesBytes;
  for (size_t at = 0; at < count; to += kNackEntryBytes) {
    at += take_entry(sequences + at, count - at, entry);
    write_16(to, entry.first);
    write_16(to + 2, entry.others);
  }
  return true;
}

bool rtcp_writer::transport_wide(uint32_t ssrc, uint32_t of, const uint8_t* content, size_t size) {
  uint8_t* const to =
      begin(kHeaderBytes + kSourcesBytes + size, kTransportWide, kTransportFeedback);
  if (to == nullptr) return false;
  write_32(to, ssrc);
  write_32(to + 4, of);
  std::memcpy(to + kSourcesBytes, content, size);
  return true;
}

uint8_t* rtcp_writer::begin(size_t bytes, size_t count, uint8_t type) {
  if (capacity_ - size_ < bytes) return nullptr;
  uint8_t* const to = buffer_ + size_;
  to[0] = static_cast<uint8_t>(kVersionBits | count);
  to[1] = type;
  write_16(to + 2, static_cast<uint32_t>(bytes / 4 - 1));
  size_ += bytes;
  return to + kHeaderBytes;
}

}  // namespace zelta::core_service::rtp
