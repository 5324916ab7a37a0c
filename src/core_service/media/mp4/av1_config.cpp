// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/mp4/av1_config.h"

#include <cstddef>

#include "core_service/media/bit_reader.h"

namespace zelta::core_service::media::mp4 {
namespace {

constexpr unsigned kSequenceHeader = 1;
constexpr uint32_t kSrgb = 1;        // colour primaries of BT.709
constexpr uint32_t kSrgbCurve = 13;  // and these with the identity matrix: 4:4:4 without a word
constexpr uint32_t kSelectedPerPicture = 2;

// An unsigned number of as many bits as zeros stand before it (section 4.10.3).
void skip_uvlc(bit_reader& in) {
  unsigned zeros = 0;
  while (zeros < 32 && !in.flag()) ++zeros;
  in.skip(zeros < 32 ? zeros : 0);
}

// Of the first operating point, which decodes everything.
struct sequence {
  uint32_t profile = 0;
  uint32_t level = 0;
  uint32_t tier = 0;
  bool high_bit_depth = false;
  bool twelve_bit = false;
  bool monochrome = false;
  uint32_t subsampling = 3;  // x, y
  uint32_t position = 0;
};

// AV1 Bitstream & Decoding Process, section 5.5.1, up to the operating points' end.
void read_points(bit_reader& in, sequence& out) {
  const bool timing = in.flag();
  uint32_t delay_bits = 0;
  bool decoder_model = false;
  if (timing) {
    in.read(32);
    in.read(32);
    if (in.flag()) skip_uvlc(in);
    decoder_model = in.flag();
    if (decoder_model) {
      delay_bits = in.read(5) + 1;
      in.read(32);
      in.read(5 + 5);
    }
  }
  const bool display_delay = in.flag();
  const uint32_t points = in.read(5) + 1;
  for (uint32_t i = 0; i < points; ++i) {
    in.read(12);
    const uint32_t level = in.read(5);
    const uint32_t tier = level > 7 ? in.read(1) : 0;
    if (i == 0) out.level = level;
    if (i == 0) out.tier = tier;
    if (decoder_model && in.flag()) {
      in.read(delay_bits);
      in.read(delay_bits);
      in.read(1);
    }
    if (display_delay && in.flag()) in.read(4);
  }
}

// The size of pictures, and the tools, up to the colours.
void skip_tools(bit_reader& in, bool reduced) {
  const uint32_t width_bits = in.read(4) + 1;
  const uint32_t height_bits = in.read(4) + 1;
  in.read(width_bits);
  in.read(height_bits);
  if (!reduced && in.flag()) in.read(4 + 3);  // numbers of frames
  in.read(3);
  if (!reduced) {
    in.read(4);
    const bool order = in.flag();
    if (order) in.read(2);
    const uint32_t screen = in.flag() ? kSelectedPerPicture : in.read(1);
    if (screen > 0 && !in.flag()) in.read(1);  // motion vectors of whole pixels
    if (order) in.read(3);
  }
  in.read(3);
}

// Section 5.5.2.
void read_colours(bit_reader& in, sequence& out) {
  out.high_bit_depth = in.flag();
  out.twelve_bit = out.profile == 2 && out.high_bit_depth && in.flag();
  out.monochrome = out.profile != 1 && in.flag();
  uint32_t primaries = 2;
  uint32_t curve = 2;
  uint32_t matrix = 2;
  if (in.flag()) {
    primaries = in.read(8);
    curve = in.read(8);
    matrix = in.read(8);
  }
  if (out.monochrome) return;
  if (primaries == kSrgb && curve == kSrgbCurve && matrix == 0) {
    out.subsampling = 0;
    return;
  }
  in.read(1);  // range
  if (out.profile == 1) out.subsampling = 0;
  if (out.profile == 2 && !out.twelve_bit) out.subsampling = 2;
  if (out.profile == 2 && out.twelve_bit) out.subsampling = in.flag() ? 2 + in.read(1) : 0;
  if (out.subsampling == 3) out.position = in.read(2);
}

std::vector<uint8_t> config_of(const uint8_t* obu, size_t whole, const uint8_t* payload,
                               size_t bytes) {
  bit_reader in(payload, bytes, bit_reader::escapes::kNone);
  sequence s;
  s.profile = in.read(3);
  in.read(1);
  const bool reduced = in.flag();
  if (reduced) {
    s.level = in.read(5);
  } else {
    read_points(in, s);
  }
  skip_tools(in, reduced);
  read_colours(in, s);
  if (in.failed()) return {};
  std::vector<uint8_t> config{
      0x81, static_cast<uint8_t>(s.profile << 5U | s.level),
      static_cast<uint8_t>(s.tier << 7U | (s.high_bit_depth ? 0x40U : 0U) |
                           (s.twelve_bit ? 0x20U : 0U) | (s.monochrome ? 0x10U : 0U) |
                           s.subsampling << 2U | s.position),
      0};
  config.insert(config.end(), obu, obu + whole);
  return config;
}

}  // namespace

std::vector<uint8_t> av1_config_of(const std::vector<uint8_t>& unit) {
  for (size_t at = 0; at < unit.size();) {
    const size_t begin = at;
    const unsigned header = unit[at++];
    if ((header & 4U) != 0) ++at;       // of layers
    if ((header & 2U) == 0) return {};  // without a size
    size_t bytes = 0;
    for (unsigned shift = 0;; shift += 7) {
      if (at >= unit.size() || shift > 28) return {};
      const unsigned part = unit[at++];
      bytes |= static_cast<size_t>(part & 0x7FU) << shift;
      if ((part & 0x80U) == 0) break;
    }
    if (bytes > unit.size() - at) return {};
    if ((header >> 3U & 15U) == kSequenceHeader) {
      return config_of(unit.data() + begin, at + bytes - begin, unit.data() + at, bytes);
    }
    at += bytes;
  }
  return {};
}

}  // namespace zelta::core_service::media::mp4
