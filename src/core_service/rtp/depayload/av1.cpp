// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/av1.h"

#include <cstring>

namespace zelta::core_service::rtp {
namespace {

// AV1, section 6.2.2.
constexpr unsigned kSequenceHeader = 1;
constexpr unsigned kTemporalDelimiter = 2;
constexpr unsigned kFrameHeader = 3;
constexpr unsigned kTileGroup = 4;
constexpr unsigned kFrame = 6;
constexpr unsigned kTileList = 8;  // of still light fields: receivers ignore it

// Sizes become known only with an OBU's last fragment. AV1, section 4.10.5, lets them take more
// bytes than they need for just this.
constexpr size_t kSizeBytes = 4;
static_assert(picture_depayloader::kMostBytes < size_t{1} << 7 * kSizeBytes);

// Of an OBU header, section 5.3.2.
constexpr unsigned kForbidden = 0x80;
constexpr unsigned kHasExtension = 0x04;
constexpr unsigned kHasSize = 0x02;

void write_size(uint8_t* to, size_t bytes) {
  for (size_t i = 0; i < kSizeBytes; ++i) {
    const unsigned more = i + 1 < kSizeBytes ? 0x80U : 0U;
    to[i] = static_cast<uint8_t>((bytes >> 7 * i & 0x7fU) | more);
  }
}

}  // namespace

// Section 4.4 of the payload format: the aggregation header, then OBUs or fragments of them.
void av1_depayloader::add(byte_reader in, bool /*lost*/) {
  const unsigned header = in.byte();
  const bool continues = (header & 0x80U) != 0;
  const bool continued = (header & 0x40U) != 0;
  const unsigned elements = header >> 4U & 3U;  // 0: unknown, each has its length
  if (in.left() == 0 || continues != in_obu_) return discard();
  for (unsigned element = 1; in.left() > 0; ++element) {
    const size_t bytes = element == elements ? in.left() : in.leb128();
    const uint8_t* const from = in.take(bytes);
    const bool last = in.left() == 0;
    const bool missing = last && elements != 0 && element != elements;
    if (!in.ok() || missing) return discard();
    if (!in_obu_ && !begin_obu()) return;
    if (!append(from, bytes)) return;
    if (!(last && continued) && !end_obu()) return;
  }
}

void av1_depayloader::close() {
  if (in_obu_) discard();
  if (has_sequence_ && begins_with_key_) mark_key();
  in_obu_ = false;
  has_sequence_ = false;
  has_frame_ = false;
  begins_with_key_ = false;
}

bool av1_depayloader::begin_obu() {
  constexpr uint8_t kUnknownYet[kSizeBytes] = {};
  obu_at_ = size();
  in_obu_ = append(kUnknownYet, sizeof kUnknownYet);
  return in_obu_;
}

// The OBU came behind room for its size; the size goes between its header and its content, whose
// place stays unless the OBU brought a size of its own.
bool av1_depayloader::end_obu() {
  in_obu_ = false;
  uint8_t* const obu = data() + obu_at_;
  byte_reader in(obu + kSizeBytes, size() - obu_at_ - kSizeBytes);
  const unsigned header = in.byte();
  const bool extended = (header & kHasExtension) != 0;
  const uint8_t extension = extended ? in.byte() : uint8_t{0};
  const bool sized = (header & kHasSize) != 0;
  const size_t own_size = sized ? in.leb128() : in.left();
  const unsigned type = header >> 3U & 0x0fU;
  const bool whole = in.ok() && own_size == in.left() && (header & kForbidden) == 0;
  if (!whole || !look_at(type, in)) {
    discard();
    return false;
  }
  if (type == kTemporalDelimiter || type == kTileList) {
    shorten(obu_at_);
    return true;
  }
  const size_t header_bytes = extended ? 2 : 1;
  uint8_t* const content = obu + header_bytes + kSizeBytes;
  if (sized) std::memmove(content, in.rest(), in.left());
  obu[0] = static_cast<uint8_t>(header | kHasSize);
  if (extended) obu[1] = extension;
  write_size(obu + header_bytes, in.left());
  shorten(obu_at_ + header_bytes + kSizeBytes + in.left());
  return true;
}

bool av1_depayloader::look_at(unsigned type, byte_reader content) {
  switch (type) {
    case kSequenceHeader:
      has_sequence_ = true;
      reduced_still_picture_ = (content.byte() & 0x08U) != 0;  // section 5.5.1
      return content.ok();
    case kFrameHeader:
    case kFrame: {
      // Section 5.9.2: show_existing_frame, and two bits of frame_type, of which 0 is a key frame.
      const bool key = (content.byte() & 0xe0U) == 0 || reduced_still_picture_;
      if (!has_frame_) begins_with_key_ = key;
      has_frame_ = true;
      return content.ok();
    }
    case kTileGroup:
      // Without the header of its frame nobody can read it.
      return has_frame_;
    default:
      return true;
  }
}

}  // namespace zelta::core_service::rtp
